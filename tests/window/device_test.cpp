// The window over a device node. A sparse file stands in for the device: it begins as zeros, so it
// is a window in which every complex is in reset and no flash is ever ready.
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <fstream>
#include <string>

#include "flashfs/flash_driver.h"
#include "tests/support/run_program.h"
#include "window/clock.h"
#include "window/window.h"
#include "zantrolume/zantrolume_cpld.h"

namespace {

constexpr off_t first_node_offset = 0x10150000;

// A mapped stand-in, and the selection of its first complex.
class window_device_stand_in : public testing::Test {
 protected:
  void SetUp() override {
    const std::string path = folder.file("node");
    std::ofstream(path).close();
    ASSERT_EQ(truncate(path.c_str(), first_node_offset + static_cast<off_t>(cpld_window_size)), 0);
    fd = zantrolume_open_vexmor_device(path.c_str());
    ASSERT_GE(fd, 0);
    base = window_map(fd, cpld_window_size, first_node_offset);
    ASSERT_NE(base, MAP_FAILED);
    vexmor_mapped_ptr = base;
    cpld_flash_access_selection = cpld_data_window;
    flash_status_bit = 2;
    verbose_mode = 0;
  }

  void TearDown() override {
    EXPECT_EQ(window_unmap(base, cpld_window_size), 0);
    EXPECT_EQ(close(fd), 0);
    vexmor_mapped_ptr = nullptr;
  }

  // What the device itself holds at an offset of the window, in the host's order.
  template <typename value>
  value device_value(uint32_t offset) const {
    value result = 0;
    EXPECT_EQ(pread(fd, &result, sizeof(result), first_node_offset + static_cast<off_t>(offset)),
              static_cast<ssize_t>(sizeof(result)));
    return result;
  }

  test_support::temporary_folder folder;
  int fd = -1;
  window_base base = nullptr;
};

}  // namespace

TEST(window_device, a_missing_node_gives_its_errno) {
  errno = 0;
  EXPECT_EQ(zantrolume_open_vexmor_device("/dev/no-such-node"), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST(window_device, mapping_what_cannot_be_mapped_gives_all_bits_set_and_errno) {
  errno = 0;
  EXPECT_EQ(window_map(-1, cpld_window_size, first_node_offset), MAP_FAILED);
  EXPECT_EQ(errno, EBADF);
}

TEST(window_device, the_clock_is_the_wall_clock) {
  const int64_t before = time(nullptr);
  const int64_t now = window_clock();
  EXPECT_GE(now, before);
  EXPECT_LE(now, static_cast<int64_t>(time(nullptr)));
}

TEST_F(window_device_stand_in, a_store_is_one_register_of_its_width_in_host_order) {
  window_store32(base, cpld_flash_page, 0x01020304U);
  EXPECT_EQ(device_value<uint32_t>(cpld_flash_page), 0x01020304U);
  EXPECT_EQ(device_value<uint32_t>(cpld_flash_page + 4), 0U);
  EXPECT_EQ(window_load32(base, cpld_flash_page), 0x01020304U);

  window_store16(base, cpld_data_window, 0xABCD);
  EXPECT_EQ(device_value<uint16_t>(cpld_data_window), 0xABCD);
  EXPECT_EQ(device_value<uint16_t>(cpld_data_window + 2), 0);
  EXPECT_EQ(window_load16(base, cpld_data_window), 0xABCD);
}

// Two descriptors of the node stand for two runs.
TEST_F(window_device_stand_in, one_process_has_the_device_until_it_lets_go) {
  EXPECT_EQ(window_lock(fd, false), 0);
  EXPECT_EQ(window_lock(fd, true), 0);
  const int other = window_open(folder.file("node").c_str());
  ASSERT_GE(other, 0);
  EXPECT_EQ(window_lock(other, false), 1);
  ASSERT_EQ(flock(fd, LOCK_UN), 0);
  EXPECT_EQ(window_lock(other, true), 0);
  EXPECT_EQ(window_lock(fd, false), 1);
  EXPECT_EQ(close(other), 0);
  EXPECT_EQ(window_lock(fd, false), 0);
}

TEST(window_device, a_device_without_locks_counts_as_taken) {
  EXPECT_EQ(window_lock(-1, false), 0);
  EXPECT_EQ(window_lock(-1, true), 0);
}

TEST_F(window_device_stand_in, the_reset_test_reads_the_run_state_register) {
  EXPECT_EQ(zantrolume_is_ppc_in_reset(base, 1), 1);
  window_store32(base, cpld_run_state, 0x2);
  EXPECT_EQ(zantrolume_is_ppc_in_reset(base, 1), 0);
  EXPECT_EQ(zantrolume_is_ppc_in_reset(base, 2), 1);
}

TEST_F(window_device_stand_in, the_high_byte_of_a_data_register_is_the_lower_flash_address) {
  window_store16(base, cpld_data_window, 0x4142);
  char buffer[2] = {};
  EXPECT_EQ(zantrolume_cpld_read(nullptr, 0, sizeof(buffer), buffer), flash_ok);
  EXPECT_EQ(buffer[0], 'A');
  EXPECT_EQ(buffer[1], 'B');
}

TEST_F(window_device_stand_in, an_erase_without_a_ready_bit_gives_up_after_one_to_two_seconds) {
  const int64_t start = window_clock();
  testing::internal::CaptureStdout();
  EXPECT_EQ(zantrolume_cpld_erase(nullptr, 1U << flash_sector_shift), flash_poll_timeout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Timeout waiting for flash ready: bit 0x2\n");
  EXPECT_LE(window_clock() - start, 4);
  // The first unlock cycle was the only one: the erase did not go on.
  EXPECT_EQ(window_load16(base, cpld_data_window + 0xAAA), 0xAA);
  EXPECT_EQ(window_load16(base, cpld_data_window + 0x554), 0);
}
