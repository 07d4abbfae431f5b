// Truncation of an open file to a length.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "flashfs/check_flags.h"
#include "flashfs/control_codes.h"
#include "flashfs/flashfs.h"
#include "sim/flash.h"
#include "sim/power.h"
#include "tests/flashfs/flashfs_recipe.h"
#include "tests/flashfs/operations_fixture.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"

namespace {

using namespace test_support;

class control_truncate : public operations_fixture {
 protected:
  int32_t truncate(int32_t fd, uint32_t length) {
    return fioctl(fd, flashfs_fioctl_truncate, &length);
  }
};

}  // namespace

TEST_F(control_truncate, every_shorter_length_keeps_just_its_bytes) {
  const std::string text = pattern(3 * 2048 + 100);
  for (const uint32_t length :
       {0U, 1U, 100U, 2047U, 2048U, 2049U, 4096U, 6143U, 6144U, 6145U, 6243U, 6244U}) {
    make();
    put("a", text);
    const int32_t fd = open("a", open_rw);
    EXPECT_EQ(truncate(fd, length), 0) << length;
    EXPECT_EQ(seek(fd, 0, ifs_seek_end), static_cast<int32_t>(length));
    EXPECT_EQ(seek(fd, 0), 0);
    EXPECT_TRUE(read_text(fd, 10000) == text.substr(0, length)) << length;
    EXPECT_EQ(write(fd, "new"), 3);
    EXPECT_EQ(close(fd), 0);
    EXPECT_EQ(size_of("a"), length + 3);
    EXPECT_TRUE(flash_is_consistent()) << length;
  }
}

TEST_F(control_truncate, the_position_stays) {
  make();
  put("a", pattern(5000));
  const int32_t fd = open("a", open_rw);
  EXPECT_EQ(seek(fd, 4500), 4500);
  EXPECT_EQ(truncate(fd, 100), 0);
  EXPECT_EQ(seek(fd, 0, ifs_seek_current), 4500);
  EXPECT_EQ(read_text(fd, 10), "");
  EXPECT_EQ(close(fd), 0);
}

TEST_F(control_truncate, remembered_places_do_not_outlive_the_sectors) {
  make();
  put("a", pattern(5 * 2048));
  const int32_t fd = open("a", open_rw);
  EXPECT_EQ(seek(fd, 4 * 2048), 4 * 2048);
  EXPECT_EQ(read_text(fd, 10).size(), 10U);
  EXPECT_EQ(truncate(fd, 2048), 0);
  EXPECT_EQ(read_text(fd, 10), "");
  EXPECT_EQ(seek(fd, 0, ifs_seek_end), 2048);
  EXPECT_EQ(write(fd, "tail"), 4);
  EXPECT_EQ(truncate(fd, 0), 0);
  EXPECT_EQ(seek(fd, 0), 0);
  EXPECT_EQ(write(fd, "fresh"), 5);
  EXPECT_EQ(close(fd), 0);
  EXPECT_EQ(get("a"), "fresh");
}

TEST_F(control_truncate, the_current_size_changes_nothing_and_a_larger_one_is_invalid) {
  make();
  put("a", pattern(3000));
  put("empty", "");
  const std::vector<uint8_t> before = device().flash().snapshot();
  const int32_t fd = open("a", open_rw);
  EXPECT_EQ(truncate(fd, 3000), 0);
  for (const uint32_t length : {3001U, 100000U, 0x80000000U, 0xFFFFFFFFU}) {
    EXPECT_EQ(error_of(truncate(fd, length)), EINVAL) << length;
  }
  EXPECT_EQ(close(fd), 0);
  const int32_t empty = open("empty", open_rw);
  EXPECT_EQ(truncate(empty, 0), 0);
  EXPECT_EQ(error_of(truncate(empty, 1)), EINVAL);
  EXPECT_EQ(close(empty), 0);
  EXPECT_EQ(device().flash().snapshot(), before);
}

TEST_F(control_truncate, it_needs_the_write_flag_and_a_descriptor) {
  make();
  put("a", "text");
  for (const uint32_t flags : {ifs_open_read, ifs_open_truncate}) {
    const int32_t fd = open("a", flags);
    EXPECT_EQ(error_of(truncate(fd, 0)), EBADF);
    EXPECT_EQ(close(fd), 0);
  }
  EXPECT_EQ(error_of(truncate(0, 0)), EBADF);
}

TEST_F(control_truncate, no_date_is_committed) {
  make();
  put("a", pattern(3000));
  set_clock(recipe_time + 50);
  const int32_t fd = open("a", open_rw);
  EXPECT_EQ(truncate(fd, 100), 0);
  EXPECT_EQ(truncate(fd, 0), 0);
  EXPECT_EQ(close(fd), 0);
  ppc_stat status{};
  EXPECT_EQ(stat("a", &status), 0);
  EXPECT_EQ(status.modification_date, recipe_time);
}

TEST_F(control_truncate, the_cut_sector_is_copied_before_the_old_one_and_the_rest_goes) {
  make();
  put("a", pattern(3 * 2048));
  ASSERT_EQ(list_text(fs(), 2), "0:2.1/255 1:2.2/255 2:2.3/255");
  const int32_t fd = open("a", open_rw);
  flash_recorder recorder(fs());
  EXPECT_EQ(truncate(fd, 2148), 0);
  EXPECT_EQ(recorder.text(), "2.4 2.2+ 2.3+");
  EXPECT_EQ(list_text(fs(), 2), "0:2.1/255 1:2.4/255");
  EXPECT_EQ(truncate(fd, 2048), 0);  // a whole sector stays where it is
  EXPECT_EQ(list_text(fs(), 2), "0:2.1/255");
  EXPECT_EQ(close(fd), 0);
}

TEST_F(control_truncate, bytes_behind_the_kept_ones_are_erased) {
  make();
  put("a", pattern(2048));
  const int32_t fd = open("a", open_rw);
  EXPECT_EQ(truncate(fd, 10), 0);
  EXPECT_EQ(close(fd), 0);
  const flashfs_sctr_ptr pointer = entry(fileid_of("a"))->sctr_list->sctr_ptr;
  const uint8_t* at = image().sector_at(pointer.block_num, pointer.sctr_num);
  EXPECT_EQ(at[2] << 8 | at[3], 10);
  EXPECT_TRUE(std::all_of(at + 14, at + 2052, [](uint8_t byte) { return byte == 0xFF; }));
}

TEST_F(control_truncate, it_takes_the_reserve_of_a_full_device) {
  make({4, 4, 4});
  const int32_t fd = open("a", open_new);
  const int32_t size = write(fd, pattern(100000));
  ASSERT_GT(size, 0);
  EXPECT_EQ(truncate(fd, static_cast<uint32_t>(size - 1)), 0);
  EXPECT_EQ(seek(fd, 0, ifs_seek_end), size - 1);
  EXPECT_EQ(close(fd), 0);
  EXPECT_TRUE(flash_is_consistent());
}

TEST_F(control_truncate, a_power_cut_loses_nothing_that_is_kept) {
  const std::string text = pattern(3 * 2048);
  for (const auto kind : {sim::cut_kind::before, sim::cut_kind::after}) {
    for (uint64_t n = 1;; n++) {
      make();
      put("a", text);
      const int32_t fd = open("a", open_rw);
      supply().restore();
      supply().cut_at(n, kind);
      truncate(fd, 1000);
      const bool cut = supply().dead();
      supply().restore();
      unmount();
      mount(flashfs_check_full);
      const std::string found = get("a");
      EXPECT_TRUE(found.substr(0, 1000) == text.substr(0, 1000)) << n;
      EXPECT_TRUE(text.substr(0, found.size()) == found) << n << " " << found.size();
      if (!cut) {
        break;
      }
      n += n > 10 ? 40 : 0;
    }
  }
}
