// A test that has a mounted flash file system on flashes in memory. It frees what the product keeps
// for the life of the process, and asserts at the end of every test that no sector buffer is out
// and that the flashes saw no deviation.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "flashfs/check_flags.h"
#include "flashfs/flashfs.h"
#include "sim/chassis.h"
#include "sim/power.h"
#include "tests/support/ram_flash.h"
#include "volume/files.h"
#include "volume/volume.h"

namespace test_support {

constexpr int64_t fixture_time = 1800000000;  // seconds since the epoch

inline volume::device device_of(const ram_flash& flash) {
  return {flash.driver(), flash.handle()};
}

// The contents of a file; "<errno n>" when it cannot be read.
std::string contents_of(const volume::files& files, const std::string& path);

class flashfs_fixture : public testing::Test {
 protected:
  flashfs_fixture();
  ~flashfs_fixture() override;
  void TearDown() override;

  // Makes erased devices; nothing is registered yet. They share one supply.
  void make_flash(const std::vector<ram_block>& device_0);
  void make_flash(const std::vector<ram_block>& device_0, const std::vector<ram_block>& device_1);
  // Registers a file system on the devices as "bootflash"; what it prints is dropped. Returns its
  // fsid or -1.
  int32_t initialize();
  // The check through the switch. Returns its result; what it printed is in check_output().
  int32_t check(uint32_t flags = flashfs_check_quick);
  // initialize and check, both asserted to succeed.
  void mount(uint32_t flags = flashfs_check_quick);
  // make_flash and mount, on `count` erased blocks.
  void mount_new(size_t count = 8, uint32_t size_bytes = 0x20000);
  // Gives the file system back and mounts the flash again, as the next run would.
  void remount(uint32_t flags = flashfs_check_quick);
  // Gives the file system back; the flash stays.
  void unmount();
  // Whether the flash passes a check, quick and not, that changes nothing on it; says what differs.
  testing::AssertionResult flash_is_consistent();

  volume::file_system& files() {
    return files_;
  }
  flashfs* fs() {
    return files_.state();
  }
  ram_flash& device(size_t number = 0) {
    return *devices_.at(number);
  }
  sim::power& supply() {
    return supply_;
  }
  const std::string& check_output() const {
    return check_output_;
  }
  // Writes a whole new file through the switch. Returns 0 or -1 with errno.
  int write_file(const std::string& path, const std::string& contents);
  // The contents of a file, read through the switch; on failure "<errno n>".
  std::string read_file(const std::string& path);

  // Tests that break these on purpose clear them.
  bool expect_no_deviations_ = true;
  bool expect_no_buffers_out_ = true;

 private:
  sim::chassis chassis_;
  sim::power supply_;
  std::vector<std::unique_ptr<ram_flash>> devices_;
  volume::file_system files_;
  std::string check_output_;
};

}  // namespace test_support
