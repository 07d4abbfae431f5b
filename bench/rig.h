// What every measurement stands on: a simulated chassis with one complex selected, the product's
// file system mounted on its flash, the counting and timing of an operation, and the bus floor: a
// bare loop that makes the same accesses, at the same places and in the same order, through the
// same window and does nothing else.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "flashfs/check_flags.h"
#include "sim/chassis.h"
#include "sim/counts.h"
#include "sim/flash.h"
#include "tests/support/output_capture.h"
#include "volume/files.h"

namespace bench {

constexpr uint32_t usable_bytes = 216U << 17;  // of the flash: what the file system gets
constexpr uint32_t usable_sectors = 215 * 63;  // without those of the spare block
constexpr uint32_t sector_bytes = 2048;        // of file data
constexpr int64_t clock_seconds = 1800000000;  // the clock stands still

[[noreturn]] void fail(const std::string& what);

struct measurement {
  sim::access_counts counts;
  double seconds = 0;        // processor time of the operation
  double floor_seconds = 0;  // processor time of the same accesses alone
};

std::FILE* null_output();  // /dev/null

// Standard output goes there while this lives.
class quiet : public test_support::redirected_output {
 public:
  quiet() : redirected_output(null_output()) {}
};

// One for each process. Every step that fails ends the process with a message.
class rig {
 public:
  rig();
  sim::nor_flash& flash() {
    return chassis_.flash(ppc);
  }

  // Erases the flash and mounts it.
  void make_new();
  // The first mount as the commands make it, later ones as a check of what is on flash now.
  void mount(uint32_t flags = flashfs_check_quick);
  // Forgets the maps; mount builds them again.
  void unmount();

  // The mounted file system.
  const volume::files& files() const {
    return files_;
  }
  // Makes directories and files in the mounted file system. Paths have no prefix.
  void make_directory(const std::string& path);
  void write_file(const std::string& path, uint32_t bytes, uint32_t open_flags);
  void create_file(const std::string& path, uint32_t bytes);
  // Files of 64 KiB in directories of 16 until so many percent of all sectors hold data.
  void fill(uint32_t percent);

  // Processor time of this process.
  static double processor_seconds();

  // Runs the operation once, then its floor.
  template <typename Operation>
  measurement measure(Operation&& operation) {
    begin_noting();
    chassis_.clear_counts();
    const double start = processor_seconds();
    operation();
    measurement result;
    result.seconds = processor_seconds() - start;
    result.counts = chassis_.counts();
    if (chassis_.deviations().total() != 0) {
      fail("the operation drove the hardware wrongly");
    }
    result.floor_seconds = run_floor(result.counts);
    return result;
  }

 private:
  static constexpr int ppc = 3;
  void begin_noting();
  double run_floor(const sim::access_counts& counts);

  sim::chassis chassis_;
  volume::files files_{"bootflash"};  // which the commands register
  bool registered_ = false;
};

// Calls a command function with the arguments. Returns its result.
int run_command(int (*command)(int argc, char* argv[]), const std::vector<std::string>& arguments);

}  // namespace bench
