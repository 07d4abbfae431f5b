// A reader in small pieces: each sector is read and verified once, and what is kept of it is never
// older than the flash.
#include "flashfs/kept_sector.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "flashfs/control_codes.h"
#include "flashfs/filemap.h"
#include "tests/flashfs/operations_fixture.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"

namespace {

using namespace test_support;

class kept : public operations_fixture {
 protected:
  static constexpr uint32_t length_ = 2 * 2048 + 300;

  // "a" of three sectors, opened.
  int32_t open_text(uint32_t oflags = ifs_open_read) {
    make();
    text_ = pattern(length_);
    put("a", text_);
    return open("a", oflags);
  }
  int32_t truncate(int32_t fd, uint32_t length) {
    return fioctl(fd, flashfs_fioctl_truncate, &length);
  }
  std::string text_;
};

}  // namespace

TEST_F(kept, a_reader_in_pieces_reads_each_sector_once) {
  const int32_t fd = open_text();
  device().clear_counts();
  std::string all;
  for (std::string part; !(part = read_text(fd, 100)).empty();) {
    all += part;
  }
  EXPECT_EQ(all, text_);
  EXPECT_EQ(device().counts().reads, 3U);
  EXPECT_EQ(device().counts().bytes_read, 3 * sizeof(flashfs_sector));
}

TEST_F(kept, a_piece_that_spans_two_sectors_keeps_the_second) {
  const int32_t fd = open_text();
  ASSERT_EQ(read_text(fd, 3000), text_.substr(0, 3000));
  device().clear_counts();
  EXPECT_EQ(read_text(fd, 500), text_.substr(3000, 500));
  ASSERT_EQ(seek(fd, 2100), 2100);
  EXPECT_EQ(read_text(fd, 10), text_.substr(2100, 10));
  EXPECT_EQ(device().counts().reads, 0U);
}

TEST_F(kept, two_readers_keep_their_own) {
  const int32_t fd = open_text();
  const int32_t other = open("a");
  for (uint32_t at = 0; at < 2000; at += 200) {
    EXPECT_EQ(read_text(fd, 200), text_.substr(at, 200));
    ASSERT_EQ(seek(other, static_cast<int32_t>(2048 + at)), static_cast<int32_t>(2048 + at));
    EXPECT_EQ(read_text(other, 20), text_.substr(2048 + at, 20));
  }
}

TEST_F(kept, what_the_descriptor_writes_is_read) {
  const int32_t fd = open_text(ifs_open_read | ifs_open_write);
  ASSERT_EQ(read_text(fd, 100), text_.substr(0, 100));
  ASSERT_EQ(write(fd, "written"), 7);
  ASSERT_EQ(seek(fd, 98), 98);
  EXPECT_EQ(read_text(fd, 11), text_.substr(98, 2) + "written" + text_.substr(107, 2));
}

TEST_F(kept, what_a_truncation_cuts_is_not_read) {
  const int32_t fd = open_text(ifs_open_read | ifs_open_write);
  ASSERT_EQ(read_text(fd, 100), text_.substr(0, 100));
  ASSERT_EQ(truncate(fd, 120), 0);
  EXPECT_EQ(read_text(fd, 100), text_.substr(100, 20));
}

TEST_F(kept, a_sector_that_garbage_collection_moves_is_read_where_it_lies) {
  const int32_t fd = open_text();
  ASSERT_EQ(read_text(fd, 100), text_.substr(0, 100));
  for (int i = 0; i < 40; i++) {
    put("b", pattern(5000, static_cast<uint32_t>(i)));
  }
  ASSERT_GT(device().counts().erases, 0U);
  EXPECT_EQ(read_text(fd, length_), text_.substr(100));
}

TEST_F(kept, after_marking_down_nothing_is_read) {
  const int32_t fd = open_text();
  const int32_t other = open("a");
  ASSERT_EQ(read_text(fd, 100), text_.substr(0, 100));
  device().fail(flash_call::read, 1, flash_operation_failed);
  EXPECT_EQ(read_text(other, 100), "<errno " + std::to_string(EIO) + ">");
  EXPECT_EQ(read_text(fd, 100), "<errno " + std::to_string(EINVAL) + ">");
}

TEST_F(kept, a_check_that_begins_ends_what_is_kept) {
  make();
  put("a", pattern(10));
  kept_sector one;
  const flashfs_sctr_list_ordered* entry = filemap_lookup(fs(), 2)->sctr_list;
  const flashfs_sector sector = {};
  one.keep(entry, sector);
  ASSERT_NE(one.find(entry), nullptr);
  EXPECT_EQ(one.find(entry + 1), nullptr);
  mount();
  EXPECT_EQ(one.find(entry), nullptr);
}
