// Garbage collection: blocks brought into service, blocks reclaimed through the spare, directory
// slots compacted - which block is chosen, in what order the flash is written, and what the lists,
// counters and pointers are afterwards.
#include <gtest/gtest.h>

#include <cstring>

#include "tests/flashfs/flashfs_recipe.h"

namespace {

using namespace test_support;

class collection : public recipe_fixture {
 protected:
  void mount_quietly() {
    ASSERT_EQ(check_of_recipe(quick), quiet_check);
  }
  // Allocates one sector. Its address, or "none", after what was printed.
  std::string allocate(uint32_t use_reserve = 0) {
    flashfs_sctr_ptr pointer = {9, 9};
    int result = 0;
    const std::string output =
        output_of([&] { result = flashfs_alloc_sector(fs(), &pointer, use_reserve); });
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
    if (result != 0) {
      EXPECT_EQ(result, 1);
      EXPECT_EQ(pointer.block_num, -1);
      return output + "none";
    }
    return output + text_of(pointer);
  }
  std::string writes_of_allocation(uint32_t use_reserve = 0) {
    return writes_of(fs(), [&] { allocate(use_reserve); });
  }
  // Leaves nothing on the lists of what is available; the flash keeps what was on them erased.
  void take_all() {
    available_clear(fs());
  }
  void image_state(int block, uint8_t state) {
    image().header(block, {.state = state});
  }
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
};

using fresh_blocks = collection;
using victims = collection;
using reclamation = collection;
using compaction = collection;
using reclaim_after_compaction = collection;

const std::string inconsistency = "flashfs[0]: inconsistency during sector reclamation\n";

// --- blocks never brought into service ---

TEST_F(fresh_blocks, are_preferred_to_reclaiming_any_block) {
  make_blocks({4, 4, 4, 4});
  image().headers(2);
  image_state(3, 0xF);
  root_slot(0, 0, 0);
  for (int sector = 0; sector < 4; sector++) {
    invalidate(1, sector);
  }
  mount_quietly();
  ASSERT_EQ(fs()->available_block, 2);
  take_all();
  EXPECT_EQ(allocate(), " wS33.0");
  EXPECT_EQ(sectors_text(fs()), "3.1 3.2 3.3");
  EXPECT_EQ(states_text(), "00f0");
  EXPECT_EQ(counters_text(), "0/0 4/0 0/0 0/0");
}

TEST_F(fresh_blocks, only_the_header_is_written) {
  make_blocks({4, 4, 4, 4});
  image().headers(2);
  image_state(3, 0xF);
  root_slot(0, 0, 0);
  mount_quietly();
  take_all();
  EXPECT_EQ(writes_of_allocation(), "3=in_use");
}

TEST_F(fresh_blocks, the_one_with_the_most_sectors_wins) {
  make_blocks({4, 4, 2, 3, 3, 1});
  image().headers(0);
  for (int block = 2; block < 6; block++) {
    image_state(block, 0xF);
  }
  root_slot(1, 0, 0);
  mount_quietly();
  ASSERT_EQ(fs()->available_block, 0);
  take_all();
  fs()->random = 1;  // the one tie, of blocks 3 and 4, is the earlier one's
  EXPECT_EQ(allocate(), " wS33.0");
  EXPECT_EQ(fs()->random, 0U);
}

TEST_F(fresh_blocks, a_tie_flips_random_and_a_1_chooses_the_later_block) {
  make_blocks({4, 4, 3, 3});
  image().headers(0);
  image_state(2, 0xF);
  image_state(3, 0xF);
  root_slot(1, 0, 0);
  mount_quietly();
  take_all();
  ASSERT_EQ(fs()->random, 0U);
  EXPECT_EQ(allocate(), " wS33.0");
  EXPECT_EQ(fs()->random, 1U);
}

TEST_F(fresh_blocks, the_spare_is_never_one_of_them) {
  make_blocks({4, 4, 4});
  image().headers(1);
  root_slot(0, 0, 0);
  mount_quietly();
  take_all();
  EXPECT_EQ(allocate(1), "none");
  EXPECT_EQ(states_text(), "0f0");
}

TEST_F(fresh_blocks, another_one_is_taken_when_one_sector_is_not_enough) {
  make_blocks({4, 4, 1, 1});
  image().headers(0);
  image_state(2, 0xF);
  image_state(3, 0xF);
  root_slot(1, 0, 0);
  mount_quietly();
  take_all();
  EXPECT_EQ(allocate(), " wS3 wS22.0");
  EXPECT_EQ(sectors_text(fs()), "3.0");
}

TEST_F(fresh_blocks, from_the_reserve_one_sector_is_enough) {
  make_blocks({4, 4, 1, 1});
  image().headers(0);
  image_state(2, 0xF);
  image_state(3, 0xF);
  root_slot(1, 0, 0);
  mount_quietly();
  take_all();
  EXPECT_EQ(allocate(1), " wS33.0");
  EXPECT_EQ(states_text(), "f0f0");
}

TEST_F(fresh_blocks, one_without_sectors_that_gives_nothing_is_an_inconsistency) {
  make_blocks({4, 4, 0});
  image().headers(0);
  image_state(2, 0xF);
  root_slot(1, 0, 0);
  mount_quietly();
  take_all();
  EXPECT_EQ(allocate(1), " wS2" + inconsistency + "none");
  EXPECT_EQ(states_text(), "f00");
}

TEST_F(fresh_blocks, one_that_adds_nothing_to_one_sector_is_an_inconsistency) {
  make_blocks({4, 4, 0});
  image().headers(0);
  image_state(2, 0xF);
  root_slot(1, 0, 0);
  mount_quietly();
  take_all();
  available_sector_push(fs(), {1, 1});
  EXPECT_EQ(allocate(), " wS2" + inconsistency + "none");
  EXPECT_EQ(sectors_text(fs()), "1.1");
}

TEST_F(fresh_blocks, a_failing_flash_call_ends_the_allocation) {
  // Reads of the headers of blocks 1 and 2, the read and the write of its state, the scan.
  for (uint64_t n = 1; n <= 8; n++) {
    make_blocks({4, 4, 4});
    image().headers(0);
    image_state(2, 0xF);
    root_slot(1, 0, 0);
    mount_quietly();
    take_all();
    device().fail(flash_call::any, n, flash_operation_failed);
    EXPECT_EQ(allocate().substr(0, 4), n < 4 ? "flas" : " wS2") << n;
    EXPECT_EQ(device().calls_since_fail(), n);
  }
}

// --- which block is reclaimed ---

class choice_of_victim : public collection {
 protected:
  // Blocks 0 to 3 in use with so many invalidated sectors each, block 4 the spare. The root's slot
  // lies in block 0.
  void make_with_invalid(const std::vector<int>& counts) {
    make_blocks({4, 4, 4, 4, 4});
    image().headers(4);
    root_slot(0, 0, 0);
    for (int block = 0; block < 4; block++) {
      for (int i = 0; i < counts.at(static_cast<size_t>(block)); i++) {
        invalidate(block, 3 - i);
      }
    }
    mount_quietly();
    take_all();
  }
  // The block that an allocation erases.
  char victim() {
    const std::string output = allocate();
    return output.at(output.find("eS") + 2);
  }
};

TEST_F(choice_of_victim, the_block_with_the_most_invalid_sectors_goes) {
  make_with_invalid({1, 2, 4, 3});
  EXPECT_EQ(victim(), '2');
  EXPECT_EQ(fs()->random, 0U);
}

TEST_F(choice_of_victim, of_two_equal_blocks_the_later_goes_when_random_was_0) {
  make_with_invalid({2, 1, 0, 2});
  fs()->random = 0;
  EXPECT_EQ(victim(), '3');
  EXPECT_EQ(fs()->random, 1U);
}

TEST_F(choice_of_victim, of_two_equal_blocks_the_earlier_goes_when_random_was_1) {
  make_with_invalid({2, 1, 0, 2});
  fs()->random = 1;
  EXPECT_EQ(victim(), '0');
  EXPECT_EQ(fs()->random, 0U);
}

TEST_F(choice_of_victim, every_tie_that_is_met_spends_one_flip) {
  make_with_invalid({2, 2, 2, 2});
  // Three flips: 1 for block 1, 0 against block 2, 1 for block 3.
  EXPECT_EQ(victim(), '3');
  EXPECT_EQ(fs()->random, 1U);
  make_with_invalid({2, 2, 2, 0});
  EXPECT_EQ(victim(), '1');
  EXPECT_EQ(fs()->random, 0U);
  make_with_invalid({1, 1, 2, 0});  // a tie of blocks that do not win
  EXPECT_EQ(victim(), '2');
  EXPECT_EQ(fs()->random, 1U);
}

TEST_F(choice_of_victim, the_spare_is_none) {
  make_with_invalid({1, 0, 0, 0});
  fs()->flashfs_blocks[4].invalid_sectors = 9;
  EXPECT_EQ(victim(), '0');
}

TEST_F(choice_of_victim, the_state_of_the_block_does_not_matter) {
  make_with_invalid({1, 2, 0, 0});
  image_state(1, 0x3);
  EXPECT_EQ(victim(), '1');
}

TEST_F(choice_of_victim, one_after_the_other_goes_until_two_sectors_are_there) {
  make_blocks({2, 2, 2});
  image().headers(2);
  root_slot(0, 0, 0);
  name(0, 0, 1, 1, 1, 2, "f");
  data(2, {{1, 0}});
  invalidate(0, 1);
  invalidate(1, 1);
  mount_quietly();
  fs()->random = 1;
  // Block 0 gives 2.1, block 1 then goes to the new spare, block 0.
  EXPECT_EQ(allocate(), " wS2 wS2 eS0 wS0 wS2 wS0 wS0 eS1 wS1 wS00.1");
  EXPECT_EQ(sectors_text(fs()), "2.1");
  EXPECT_EQ(fs()->available_block, 1);
}

// --- reclaiming one block ---

class one_block : public collection {
 protected:
  // Block 0, the victim: a directory sector with live, deleted and free slots, one with deleted and
  // free ones only, an invalidated, an erased and a data sector. Block 1: the rest of the file.
  void make_victim(const std::vector<int>& sectors = {6, 6, 6}) {
    make_blocks(sectors);
    image().headers(2);
    if (sectors.size() > 3) {
      image_state(3, 0xF);
    }
    root_slot(0, 0, 0);
    name(0, 0, 3, 1, 1, 2, "f");
    delete_slots(0, 0, 1, 3);
    delete_slots(0, 1, 0, 5);
    invalidate(0, 2);
    data(2, {{0, 4}, {1, 1}});
    mount_quietly();
    ASSERT_EQ(fs()->available_block, 2);
    ASSERT_EQ(counters_text().substr(0, 3), "1/7");
  }
};

TEST_F(one_block, live_sectors_go_to_the_same_places_of_the_spare_in_this_order) {
  make_victim();
  EXPECT_EQ(writes_of(fs(), [&] { EXPECT_EQ(flashfs_reclaim_block(fs(), 0, 0), 0); }),
            "2=invalid1 2.0 2.4 2=committed erase 0 0=available 2=in_use");
  EXPECT_EQ(block_text(2), "1 - - - 2 -");
  EXPECT_EQ(block_text(0), "- - - - - -");
  EXPECT_EQ(states_text(), "f00");
}

TEST_F(one_block, every_header_write_and_erase_is_traced) {
  make_victim();
  EXPECT_EQ(output_of([&] { flashfs_reclaim_block(fs(), 0, 0); }), " wS2 wS2 eS0 wS0 wS2");
}

TEST_F(one_block, of_full_size_becomes_the_spare_and_the_pointers_follow) {
  make_victim();
  output_of([&] { flashfs_reclaim_block(fs(), 0, 0); });
  EXPECT_EQ(fs()->available_block, 0);
  EXPECT_EQ(list_text(fs(), 1), "0:2.0/0 1:2.0/3");
  EXPECT_EQ(list_text(fs(), 2), "0:2.4/255 1:1.1/255");
  EXPECT_EQ(counters_text(), "0/0 0/0 0/0");
  EXPECT_TRUE(is_repaired());
}

TEST_F(one_block, what_is_free_in_it_moves_with_it) {
  make_victim();
  available_sector_take(fs());  // 1.0 is the head
  output_of([&] { flashfs_reclaim_block(fs(), 0, 0); });
  EXPECT_EQ(sectors_text(fs()), "2.1 2.2 2.3 2.5 1.2 1.3 1.4 1.5");
  EXPECT_EQ(fs()->num_available_sectors, 8U);
  EXPECT_EQ(slots_text(fs()).substr(0, 20), "2.0/31 2.0/30 2.0/29");
  EXPECT_EQ(fs()->num_available_slots, 30U);
}

TEST_F(one_block, deleted_slots_of_a_copied_sector_are_erased_again) {
  make_victim();
  const flashfs_dir_slot before = slot_on_flash(0, 0, 3);
  output_of([&] { flashfs_reclaim_block(fs(), 0, 0); });
  EXPECT_TRUE(is_erased(image().slot_at(2, 0, 1), 64));
  EXPECT_TRUE(is_erased(image().slot_at(2, 0, 2), 64));
  const flashfs_dir_slot after = slot_on_flash(2, 0, 3);
  EXPECT_EQ(memcmp(&before, &after, sizeof(before)), 0);
}

TEST_F(one_block, a_directory_sector_with_one_live_slot_is_copied) {
  make_blocks({2, 2, 2});
  image().headers(2);
  root_slot(0, 0, 31);
  delete_slots(0, 0, 0, 31);
  mount_quietly();
  EXPECT_EQ(writes_of(fs(), [&] { flashfs_reclaim_block(fs(), 0, 0); }),
            "2=invalid1 2.0 2=committed erase 0 0=available 2=in_use");
  EXPECT_EQ(fs()->num_available_slots, 31U);
}

TEST_F(one_block, the_erase_count_goes_up_and_the_header_is_dated) {
  make_victim();
  output_of([&] { flashfs_reclaim_block(fs(), 0, 0); });
  EXPECT_EQ(header_on_flash(0).erase_count, 1U);
  EXPECT_EQ(header_on_flash(0).timestamp, recipe_time);
  EXPECT_EQ(header_on_flash(2).erase_count, 0U);
}

TEST_F(one_block, the_erased_victim_is_tested_on_request) {
  make_victim();
  EXPECT_EQ(output_of([&] { EXPECT_EQ(flashfs_reclaim_block(fs(), 0, 1), 0); }),
            " wS2 wS2 eS0flashfs[0]: testing block 0...erased 0x0 times\n eS0 eS0 wS0 wS2");
  EXPECT_EQ(header_on_flash(0).erase_count, 3U);
  EXPECT_TRUE(is_repaired());
}

TEST_F(one_block, smaller_than_the_spare_is_copied_back_in_this_order) {
  make_victim({5, 6, 6});
  EXPECT_EQ(writes_of(fs(), [&] { EXPECT_EQ(flashfs_reclaim_block(fs(), 0, 0), 0); }),
            "2=invalid1 2.0 2.4 2=committed erase 0 0=available "
            "0=invalid1 0.0 0.4 0=in_use 2=invalid2 erase 2 2=available");
  EXPECT_EQ(block_text(0), "1 - - - 2");
  EXPECT_EQ(block_text(2), "- - - - - -");
  EXPECT_EQ(states_text(), "00f");
}

TEST_F(one_block, smaller_than_the_spare_leaves_the_spare_and_the_pointers) {
  make_victim({5, 6, 6});
  output_of([&] { flashfs_reclaim_block(fs(), 0, 0); });
  EXPECT_EQ(fs()->available_block, 2);
  EXPECT_EQ(list_text(fs(), 1), "0:0.0/0 1:0.0/3");
  EXPECT_EQ(list_text(fs(), 2), "0:0.4/255 1:1.1/255");
  EXPECT_EQ(sectors_text(fs()), "0.1 0.2 0.3 1.0 1.2 1.3 1.4 1.5");
  EXPECT_EQ(fs()->num_available_slots, 30U);
  EXPECT_EQ(counters_text(), "0/0 0/0 0/0");
  EXPECT_EQ(header_on_flash(0).erase_count, 1U);
  EXPECT_EQ(header_on_flash(2).erase_count, 1U);
  EXPECT_TRUE(is_repaired());
}

TEST_F(one_block, only_the_smaller_victim_is_tested_not_the_spare) {
  make_victim({5, 6, 6});
  EXPECT_EQ(output_of([&] { EXPECT_EQ(flashfs_reclaim_block(fs(), 0, 1), 0); }),
            " wS2 wS2 eS0flashfs[0]: testing block 0...erased 0x0 times\n eS0 eS0 wS0"
            " wS0 wS0 wS2 eS2 wS2");
}

TEST_F(one_block, without_sectors_can_be_reclaimed) {
  make_blocks({4, 0, 4});
  image().headers(2);
  root_slot(0, 0, 0);
  mount_quietly();
  EXPECT_EQ(writes_of(fs(), [&] { EXPECT_EQ(flashfs_reclaim_block(fs(), 1, 0), 0); }),
            "2=invalid1 2=committed erase 1 1=available 1=invalid1 1=in_use 2=invalid2 erase 2 "
            "2=available");
  EXPECT_TRUE(is_repaired());
}

TEST_F(one_block, on_another_device_than_the_spare_is_reclaimed_alike) {
  make_blocks({4, 4}, {4, 4});
  image().headers(-1);
  image_1().headers(3);
  root_slot(0, 0, 0);
  name(0, 0, 1, 1, 1, 2, "f");
  data(2, {{1, 2}});
  mount_quietly();
  ASSERT_EQ(fs()->available_block, 3);
  EXPECT_EQ(writes_of(fs(), [&] { EXPECT_EQ(flashfs_reclaim_block(fs(), 1, 0), 0); }),
            "3=invalid1 3.2 3=committed erase 1 1=available 3=in_use");
  EXPECT_EQ(fs()->available_block, 1);
  EXPECT_EQ(list_text(fs(), 2), "0:3.2/255");
  EXPECT_EQ(image_1().sector_at(3, 2)[1], 2);
  EXPECT_TRUE(is_repaired());
}

TEST_F(one_block, without_a_buffer_stays_as_it_is) {
  make_victim();
  chunk_pool* pool = fs()->sctr_buf_chunk;
  fs()->sctr_buf_chunk = nullptr;
  EXPECT_EQ(writes_of(fs(), [&] { EXPECT_EQ(flashfs_reclaim_block(fs(), 0, 0), 1); }), "");
  fs()->sctr_buf_chunk = pool;
}

TEST_F(one_block, any_failing_flash_call_ends_its_reclamation_without_loss) {
  // With another erased block: a check after a commit needs one for the spare.
  for (const std::vector<int>& sectors :
       {std::vector<int>{6, 6, 6, 6}, std::vector<int>{5, 6, 6, 6}}) {
    uint64_t calls = 0;
    make_victim(sectors);
    device().fail(flash_call::any, 0, flash_ok);
    output_of([&] { flashfs_reclaim_block(fs(), 0, 0); });
    calls = device().calls_since_fail();
    ASSERT_GT(calls, 10U);
    for (uint64_t n = 1; n <= calls; n++) {
      device().fail(flash_call::any, 0, flash_ok);
      make_victim(sectors);
      device().fail(flash_call::any, n, flash_operation_failed);
      const std::string output =
          output_of([&] { EXPECT_EQ(flashfs_reclaim_block(fs(), 0, 0), 1) << n; });
      EXPECT_NE(output.find(": Operation Failed\n"), std::string::npos);
      EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
      device().fail(flash_call::any, 0, flash_ok);
      EXPECT_EQ(check_of_recipe(full).find("result"), std::string::npos) << n << check_output();
      EXPECT_EQ(path_lookup(fs(), "f"), 2) << n;
      EXPECT_EQ(sctr_list_length(entry(2)->sctr_list), 2U) << n;
    }
  }
}

// --- compaction of directory slots ---

class slots : public collection {
 protected:
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
          root_slot(0, 0, 0);
        } else {
          const uint16_t fileid = seq_no == 1 ? uint16_t{2} : static_cast<uint16_t>(10 + seq_no);
          name(0, sector, k, seq_no, 1, fileid, "f" + std::to_string(fileid));
        }
      }
      delete_slots(0, sector, count, erased_from);
    }
    seq_no = 0;
    for (int sector = static_cast<int>(live.size()); sector < 8; sector++) {
      image().data_sector(sector / 4, sector % 4, 2, seq_no++, std::string(2048, 'x'));
    }
    mount_quietly();
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
  root_slot(0, 0, 0);
  name(0, 0, 1, 1, 1, 2, "f");
  name(0, 1, 0, 2, 1, 3, "g");
  delete_slots(0, 0, 2, 32);
  delete_slots(0, 1, 1, 32);
  data(2, {{0, 2}, {0, 3}, {1, 0}, {1, 1}, {1, 2}, {1, 3}});
  mount_quietly();
  ASSERT_EQ(fs()->available_sectors, nullptr);
  EXPECT_EQ(allocate(), " wS3 wS2 wS2 eS0 wS0 wS2 wS0 wS0 eS2 wS2 wS00.1");
  EXPECT_EQ(sectors_text(fs()), "3.0");
}

TEST_F(slots, dropping_deleted_ones_begins_with_the_lowest_block) {
  make_blocks({2, 2, 2});
  image().headers(2);
  root_slot(0, 0, 0);
  delete_slots(0, 0, 1, 32);
  name(1, 0, 0, 1, 1, 2, "f");
  delete_slots(1, 0, 1, 32);
  data(2, {{0, 1}, {1, 1}});
  mount_quietly();
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
  invalidate(1, 3);
  memset(image().sector_at(1, 3), 0xFF, 2056);
  image().sector_at(1, 3)[0] = 0;
  image().sector_at(1, 3)[1] = 1;
  mount_quietly();
  ASSERT_EQ(fs()->num_available_slots, 32U);
  // It is the only run, and the first one is where moved slots would go.
  EXPECT_EQ(allocate(1), "none");

  make_directories({16, 32}, 16);
  memset(image().sector_at(1, 3), 0xFF, 2056);
  image().sector_at(1, 3)[0] = 0;
  image().sector_at(1, 3)[1] = 1;
  mount_quietly();
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
  make_blocks({4, 4, 4});
  image().headers(2);
  root_slot(0, 0, 0);
  name(0, 0, 1, 1, 1, 2, "f");
  delete_slots(0, 0, 2, 32);
  name(0, 1, 0, 2, 1, 2, "g");
  delete_slots(0, 1, 1, 31);
  data(2, {{0, 2}, {0, 3}, {1, 0}, {1, 1}, {1, 2}, {1, 3}});
  mount_quietly();
  EXPECT_EQ(allocate(1),
            " wS2 wS2 eS0 wS0 wS2flashfs[0]: Collecting garbage, inconsistency!!!\nnone");
}

TEST_F(slots, a_sector_held_by_a_dropped_second_name_alone_gives_nothing) {
  make_blocks({4, 4, 4});
  image().headers(2);
  root_slot(0, 0, 0);
  name(0, 0, 1, 1, 1, 2, "f");
  name(0, 1, 0, 2, 1, 2, "g");
  delete_slots(0, 1, 1, 32);
  data(2, {{0, 2}, {0, 3}, {1, 0}, {1, 1}, {1, 2}, {1, 3}});
  mount_quietly();
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
    device().fail(flash_call::any, 0, flash_ok);
    if (check_of_recipe(full).find("unable to allocate available block.") != std::string::npos) {
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
  make_directories({16, 16});
  // Not in use any more once its slots have been compacted: nothing is left to reclaim.
  fs()->flashfs_blocks[1].invalid_sectors = 0;
  EXPECT_EQ(states_text(), "00f");
  const std::string writes = writes_of_allocation(1);
  EXPECT_NE(writes.find("erase 2"), std::string::npos);
}

TEST_F(slots, afterwards_a_tie_is_settled_by_random) {
  // Two equal blocks with one directory sector each besides the one that stays.
  for (const uint32_t random : {0U, 1U}) {
    make_blocks({2, 2, 2, 2});
    image().headers(3);
    root_slot(0, 0, 0);
    name(0, 0, 1, 1, 1, 2, "f");
    name(1, 0, 0, 2, 1, 3, "g");
    name(2, 0, 0, 3, 1, 4, "h");
    data(2, {{0, 1}, {1, 1}, {2, 1}});
    mount_quietly();
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
  root_slot(0, 0, 0);
  name(0, 0, 1, 1, 1, 2, "f");
  name(1, 0, 0, 2, 1, 3, "g");
  name(2, 0, 0, 3, 1, 4, "h");
  data(2, {{0, 1}, {1, 1}, {2, 1}});
  mount_quietly();
  EXPECT_EQ(allocate(), " wS3 wS3 eS2 wS2 wS3 wS2 wS2 eS1 wS1 wS22.0");
  EXPECT_EQ(sectors_text(fs()), "3.0");
  EXPECT_TRUE(is_repaired());
}

TEST_F(slots, the_list_is_sorted_by_block_and_sector_and_keeps_the_order_within_a_sector) {
  make_blocks({4, 4, 4});
  image().headers(2);
  root_slot(1, 1, 0);
  name(0, 2, 0, 1, 1, 2, "f");
  for (int k = 1; k < 30; k++) {
    name(0, 2, k, static_cast<uint16_t>(1 + k), 1, static_cast<uint16_t>(10 + k),
         "x" + std::to_string(k));
  }
  data(2, {{0, 0}, {0, 1}, {0, 3}, {1, 0}, {1, 2}, {1, 3}});
  mount_quietly();
  ASSERT_EQ(slots_text(fs()).substr(0, 6), "1.1/31");
  // 33 free: 2 in 0.2, which comes first, 31 in 1.1.
  EXPECT_EQ(allocate(1), " wS2 wS2 eS1 wS1 wS22.1");
  EXPECT_EQ(slot_on_flash(0, 2, 31).entry_fileid, 1);
  EXPECT_EQ(slots_text(fs()), "0.2/30");
}

}  // namespace
