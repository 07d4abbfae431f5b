// The check as it finds what no directory names, and relinks it.
#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <string>

#include "flashfs/check_flags.h"
#include "flashfs/filemap.h"
#include "flashfs/flashfs.h"
#include "flashfs/fsck_tree.h"
#include "flashfs/path.h"
#include "tests/flashfs/flashfs_recipe.h"
#include "tests/flashfs/fsck_recipe.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"

namespace {

using namespace test_support;

using orphans = tree_recipe;
using relinking = tree_recipe;

// --- collecting orphans ---

TEST_F(orphans, a_file_and_a_directory_that_nobody_names_are_relinked) {
  make();
  data(5, "1.0 1.1");
  names({"0:0.0/1 6<17 in-17"});
  EXPECT_EQ(check_of_recipe(flashfs_check_quick),
            relinked("file", "00005") + relinked("directory", "00017") + quiet_check);
  EXPECT_EQ(map_text(fs()), "1<1 2<1 5<2 6<17 17<2");
  EXPECT_EQ(path_lookup(fs(), "lost+found/00005"), 5);
  EXPECT_EQ(path_lookup(fs(), "lost+found/00017/in-17"), 6);
  EXPECT_EQ(list_text(fs(), 5), "0:1.0/255 1:1.1/255");
  EXPECT_TRUE(is_repaired());
}

TEST_F(orphans, what_an_orphan_holds_is_no_orphan_whichever_id_is_lower) {
  make();
  names({"0:0.0/1 5<9 low-in-high/", "1:0.0/2 20<9 high"});
  EXPECT_EQ(check_of_recipe(flashfs_check_quick), relinked("directory", "00009") + quiet_check);
  EXPECT_EQ(map_text(fs()), "1<1 2<1 5<9 9<2 20<9");
  EXPECT_EQ(path_lookup(fs(), "lost+found/00009/low-in-high"), 5);
  EXPECT_TRUE(is_repaired());
}

TEST_F(orphans, what_was_walked_before_its_holder_shows_its_names_after_the_next_check) {
  make();
  names({"0:0.0/1 5<9 low-in-high/", "0:0.0/2 20<5 high-in-low"});
  data(20, "1.0");
  EXPECT_EQ(check_of_recipe(flashfs_check_quick), relinked("directory", "00009") + quiet_check);
  // 5 was met as an orphan; walked again below 9, its names seem to be second ones.
  EXPECT_EQ(map_text(fs()), "1<1 2<1 5<9 9<2 20<5");
  EXPECT_EQ(list_text(fs(), 5), "");
  EXPECT_TRUE(is_repaired());
  EXPECT_EQ(path_lookup(fs(), "lost+found/00009/low-in-high/high-in-low"), 20);
}

TEST_F(orphans, the_highest_id_has_five_digits_too) {
  make();
  data(65534, "1.0");
  EXPECT_EQ(check_of_recipe(flashfs_check_quick), relinked("file", "65534") + quiet_check);
  EXPECT_EQ(path_lookup(fs(), "lost+found/65534"), 65534);
  EXPECT_TRUE(is_repaired());
}

TEST_F(orphans, without_a_root_everything_is_one) {
  make_blocks({4, 4, 4});
  image().headers(2);
  data(5, "0.0");
  EXPECT_EQ(check_of_recipe(flashfs_check_full), relinked("file", "00005") + quiet_check);
  EXPECT_EQ(path_lookup(fs(), "lost+found/00005"), 5);
  EXPECT_TRUE(is_repaired());
}

TEST_F(orphans, a_file_that_holds_names_is_relinked_as_a_file_and_not_walked) {
  make();
  image().data_sector(0, 1, 5, 0, "data");
  names({"1:1.0/0 6<5 in-a-file"});
  EXPECT_EQ(check_of_recipe(flashfs_check_quick), relinked("file", "00005") + quiet_check);
  EXPECT_EQ(entry(6), nullptr);
  EXPECT_EQ(list_text(fs(), 5), "0:0.1/255 1:1.0/0");
  EXPECT_TRUE(is_repaired());
}

TEST_F(orphans, a_broken_one_is_dropped_not_relinked) {
  make();
  image().data_sector(1, 0, 5, 1, "not the first");
  EXPECT_EQ(check_of_recipe(flashfs_check_quick),
            said("inconsistent sector list, fileid 5, parent_fileid 0") + quiet_check);
  EXPECT_TRUE(is_repaired());
}

// --- relinking ---

TEST_F(relinking, the_new_name_has_all_fields_and_is_written_before_the_directory_is_dated) {
  make();
  names({"1:0.0/1 2<1 lost+found/", "0:0.0/2 3<2 older"});
  image().data_sector(1, 0, 5, 0, "data");
  initialize();
  const std::string writes = writes_of(fs(), [&] { EXPECT_EQ(check(flashfs_check_quick), 0); });
  // The name, the directory's fresh slot, its old one.
  EXPECT_EQ(writes, "0.0 0.0 0.0");
  const flashfs_dir_slot slot = slot_on_flash(0, 0, 31);
  EXPECT_EQ(slot.seq_no, 1);
  EXPECT_EQ(slot.dir_fileid, 2);
  EXPECT_EQ(slot.entry_fileid, 5);
  EXPECT_EQ(slot.mode, 0x8600);
  EXPECT_EQ(slot.date, recipe_time);
  EXPECT_TRUE(is_erased(slot.reserved, 4));
  EXPECT_EQ(std::string(slot.name, 46), "00005" + std::string(41, '\0'));
  EXPECT_EQ(image_crc(&slot, 64), 0xE2F0);
  EXPECT_EQ(list_text(fs(), 2), "0:0.0/2 1:0.0/31");
  EXPECT_EQ(entry(5)->parent_fileid, 2);
  EXPECT_EQ(slot_on_flash(0, 0, 30).entry_fileid, 2);
  EXPECT_EQ(slot_on_flash(0, 0, 30).date, recipe_time);
  EXPECT_TRUE(is_repaired());
}

TEST_F(relinking, an_orphan_directory_keeps_the_mode_it_was_found_with) {
  make();
  names({"0:0.0/1 6<17 in-17"});
  check_of_recipe(flashfs_check_quick);
  EXPECT_EQ(entry(17)->mode, 0x4600);
  EXPECT_EQ(slot_on_flash(*entry(entry(17)->parent_fileid)->sctr_list).mode, 0x4600);
}

TEST_F(relinking, lost_and_found_is_made_as_a_directory) {
  make();
  data(5, "1.0");
  check_of_recipe(flashfs_check_quick);
  const flashfs_sctr_map* made = entry(path_lookup(fs(), "/lost+found"));
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(made->mode, 0x4700);
  EXPECT_EQ(made->parent_fileid, 1);
}

TEST_F(relinking, a_file_of_that_name_is_replaced_by_a_directory) {
  make();
  names({"1:0.0/1 2<1 lost+found"});
  data(2, "1.0 1.1");
  data(5, "2.0");
  EXPECT_EQ(check_of_recipe(flashfs_check_quick), relinked("file", "00005") + quiet_check);
  EXPECT_EQ(block_text(1), "0 0 - -");
  EXPECT_TRUE(is_directory_mode(entry(path_lookup(fs(), "lost+found"))->mode));
  EXPECT_EQ(path_lookup(fs(), "lost+found/00005"), 5);
  EXPECT_EQ(list_text(fs(), 5), "0:2.0/255");
  EXPECT_TRUE(is_repaired());
}

TEST_F(relinking, an_entry_that_has_the_name_is_removed_first) {
  make();
  names({"1:0.0/1 2<1 lost+found/", "0:0.0/2 3<2 00005"});
  data(3, "1.0");
  names({"1:0.0/3 4<2 00006/"});
  data(5, "2.0");
  data(6, "2.1");
  EXPECT_EQ(check_of_recipe(flashfs_check_full),
            relinked("file", "00005") + relinked("file", "00006") + quiet_check);
  EXPECT_EQ(path_lookup(fs(), "lost+found/00005"), 5);
  EXPECT_EQ(path_lookup(fs(), "lost+found/00006"), 6);
  EXPECT_EQ(entry(3), nullptr);
  EXPECT_EQ(entry(4), nullptr);
  EXPECT_EQ(block_text(1), "0 - - -");
  EXPECT_TRUE(is_repaired());
}

TEST_F(relinking, without_space_for_lost_and_found_every_one_fails_and_the_check_goes_on) {
  make_blocks({2, 2, 2});
  image().headers(2);
  names({"0:0.0/0 1<1"});
  for (int k = 1; k < 32; k++) {
    names(
        {std::to_string(k) + ":0.0/" + std::to_string(k) + " " + std::to_string(100 + k) + "<1 n"});
  }
  data(5, "0.1 1.0");
  data(6, "1.1");
  const std::string failed = said("error accessing/creating /lost+found");
  EXPECT_EQ(check_of_recipe(flashfs_check_quick), failed + failed + quiet_check);
  EXPECT_EQ(fs()->ready, 1U);
  EXPECT_EQ(entry(5)->parent_fileid, 0);
  EXPECT_EQ(list_text(fs(), 5), "0:0.1/255 1:1.0/255");
}

TEST_F(relinking, without_space_for_the_name_it_fails_and_the_check_goes_on) {
  make_blocks({2, 2, 2});
  image().headers(2);
  names({"0:0.0/0 1<1", "1:0.0/1 2<1 lost+found/"});
  for (int k = 2; k < 32; k++) {
    names(
        {std::to_string(k) + ":0.0/" + std::to_string(k) + " " + std::to_string(100 + k) + "<1 n"});
  }
  data(5, "0.1 1.0");
  data(6, "1.1");
  EXPECT_EQ(check_of_recipe(flashfs_check_quick),
            said("error accessing/creating /lost+found/00005") +
                said("error accessing/creating /lost+found/00006") + quiet_check);
  EXPECT_EQ(fs()->ready, 1U);
  EXPECT_EQ(entry(5)->parent_fileid, 0);
}

TEST_F(relinking, the_last_slot_is_kept_back) {
  make_blocks({2, 2, 2});
  image().headers(2);
  names({"0:0.0/0 1<1", "1:0.0/1 2<1 lost+found/"});
  for (int k = 2; k < 31; k++) {
    names(
        {std::to_string(k) + ":0.0/" + std::to_string(k) + " " + std::to_string(100 + k) + "<1 n"});
  }
  data(5, "0.1 1.0 1.1");
  EXPECT_EQ(check_of_recipe(flashfs_check_quick),
            said("error accessing/creating /lost+found/00005") + quiet_check);
  EXPECT_EQ(slots_text(fs()), "0.0/31");
}

TEST_F(relinking, every_failing_write_is_told_and_the_check_goes_on) {
  // Making the directory and dating the root, then the name and dating the directory: five each,
  // two for each of the two new slots, and one for the old one's end.
  for (uint64_t n = 1; n <= 10; n++) {
    make();
    data(5, "1.0");
    initialize();
    device().fail(flash_call::write, n, flash_operation_failed);
    EXPECT_EQ(check(flashfs_check_quick), 0) << n;
    const std::string path = n <= 5 ? "/lost+found" : "/lost+found/00005";
    const std::string end = said("error accessing/creating " + path) + quiet_check;
    ASSERT_GT(check_output().size(), end.size());
    EXPECT_EQ(check_output().substr(check_output().size() - end.size()), end) << n;
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
    device().fail(flash_call::any, 0, flash_ok);
    // The next check finishes what was begun. Of a slot that half stands only the full one can
    // tell.
    const bool half_a_slot = n % 5 == 2 || n % 5 == 4;
    check_of_recipe(half_a_slot ? flashfs_check_full : flashfs_check_quick);
    EXPECT_EQ(path_lookup(fs(), "lost+found/00005"), 5) << n << check_output();
    EXPECT_TRUE(is_repaired()) << n;
  }
}

TEST_F(relinking, an_orphan_is_placed_as_soon_as_its_name_stands_whatever_becomes_of_the_date) {
  // The writes of the directory's date: its fresh slot, and the end of the old one.
  for (const uint64_t n : {8U, 9U, 10U}) {
    make();
    data(5, "1.0");
    initialize();
    device().fail(flash_call::write, n, flash_operation_failed);
    ASSERT_EQ(check(flashfs_check_quick), 0) << n;
    EXPECT_NE(check_output().find(said("error accessing/creating /lost+found/00005")),
              std::string::npos);
    device().fail(flash_call::any, 0, flash_ok);
    EXPECT_EQ(entry(5)->parent_fileid, path_lookup(fs(), "lost+found")) << n;
    ppc_stat status;
    EXPECT_EQ(ifs_stat("bootflash:lost+found/00005", &status), 0) << n;
    EXPECT_EQ(fs()->ready, 1U) << n;
  }
}

TEST_F(relinking, a_directory_for_orphans_that_could_not_be_dated_is_there_all_the_same) {
  for (const uint64_t n : {3U, 4U, 5U}) {
    make();
    data(5, "1.0");
    initialize();
    device().fail(flash_call::write, n, flash_operation_failed);
    ASSERT_EQ(check(flashfs_check_quick), 0) << n;
    EXPECT_NE(check_output().find(said("error accessing/creating /lost+found")), std::string::npos);
    device().fail(flash_call::any, 0, flash_ok);
    ppc_stat status;
    EXPECT_EQ(ifs_stat("bootflash:lost+found", &status), 0) << n;
    EXPECT_EQ(fs()->ready, 1U) << n;
    EXPECT_EQ(output_of([&] { EXPECT_EQ(fsck_relink_orphan(fs(), 5), 0); }),
              relinked("file", "00005"));
  }
}

TEST_F(relinking, a_failing_removal_of_what_has_the_name_is_told) {
  make();
  names({"1:0.0/1 2<1 lost+found/", "0:0.0/2 3<2 00005"});
  data(5, "2.0");
  initialize();
  device().fail(flash_call::write, 1, flash_operation_failed);
  EXPECT_EQ(check(flashfs_check_quick), 0);
  EXPECT_NE(check_output().find(said("error accessing/creating /lost+found/00005")),
            std::string::npos);
  device().fail(flash_call::any, 0, flash_ok);
}

TEST_F(relinking, a_file_that_has_the_directorys_name_and_cannot_be_removed_whole_ends_it) {
  make();
  names({"1:0.0/1 2<1 lost+found"});
  data(2, "1.0");
  data(5, "2.0");
  initialize();
  // The first write deletes the name, the second would invalidate the sector.
  device().fail(flash_call::write, 2, flash_operation_failed);
  EXPECT_EQ(check(flashfs_check_quick), 0);
  device().fail(flash_call::any, 0, flash_ok);
  const std::string output = check_output();
  EXPECT_NE(output.find(said("error accessing/creating /lost+found")), std::string::npos);
  EXPECT_EQ(output.find("relinked"), std::string::npos);
  EXPECT_EQ(path_lookup(fs(), "lost+found"), 0);
}

TEST_F(relinking, a_failing_read_is_told_and_the_check_goes_on) {
  int failed_checks = 0;
  int failed_names = 0;
  for (uint64_t n = 1;; n++) {
    make();
    data(5, "1.0");
    initialize();
    device().fail(flash_call::read, n, flash_operation_failed);
    const bool failed = check(flashfs_check_quick) != 0;
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
    const bool reached = device().calls_since_fail() >= n;
    device().fail(flash_call::any, 0, flash_ok);
    if (!reached) {
      break;
    }
    if (failed) {
      failed_checks++;
      EXPECT_EQ(check_output().find("lost+found/00005\n"), std::string::npos) << n;
    } else {
      failed_names++;
      EXPECT_NE(check_output().find("flashfs[0]: error accessing/creating /lost+found"),
                std::string::npos)
          << n;
    }
  }
  // Before relinking and in the space report a failing read ends the check.
  EXPECT_GT(failed_checks, 20);
  EXPECT_EQ(failed_names, 10);
}

TEST_F(relinking, the_call_gives_0_or_1) {
  make();
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  filemap_insert(fs(), 7, 0, 0x8700);
  EXPECT_EQ(output_of([&] { EXPECT_EQ(fsck_relink_orphan(fs(), 7), 0); }),
            relinked("file", "00007"));
  EXPECT_EQ(entry(7)->parent_fileid, path_lookup(fs(), "lost+found"));
  EXPECT_EQ(output_of([&] { EXPECT_EQ(fsck_relink_orphan(fs(), 99), 1); }),
            said("error accessing/creating /lost+found/00099"));
}

}  // namespace
