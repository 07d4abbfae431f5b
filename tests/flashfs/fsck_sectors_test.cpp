// The check as it deals with sectors, slots, their counters, duplicates and broken lists. Each test
// is a recipe - an image, the bytes that are wrong in it - with what the check says of it, what it
// leaves, and that a second check has nothing to say.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "flashfs/available.h"
#include "flashfs/check_flags.h"
#include "flashfs/filemap.h"
#include "flashfs/flashfs.h"
#include "flashfs/fsck.h"
#include "flashfs/path.h"
#include "flashfs/scan.h"
#include "sim/flash.h"
#include "tests/flashfs/driver_calls.h"
#include "tests/flashfs/flashfs_recipe.h"
#include "tests/flashfs/flashfs_test_tools.h"
#include "tests/flashfs/fsck_recipe.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"

namespace {

using namespace test_support;

using check_sectors = check_recipe;
using check_slots = check_recipe;
using check_counters = check_recipe;
using check_duplicates = check_recipe;
using check_lists = check_recipe;

// --- sectors ---

TEST_F(check_sectors, the_quick_check_reads_of_data_only_whose_they_are_and_their_number) {
  make();
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  device().clear_counts();
  ASSERT_EQ(check(flashfs_check_quick), 0);
  const uint64_t quick_bytes = device().counts().bytes_read;
  device().clear_counts();
  ASSERT_EQ(check(flashfs_check_full), 0);
  // Of 12 sectors the quick check reads the owner, of a directory sector also the rest and of two
  // data sectors the number; the full one all 12, once.
  EXPECT_EQ(device().counts().bytes_read - quick_bytes, 12 * 2056U - (12 * 2U + 2054U + 2 * 2U));
}

TEST_F(check_sectors, every_byte_is_read_by_the_full_check_and_data_once) {
  make();
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  const driver_calls calls(fs());
  ASSERT_EQ(check(flashfs_check_full), 0);
  for (int b = 0; b < fs()->num_blocks; b++) {
    for (int s = 0; s < fs()->flashfs_blocks[b].num_sectors; s++) {
      const auto offset = static_cast<uint32_t>(image().sector_at(b, s) - device().bytes());
      const std::vector<uint32_t> reads = calls.reads_of_bytes(offset, sizeof(flashfs_sector));
      // Names are looked up in directory sectors again.
      const bool holds_names = fileid_at(b, s) == fileid_root;
      EXPECT_GE(*std::min_element(reads.begin(), reads.end()), 1U) << b << "." << s;
      if (!holds_names) {
        EXPECT_EQ(*std::max_element(reads.begin(), reads.end()), 1U) << b << "." << s;
      }
    }
  }
}

TEST_F(check_sectors, the_free_space_is_listed_as_block_after_block_would_list_it) {
  make_blocks({4, 4, 4, 4});
  image().headers(3);
  names({"0:0.1/0 1<1", "1:2.0/5 2<1 f", "2:2.2/31 3<1 g"});
  data(2, "1.1");
  delete_slots("0.1/7");
  for (const uint32_t flags : {flashfs_check_quick, flashfs_check_full}) {
    check_of_recipe(flags);
    ASSERT_EQ(fs()->ready, 1U);
    const std::string sectors = sectors_text(fs());
    const std::string slots = slots_text(fs());
    EXPECT_EQ(sectors, "2.1 2.3 1.0 1.2 1.3 0.0 0.2 0.3");
    available_clear(fs());
    for (int16_t b = 0; b < 3; b++) {
      ASSERT_EQ(flashfs_scan_block_available(fs(), b), 0);
    }
    EXPECT_EQ(sectors_text(fs()), sectors);
    EXPECT_EQ(slots_text(fs()), slots);
    EXPECT_EQ(fs()->num_available_sectors, 8U);
    EXPECT_EQ(fs()->num_available_slots, 31U + 31 + 30);
  }
}

TEST_F(check_sectors, where_the_check_changed_something_it_looks_for_the_free_space_again) {
  make();
  image().data_sector(1, 2, 2, 1, "another second sector");
  ASSERT_EQ(check_of_recipe(flashfs_check_full), quiet_check);
  EXPECT_EQ(fileid_at(1, 0), 0) << "the one met last stays";
  const std::string sectors = sectors_text(fs());
  const std::string slots = slots_text(fs());
  remount(flashfs_check_full);
  EXPECT_EQ(sectors_text(fs()), sectors);
  EXPECT_EQ(slots_text(fs()), slots);
}

TEST_F(check_sectors, a_wrong_checksum_is_found_by_the_full_check_only) {
  make();
  image().sector_at(1, 0)[100] ^= 0x10;
  const uint32_t crc = image_crc(image().sector_at(1, 0), 2056);
  EXPECT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  EXPECT_EQ(list_text(fs(), 2), "0:0.1/255 1:1.0/255");
  EXPECT_EQ(check_of_recipe(flashfs_check_full),
            said("sector 0, block 1 checksum (" + hex(crc) + " != 0xe2f0)") + quiet_check);
  EXPECT_EQ(block_text(1), "0 - - -");
  EXPECT_EQ(list_text(fs(), 2), "0:0.1/255");
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_sectors, a_file_without_its_first_sector_is_emptied) {
  make();
  image().sector_at(0, 1)[2055] ^= 1;
  const uint32_t crc = image_crc(image().sector_at(0, 1), 2056);
  EXPECT_EQ(check_of_recipe(flashfs_check_full),
            said("sector 1, block 0 checksum (" + hex(crc) + " != 0xe2f0)") +
                said("inconsistent sector list, fileid 2, parent_fileid 0") + quiet_check);
  EXPECT_EQ(block_text(0), "1 0 - -");
  EXPECT_EQ(block_text(1), "0 - - -");
  // Its name is still there, and makes an empty file of it.
  EXPECT_EQ(path_lookup(fs(), "f"), 2);
  EXPECT_EQ(list_text(fs(), 2), "");
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_sectors, a_sector_claimed_and_not_written_costs_the_quick_check_the_file) {
  make();
  image().sector_at(2, 0)[0] = 0;
  image().sector_at(2, 0)[1] = 2;
  const std::vector<uint8_t> before = device().flash().snapshot();
  EXPECT_EQ(check_of_recipe(flashfs_check_quick),
            said("inconsistent sector list, fileid 2, parent_fileid 0") + quiet_check);
  EXPECT_EQ(list_text(fs(), 2), "");
  EXPECT_TRUE(is_repaired());

  device().flash().restore(before);
  const uint32_t crc = image_crc(image().sector_at(2, 0), 2056);
  EXPECT_EQ(check_of_recipe(flashfs_check_full),
            said("sector 0, block 2 checksum (" + hex(crc) + " != 0xe2f0)") + quiet_check);
  EXPECT_EQ(list_text(fs(), 2), "0:0.1/255 1:1.0/255");
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_sectors, an_erased_sector_with_one_programmed_byte_is_invalidated_silently) {
  for (const int byte : {2, 3, 1000, 2055}) {
    make();
    image().sector_at(2, 1)[byte] = 0xFE;
    EXPECT_EQ(check_of_recipe(flashfs_check_full), quiet_check);
    EXPECT_EQ(block_text(2), "- 0 - -");
    EXPECT_EQ(counters_text(), "0/0 0/0 1/0 0/0");
    EXPECT_TRUE(is_repaired());
  }
}

TEST_F(check_sectors, bytes_behind_the_last_sector_are_not_looked_at) {
  make_flash({{block_bytes(4) + 100, false}, {block_bytes(4) + 100, false}});
  image_builder odd(device());
  odd.headers(1);
  odd.slot(0, 0, 0, {.entry_fileid = 1, .mode = 0x4700, .name = {}});
  memset(odd.header_at(0) + block_bytes(4), 0, 100);
  memset(odd.header_at(1) + block_bytes(4), 0, 100);
  initialize();
  EXPECT_EQ(check(flashfs_check_full), 0);
  EXPECT_EQ(check_output(), quiet_check);
}

// --- slots of directory sectors ---

TEST_F(check_slots, a_wrong_checksum_deletes_the_slot) {
  make();
  image().slot_at(0, 0, 3)[20] = 'y';
  const uint32_t crc = image_crc(image().slot_at(0, 0, 3), 64);
  EXPECT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  EXPECT_EQ(
      check_of_recipe(flashfs_check_full),
      said("Dir slot 3, sector 0, block 0, checksum (" + hex(crc) + " != 0xe2f0)") + quiet_check);
  EXPECT_EQ(slot_on_flash(0, 0, 3).dir_fileid, 0);
  EXPECT_EQ(entry(4), nullptr);
  EXPECT_EQ(counters_text(), "0/1 0/0 0/0 0/0");
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_slots, a_wrong_file_type_deletes_the_slot) {
  make();
  image().slot(0, 0, 3, {.dir_fileid = 3, .entry_fileid = 4, .mode = 0xA1FF, .name = "x"});
  EXPECT_EQ(check_of_recipe(flashfs_check_full),
            said("Dir slot 3, sector 0, block 0, bad file type in mode: 0xa000") + quiet_check);
  EXPECT_EQ(entry(4), nullptr);
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_slots, an_illegal_character_deletes_the_slot) {
  make();
  names({"0:0.0/3 4<3 a b"});
  EXPECT_EQ(check_of_recipe(flashfs_check_full),
            said("Illegal character 0x20 in filename: \"a b\"") + quiet_check);
  EXPECT_EQ(entry(4), nullptr);
  EXPECT_TRUE(is_repaired());
  make();
  names({"0:0.0/3 4<3 a\x80z"});
  EXPECT_EQ(check_of_recipe(flashfs_check_full),
            said("Illegal character 0xffffff80 in filename: \"a\x80z\"") + quiet_check);
}

TEST_F(check_slots, a_name_without_its_end_is_not_read_past_its_field) {
  make();
  names({"0:0.0/3 4<3 " + std::string(46, 'n')});
  EXPECT_EQ(check_of_recipe(flashfs_check_full), quiet_check);
  names({"0:0.0/3 4<3 " + std::string(45, 'n') + ":"});
  EXPECT_EQ(
      check_of_recipe(flashfs_check_full),
      said("Illegal character 0x3a in filename: \"" + std::string(45, 'n') + ":\"") + quiet_check);
}

TEST_F(check_slots, a_free_slot_with_a_programmed_byte_fails_the_quick_check_alone) {
  make();
  image().slot_at(0, 0, 9)[63] = 0x7F;
  EXPECT_EQ(check_of_recipe(flashfs_check_quick),
            "result -1: " + said("Inconsistency found in directory slot 9 in sector 0 in block 0"));
  EXPECT_EQ(check_of_recipe(flashfs_check_full), said("bad available_slot.") + quiet_check);
  EXPECT_EQ(slot_on_flash(0, 0, 9).dir_fileid, 0);
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_slots, the_first_thing_wrong_is_the_one_that_is_told) {
  make();
  image().slot(0, 0, 3, {.dir_fileid = 3, .entry_fileid = 4, .mode = 0x1000, .name = "a b"});
  image().slot_at(0, 0, 3)[63] ^= 1;
  EXPECT_EQ(check_of_recipe(flashfs_check_full).substr(0, 52),
            "flashfs[0]: Dir slot 3, sector 0, block 0, checksum ");
  make();
  image().slot(0, 0, 3, {.dir_fileid = 3, .entry_fileid = 4, .mode = 0x1000, .name = "a b"});
  EXPECT_EQ(check_of_recipe(flashfs_check_full),
            said("Dir slot 3, sector 0, block 0, bad file type in mode: 0x1000") + quiet_check);
}

TEST_F(check_slots, a_deleted_slot_is_not_looked_at) {
  make();
  image().slot_at(0, 0, 3)[63] ^= 1;
  delete_slots("0.0/3");
  EXPECT_EQ(check_of_recipe(flashfs_check_full), quiet_check);
}

TEST_F(check_slots, a_sector_whose_last_slot_is_deleted_is_invalidated_at_once) {
  make();
  image().slot(2, 0, 7,
               {.seq_no = 1, .dir_fileid = 3, .entry_fileid = 5, .mode = 0x1000, .name = "y"});
  delete_slots("2.0/0-6");
  delete_slots("2.0/8-31");
  EXPECT_EQ(check_of_recipe(flashfs_check_full),
            said("Dir slot 7, sector 0, block 2, bad file type in mode: 0x1000") + quiet_check);
  EXPECT_EQ(block_text(2), "0 - - -");
  EXPECT_EQ(counters_text(), "0/0 0/0 1/0 0/0");
  EXPECT_TRUE(is_repaired());
}

// --- counters ---

TEST_F(check_counters, invalid_sectors_and_deleted_slots_count_once_however_they_came) {
  for (const uint32_t flags : {flashfs_check_quick, flashfs_check_full}) {
    make();
    delete_slots("0.0/10-12");
    invalidate("1.1 2.0 2.3");
    EXPECT_EQ(check_of_recipe(flags), quiet_check);
    EXPECT_EQ(counters_text(), "0/3 1/0 2/0 0/0");
  }
  // Made so by the validation itself.
  image().sector_at(1, 2)[5] = 0;
  image().slot_at(0, 0, 20)[5] = 0;
  image().slot_at(0, 0, 21)[5] = 0;
  EXPECT_EQ(check_of_recipe(flashfs_check_full),
            said("bad available_slot.") + said("bad available_slot.") + quiet_check);
  EXPECT_EQ(counters_text(), "0/5 2/0 2/0 0/0");
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_counters, sectors_invalidated_by_later_steps_count_too) {
  make();
  names({"1:0.0/4 5<3 gap"});
  image().data_sector(2, 0, 5, 0, "zero");
  image().data_sector(2, 1, 5, 2, "two");
  image().data_sector(1, 2, 2, 1, "a later copy of f's second sector");
  EXPECT_EQ(check_of_recipe(flashfs_check_full),
            said("inconsistent sector list, fileid 5, parent_fileid 0") + quiet_check);
  EXPECT_EQ(counters_text(), "0/0 1/0 2/0 0/0");
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_counters, a_block_erased_on_the_way_counts_nothing) {
  make();
  invalidate("2.0");
  image_state(2, 0x7);
  check_of_recipe(flashfs_check_full);
  EXPECT_EQ(counters_text(), "0/0 0/0 0/0 0/0");
}

// --- duplicates ---

TEST_F(check_duplicates, of_two_copies_of_a_sector_the_one_read_last_stays) {
  for (const uint32_t flags : {flashfs_check_quick, flashfs_check_full}) {
    make();
    image().data_sector(2, 2, 2, 1, "another copy");
    EXPECT_EQ(check_of_recipe(flags), quiet_check);
    EXPECT_EQ(list_text(fs(), 2), "0:0.1/255 1:2.2/255");
    EXPECT_EQ(block_text(1), "0 - - -");
    EXPECT_EQ(block_text(2), "- - 2 -");
    EXPECT_TRUE(is_repaired());
  }
}

TEST_F(check_duplicates, of_many_copies_one_stays) {
  make();
  for (int sector = 0; sector < 4; sector++) {
    image().data_sector(2, sector, 2, 0, "another copy");
  }
  EXPECT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  EXPECT_EQ(list_text(fs(), 2), "0:2.3/255 1:1.0/255");
  EXPECT_EQ(block_text(0), "1 0 - -");
  EXPECT_EQ(block_text(2), "0 0 0 2");
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_duplicates, of_two_slots_the_one_read_last_stays) {
  make();
  names({"1:0.0/9 2<1 newer"});
  EXPECT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  EXPECT_EQ(list_text(fs(), 1), "0:0.0/0 1:0.0/9 2:0.0/2");
  EXPECT_EQ(slot_on_flash(0, 0, 1).dir_fileid, 0);
  EXPECT_EQ(path_lookup(fs(), "newer"), 2);
  EXPECT_EQ(counters_text(), "0/1 0/0 0/0 0/0");
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_duplicates, a_slot_and_a_data_sector_may_share_a_number) {
  make();
  image().data_sector(2, 0, 3, 0, "a data sector of a directory");
  EXPECT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  EXPECT_EQ(list_text(fs(), 3), "0:2.0/255");
  EXPECT_EQ(slot_on_flash(0, 0, 3).dir_fileid, 0);
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_duplicates, a_later_copy_in_a_committed_block_replaces_the_earlier_one) {
  make();
  image().data_sector(2, 2, 2, 1, "a copy");
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  ASSERT_EQ(list_text(fs(), 2), "0:0.1/255 1:2.2/255");
  image_state(1, 0x3);
  image().data_sector(1, 3, 2, 1, "in the committed block");
  auto* later = static_cast<flashfs_sctr_list_ordered*>(chunk_malloc(fs()->sctr_ptr_chunk));
  *later = {nullptr, 1, slot_of_sector, {1, 3}};
  entry(2)->sctr_list->next->next = later;
  EXPECT_EQ(writes_of(fs(), [&] { EXPECT_EQ(fsck_resolve_duplicates(fs(), entry(2)), 0); }),
            "2.2+");
  EXPECT_EQ(list_text(fs(), 2), "0:0.1/255 1:1.3/255");
  EXPECT_EQ(block_text(2), "- - 0 -");
}

TEST_F(check_duplicates, a_later_slot_in_a_committed_block_replaces_the_earlier_one) {
  make();
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  image_state(1, 0x3);
  names({"1:1.3/6 2<1 committed"});
  flashfs_sctr_list_ordered* second = entry(1)->sctr_list->next;
  auto* later = new listed_slot{};
  static_cast<flashfs_sctr_list_ordered&>(*later) = {second->next, 1, 6, {1, 3}};
  later->before = second;
  as_listed_slot(second->next)->before = later;
  second->next = later;
  EXPECT_EQ(fsck_resolve_duplicates(fs(), entry(1)), 0);
  EXPECT_EQ(list_text(fs(), 1), "0:0.0/0 1:1.3/6 2:0.0/2");
  EXPECT_EQ(slot_on_flash(0, 0, 1).dir_fileid, 0);
  EXPECT_EQ(counters_text(), "0/1 0/0 0/0 0/0");
}

TEST_F(check_duplicates, a_failing_call_is_told) {
  for (uint64_t n = 1; n <= 3; n++) {
    make();
    ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
    image().data_sector(2, 2, 2, 1, "a copy");
    (void)filemap_add_sector(fs(), {2, 2},
                             reinterpret_cast<flashfs_sector*>(image().sector_at(2, 2)), 255);
    device().fail(flash_call::any, n, flash_operation_failed);
    output_of([&] { EXPECT_EQ(fsck_resolve_duplicates(fs(), entry(2)), 1); });
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
  }
}

// --- broken lists ---

TEST_F(check_lists, a_file_with_a_gap_is_dropped_with_its_sectors) {
  make();
  image().data_sector(1, 0, 2, 2, "was number 1");
  image().data_sector(2, 3, 2, 3, "three");
  EXPECT_EQ(check_of_recipe(flashfs_check_quick),
            said("inconsistent sector list, fileid 2, parent_fileid 0") + quiet_check);
  EXPECT_EQ(block_text(0), "1 0 - -");
  EXPECT_EQ(block_text(1), "0 - - -");
  EXPECT_EQ(block_text(2), "- - - 0");
  EXPECT_EQ(list_text(fs(), 2), "");
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_lists, a_file_with_a_gap_and_no_name_is_gone) {
  make();
  image().data_sector(2, 0, 9, 0, "zero");
  image().data_sector(2, 1, 9, 2, "two");
  EXPECT_EQ(check_of_recipe(flashfs_check_quick),
            said("inconsistent sector list, fileid 9, parent_fileid 0") + quiet_check);
  EXPECT_EQ(entry(9), nullptr);
  EXPECT_EQ(map_text(fs()), "1<1 2<1 3<1 4<3");
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_lists, a_file_that_does_not_begin_at_0_is_dropped) {
  make();
  image().data_sector(2, 0, 4, 1, "one");
  image().data_sector(2, 1, 65534, 65535, "the last number there is");
  EXPECT_EQ(check_of_recipe(flashfs_check_quick),
            said("inconsistent sector list, fileid 4, parent_fileid 0") +
                said("inconsistent sector list, fileid 65534, parent_fileid 0") + quiet_check);
  EXPECT_EQ(block_text(2), "0 0 - -");
  EXPECT_EQ(path_lookup(fs(), "d/x"), 4);
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_lists, a_directory_may_have_gaps) {
  make();
  names({"8:0.0/3 4<3 x"});
  EXPECT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  EXPECT_EQ(list_text(fs(), 3), "8:0.0/3");
}

TEST_F(check_lists, a_sector_that_cannot_be_invalidated_fails_the_check) {
  make();
  image().data_sector(1, 0, 2, 2, "was number 1");
  initialize();
  device().fail(flash_call::write, 1, flash_operation_failed);
  EXPECT_EQ(check(flashfs_check_quick), -1);
  const std::string told = said("inconsistent sector list, fileid 2, parent_fileid 0");
  EXPECT_EQ(check_output().substr(0, told.size()), told);
  device().fail(flash_call::any, 0, flash_ok);
}

}  // namespace
