// The fixture that mounts file systems on flashes in memory.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "flashfs/filemap.h"
#include "flashfs/flashfs.h"
#include "sim/power.h"
#include "tests/support/flashfs_fixture.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"

namespace {

using test_support::output_capture;
using test_support::output_of;
using test_support::ram_blocks;

class fixture : public test_support::flashfs_fixture {};

}  // namespace

TEST(output_capture, catches_what_is_printed_and_may_be_nested) {
  const std::string outer = output_of([] {
    std::printf("one ");
    EXPECT_EQ(output_of([] { std::printf("inner"); }), "inner");
    std::printf("two");
  });
  EXPECT_EQ(outer, "one two");
}

TEST_F(fixture, a_file_written_is_read_back_before_and_after_a_remount) {
  mount_new();
  const std::string contents(5000, 'c');
  ASSERT_EQ(write_file("f", contents), 0);
  EXPECT_EQ(read_file("f"), contents);
  remount();
  EXPECT_EQ(read_file("f"), contents);
  EXPECT_TRUE(flash_is_consistent());
  EXPECT_EQ(read_file("f"), contents);
}

TEST_F(fixture, reading_what_is_not_there_gives_the_errno) {
  mount_new();
  EXPECT_EQ(read_file("none"), "<errno " + std::to_string(ENOENT) + ">");
}

TEST_F(fixture, two_devices_make_one_file_system) {
  make_flash(ram_blocks(3, 0x20000), ram_blocks(4, 0x10000));
  mount();
  EXPECT_EQ(fs()->num_blocks, 7);
  EXPECT_EQ(fs()->flashfs_blocks[6].device, 1);
}

TEST_F(fixture, files_left_open_are_closed_with_the_file_system) {
  mount_new();
  ASSERT_EQ(write_file("f", "x"), 0);
  ASSERT_GE(ifs_open("bootflash:f", ifs_open_read, 0), 0);
  remount();
  EXPECT_EQ(read_file("f"), "x");
}

TEST_F(fixture, a_flash_that_a_check_repairs_is_not_consistent) {
  mount_new();
  ASSERT_EQ(write_file("f", "x"), 0);
  ASSERT_TRUE(flash_is_consistent());
  flashfs_sctr_map* file = filemap_lookup(fs(), 2);
  ASSERT_NE(file, nullptr);
  const flashfs_sctr_ptr pointer = file->sctr_list->sctr_ptr;
  const size_t offset = fs()->flashfs_blocks[pointer.block_num].offset + sizeof(flashfs_blkheader) +
                        pointer.sctr_num * sizeof(flashfs_sector);
  device().bytes()[offset + offsetof(flashfs_sector, data)] = 0;
  EXPECT_FALSE(flash_is_consistent());
}

TEST_F(fixture, a_power_cut_is_survived_by_restore_and_remount) {
  mount_new();
  ASSERT_EQ(write_file("old", "kept"), 0);
  supply().cut_at(5, sim::cut_kind::during, 3);
  output_of([&] { write_file("new", "lost"); });
  EXPECT_TRUE(supply().dead());
  unmount();
  supply().restore();
  mount();
  EXPECT_EQ(read_file("old"), "kept");
}
