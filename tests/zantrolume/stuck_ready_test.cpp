// A ready bit that sticks under the file system: at each wait of each operation that changes flash,
// over the real driver and four blocks of a simulated complex.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "flashfs/check_flags.h"
#include "flashfs/flashfs.h"
#include "sim/chassis.h"
#include "sim/counts.h"
#include "sim/cpld.h"
#include "sim/flash.h"
#include "tests/support/flashfs_fixture.h"
#include "tests/support/output_capture.h"
#include "tests/zantrolume/selected_complex.h"
#include "volume/volume.h"
#include "zantrolume/zantrolume_cpld.h"

namespace {

using test_support::contents_of;
using test_support::output_of;
using zantrolume_test::selected_complex;

constexpr uint16_t block_count = 4;
constexpr uint32_t block_size_bytes = 0x20000;
// All words are programmed in the same four cycles, so after those of the first ones a step that is
// no multiple of four meets every kind of wait.
#ifdef ZANTROLUME_EMULATOR
constexpr uint64_t first_cycles = 4;
constexpr uint64_t step = 801;
#else
constexpr uint64_t first_cycles = 40;
constexpr uint64_t step = 41;
#endif

uint64_t next_cycle(uint64_t cycle) {
  return cycle + (cycle < first_cycles ? 1 : step);
}

const std::string kept_content(3000, 'k');

class stuck_ready : public testing::Test {
 protected:
  stuck_ready() : complex_(4) {
    driver_ = {zantrolume_cpld_read,        zantrolume_cpld_write, zantrolume_cpld_erase,
               zantrolume_cpld_uninit,      zantrolume_cpld_lock,  zantrolume_cpld_unlock,
               zantrolume_cpld_lock_master, block_count,           blocks_};
    for (uint32_t i = 0; i < block_count; i++) {
      blocks_[i] = {i * block_size_bytes, block_size_bytes, 0};
    }
    EXPECT_EQ(mount(flashfs_check_full), 0);
    EXPECT_EQ(write("keep", kept_content), 0);
    EXPECT_EQ(write("file", std::string(100, 'f')), 0);
    start_.assign(complex_.flash().bytes(),
                  complex_.flash().bytes() + block_count * block_size_bytes);
  }
  ~stuck_ready() override {
    files_.detach();
  }

  int32_t mount(uint32_t check_flags) {
    int32_t result = -1;
    output_of([&] { result = files_.mount({{&driver_, this}}, check_flags); });
    return result;
  }
  int32_t write(const char* path, const std::string& content) {
    return files_.write_file(path, content, ifs_open_write | ifs_open_create);
  }
  void restart() {
    std::copy(start_.begin(), start_.end(), complex_.flash().bytes());
    ASSERT_EQ(mount(flashfs_check_quick), 0);
  }
  void power_on() {
    complex_.node().set_ready_low(static_cast<int>(complex_.index()), 0);
    complex_.chassis().power_on();
  }
  uint64_t cycles_of(const std::function<int32_t()>& act) {
    restart();
    complex_.chassis().clear_counts();
    output_of([&] { EXPECT_EQ(act(), 0); });
    const sim::access_counts counts = complex_.chassis().counts();
    return counts.command_cycles + counts.programs;
  }

  // Runs the operation with the bit sticking after each of its cycles in turn.
  void expect_reported_at_each_wait(const std::function<int32_t()>& act, bool keeps_files = true) {
    const uint64_t cycles = cycles_of(act);
    ASSERT_GT(cycles, 4U);
    for (uint64_t n = 1; n <= cycles; n = next_cycle(n)) {
      SCOPED_TRACE("cycle " + std::to_string(n) + " of " + std::to_string(cycles));
      restart();
      complex_.node().set_ready_never(static_cast<int>(complex_.index()), n);
      int32_t result = 0;
      int error = 0;
      const std::string said = output_of([&] {
        result = act();
        error = errno;
      });
      EXPECT_EQ(result, -1);
      EXPECT_EQ(error, EIO);
      EXPECT_NE(said.find("Timeout waiting for flash ready: bit 0x4\n"), std::string::npos) << said;
      EXPECT_NE(said.find(": Poll Timeout\n"), std::string::npos) << said;
      EXPECT_EQ(files_.state()->ready, 0U);
      EXPECT_EQ(files_.state()->sctr_bufs_allocated, 0U);
      power_on();
      ASSERT_EQ(mount(flashfs_check_full), 0);
      if (keeps_files) {
        EXPECT_EQ(contents_of(files_, "keep"), kept_content);
      }
    }
  }

  selected_complex complex_;
  flash_block_info blocks_[block_count];
  flash_driver_info driver_;
  volume::file_system files_;
  std::vector<uint8_t> start_;
};

TEST_F(stuck_ready, removing_marks_down_and_the_next_start_takes_the_flash) {
  expect_reported_at_each_wait([this] { return files_.remove("file"); });
}

TEST_F(stuck_ready, overwriting_marks_down_and_the_next_start_takes_the_flash) {
  expect_reported_at_each_wait([this] { return write("file", "short"); });
}

TEST_F(stuck_ready, making_a_directory_marks_down_and_the_next_start_takes_the_flash) {
  expect_reported_at_each_wait([this] { return files_.mkdir("made"); });
}

TEST_F(stuck_ready, formatting_fails_and_the_next_start_takes_the_flash) {
  expect_reported_at_each_wait([this] { return files_.format(); }, false);
}

// The check brings a block into service and writes the root's slot.
TEST_F(stuck_ready, checking_an_erased_flash_fails_and_the_next_start_takes_the_flash) {
  std::fill(start_.begin(), start_.end(), uint8_t{0xFF});
  for (uint64_t n = 1; n <= 60; n = next_cycle(n)) {
    SCOPED_TRACE("cycle " + std::to_string(n));
    files_.detach();
    std::copy(start_.begin(), start_.end(), complex_.flash().bytes());
    complex_.node().set_ready_never(static_cast<int>(complex_.index()), n);
    EXPECT_EQ(mount(flashfs_check_full), -1);
    EXPECT_EQ(files_.state()->ready, 0U);
    EXPECT_EQ(files_.state()->sctr_bufs_allocated, 0U);
    power_on();
    EXPECT_EQ(mount(flashfs_check_full), 0);
  }
}

}  // namespace
