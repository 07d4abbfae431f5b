// A test that has a volume over a small flash in memory.
#pragma once

#include <gtest/gtest.h>

#include "sim/chassis.h"
#include "tests/support/flashfs_fixture.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"
#include "volume/volume.h"

namespace volume_test {

constexpr uint32_t small_block = 32 + 6 * 2056;  // six sectors

using test_support::device_of;

class volume_fixture : public testing::Test {
 protected:
  volume_fixture() {
    chassis_.clock_hold(test_support::fixture_time);
    sim::install_chassis(&chassis_);
  }
  ~volume_fixture() override {
    volume_.detach();
    sim::install_chassis(nullptr);
  }
  // Four erased blocks, mounted.
  void mount_new() {
    ASSERT_EQ(mount(), 0);
  }
  int32_t mount(uint32_t check_flags = flashfs_check_quick) {
    const test_support::output_capture dropped;
    return volume_.mount({device_of(flash_)}, check_flags);
  }
  volume::file_system& files() {
    return volume_;
  }
  test_support::ram_flash& flash() {
    return flash_;
  }
  static int open_descriptors() {
    int count = 0;
    for (int32_t fd = 0; fd < ifs_max_descriptors; ++fd) {
      count += ifs_fd_is_valid(fd);
    }
    return count;
  }

 private:
  sim::chassis chassis_;
  test_support::ram_flash flash_{test_support::ram_blocks(4, small_block)};
  volume::file_system volume_;
};

}  // namespace volume_test
