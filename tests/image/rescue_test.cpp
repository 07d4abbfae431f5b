// What a rescue makes of each thing that a power cut can leave, on the smallest flash that has it.
#include "image/rescue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "flashfs/format.h"
#include "tests/image/rescued_flash.h"

namespace {

using image_tests::bytes_of;
using image_tests::has_decision;
using image_tests::rescued_flash;
using tree = std::map<std::string, std::string>;

const std::string full = bytes_of(2048, 1);
const std::string other_full = bytes_of(2048, 2);
const std::string third_full = bytes_of(2048, 3);

// Files "kept" (id 2, of two sectors) and "file" (id 3, of three).
class rescue : public testing::Test {
 protected:
  rescue() {
    flash.name(30, 2, "kept", 1);
    flash.name(29, 3, "file", 2);
    flash.data(1, 1, 2, 0, full);
    flash.data(1, 2, 2, 1, "the end of what is kept");
    flash.data(2, 0, 3, 0, other_full);
    flash.data(2, 1, 3, 1, third_full);
    flash.data(2, 2, 3, 2, tail);
  }

  void expect_all() {
    const tree all = {{"kept", full + "the end of what is kept"},
                      {"file", other_full + third_full + tail}};
    EXPECT_TRUE(flash.files() == all) << listing();
  }

  // Paths and sizes: the contents themselves would fill screens.
  std::string listing() const {
    std::string text;
    for (const auto& [path, contents] : flash.files()) {
      text += path + " " + std::to_string(contents.size()) + "\n";
    }
    return text;
  }

  flashfs_sector* sector(int block, int number) {
    return reinterpret_cast<flashfs_sector*>(flash.builder().sector_at(block, number));
  }
  flashfs_dir_slot* slot(int number) {
    return reinterpret_cast<flashfs_dir_slot*>(flash.builder().slot_at(1, 0, number));
  }
  // Leaves only the first bytes of a record programmed.
  void cut_behind(uint8_t* record, size_t size, size_t written) {
    memset(record + written, 0xFF, size - written);
  }
  void cut_sector_behind(int block, int number, size_t written) {
    cut_behind(flash.builder().sector_at(block, number), sizeof(flashfs_sector), written);
  }
  void cut_slot_behind(int number, size_t written) {
    cut_behind(flash.builder().slot_at(1, 0, number), sizeof(flashfs_dir_slot), written);
  }

  // Takes all blocks into use and fills every erased sector from a block on with one more file.
  size_t fill_from(int first) {
    flash.name(28, 4, "filler", 3);
    uint16_t number = 0;
    for (int block = 0; block < flash.builder().block_count(); block++) {
      flash.set_state(block, block_in_use);
      for (int each = 0; block >= first && each < flash.builder().sector_count(block); each++) {
        if (sector(block, each)->fileid == 0xFFFF) {
          flash.data(block, each, 4, number++, full);
        }
      }
    }
    return number * full.size();
  }

  rescued_flash flash;
  const std::string tail = bytes_of(900, 4);
};

TEST_F(rescue, leaves_sound_flash_alone) {
  EXPECT_TRUE(flash.rescue().steps.empty());
  expect_all();
}

TEST_F(rescue, leaves_erased_flash_with_headers_and_a_root) {
  flash.device().flash().fill_erased();
  flash.rescue();
  EXPECT_EQ(tree{}, flash.files());
}

// --- slots ---

TEST_F(rescue, half_written_slot_goes_whatever_was_written) {
  for (const size_t written : {2, 4, 6, 20, 62}) {
    flash.name(28, 9, "half", 3);
    cut_slot_behind(28, written);
    flash.rescue();
    expect_all();
    memset(slot(28), 0xFF, sizeof(flashfs_dir_slot));
  }
}

TEST_F(rescue, half_written_root_is_made_anew) {
  cut_slot_behind(31, 6);
  EXPECT_TRUE(has_decision(flash.rescue(), "root-made"));
  expect_all();
}

TEST_F(rescue, deleted_root_comes_back_as_it_was) {
  flash.set_directory(31, 0);
  EXPECT_TRUE(has_decision(flash.rescue(), "root-restored"));
  expect_all();
}

TEST_F(rescue, torn_deletion_of_the_only_name_is_undone) {
  flash.name(28, 5, "directory", 3, 1800000000, 1, 0x4700);
  flash.name(27, 6, "in it", 0, 1800000000, 5);
  flash.name(26, 7, "deep", 0, 1800000000, 5);
  flash.data(3, 0, 7, 0, "deep down");
  memset(slot(27), 0xFF, sizeof(flashfs_dir_slot));
  flash.set_directory(26, 4);
  EXPECT_TRUE(has_decision(flash.rescue(), "deletion-undone"));
  EXPECT_EQ("deep down", flash.files().at("directory/deep"));
}

TEST_F(rescue, torn_deletion_of_a_former_name_is_finished) {
  flash.name(28, 5, "directory", 3, 1800000000, 1, 0x4700);
  flash.name(26, 7, "former", 0, 1800000000, 5);
  flash.name(25, 7, "latter", 0, 1800000000, 5);
  flash.set_directory(26, 4);
  EXPECT_TRUE(has_decision(flash.rescue(), "deletion-finished"));
  EXPECT_TRUE(flash.files().contains("directory/latter"));
  EXPECT_FALSE(flash.files().contains("directory/former"));
}

TEST_F(rescue, newer_of_two_names_stands) {
  flash.name(28, 3, "renamed", 2);
  flash.rescue();
  EXPECT_TRUE(flash.files().contains("renamed"));
  EXPECT_FALSE(flash.files().contains("file"));
}

TEST_F(rescue, number_that_a_check_gave_for_a_name_gives_way_to_a_name) {
  flash.name(28, 5, "lost+found", 3, 1800000000, 1, 0x4700);
  flash.name(27, 3, "00003", 0, 1800000000, 5);
  flash.rescue();
  EXPECT_TRUE(flash.files().contains("file"));
  EXPECT_FALSE(flash.files().contains("lost+found/00003"));
}

TEST_F(rescue, two_entries_of_one_number_keep_their_names) {
  flash.name(28, 4, "third", 2);
  EXPECT_TRUE(has_decision(flash.rescue(), "slot-renumbered"));
  EXPECT_TRUE(flash.files().contains("third"));
  EXPECT_TRUE(flash.files().contains("file"));
}

TEST_F(rescue, slot_with_one_wrong_bit_is_mended) {
  slot(29)->name[1] ^= 4;
  EXPECT_TRUE(has_decision(flash.rescue(), "slot-mended"));
  expect_all();
}

TEST_F(rescue, orphan_takes_the_last_name_that_it_had) {
  flash.set_directory(29, 0);
  EXPECT_TRUE(has_decision(flash.rescue(), "orphan-named"));
  expect_all();
}

TEST_F(rescue, orphan_without_any_name_comes_into_lost_and_found) {
  memset(slot(29), 0xFF, sizeof(flashfs_dir_slot));
  EXPECT_TRUE(has_decision(flash.rescue(), "orphan-relinked"));
  EXPECT_TRUE(other_full + third_full + tail == flash.files().at("lost+found/00003")) << listing();
}

TEST_F(rescue, orphan_takes_the_name_that_was_being_written) {
  flash.name(28, 9, "found", 3);
  cut_slot_behind(28, 62);
  flash.data(3, 0, 9, 0, "without a name");
  EXPECT_TRUE(has_decision(flash.rescue(), "orphan-named"));
  EXPECT_EQ("without a name", flash.files().at("found"));
}

TEST_F(rescue, directories_in_a_circle_are_taken_out_of_it) {
  flash.name(28, 5, "a", 0, 1800000000, 6, 0x4700);
  flash.name(27, 6, "b", 0, 1800000000, 5, 0x4700);
  flash.rescue();
  EXPECT_TRUE(flash.files().contains("lost+found/00005/b"));
}

TEST_F(rescue, names_in_what_is_a_file_come_into_lost_and_found) {
  flash.name(28, 5, "inner", 0, 1800000000, 3);
  flash.data(3, 0, 5, 0, "inner");
  flash.rescue();
  EXPECT_EQ("inner", flash.files().at("lost+found/00005"));
}

// --- sectors of one operation ---

TEST_F(rescue, data_without_a_name_stays_when_a_slot_takes_it_for_a_directory) {
  flash.data(3, 0, 7, 0, "an orphan");
  flash.name(28, 8, "stray", 0, 1800000000, 7);
  flash.data(3, 1, 8, 0, "what is stray");
  flash.rescue();
  EXPECT_EQ("an orphan", flash.files().at("lost+found/00007"));
  EXPECT_EQ("what is stray", flash.files().at("lost+found/00008"));
}

TEST_F(rescue, names_in_what_was_a_directory_stay_in_it) {
  flash.name(28, 7, "folder", 3, 1800000000, 1, 0x4700);
  flash.set_directory(28, 0);
  flash.name(27, 8, "below", 0, 1800000000, 7);
  flash.data(3, 0, 7, 0, "by chance");
  flash.data(3, 1, 8, 0, "what is below");
  EXPECT_TRUE(has_decision(flash.rescue(), "list-lost"));
  EXPECT_EQ("what is below", flash.files().at("lost+found/00007/below"));
}

TEST_F(rescue, claims_go_even_when_they_read_as_another_file) {
  flash.set_owner(2, 3, 3);
  flash.set_owner(2, 4, 2);
  flash.set_owner(2, 5, 777);
  flash.rescue();
  expect_all();
}

TEST_F(rescue, half_written_copy_goes) {
  for (const size_t written : {4, 100, 2052, 2054}) {
    flash.data(2, 3, 3, 1, full);
    cut_sector_behind(2, 3, written);
    flash.rescue();
    expect_all();
    memset(sector(2, 3), 0xFF, sizeof(flashfs_sector));
  }
}

TEST_F(rescue, torn_invalidation_in_front_of_its_copy_is_finished) {
  const std::string changed = full.substr(0, 100) + third_full.substr(100);
  flash.data(2, 3, 3, 1, changed);
  flash.set_owner(2, 1, 2);  // reads as a sector of "kept", with a number that "kept" has
  flash.rescue();
  EXPECT_TRUE(other_full + changed + tail == flash.files().at("file")) << listing();
  EXPECT_TRUE(full + "the end of what is kept" == flash.files().at("kept")) << listing();
}

TEST_F(rescue, data_that_reads_as_slots_stays_data) {
  flash.set_owner(2, 0, 1);  // what was to be the first sector of a file that is emptied
  EXPECT_TRUE(has_decision(flash.rescue(), "invalidation-undone"));
  expect_all();
}

TEST_F(rescue, old_sector_stands_until_its_copy_replaces_it) {
  const std::string changed = third_full.substr(0, 100) + full.substr(100);
  flash.data(2, 3, 3, 1, changed);
  flash.rescue();
  EXPECT_TRUE(other_full + third_full + tail == flash.files().at("file")) << listing();
}

// Claimed: number 3. Then the last sector was copied and grown, the old one invalidated.
TEST_F(rescue, cut_append_gives_the_old_length_back) {
  flash.set_owner(2, 3, 3);
  flash.data(2, 4, 3, 2, tail + bytes_of(2048 - tail.size(), 9));
  flash.set_owner(2, 2, 0);
  EXPECT_TRUE(has_decision(flash.rescue(), "extension-undone"));
  expect_all();
}

TEST_F(rescue, cut_append_of_several_sectors_gives_the_old_length_back) {
  flash.data(2, 3, 3, 3, full);
  flash.data(2, 4, 3, 4, full);
  cut_sector_behind(2, 4, 500);
  flash.data(2, 5, 3, 2, tail + bytes_of(2048 - tail.size(), 9));
  flash.set_owner(2, 2, 0);
  flash.rescue();
  expect_all();
}

TEST_F(rescue, cut_extension_over_a_hole_gives_the_old_length_back) {
  flash.data(2, 3, 3, 3, std::string(2048, '\0'));
  flash.data(2, 4, 3, 4, full);
  cut_sector_behind(2, 4, 500);
  flash.rescue();
  expect_all();
}

TEST_F(rescue, file_that_is_longer_than_its_short_sector_and_whole_is_left_alone) {
  flash.data(2, 3, 3, 3, std::string(2048, '\0'));
  flash.data(2, 4, 3, 4, full);
  EXPECT_TRUE(flash.rescue().steps.empty());
}

TEST_F(rescue, cut_first_write_leaves_the_file_as_it_was_created) {
  flash.name(28, 4, "new", 3, 1800000500);
  flash.name(27, 1, "", 0, 1800000500, 1, 0x4600);
  flash.set_directory(31, 0);
  flash.data(3, 0, 4, 0, full);
  flash.data(3, 1, 4, 1, full);
  cut_sector_behind(3, 1, 700);
  flash.rescue();
  EXPECT_EQ("", flash.files().at("new"));
}

TEST_F(rescue, cut_overwrite_of_several_sectors_goes_back_to_its_beginning) {
  flash.data(2, 3, 3, 0, bytes_of(2048, 20));
  flash.set_owner(2, 0, 0);
  flash.data(2, 4, 3, 1, bytes_of(2048, 21));
  cut_sector_behind(2, 4, 700);
  EXPECT_TRUE(has_decision(flash.rescue(), "overwrite-undone"));
  expect_all();
}

TEST_F(rescue, finished_overwrite_is_not_undone_for_a_claim) {
  const std::string changed = bytes_of(2048, 20);
  flash.data(2, 3, 3, 0, changed);
  flash.set_owner(2, 0, 0);
  flash.set_owner(2, 4, 3);
  flash.rescue();
  EXPECT_TRUE(changed + third_full + tail == flash.files().at("file")) << listing();
}

TEST_F(rescue, list_that_is_whole_is_never_rolled_back) {
  const std::string changed = bytes_of(2048, 20);
  flash.data(2, 3, 3, 0, changed);
  flash.set_owner(2, 0, 0);
  EXPECT_TRUE(flash.rescue().steps.empty());
  EXPECT_TRUE(changed + third_full + tail == flash.files().at("file")) << listing();
}

TEST_F(rescue, cut_emptying_is_undone) {
  flash.set_owner(2, 0, 0);
  flash.set_owner(2, 1, 0);
  flash.rescue();
  expect_all();
}

TEST_F(rescue, cut_shortening_is_undone_before_anything_behind_it_has_gone) {
  flash.data(2, 3, 3, 1, third_full.substr(0, 300));
  flash.set_owner(2, 1, 0);
  EXPECT_TRUE(has_decision(flash.rescue(), "truncation-undone"));
  expect_all();
}

TEST_F(rescue, cut_shortening_is_finished_when_something_behind_it_has_gone) {
  flash.data(2, 3, 3, 0, other_full.substr(0, 300));
  flash.set_owner(2, 0, 0);
  flash.set_owner(2, 1, 0);
  EXPECT_TRUE(has_decision(flash.rescue(), "truncation-finished"));
  EXPECT_TRUE(other_full.substr(0, 300) == flash.files().at("file")) << listing();
}

TEST_F(rescue, cut_shortening_is_undone_although_a_check_has_written_slots_since) {
  flash.data(2, 3, 3, 1, third_full.substr(0, 300));
  flash.set_owner(2, 1, 0);
  flash.set_owner(2, 4, 1);
  EXPECT_TRUE(has_decision(flash.rescue(), "truncation-undone"));
  expect_all();
}

TEST_F(rescue, cut_shortening_is_undone_whose_old_sector_was_just_going) {
  flash.data(2, 3, 3, 1, third_full.substr(0, 300));
  flash.set_owner(2, 1, 2);
  flash.data(2, 4, 2, 2, "of another file");
  flash.rescue();
  EXPECT_TRUE(other_full + third_full + tail == flash.files().at("file")) << listing();
}

// --- what a check was dropping, the lowest number first ---

TEST_F(rescue, file_that_was_being_dropped_for_a_claim_comes_back) {
  flash.set_owner(2, 3, 3);
  flash.set_owner(2, 0, 0);
  flash.set_owner(2, 1, 0);
  flash.set_owner(2, 2, 1);  // reads as slots
  EXPECT_TRUE(has_decision(flash.rescue(), "invalidation-undone"));
  expect_all();
}

TEST_F(rescue, extension_over_a_hole_that_was_being_dropped_is_undone) {
  flash.data(2, 3, 3, 3, std::string(2048, '\0'));
  flash.data(2, 4, 3, 4, full);
  cut_sector_behind(2, 4, 500);
  for (int number = 0; number < 3; number++) {
    flash.set_owner(2, number, 0);
  }
  flash.rescue();
  expect_all();
}

TEST_F(rescue, sector_that_comes_back_is_guessed_where_there_are_two_for_it) {
  flash.data(2, 3, 3, 1, full);
  flash.data(2, 4, 3, 3, full);
  cut_sector_behind(2, 4, 500);
  for (const int number : {0, 1, 3}) {
    flash.set_owner(2, number, 0);
  }
  const image::rescue_plan plan = flash.rescue();
  const auto of_place = [&](uint32_t place) {
    return std::find_if(plan.decisions.begin(), plan.decisions.end(),
                        [&](const auto& each) { return each.block == 2 && each.sector == place; });
  };
  ASSERT_NE(plan.decisions.end(), of_place(0));
  EXPECT_EQ(image::certainty::supported, of_place(0)->sure);
  ASSERT_NE(plan.decisions.end(), of_place(1));  // the one beside its neighbour in the file
  EXPECT_EQ(image::certainty::guessed, of_place(1)->sure);
}

TEST_F(rescue, sector_that_was_being_dropped_for_a_half_written_one_comes_back) {
  flash.data(2, 3, 3, 2, full);
  cut_sector_behind(2, 3, 700);
  flash.set_owner(2, 2, 1);
  flash.rescue();
  expect_all();
}

TEST_F(rescue, cut_removal_brings_name_and_sectors_back) {
  flash.set_directory(29, 0);
  flash.set_owner(2, 0, 0);
  flash.rescue();
  expect_all();
}

TEST_F(rescue, cut_removal_is_finished_when_a_sector_is_nowhere) {
  flash.set_directory(29, 0);
  memset(sector(2, 0), 0, sizeof(flashfs_sector));
  flash.rescue();
  EXPECT_EQ((tree{{"kept", full + "the end of what is kept"}}), flash.files());
}

TEST_F(rescue, sector_that_is_nowhere_becomes_zeros) {
  memset(sector(2, 1), 0, sizeof(flashfs_sector));
  EXPECT_TRUE(has_decision(flash.rescue(), "gap-zeroed"));
  EXPECT_TRUE(other_full + std::string(2048, '\0') + tail == flash.files().at("file")) << listing();
}

TEST_F(rescue, sector_with_one_wrong_bit_is_mended) {
  sector(2, 1)->data[50] ^= 1;
  EXPECT_TRUE(has_decision(flash.rescue(), "sector-mended"));
  expect_all();
}

// --- blocks ---

TEST_F(rescue, unfinished_copy_of_a_block_is_erased) {
  memcpy(flash.builder().sector_at(0, 0), flash.builder().sector_at(2, 0), sizeof(flashfs_sector));
  memcpy(flash.builder().sector_at(0, 1), flash.builder().sector_at(2, 1), 900);
  flash.set_state(0, block_invalid1);
  EXPECT_TRUE(has_decision(flash.rescue(), "block-erased"));
  expect_all();
}

TEST_F(rescue, finished_copy_without_a_spare_is_freed) {
  memcpy(flash.builder().sector_at(0, 0), flash.builder().sector_at(2, 0),
         3 * sizeof(flashfs_sector));
  flash.set_state(0, block_committed);
  flash.rescue();
  expect_all();
}

TEST_F(rescue, finished_copy_of_a_block_that_is_being_erased_takes_its_place) {
  memcpy(flash.builder().sector_at(0, 0), flash.builder().sector_at(2, 0),
         3 * sizeof(flashfs_sector));
  flash.set_state(0, block_committed);
  memset(flash.builder().header_at(2), 0xFF, 32 + sizeof(flashfs_sector) + 100);
  flash.rescue();
  expect_all();
}

TEST_F(rescue, only_copy_whose_state_is_torn_is_kept) {
  for (const uint8_t state : {block_invalid2, block_state{2}}) {
    flash.set_state(2, state);
    EXPECT_TRUE(has_decision(flash.rescue(), "block-kept"));
    expect_all();
  }
}

TEST_F(rescue, block_with_a_damaged_header_keeps_what_it_holds) {
  reinterpret_cast<flashfs_blkheader*>(flash.builder().header_at(2))->block_num = 3;
  EXPECT_TRUE(has_decision(flash.rescue(), "block-kept"));
  expect_all();
  reinterpret_cast<flashfs_blkheader*>(flash.builder().header_at(1))->checksum = 0;
  flash.rescue();
  expect_all();
}

TEST_F(rescue, room_is_made_by_moving_when_there_is_no_spare) {
  for (int block = 0; block < 6; block++) {
    flash.set_state(block, block_in_use);
  }
  flash.data(0, 5, 3, 3, "more");
  reinterpret_cast<flashfs_sector*>(flash.builder().sector_at(2, 2))->count = 0;
  flash.data(2, 3, 3, 2, full);
  flash.set_owner(2, 2, 0);
  flash.rescue();
  EXPECT_TRUE(other_full + third_full + full + "more" == flash.files().at("file")) << listing();
}

TEST_F(rescue, list_is_cut_at_a_gap_that_there_is_no_room_for) {
  memset(sector(2, 2), 0xFF, sizeof(flashfs_sector));
  flash.data(3, 0, 3, 5, "far behind");
  fill_from(1);
  flash.set_state(0, block_available);
  memset(sector(5, 5), 0xFF, sizeof(flashfs_sector));  // one is left, the gap has three
  EXPECT_TRUE(has_decision(flash.rescue(), "list-cut"));
  EXPECT_TRUE(other_full + third_full == flash.files().at("file")) << listing();
}

TEST_F(rescue, twin_of_a_block_is_the_spare_when_nothing_can_be_moved) {
  memcpy(flash.builder().sector_at(0, 0), flash.builder().sector_at(2, 0),
         3 * sizeof(flashfs_sector));
  flash.set_owner(0, 0, 0);  // as a check gives up one of two equal numbers
  flash.set_owner(0, 1, 1);
  const size_t filled = fill_from(1);
  EXPECT_TRUE(has_decision(flash.rescue(), "block-erased"));
  EXPECT_EQ(filled, flash.files().at("filler").size());
  EXPECT_TRUE(other_full + third_full + tail == flash.files().at("file")) << listing();
}

TEST_F(rescue, slots_are_moved_to_free_ones_when_no_sector_is_left) {
  const size_t filled = fill_from(1);
  flash.builder().slot(0, 0, 31, {.seq_no = 4, .entry_fileid = 5, .name = "empty"});
  EXPECT_TRUE(has_decision(flash.rescue(), "spare-made"));
  EXPECT_EQ("", flash.files().at("empty"));
  EXPECT_EQ(filled, flash.files().at("filler").size());
}

// --- removed files ---

TEST_F(rescue, removed_file_comes_back_when_it_is_asked_for) {
  flash.set_directory(29, 0);
  for (int s = 0; s < 3; s++) {
    flash.set_owner(2, s, 0);
  }
  EXPECT_TRUE(flash.rescue().steps.empty());
  EXPECT_FALSE(flash.files().contains("file"));
  const image::rescue_plan plan = flash.rescue({.deleted = true});
  EXPECT_TRUE(has_decision(plan, "file-returned"));
  expect_all();
}

TEST_F(rescue, removed_file_does_not_come_over_one_that_stands) {
  flash.set_directory(29, 0);
  for (int s = 0; s < 3; s++) {
    flash.set_owner(2, s, 0);
  }
  flash.name(28, 7, "file", 2);
  flash.data(3, 0, 7, 0, "another");
  flash.rescue({.deleted = true});
  EXPECT_EQ("another", flash.files().at("file"));
}

TEST_F(rescue, removed_file_comes_back_when_another_one_has_its_id) {
  flash.set_directory(29, 0);
  for (int s = 0; s < 3; s++) {
    flash.set_owner(2, s, 0);
  }
  flash.name(28, 3, "another", 2);
  flash.data(2, 3, 3, 0, "of another");
  const image::rescue_plan plan = flash.rescue({.deleted = true});
  ASSERT_EQ(1U, plan.decisions.size());
  EXPECT_EQ(image::certainty::guessed, plan.decisions[0].sure);
  EXPECT_EQ("of another", flash.files().at("another"));
  EXPECT_TRUE(other_full + third_full + tail == flash.files().at("file")) << listing();
}

TEST_F(rescue, removed_files_of_one_id_come_back_each_with_its_own) {
  flash.name(28, 9, "first", 3, 1800000001);
  flash.data(3, 0, 9, 0, full);
  flash.data(3, 1, 9, 1, "end of the first");
  flash.name(27, 9, "second", 3, 1800000002);
  flash.data(3, 2, 9, 0, "the second");
  flash.name(26, 9, "third", 3, 1800000003);
  flash.data(3, 3, 9, 0, third_full);
  flash.data(3, 4, 9, 1, "end of the third");
  for (int s = 0; s < 5; s++) {
    flash.set_owner(3, s, 0);
  }
  for (int k = 26; k <= 28; k++) {
    flash.set_directory(k, 0);
  }
  flash.rescue({.deleted = true});
  EXPECT_TRUE(third_full + "end of the third" == flash.files().at("third")) << listing();
  EXPECT_EQ("the second", flash.files().at("second"));
  EXPECT_TRUE(full + "end of the first" == flash.files().at("first")) << listing();
}

// What a file has lost that stands, under whatever name, is no removed file's.
TEST_F(rescue, renamed_file_does_not_come_back_under_its_former_name) {
  flash.name(28, 3, "renamed", 2);
  flash.set_directory(29, 0);
  flash.data(3, 0, 3, 2, tail);
  flash.set_owner(3, 0, 0);
  EXPECT_TRUE(flash.rescue({.deleted = true}).steps.empty());
  EXPECT_FALSE(flash.files().contains("file"));
}

TEST_F(rescue, removed_directories_come_back_with_a_file_that_was_in_them) {
  flash.name(28, 7, "outer", 3, 1800000000, 1, 0x4700);
  flash.name(27, 8, "inner", 0, 1800000000, 7, 0x4700);
  flash.name(26, 9, "empty", 1, 1800000000, 7, 0x4700);
  flash.name(25, 3, "below", 0, 1800000001, 8);
  for (int k = 25; k <= 29; k++) {
    flash.set_directory(k, 0);
  }
  for (int s = 0; s < 3; s++) {
    flash.set_owner(2, s, 0);
  }
  const image::rescue_plan plan = flash.rescue({.deleted = true});
  EXPECT_TRUE(has_decision(plan, "directory-returned"));
  EXPECT_TRUE(other_full + third_full + tail == flash.files().at("outer/inner/below")) << listing();
  EXPECT_FALSE(flash.files().contains("outer/empty"));
}

TEST_F(rescue, removed_file_comes_into_a_directory_that_has_the_name_by_now) {
  flash.name(28, 7, "folder", 3, 1800000000, 1, 0x4700);
  flash.name(27, 3, "below", 0, 1800000001, 7);
  for (int k = 27; k <= 29; k++) {
    flash.set_directory(k, 0);
  }
  for (int s = 0; s < 3; s++) {
    flash.set_owner(2, s, 0);
  }
  flash.name(26, 8, "folder", 4, 1800000002, 1, 0x4700);
  flash.rescue({.deleted = true});
  EXPECT_TRUE(other_full + third_full + tail == flash.files().at("folder/below")) << listing();
  EXPECT_EQ(3U, flash.files().size()) << listing();
}

TEST_F(rescue, removed_file_stays_where_a_file_has_the_name_of_its_directory) {
  flash.name(28, 7, "kept", 3, 1800000000, 1, 0x4700);
  flash.name(27, 3, "below", 0, 1800000001, 7);
  for (int k = 27; k <= 29; k++) {
    flash.set_directory(k, 0);
  }
  for (int s = 0; s < 3; s++) {
    flash.set_owner(2, s, 0);
  }
  const image::rescue_plan plan = flash.rescue({.deleted = true});
  EXPECT_FALSE(flash.files().contains("kept/below"));
  EXPECT_TRUE(other_full + third_full + tail == flash.files().at("file")) << listing();
}

// Two of its sectors had been written again when the power failed.
TEST_F(rescue, removed_file_comes_back_whole_when_its_return_was_cut) {
  for (const uint16_t id : {uint16_t{3}, uint16_t{9}}) {  // its own, and another one
    SCOPED_TRACE(id);
    rescued_flash cut;
    cut.name(29, 3, "file", 2);
    cut.set_directory(29, 0);
    cut.data(2, 0, 3, 0, other_full);
    cut.data(2, 1, 3, 1, third_full);
    cut.data(2, 2, 3, 2, tail);
    for (int s = 0; s < 3; s++) {
      cut.set_owner(2, s, 0);
    }
    cut.name(28, 4, "kept", 1);
    if (id != 3) {
      cut.name(27, 3, "another", 3);
    }
    cut.data(2, 3, id, 0, other_full);
    cut.data(2, 4, id, 1, third_full);
    const image::rescue_plan plan = cut.rescue({.deleted = true});
    EXPECT_TRUE(other_full + third_full + tail == cut.files().at("file"));
    EXPECT_EQ(id == 3 ? 2U : 3U, cut.files().size());
  }
}

// Removed: a directory with a file, and two files that had one id, which a third one has now.
TEST_F(rescue, return_of_removed_files_goes_on_wherever_it_was_cut) {
  flash.name(28, 7, "folder", 3, 1800000000, 1, 0x4700);
  flash.name(27, 3, "below", 0, 1800000001, 7);
  flash.name(26, 8, "first", 4, 1800000002);
  flash.data(3, 0, 8, 0, full);
  flash.data(3, 1, 8, 1, "end");
  flash.name(25, 8, "second", 4, 1800000003);
  flash.data(3, 2, 8, 0, "the second");
  for (int k = 25; k <= 29; k++) {
    flash.set_directory(k, 0);
  }
  for (int s = 0; s < 3; s++) {
    flash.set_owner(2, s, 0);
    flash.set_owner(3, s, 0);
  }
  flash.name(24, 8, "third", 4, 1800000004);
  flash.data(3, 3, 8, 0, "the third");
  const std::vector<uint8_t> before = flash.device().flash().snapshot();
  const image::rescue_plan plan = flash.rescue({.deleted = true});
  const std::map<std::string, std::string> whole = flash.files();
  ASSERT_EQ(6U, whole.size()) << listing();
  size_t words = 0;
  for (const image::rescue_step& each : plan.steps) {
    ASSERT_FALSE(each.is_erase);
    words += each.bytes.size() / 2;
  }
  for (size_t cut = 0; cut < words && !HasFailure(); cut += cut % 3 == 0 ? 1 : 29) {
    SCOPED_TRACE(cut);
    flash.device().flash().restore(before);
    size_t left = cut;
    for (const image::rescue_step& each : plan.steps) {
      const size_t taken = std::min(left, each.bytes.size() / 2);
      if (taken != 0) {
        flash.device().write(each.offset, static_cast<uint32_t>(taken * 2), each.bytes.data());
      }
      left -= taken;
    }
    flash.rescue({.deleted = true});
    EXPECT_TRUE(whole == flash.files()) << listing();
  }
}

TEST_F(rescue, what_an_empty_file_held_stands_beside_it) {
  for (int s = 0; s < 3; s++) {
    flash.set_owner(2, s, 0);
  }
  EXPECT_TRUE(flash.rescue().steps.empty());
  flash.rescue({.deleted = true});
  EXPECT_EQ("", flash.files().at("file"));
  EXPECT_TRUE(other_full + third_full + tail == flash.files().at("file.old")) << listing();
}

// --- anything ---

// Whatever the flash holds, the rescue ends, and the check takes what it leaves.
TEST_F(rescue, damage_of_all_kinds_is_mended_to_what_the_check_takes) {
  const std::vector<uint8_t> sound = flash.device().flash().snapshot();
  for (uint32_t seed = 0; seed < 300 && !HasFailure(); seed++) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    flash.device().flash().restore(sound);
    uint8_t* bytes = flash.device().bytes();
    for (uint32_t i = 0; i < 1 + seed % 8; i++) {
      const size_t at = random() % sound.size();
      const size_t length = std::min<size_t>(random() % (1U << random() % 12), sound.size() - at);
      const uint32_t kind = random() % 5;
      for (size_t j = 0; j < length; j++) {
        bytes[at + j] = kind == 0   ? 0xFF
                        : kind == 1 ? 0
                        : kind == 2 ? static_cast<uint8_t>(random())
                        : kind == 3 ? static_cast<uint8_t>(bytes[at + j] & random())
                                    : bytes[(at + j * 2) % sound.size()];
      }
    }
    flash.rescue();
  }
}

// Records that are good by themselves and contradict each other: two for one thing, gaps, circles,
// orphans, blocks in all states.
TEST_F(rescue, records_by_chance_are_mended_to_what_the_check_takes) {
  const std::vector<uint8_t> sound = flash.device().flash().snapshot();
  for (uint32_t seed = 0; seed < 300 && !HasFailure(); seed++) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto below = [&](uint32_t end) { return static_cast<int>(random() % end); };
    flash.device().flash().restore(sound);
    for (int i = below(25); i > 0; i--) {
      const int block = below(6);
      if (below(3) != 0) {
        flash.data(
            block, below(5) + 1, static_cast<uint16_t>(below(8)), static_cast<uint16_t>(below(4)),
            bytes_of(below(2) == 0 ? 2048 : random() % 2048, static_cast<uint32_t>(random())));
      } else {
        flash.name(below(32), static_cast<uint16_t>(below(8) + 1),
                   std::string(1, "abcdef "[below(7)]), static_cast<uint16_t>(below(6)),
                   1800000000U + random() % 3, static_cast<uint16_t>(below(8)),
                   below(3) == 0 ? 0x4700 : 0x8700);
      }
    }
    for (int i = below(3); i > 0; i--) {
      const uint8_t states[] = {0xF, 7, 3, 1, 0, 2, 0xE};
      flash.set_state(below(6), states[below(7)]);
    }
    flash.rescue();
  }
}

TEST_F(rescue, orphans_stand_in_the_root_when_a_file_has_the_name_of_their_directory) {
  flash.name(28, 9, "lost+found", 3);
  flash.name(27, 10, "inside", 0, 1800000000, 8);
  flash.data(3, 0, 10, 0, "contents");
  flash.rescue();
  EXPECT_EQ("contents", flash.files().at("00008/inside"));
}
TEST_F(rescue, orphan_whose_number_is_a_name_in_lost_and_found_stands_beside_it) {
  flash.name(28, 9, "lost+found", 3, 1800000000, 1, 0x4700);
  flash.name(27, 10, "00007", 0, 1800000000, 9);
  flash.name(26, 11, "00007-1", 1, 1800000000, 9);
  flash.data(3, 0, 10, 0, "an earlier one");
  flash.data(3, 1, 7, 0, "an orphan");
  flash.rescue();
  EXPECT_EQ("an earlier one", flash.files().at("lost+found/00007"));
  EXPECT_EQ("an orphan", flash.files().at("lost+found/00007-2"));
}

// Whatever the slots say, and whether they say anything.
TEST_F(rescue, whole_files_outlive_all_that_happens_to_names) {
  const std::vector<std::string> contents = {full + "of 7", other_full + "of 8", "of 9"};
  flash.data(3, 0, 7, 0, full);
  flash.data(3, 1, 7, 1, "of 7");
  flash.data(3, 2, 8, 0, other_full);
  flash.data(4, 0, 8, 1, "of 8");
  flash.data(4, 1, 9, 0, contents[2]);
  const std::vector<uint8_t> sound = flash.device().flash().snapshot();
  for (uint32_t seed = 0; seed < 200 && !HasFailure(); seed++) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto below = [&](uint32_t end) { return static_cast<uint16_t>(random() % end); };
    flash.device().flash().restore(sound);
    for (int i = below(25); i > 0; i--) {
      const int place = below(32);
      const uint16_t entry = below(8) + 2;
      const bool directory = entry < 7 && below(2) == 0;
      const char* const names[] = {"a", "b", "lost+found", "00007", "00008", "00009", "x/y"};
      flash.name(place, entry, names[below(7)], below(12), 1800000000U + below(3),
                 below(2) == 0 ? 1 : below(10), directory ? 0x4700 : 0x8700);
      if (below(4) == 0) {
        flash.set_directory(place, 0);
      }
    }
    flash.rescue({.deleted = below(2) == 0});
    for (const std::string& each : contents) {
      EXPECT_TRUE(std::any_of(flash.files().begin(), flash.files().end(), [&](const auto& file) {
        return file.second == each;
      })) << listing();
    }
  }
}

// Names that clash, also with those that the rescue gives, in directories that stand or do not,
// whole, torn and deleted, with and without what was removed.
TEST_F(rescue, names_by_chance_are_mended_to_what_the_check_takes) {
  const std::vector<uint8_t> sound = flash.device().flash().snapshot();
  const std::vector<std::string> names = {"a", "b", "", "x/y", "\x01", "..", "kept", "lost+found"};
  for (uint32_t seed = 0; seed < 300 && !HasFailure(); seed++) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto below = [&](uint32_t end) { return static_cast<uint16_t>(random() % end); };
    flash.device().flash().restore(sound);
    for (int i = below(10); i > 0; i--) {
      const int block = below(6);
      const int place = below(5) + 1;
      flash.data(block, place, below(10), below(3), bytes_of(below(2) == 0 ? 2048 : 100, seed));
      if (below(4) == 0) {
        flash.set_owner(block, place, below(10));
      }
    }
    for (int i = below(20); i > 0; i--) {
      const int place = below(31);
      const uint16_t choice = below(12);
      const std::string name =
          choice < names.size() ? names[choice] : "0000" + std::to_string(below(10));
      flash.name(place, below(8) + 2, name, below(12), 1800000000U + below(3),
                 below(2) == 0 ? 1 : below(9), below(3) == 0 ? 0x4700 : 0x8700);
      if (below(3) == 0) {
        flash.set_directory(place, below(2) == 0 ? 0 : below(9));
      }
    }
    flash.rescue({.deleted = below(2) == 0});
  }
}

}  // namespace
