// Garbage collection when only directory slots are left to collect: when slots are compacted, which
// ones move where, in what order the flash is written, and the reclamation that follows.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "flashfs/available.h"
#include "flashfs/check_flags.h"
#include "flashfs/filemap.h"
#include "flashfs/flashfs.h"
#include "flashfs/path.h"
#include "tests/flashfs/flashfs_recipe.h"
#include "tests/flashfs/gc_recipe.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"

namespace {

using namespace test_support;

// --- compaction of directory slots ---

class slots : public collection_recipe {
 protected:
  // The live slots of a directory sector as "slot:entry"; "-" for a free and "x" for a deleted one
  // are left out.
  std::string slots_on_flash(int block, int sector) {
    std::vector<std::string> words;
    for (int k = 0; k < 32; k++) {
      const flashfs_dir_slot slot = slot_on_flash(block, sector, k);
      if (slot.dir_fileid != 0 && slot.dir_fileid != 0xFFFF) {
        words.push_back(std::to_string(k) + ":" + std::to_string(slot.entry_fileid));
      }
    }
    return joined(words);
  }
  // The spare is block 2. Directory sectors 0.0 .. with so many live slots each: entries of the
  // root with the ids 10, 11, ... in the first slots, the root's own slot the very first of all.
  // The other slots are deleted; file 2, first of the names, has all other sectors.
  void make_directories(const std::vector<int>& live, int erased_from = 32) {
    make_blocks({4, 4, 4});
    image().headers(2);
    uint16_t seq_no = 0;
    for (int sector = 0; sector < static_cast<int>(live.size()); sector++) {
      const int count = live[static_cast<size_t>(sector)];
      for (int k = 0; k < count; k++, seq_no++) {
        if (seq_no == 0) {
          names({"0:0.0/0 1<1"});
        } else {
          const uint16_t fileid = seq_no == 1 ? uint16_t{2} : static_cast<uint16_t>(10 + seq_no);
          image().slot(
              0, sector, k,
              {.seq_no = seq_no, .entry_fileid = fileid, .name = "f" + std::to_string(fileid)});
        }
      }
      delete_slots("0." + std::to_string(sector) + "/" + std::to_string(count) + "-" +
                   std::to_string(erased_from - 1));
    }
    seq_no = 0;
    for (int sector = static_cast<int>(live.size()); sector < 8; sector++) {
      image().data_sector(sector / 4, sector % 4, 2, seq_no++, std::string(2048, 'x'));
    }
    mount_recipe();
    ASSERT_EQ(fs()->available_sectors, nullptr);
  }
  // Every name still leads to its entry.
  void expect_names(int count) {
    for (int i = 1; i < count; i++) {
      const int fileid = i == 1 ? 2 : 10 + i;
      EXPECT_EQ(path_lookup(fs(), ("f" + std::to_string(fileid)).c_str()), fileid);
    }
  }
};

TEST_F(slots, thirty_one_reclaimable_ones_are_not_compacted) {
  make_directories({16, 17});  // 16 and 15 deleted
  device().clear_counts();
  EXPECT_EQ(allocate(1), "none");
  EXPECT_EQ(device().counts().writes + device().counts().erases, 0U);
}

TEST_F(slots, thirty_two_reclaimable_ones_free_a_sector) {
  make_directories({16, 16});
  // Deleted slots are dropped by a reclamation, the slots of 2.1 move, and 2.1 is reclaimed.
  EXPECT_EQ(allocate(1), " wS2 wS2 eS0 wS0 wS2 wS0 wS0 eS2 wS2 wS00.1");
  EXPECT_EQ(fs()->available_block, 2);
  EXPECT_EQ(slots_text(fs()), "");
  expect_names(32);
  EXPECT_TRUE(is_repaired());
}

TEST_F(slots, available_and_deleted_ones_count_together) {
  make_directories({16, 16}, 31);  // one free slot in each sector, 30 deleted ones
  ASSERT_EQ(slots_text(fs()), "0.0/31 0.1/31");
  EXPECT_EQ(allocate(1).substr(0, 4), " wS2");
  make_directories({16, 17}, 31);
  EXPECT_EQ(allocate(1), "none");
}

TEST_F(slots, deleted_ones_in_the_spare_do_not_count) {
  make_directories({16, 17});
  fs()->flashfs_blocks[2].invalid_slots = 1;
  EXPECT_EQ(allocate(1), "none");
}

TEST_F(slots, one_freed_sector_is_not_enough_without_the_reserve) {
  make_directories({16, 16});
  const std::string output = allocate();
  EXPECT_EQ(output.substr(output.size() - 4), "none");
  EXPECT_EQ(sectors_text(fs()), "0.1");
  EXPECT_TRUE(is_repaired());
}

TEST_F(slots, two_freed_sectors_are_enough) {
  make_directories({11, 10, 11});
  const std::string output = allocate();
  EXPECT_EQ(output.substr(output.size() - 3), "0.1");
  EXPECT_EQ(sectors_text(fs()), "0.2");
  EXPECT_EQ(fs()->num_available_slots, 0U);
  expect_names(32);
  EXPECT_TRUE(is_repaired());
}

TEST_F(slots, compaction_follows_a_block_without_sectors_enough) {
  // Phase by phase: block 3 is brought into service, gives one sector, and then only slots are
  // left.
  make_blocks({4, 4, 4, 1});
  image().headers(2);
  image_state(3, 0xF);
  names({"0:0.0/0 1<1", "1:0.0/1 2<1 f", "2:0.1/0 3<1 g"});
  delete_slots("0.0/2-31");
  delete_slots("0.1/1-31");
  data(2, "0.2 0.3 1.0 1.1 1.2 1.3");
  mount_recipe();
  ASSERT_EQ(fs()->available_sectors, nullptr);
  EXPECT_EQ(allocate(), " wS3 wS2 wS2 eS0 wS0 wS2 wS0 wS0 eS2 wS2 wS00.1");
  EXPECT_EQ(sectors_text(fs()), "3.0");
}

TEST_F(slots, dropping_deleted_ones_begins_with_the_lowest_block) {
  make_blocks({2, 2, 2});
  image().headers(2);
  names({"0:0.0/0 1<1"});
  delete_slots("0.0/1-31");
  names({"1:1.0/0 2<1 f"});
  delete_slots("1.0/1-31");
  data(2, "0.1 1.1");
  mount_recipe();
  // Block 0 goes through block 2 and block 1 through block 0. What is left lies in 0.0 and 2.0, of
  // which 2.0 is emptied and reclaimed through block 1.
  EXPECT_EQ(allocate(1),
            " wS2 wS2 eS0 wS0 wS2"
            " wS0 wS0 eS1 wS1 wS0"
            " wS1 wS1 eS2 wS2 wS11.0");
  EXPECT_EQ(slots_on_flash(0, 0), "0:2 31:1");
  EXPECT_EQ(list_text(fs(), 1), "0:0.0/31 1:0.0/0");
  EXPECT_TRUE(is_repaired());
}

TEST_F(slots, the_highest_ones_of_the_last_sector_move_first_to_the_first_free_ones) {
  make_directories({29, 3});  // 3 free in 0.0, the entries 39, 40 and 41 in 0.1
  EXPECT_EQ(allocate(1).substr(0, 4), " wS2");
  // Free slots of a sector stand in descending order, and 0.1/2 is the first to move.
  EXPECT_EQ(slot_on_flash(0, 0, 31).entry_fileid, 41);
  EXPECT_EQ(slot_on_flash(0, 0, 30).entry_fileid, 40);
  EXPECT_EQ(slot_on_flash(0, 0, 29).entry_fileid, 39);
  const std::string list = list_text(fs(), 1);
  EXPECT_EQ(list.substr(list.size() - 29), "29:0.0/29 30:0.0/30 31:0.0/31");
}

TEST_F(slots, a_moved_one_is_written_before_the_old_one_goes) {
  make_directories({31, 1});
  EXPECT_EQ(writes_of_allocation(1),
            // dropping the deleted ones
            "2=invalid1 2.0 2.1 2.2 2.3 2=committed erase 0 0=available 2=in_use "
            // the run's free slots go, the live one is copied and deleted
            "2.1 2.0 2.1 "
            // reclaiming the sector
            "0=invalid1 0.0 0.2 0.3 0=committed erase 2 2=available 0=in_use");
}

TEST_F(slots, a_moved_one_is_copied_byte_for_byte) {
  make_directories({31, 1});
  image().slot_at(0, 1, 0)[12] = 0x12;  // in the carried bytes
  image().slot_at(0, 1, 0)[62] = 0x34;  // the checksum, now a wrong one
  const flashfs_dir_slot before = slot_on_flash(0, 1, 0);
  allocate(1);
  const flashfs_dir_slot after = slot_on_flash(0, 0, 31);
  EXPECT_EQ(memcmp(&before, &after, sizeof(before)), 0);
}

TEST_F(slots, a_run_that_does_not_fit_stays_as_it_is) {
  // Eight free in each of four sectors: 32 are enough for the second, and then 24 are too few.
  make_directories({24, 24, 24, 24});
  allocate(1);
  EXPECT_EQ(block_text(0), "1 - 1 1");
  expect_names(96);
  EXPECT_EQ(fs()->num_available_slots, 0U);
  EXPECT_TRUE(is_repaired());
}

TEST_F(slots, runs_are_emptied_in_order_while_the_free_ones_suffice) {
  // 31 + 30 + 2 + 31 free = 94. Sector 1: 94 >= 32, pending 2, free 64. Sector 2: 64 >= 34, pending
  // 32, free 62. Sector 3: 62 < 64, left as it is.
  make_directories({1, 2, 30, 1});
  allocate(1);
  EXPECT_EQ(block_text(0), "1 - - 1");
  EXPECT_EQ(fs()->num_available_slots, 30U);
  expect_names(34);
  EXPECT_TRUE(is_repaired());
}

TEST_F(slots, a_sector_of_free_ones_only_is_freed_without_moving_any) {
  make_directories({32, 32});
  // A directory sector just made, in the place of the file's last sector.
  invalidate("1.3");
  memset(image().sector_at(1, 3), 0xFF, 2056);
  image().sector_at(1, 3)[0] = 0;
  image().sector_at(1, 3)[1] = 1;
  mount_recipe();
  ASSERT_EQ(fs()->num_available_slots, 32U);
  // It is the only run, and the first one is where moved slots would go.
  EXPECT_EQ(allocate(1), "none");

  make_directories({16, 32}, 16);
  memset(image().sector_at(1, 3), 0xFF, 2056);
  image().sector_at(1, 3)[0] = 0;
  image().sector_at(1, 3)[1] = 1;
  mount_recipe();
  ASSERT_EQ(fs()->num_available_slots, 48U);
  EXPECT_EQ(writes_of_allocation(1),
            "1.3 2=invalid1 2.0 2.1 2.2 2=committed erase 1 1=available 2=in_use");
  EXPECT_TRUE(is_repaired());
}

TEST_F(slots, one_that_no_list_knows_is_an_inconsistency) {
  make_directories({31, 1});
  // Its number is not the one in memory any more.
  entry(1)->sctr_list->next->next->seq_no = 500;
  for (auto* each = entry(1)->sctr_list; each != nullptr; each = each->next) {
    if (each->seq_no == 31) {
      each->seq_no = 501;
    }
  }
  const std::string output = allocate(1);
  EXPECT_EQ(output, " wS2 wS2 eS0 wS0 wS2flashfs[0]: Collecting garbage, inconsistency!!!\nnone");
}

TEST_F(slots, one_of_a_directory_that_is_not_known_is_an_inconsistency) {
  make_directories({31, 1});
  image().slot_at(0, 1, 0)[3] = 99;  // its directory
  EXPECT_EQ(allocate(1),
            " wS2 wS2 eS0 wS0 wS2flashfs[0]: Collecting garbage, inconsistency!!!\nnone");
}

TEST_F(slots, a_second_name_that_the_check_has_dropped_is_an_inconsistency) {
  make_root(3);
  names({"1:0.0/1 2<1 f"});
  delete_slots("0.0/2-31");
  names({"2:0.1/0 2<1 g"});
  delete_slots("0.1/1-30");
  data(2, "0.2 0.3 1.0 1.1 1.2 1.3");
  mount_recipe();
  EXPECT_EQ(allocate(1),
            " wS2 wS2 eS0 wS0 wS2flashfs[0]: Collecting garbage, inconsistency!!!\nnone");
}

TEST_F(slots, a_sector_held_by_a_dropped_second_name_alone_gives_nothing) {
  make_root(3);
  names({"1:0.0/1 2<1 f", "2:0.1/0 2<1 g"});
  delete_slots("0.1/1-31");
  data(2, "0.2 0.3 1.0 1.1 1.2 1.3");
  mount_recipe();
  // The check has counted the sector as invalid, which it is not on flash.
  EXPECT_EQ(counters_text(), "1/0 0/0 0/0");
  EXPECT_EQ(allocate(1), " wS2 wS2 eS0 wS0 wS2" + inconsistency + "none");
  EXPECT_EQ(block_text(2), "1 1 2 2");
}

TEST_F(slots, any_failing_flash_call_ends_compaction_without_loss) {
  uint64_t calls = 1;
  int without_spare = 0;
  for (uint64_t n = 0; n <= calls; n++) {
    make_directories({30, 2});
    device().fail(flash_call::any, n, flash_operation_failed);
    const std::string output = allocate(1);
    if (n == 0) {
      calls = device().calls_since_fail();
      ASSERT_GT(calls, 40U);
      continue;
    }
    EXPECT_EQ(output.substr(output.size() - 4), "none") << n;
    EXPECT_EQ(device().calls_since_fail(), n) << "it is the last call";
    device().fail(flash_call::any, 0, flash_ok);
    if (check_of_recipe(flashfs_check_full).find("unable to allocate available block.") !=
        std::string::npos) {
      without_spare++;
      continue;
    }
    EXPECT_EQ(fs()->ready, 1U) << n << check_output();
    expect_names(32);
    EXPECT_EQ(sctr_list_length(entry(2)->sctr_list), 6U) << n;
  }
  // Between a commit and the erase, which reads the header first, both blocks hold data, and here
  // there is no third one. That happens in both of the reclamations.
  EXPECT_EQ(without_spare, 4);
}

// --- reclaiming after compaction ---

TEST_F(slots, afterwards_only_blocks_in_use_are_reclaimed) {
  make_blocks({2, 2, 2, 2});
  image().headers(3);
  names({"0:0.0/0 1<1", "1:0.0/1 2<1 f", "2:1.0/0 3<1 g", "3:2.0/0 4<1 h"});
  data(2, "0.1 1.1 2.1");
  mount_recipe();
  image_state(1, 0x3);
  fs()->random = 1;
  // Compaction empties a sector in both of the blocks 1 and 2: without a tie random stays.
  EXPECT_EQ(allocate(1), " wS3 wS3 eS2 wS2 wS33.0");
  EXPECT_EQ(fs()->random, 1U);
  EXPECT_EQ(counters_text(), "0/0 1/0 0/0 0/0");
}

TEST_F(slots, afterwards_the_block_with_the_most_invalid_sectors_goes) {
  for (const uint32_t random : {0U, 1U}) {
    make_blocks({3, 3, 3, 3});
    image().headers(3);
    names({"0:0.0/0 1<1", "1:0.0/1 2<1 f"});
    // One block will have two directory sectors less, the other one.
    const std::string two = random == 0 ? "1" : "2";
    const std::string one = random == 0 ? "2" : "1";
    names({"2:" + one + ".0/0 3<1 g", "3:" + two + ".0/0 4<1 h", "4:" + two + ".1/0 5<1 i"});
    data(2, "0.1 0.2 " + one + ".1 " + one + ".2 " + two + ".2");
    mount_recipe();
    fs()->random = random;
    EXPECT_NE(allocate(1).find(" eS" + two), std::string::npos);
    EXPECT_EQ(fs()->random, random);
  }
}

TEST_F(slots, afterwards_a_tie_is_settled_by_random) {
  // Two equal blocks with one directory sector each besides the one that stays.
  for (const uint32_t random : {0U, 1U}) {
    make_blocks({2, 2, 2, 2});
    image().headers(3);
    names({"0:0.0/0 1<1", "1:0.0/1 2<1 f", "2:1.0/0 3<1 g", "3:2.0/0 4<1 h"});
    data(2, "0.1 1.1 2.1");
    mount_recipe();
    fs()->random = random;
    // No slot is deleted. Sectors 1.0 and 2.0 are emptied into 0.0.
    const std::string output = allocate(1);
    EXPECT_EQ(output, random == 0 ? " wS3 wS3 eS2 wS2 wS33.0" : " wS3 wS3 eS1 wS1 wS33.0");
    EXPECT_EQ(fs()->random, 1 - random);
    EXPECT_EQ(list_text(fs(), 1), "0:0.0/0 1:0.0/1 2:0.0/30 3:0.0/31");
  }
}

TEST_F(slots, afterwards_blocks_are_reclaimed_until_the_list_can_give) {
  make_blocks({2, 2, 2, 2});
  image().headers(3);
  names({"0:0.0/0 1<1", "1:0.0/1 2<1 f", "2:1.0/0 3<1 g", "3:2.0/0 4<1 h"});
  data(2, "0.1 1.1 2.1");
  mount_recipe();
  EXPECT_EQ(allocate(), " wS3 wS3 eS2 wS2 wS3 wS2 wS2 eS1 wS1 wS22.0");
  EXPECT_EQ(sectors_text(fs()), "3.0");
  EXPECT_TRUE(is_repaired());
}

// A fresh directory sector stands before one that had slots left.
TEST_F(slots, the_lower_sector_of_a_block_is_filled_first_whatever_the_lists_order) {
  make_root(3);
  names({"1:0.0/1 2<1 f", "2:0.1/0 3<1 g"});
  data(2, "0.2 0.3 1.0 1.1 1.2 1.3");
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  std::vector<uint8_t> lower;
  while (fs()->available_slots->sctr_ptr.sctr_num == 0) {
    available_slot_take(fs(), &lower.emplace_back());
  }
  std::vector<uint8_t> higher;
  while (fs()->available_slots != nullptr) {
    available_slot_take(fs(), &higher.emplace_back());
  }
  for (auto slot = lower.rbegin(); slot != lower.rend(); ++slot) {
    (void)available_slot_push(fs(), {0, 0}, *slot);
  }
  for (auto slot = higher.rbegin(); slot != higher.rend(); ++slot) {
    (void)available_slot_push(fs(), {0, 1}, *slot);
  }
  ASSERT_EQ(slots_text(fs()).substr(0, 6), "0.1/31");
  allocate(1);
  EXPECT_EQ(list_text(fs(), 1).find(".1/"), std::string::npos);
}

TEST_F(slots, the_list_is_sorted_by_block_and_sector_and_keeps_the_order_within_a_sector) {
  make_blocks({4, 4, 4});
  image().headers(2);
  names({"0:1.1/0 1<1", "1:0.2/0 2<1 f"});
  for (int k = 1; k < 30; k++) {
    const std::string number = std::to_string(k);
    names({std::to_string(1 + k) + ":0.2/" + number + " " + std::to_string(10 + k) + "<1 x" +
           number});
  }
  data(2, "0.0 0.1 0.3 1.0 1.2 1.3");
  mount_recipe();
  ASSERT_EQ(slots_text(fs()).substr(0, 6), "1.1/31");
  // 33 free: 2 in 0.2, which comes first, 31 in 1.1.
  EXPECT_EQ(allocate(1), " wS2 wS2 eS1 wS1 wS22.1");
  EXPECT_EQ(slot_on_flash(0, 2, 31).entry_fileid, 1);
  EXPECT_EQ(slots_text(fs()), "0.2/30");
}

}  // namespace
