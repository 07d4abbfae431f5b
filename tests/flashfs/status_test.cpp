// What is said of files and directories, and of the space of the file system, through the switch.
// The operations themselves: listing_test.cpp.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>

#include "flashfs/flashfs.h"
#include "tests/flashfs/flashfs_recipe.h"
#include "tests/flashfs/operations_fixture.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"

namespace {

using namespace test_support;

class status_stat : public operations_fixture {};
class status_statfs : public operations_fixture {};

}  // namespace

// --- a file or directory ---

TEST_F(status_stat, every_field_of_a_file) {
  make();
  put("a", pattern(5000));
  ppc_stat status;
  memset(&status, 0xA5, sizeof status);
  EXPECT_EQ(stat("a", &status), 0);
  EXPECT_EQ(status.fsid, 0);
  EXPECT_EQ(status.link_count, 1U);
  EXPECT_EQ(status.owner, 0U);
  EXPECT_EQ(status.group, 0U);
  EXPECT_EQ(status.fileid, 2U);
  EXPECT_EQ(status.mode, 0x8700);
  EXPECT_EQ(status.size, 5000U);
  EXPECT_EQ(status.access_date, recipe_time);
  EXPECT_EQ(status.modification_date, recipe_time);
  EXPECT_EQ(status.change_date, recipe_time);
}

TEST_F(status_stat, the_size_is_that_of_whole_sectors_and_the_last_count) {
  make();
  for (const uint32_t size : {0U, 1U, 2047U, 2048U, 2049U, 4096U, 4097U}) {
    put("a", pattern(size));
    EXPECT_EQ(size_of("a"), size);
  }
}

TEST_F(status_stat, a_directory_has_64_bytes_for_each_slot_reference) {
  make();
  ASSERT_EQ(mkdir("d"), 0);
  EXPECT_EQ(size_of("d"), 0U);
  put("d/a", "");
  put("d/b", "");
  EXPECT_EQ(size_of("d"), 128U);
  EXPECT_EQ(size_of("/"), 128U);  // its own slot and "d"
  EXPECT_EQ(fileid_of("/"), 1U);
}

TEST_F(status_stat, the_dates_are_that_of_the_slot) {
  make_root(2);
  image().slot(0, 0, 1, {.seq_no = 1, .entry_fileid = 2, .date = 0xFEDCBA98, .name = "a"});
  mount_recipe();
  ppc_stat status{};
  EXPECT_EQ(stat("a", &status), 0);
  EXPECT_EQ(status.modification_date, 0xFEDCBA98);
  EXPECT_EQ(status.size, 0U);
}

TEST_F(status_stat, a_record_without_a_slot_names_its_directory_and_marks_down) {
  make();
  put("a", "text");
  entry(fileid_of("a"))->parent_fileid = 77;
  ppc_stat status;
  EXPECT_EQ(error_of(stat("a", &status)), EIO);
  EXPECT_EQ(output(), "flashfs[0]: dostat, unable to lookup filemap for fileid 77\n" + down_line);
}

// --- space ---

TEST_F(status_statfs, a_new_file_system_has_one_block_less_free_than_sectors) {
  make({8, 8, 8, 8});
  ppc_statfs status;
  memset(&status, 0xA5, sizeof status);
  EXPECT_EQ(statfs(&status), 0);
  EXPECT_EQ(status.version, 1U);
  EXPECT_EQ(status.block_size, 2048U);
  EXPECT_EQ(status.total_blocks, 24U);
  // 23 sectors beside the root's directory sector, whose 31 free slots are less than one.
  EXPECT_EQ(status.free_blocks, 22U);
  EXPECT_EQ(status.total_fileids, 65534U);
  EXPECT_EQ(status.free_fileids, 65533U);
  EXPECT_EQ(status.files, 1U);
  EXPECT_EQ(status.lost_fileids, 0U);
  EXPECT_EQ(status.fsid, 0);
}

TEST_F(status_statfs, file_ids_are_counted_and_gaps_are_lost) {
  make_root(2);
  names({"1:0.0/1 10<1 a", "2:0.0/2 200<1 b"});
  mount_recipe();
  ppc_statfs status{};
  EXPECT_EQ(statfs(&status), 0);
  EXPECT_EQ(status.files, 3U);
  EXPECT_EQ(status.free_fileids, 65531U);
  EXPECT_EQ(status.lost_fileids, 197U);
}

TEST_F(status_statfs, space_that_reclamation_gives_back_is_free) {
  make_blocks({6, 6, 6});
  image().headers(2);
  names({"0:0.0/0 1<1", "1:0.0/1 2<1 a"});
  data(2, "0.1 0.2 0.3");
  invalidate("0.4 0.5");
  delete_slots("0.0/2-19");
  mount_recipe();
  ppc_statfs status{};
  EXPECT_EQ(statfs(&status), 0);
  EXPECT_EQ(status.total_blocks, 12U);
  // Six erased and two invalid sectors, one held back; 12 free and 18 deleted slots.
  EXPECT_EQ(status.free_blocks, 7U);
  delete_slots("0.0/20-31");
  image().slot(1, 0, 0, {.seq_no = 5, .entry_fileid = 3, .name = "b"});
  remount();
  EXPECT_EQ(statfs(&status), 0);
  // Now 30 deleted and 31 free slots, which are one sector.
  EXPECT_EQ(status.free_blocks, 7U);
}

TEST_F(status_statfs, a_full_device_has_nothing_free) {
  make_blocks({2, 2});
  image().headers(1);
  names({"0:0.0/0 1<1", "1:0.0/1 2<1 a"});
  data(2, "0.1");
  mount_recipe();
  ppc_statfs status{};
  EXPECT_EQ(statfs(&status), 0);
  EXPECT_EQ(status.free_blocks, 0U);
  EXPECT_EQ(status.total_blocks, 2U);
}

TEST_F(status_statfs, a_block_in_another_state_marks_down) {
  make();
  image().header_at(3)[12] = 0xF3;
  ppc_statfs status;
  EXPECT_EQ(error_of(statfs(&status)), EIO);
  EXPECT_EQ(output(), down_line);
}
