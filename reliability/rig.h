// A file system on small flashes in memory that can be mounted again and again, as a row of runs of
// the program would: each mount knows only what the flash holds.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "flashfs/flashfs.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"
#include "volume/volume.h"

namespace reliability {

// The size in bytes of an erase block with this many sectors.
uint32_t block_of_sectors(uint32_t sectors);

// A file or directory as a user sees it.
struct tree_node {
  uint16_t mode = 0;
  uint32_t date = 0;
  std::string content;  // of a file; "<errno n>" when it cannot be read

  bool operator==(const tree_node&) const = default;
};
// By path, without a leading slash.
using tree = std::map<std::string, tree_node>;

class rig {
 public:
  explicit rig(const std::vector<test_support::ram_block>& blocks);
  ~rig();
  rig(const rig&) = delete;
  rig& operator=(const rig&) = delete;

  // Forgets everything in memory and mounts what the flash holds. Returns the result of the check;
  // what it printed is in `output`.
  int32_t mount(uint32_t check_flags);
  void unmount();
  // The same without a check: registered, not ready.
  void register_only();
  // Runs the check of the registered file system.
  int32_t check(uint32_t check_flags);

  volume::file_system& files() {
    return files_;
  }
  flashfs* fs() {
    return files_.state();
  }
  test_support::ram_flash& device() {
    return device_;
  }
  sim::power& supply() {
    return supply_;
  }
  std::vector<uint8_t> snapshot() {
    return device_.flash().snapshot();
  }
  void restore(const std::vector<uint8_t>& contents) {
    device_.flash().restore(contents);
  }

  // Everything that can be reached from the root. No directory is entered twice: damaged ones can
  // contain each other.
  tree walk();

  // Whole operations through the switch; 0 or a negative result with errno.
  int32_t write(const std::string& path, const std::string& content, uint32_t oflags,
                int32_t position = 0);
  int32_t make_file(const std::string& path, const std::string& content);
  int32_t truncate(const std::string& path, uint32_t length);

  // What the file system has printed in calls of this object since the last mount or call of this.
  std::string take_output();

  // Standard output is kept by the rig while one of these lives.
  class capture : public test_support::redirected_output {
   public:
    explicit capture(rig& owner) : redirected_output(owner.kept_.stream()) {}
  };

 private:
  test_support::kept_output kept_;
  sim::power supply_;
  test_support::ram_flash device_;
  volume::file_system files_;
  uint32_t mount_flags_ = flashfs_check_quick;
};

// Bytes that differ from place to place.
std::string pattern(size_t length, uint32_t seed);

}  // namespace reliability
