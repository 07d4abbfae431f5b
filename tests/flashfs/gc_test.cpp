// Garbage collection: blocks brought into service and blocks reclaimed through the spare - which
// block is chosen, in what order the flash is written, and what the lists, counters and pointers
// are afterwards. The compaction of directory slots is in gc_slots_test.cpp.
#include "flashfs/gc.h"

#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "flashfs/available.h"
#include "flashfs/check_flags.h"
#include "flashfs/filemap.h"
#include "flashfs/path.h"
#include "tests/flashfs/flashfs_recipe.h"
#include "tests/flashfs/gc_recipe.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"

namespace {

using namespace test_support;

using fresh_blocks = collection_recipe;

// --- blocks never brought into service ---

TEST_F(fresh_blocks, are_preferred_to_reclaiming_any_block) {
  make_blocks({4, 4, 4, 4});
  image().headers(2);
  image_state(3, 0xF);
  names({"0:0.0/0 1<1"});
  invalidate("1.0 1.1 1.2 1.3");
  mount_recipe();
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
  names({"0:0.0/0 1<1"});
  mount_recipe();
  take_all();
  EXPECT_EQ(writes_of_allocation(), "3=in_use");
}

TEST_F(fresh_blocks, the_one_with_the_most_sectors_wins) {
  make_blocks({4, 4, 2, 3, 3, 1});
  image().headers(0);
  for (int block = 2; block < 6; block++) {
    image_state(block, 0xF);
  }
  names({"0:1.0/0 1<1"});
  mount_recipe();
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
  names({"0:1.0/0 1<1"});
  mount_recipe();
  take_all();
  ASSERT_EQ(fs()->random, 0U);
  EXPECT_EQ(allocate(), " wS33.0");
  EXPECT_EQ(fs()->random, 1U);
}

TEST_F(fresh_blocks, the_spare_is_never_one_of_them) {
  make_blocks({4, 4, 4});
  image().headers(1);
  names({"0:0.0/0 1<1"});
  mount_recipe();
  take_all();
  EXPECT_EQ(allocate(1), "none");
  EXPECT_EQ(states_text(), "0f0");
}

TEST_F(fresh_blocks, another_one_is_taken_when_one_sector_is_not_enough) {
  make_blocks({4, 4, 1, 1});
  image().headers(0);
  image_state(2, 0xF);
  image_state(3, 0xF);
  names({"0:1.0/0 1<1"});
  mount_recipe();
  take_all();
  EXPECT_EQ(allocate(), " wS3 wS22.0");
  EXPECT_EQ(sectors_text(fs()), "3.0");
}

TEST_F(fresh_blocks, from_the_reserve_one_sector_is_enough) {
  make_blocks({4, 4, 1, 1});
  image().headers(0);
  image_state(2, 0xF);
  image_state(3, 0xF);
  names({"0:1.0/0 1<1"});
  mount_recipe();
  take_all();
  EXPECT_EQ(allocate(1), " wS33.0");
  EXPECT_EQ(states_text(), "f0f0");
}

TEST_F(fresh_blocks, one_without_sectors_that_gives_nothing_is_an_inconsistency) {
  make_blocks({4, 4, 0});
  image().headers(0);
  image_state(2, 0xF);
  names({"0:1.0/0 1<1"});
  mount_recipe();
  take_all();
  EXPECT_EQ(allocate(1), " wS2" + inconsistency + "none");
  EXPECT_EQ(states_text(), "f00");
  EXPECT_EQ(fs()->random, 0U);  // no tie
}

TEST_F(fresh_blocks, one_that_adds_nothing_to_one_sector_is_an_inconsistency) {
  make_blocks({4, 4, 0});
  image().headers(0);
  image_state(2, 0xF);
  names({"0:1.0/0 1<1"});
  mount_recipe();
  take_all();
  (void)available_sector_push(fs(), {1, 1});
  EXPECT_EQ(allocate(), " wS2" + inconsistency + "none");
  EXPECT_EQ(sectors_text(fs()), "1.1");
}

TEST_F(fresh_blocks, a_failing_flash_call_ends_the_allocation) {
  // Reads of the headers of blocks 1 and 2, the read and the write of its state, the scan.
  for (uint64_t n = 1; n <= 8; n++) {
    make_blocks({4, 4, 4});
    image().headers(0);
    image_state(2, 0xF);
    names({"0:1.0/0 1<1"});
    mount_recipe();
    take_all();
    device().fail(flash_call::any, n, flash_operation_failed);
    EXPECT_EQ(allocate().substr(0, 4), n < 4 ? "flas" : " wS2") << n;
    EXPECT_EQ(device().calls_since_fail(), n);
  }
}

// --- which block is reclaimed ---

class choice_of_victim : public collection_recipe {
 protected:
  // Blocks 0 to 3 in use with so many invalidated sectors each, block 4 the spare. The root's slot
  // lies in block 0.
  void make_with_invalid(const std::vector<int>& counts) {
    make_root(5);
    for (int block = 0; block < 4; block++) {
      for (int i = 0; i < counts.at(static_cast<size_t>(block)); i++) {
        invalidate(std::to_string(block) + "." + std::to_string(3 - i));
      }
    }
    mount_recipe();
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

TEST_F(choice_of_victim, a_reclamation_that_fails_ends_the_allocation) {
  make_with_invalid({1, 2, 0, 0});
  device().fail(flash_call::erase, 1, flash_operation_failed);
  const std::string output = allocate();
  EXPECT_EQ(output.substr(0, 12), " wS4 wS4 eS1");
  EXPECT_EQ(output.substr(output.size() - 4), "none");
  EXPECT_EQ(device().calls_since_fail(), 1U);
}

TEST_F(choice_of_victim, one_after_the_other_goes_until_two_sectors_are_there) {
  make_blocks({2, 2, 2});
  image().headers(2);
  names({"0:0.0/0 1<1", "1:0.0/1 2<1 f"});
  data(2, "1.0");
  invalidate("0.1 1.1");
  mount_recipe();
  fs()->random = 1;
  // Block 0 gives 2.1, block 1 then goes to the new spare, block 0.
  EXPECT_EQ(allocate(), " wS2 wS2 eS0 wS0 wS2 wS0 wS0 eS1 wS1 wS00.1");
  EXPECT_EQ(sectors_text(fs()), "2.1");
  EXPECT_EQ(fs()->available_block, 1);
}

TEST(toggle_random, gives_the_new_value) {
  flashfs fs = {};
  EXPECT_EQ(flashfs_toggle_random(&fs), 1U);
  EXPECT_EQ(fs.random, 1U);
  EXPECT_EQ(flashfs_toggle_random(&fs), 0U);
  EXPECT_EQ(fs.random, 0U);
  fs.random = 8;
  EXPECT_EQ(flashfs_toggle_random(&fs), 0U);
}

TEST_F(choice_of_victim, random_is_0_after_the_first_mount) {
  make_root(3);
  mount_recipe();
  EXPECT_EQ(fs()->random, 0U);
}

// --- reclaiming one block ---

class one_block : public collection_recipe {
 protected:
  // Block 0, the victim: a directory sector with live, deleted and free slots, one with deleted and
  // free ones only, an invalidated, an erased and a data sector. Block 1: the rest of the file.
  void make_victim(const std::vector<int>& sectors = {6, 6, 6}) {
    make_blocks(sectors);
    image().headers(2);
    if (sectors.size() > 3) {
      image_state(3, 0xF);
    }
    names({"0:0.0/0 1<1", "1:0.0/3 2<1 f"});
    delete_slots("0.0/1-2");
    delete_slots("0.1/0-4");
    invalidate("0.2");
    data(2, "0.4 1.1");
    mount_recipe();
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
  EXPECT_EQ(output_of([&] { (void)flashfs_reclaim_block(fs(), 0, 0); }), " wS2 wS2 eS0 wS0 wS2");
}

TEST_F(one_block, of_full_size_becomes_the_spare_and_the_pointers_follow) {
  make_victim();
  output_of([&] { (void)flashfs_reclaim_block(fs(), 0, 0); });
  EXPECT_EQ(fs()->available_block, 0);
  EXPECT_EQ(list_text(fs(), 1), "0:2.0/0 1:2.0/3");
  EXPECT_EQ(list_text(fs(), 2), "0:2.4/255 1:1.1/255");
  EXPECT_EQ(counters_text(), "0/0 0/0 0/0");
  EXPECT_TRUE(is_repaired());
}

TEST_F(one_block, what_is_free_in_it_moves_with_it) {
  make_victim();
  available_sector_take(fs());  // 1.0 is the head
  output_of([&] { (void)flashfs_reclaim_block(fs(), 0, 0); });
  EXPECT_EQ(sectors_text(fs()), "2.1 2.2 2.3 2.5 1.2 1.3 1.4 1.5");
  EXPECT_EQ(fs()->num_available_sectors, 8U);
  EXPECT_EQ(slots_text(fs()).substr(0, 20), "2.0/31 2.0/30 2.0/29");
  EXPECT_EQ(fs()->num_available_slots, 30U);
}

TEST_F(one_block, deleted_slots_of_a_copied_sector_are_erased_again) {
  make_victim();
  const flashfs_dir_slot before = slot_on_flash(0, 0, 3);
  output_of([&] { (void)flashfs_reclaim_block(fs(), 0, 0); });
  EXPECT_TRUE(is_erased(image().slot_at(2, 0, 1), 64));
  EXPECT_TRUE(is_erased(image().slot_at(2, 0, 2), 64));
  const flashfs_dir_slot after = slot_on_flash(2, 0, 3);
  EXPECT_EQ(memcmp(&before, &after, sizeof(before)), 0);
}

TEST_F(one_block, a_directory_sector_with_one_live_slot_is_copied) {
  make_blocks({2, 2, 2});
  image().headers(2);
  names({"0:0.0/31 1<1"});
  delete_slots("0.0/0-30");
  mount_recipe();
  EXPECT_EQ(writes_of(fs(), [&] { (void)flashfs_reclaim_block(fs(), 0, 0); }),
            "2=invalid1 2.0 2=committed erase 0 0=available 2=in_use");
  EXPECT_EQ(fs()->num_available_slots, 31U);
}

TEST_F(one_block, the_erase_count_goes_up_and_the_header_is_dated) {
  make_victim();
  output_of([&] { (void)flashfs_reclaim_block(fs(), 0, 0); });
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
  output_of([&] { (void)flashfs_reclaim_block(fs(), 0, 0); });
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
  names({"0:0.0/0 1<1"});
  mount_recipe();
  EXPECT_EQ(writes_of(fs(), [&] { EXPECT_EQ(flashfs_reclaim_block(fs(), 1, 0), 0); }),
            "2=invalid1 2=committed erase 1 1=available 1=invalid1 1=in_use 2=invalid2 erase 2 "
            "2=available");
  EXPECT_TRUE(is_repaired());
}

TEST_F(one_block, on_another_device_than_the_spare_is_reclaimed_alike) {
  make_blocks({4, 4}, {4, 4});
  image().headers(-1);
  image_1().headers(3);
  names({"0:0.0/0 1<1", "1:0.0/1 2<1 f"});
  data(2, "1.2");
  mount_recipe();
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

TEST_F(one_block, has_its_pointers_in_the_spare_before_that_is_in_use) {
  make_root(3);
  names({"1:0.0/1 2<1 f"});
  data(2, "0.1 1.1");
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  // After the spare's invalid1, two sectors, one of them in four parts, its committed state, and
  // the victim's new header.
  device().fail(flash_call::write, 9, flash_operation_failed);
  output_of([&] { EXPECT_EQ(flashfs_reclaim_block(fs(), 0, 0), 1); });
  device().fail(flash_call::any, 0, flash_ok);
  EXPECT_EQ(list_text(fs(), 2), "0:2.1/255 1:1.1/255");
  EXPECT_EQ(fs()->available_block, 2);
}

TEST_F(one_block, any_failing_flash_call_ends_its_reclamation_without_loss) {
  // With another erased block: a check after a commit needs one for the spare.
  for (const std::vector<int>& sectors :
       {std::vector<int>{6, 6, 6, 6}, std::vector<int>{5, 6, 6, 6}}) {
    uint64_t calls = 0;
    make_victim(sectors);
    device().fail(flash_call::any, 0, flash_ok);
    output_of([&] { (void)flashfs_reclaim_block(fs(), 0, 0); });
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
      EXPECT_EQ(device().calls_since_fail(), n) << "it is the last call";
      device().fail(flash_call::any, 0, flash_ok);
      EXPECT_EQ(check_of_recipe(flashfs_check_full).find("result"), std::string::npos)
          << n << check_output();
      EXPECT_EQ(path_lookup(fs(), "f"), 2) << n;
      EXPECT_EQ(sctr_list_length(entry(2)->sctr_list), 2U) << n;
    }
  }
}

}  // namespace
