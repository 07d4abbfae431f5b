// Handing out sectors and slots, and growing a file. What is done when nothing is left to hand out:
// gc_test.cpp.
#include "flashfs/alloc.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <ext/alloc_traits.h>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "flashfs/available.h"
#include "flashfs/check_flags.h"
#include "flashfs/filemap.h"
#include "tests/flashfs/alloc_recipe.h"
#include "tests/flashfs/flashfs_recipe.h"
#include "tests/flashfs/flashfs_test_tools.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"

namespace {

using namespace test_support;

using alloc_sector = small_device;
using alloc_slot = small_device;
using extend_list = small_device;

// --- sectors ---

TEST_F(alloc_sector, the_head_of_the_list_is_given_after_one_look_at_it) {
  make_and_mount();
  ASSERT_EQ(sectors_text(fs()), "1.0 1.1 1.2 1.3 0.1 0.2 0.3");
  device().clear_counts();
  flashfs_sctr_ptr pointer = {};
  EXPECT_EQ(flashfs_alloc_sector(fs(), &pointer, 0), 0);
  EXPECT_EQ(text_of(pointer), "1.0");
  EXPECT_EQ(sectors_text(fs()), "1.1 1.2 1.3 0.1 0.2 0.3");
  EXPECT_EQ(fs()->num_available_sectors, 6U);
  EXPECT_EQ(device().counts().calls(), 1U);
  EXPECT_EQ(device().counts().bytes_read, sizeof(flashfs_sector));
}

TEST_F(alloc_sector, the_last_one_is_given_at_once_from_the_reserve) {
  make_full_but_one();
  device().clear_counts();
  flashfs_sctr_ptr pointer = {};
  EXPECT_EQ(flashfs_alloc_sector(fs(), &pointer, 1), 0);
  EXPECT_EQ(text_of(pointer), "1.3");
  EXPECT_EQ(fs()->available_sectors, nullptr);
  EXPECT_EQ(device().counts().calls(), 1U);
}

TEST_F(alloc_sector, with_one_left_garbage_is_collected_first_without_the_reserve) {
  make();
  names({"1:0.0/1 2<1 f"});
  data(2, "0.1 0.2 0.3 1.0 1.1");
  invalidate("1.2");
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  ASSERT_EQ(sectors_text(fs()), "1.3");
  flashfs_sctr_ptr pointer = {};
  EXPECT_EQ(output_of([&] { EXPECT_EQ(flashfs_alloc_sector(fs(), &pointer, 0), 0); }),
            " wS2 wS2 eS1 wS1 wS2");
  EXPECT_EQ(text_of(pointer), "2.2");
  EXPECT_EQ(sectors_text(fs()), "2.3");
}

TEST_F(alloc_sector, the_last_one_is_kept_back_when_nothing_can_be_collected) {
  make_full_but_one();
  flashfs_sctr_ptr pointer = {5, 5};
  EXPECT_EQ(output_of([&] { EXPECT_EQ(flashfs_alloc_sector(fs(), &pointer, 0), 1); }), "");
  EXPECT_EQ(pointer.block_num, -1);
  EXPECT_EQ(sectors_text(fs()), "1.3");
}

TEST_F(alloc_sector, an_empty_device_gives_no_sector_from_the_reserve_either) {
  make_full_but_one();
  keep_sectors(0);
  flashfs_sctr_ptr pointer = {5, 5};
  EXPECT_EQ(flashfs_alloc_sector(fs(), &pointer, 1), 1);
  EXPECT_EQ(pointer.block_num, -1);
}

TEST_F(alloc_sector, a_header_that_cannot_be_read_ends_the_search_at_once) {
  make_full_with_two_invalid_sectors();
  device().clear_counts();
  device().fail(flash_call::read, 1, flash_poll_timeout);
  flashfs_sctr_ptr pointer = {5, 5};
  EXPECT_EQ(output_of([&] { EXPECT_EQ(flashfs_alloc_sector(fs(), &pointer, 0), 1); }),
            "flashfs[0]: reading from flash handle " + handle_text(device()) +
                ", device 0, offset 0x0: Poll Timeout\n");
  EXPECT_EQ(pointer.block_num, -1);
  EXPECT_EQ(device().counts().calls(), 1U);
}

// A sector whose owner reads as erased has lost bits behind it: the quick check takes it for free.
TEST_F(alloc_sector, one_that_is_not_all_ones_is_invalidated_and_the_next_one_taken) {
  make();
  image().sector_at(1, 0)[2055] = 0xFE;
  image().sector_at(1, 1)[700] = 0x7F;
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  ASSERT_EQ(sectors_text(fs()), "1.0 1.1 1.2 1.3 0.1 0.2 0.3");
  flashfs_sctr_ptr pointer = {};
  EXPECT_EQ(output_of([&] { EXPECT_EQ(flashfs_alloc_sector(fs(), &pointer, 0), 0); }), "");
  EXPECT_EQ(text_of(pointer), "1.2");
  EXPECT_EQ(sectors_text(fs()), "1.3 0.1 0.2 0.3");
  EXPECT_EQ(fileid_at(1, 0), 0);
  EXPECT_EQ(fileid_at(1, 1), 0);
  EXPECT_EQ(image().sector_at(1, 1)[700], 0x7F);
  EXPECT_EQ(fs()->flashfs_blocks[1].invalid_sectors, 2);
}

TEST_F(alloc_sector, when_the_last_one_is_dirty_there_is_none) {
  make_full_but_one();
  image().sector_at(1, 3)[5] = 0;
  flashfs_sctr_ptr pointer = {5, 5};
  output_of([&] { EXPECT_EQ(flashfs_alloc_sector(fs(), &pointer, 1), 0); });
  // The dirty one was reclaimed, and stands erased in the block that was the spare.
  EXPECT_EQ(text_of(pointer), "2.3");
  make_full_but_one();
  image().sector_at(1, 3)[5] = 0;
  EXPECT_EQ(flashfs_alloc_sector(fs(), &pointer, 0), alloc_without_space);
  EXPECT_EQ(pointer.block_num, -1);
  EXPECT_EQ(fileid_at(1, 3), 0xFFFF);
}

// Erased blocks in which no sector can be used any more: garbage collection gives them again and
// again.
TEST_F(alloc_sector, flash_that_does_not_erase_any_more_ends_the_search) {
  make();
  names({"1:0.0/1 2<1 f"});
  data(2, "0.1 0.2 0.3");
  invalidate("1.0 1.1 1.2 1.3");
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  for (const int block : {1, 2}) {
    for (int sector = 0; sector < 4; sector++) {
      const auto offset =
          static_cast<uint32_t>(image().sector_at(block, sector) + 10 - image().header_at(0));
      device().flash().stick(offset, 1, 0);
      device().flash().program16(offset, 0xFFFF);
    }
  }
  flashfs_sctr_ptr pointer = {5, 5};
  output_of([&] { EXPECT_EQ(flashfs_alloc_sector(fs(), &pointer, 0), alloc_without_space); });
  EXPECT_EQ(pointer.block_num, -1);
}

TEST_F(alloc_sector, one_that_cannot_be_looked_at_or_invalidated_is_a_failure) {
  for (const flash_call kind : {flash_call::read, flash_call::write}) {
    make();
    image().sector_at(1, 0)[100] = 0;
    ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
    device().fail(kind, 1, flash_operation_failed);
    flashfs_sctr_ptr pointer = {5, 5};
    output_of([&] { EXPECT_EQ(flashfs_alloc_sector(fs(), &pointer, 0), alloc_failed); });
    EXPECT_EQ(pointer.block_num, -1);
    EXPECT_EQ(fs()->num_available_sectors, 6U);
  }
}

// --- slots ---

TEST_F(alloc_slot, the_head_of_the_list_is_given) {
  make_and_mount();
  ASSERT_EQ(slots_text(fs()).substr(0, 13), "0.0/31 0.0/30");
  device().clear_counts();
  flashfs_sctr_ptr pointer = {};
  uint8_t slot_no = 0;
  EXPECT_EQ(flashfs_alloc_slot(fs(), &pointer, &slot_no, 0), 0);
  EXPECT_EQ(text_of(pointer, slot_no), "0.0/31");
  EXPECT_EQ(fs()->num_available_slots, 30U);
  EXPECT_EQ(device().counts().calls(), 1U);
  EXPECT_EQ(device().counts().bytes_read, sizeof(flashfs_dir_slot));
}

TEST_F(alloc_slot, one_that_is_not_all_ones_is_deleted_and_the_next_one_taken) {
  make_and_mount();
  image().slot_at(0, 0, 31)[10] = 0xF0;
  flashfs_sctr_ptr pointer = {};
  uint8_t slot_no = 0;
  EXPECT_EQ(flashfs_alloc_slot(fs(), &pointer, &slot_no, 0), 0);
  EXPECT_EQ(text_of(pointer, slot_no), "0.0/30");
  EXPECT_EQ(fs()->num_available_slots, 29U);
  EXPECT_EQ(image().slot_at(0, 0, 31)[2], 0);
  EXPECT_EQ(image().slot_at(0, 0, 31)[3], 0);
  EXPECT_EQ(fs()->flashfs_blocks[0].invalid_slots, 1);
  EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
}

TEST_F(alloc_slot, when_all_are_dirty_a_new_directory_sector_gives_one) {
  make_and_mount();
  for (int k = 1; k <= 31; k++) {
    image().slot_at(0, 0, k)[63] = 0x7F;
  }
  flashfs_sctr_ptr pointer = {};
  uint8_t slot_no = 0;
  EXPECT_EQ(flashfs_alloc_slot(fs(), &pointer, &slot_no, 1), 0);
  EXPECT_EQ(text_of(pointer, slot_no), "1.0/31");
  EXPECT_EQ(fs()->flashfs_blocks[0].invalid_slots, 31);
}

TEST_F(alloc_slot, one_that_cannot_be_looked_at_or_deleted_is_a_failure) {
  for (const flash_call kind : {flash_call::read, flash_call::write}) {
    make_and_mount();
    image().slot_at(0, 0, 31)[10] = 0;
    device().fail(kind, 1, flash_operation_failed);
    flashfs_sctr_ptr pointer = {5, 5};
    uint8_t slot_no = 0;
    output_of([&] { EXPECT_EQ(flashfs_alloc_slot(fs(), &pointer, &slot_no, 0), alloc_failed); });
    EXPECT_EQ(pointer.block_num, -1);
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
  }
}

TEST_F(alloc_slot, a_new_directory_sector_gives_its_slots_from_31_downwards) {
  make_and_mount();
  keep_slots(0);
  for (int expected = 31; expected >= 0; expected--) {
    flashfs_sctr_ptr pointer = {};
    uint8_t slot_no = 0;
    EXPECT_EQ(
        writes_of(fs(), [&] { EXPECT_EQ(flashfs_alloc_slot(fs(), &pointer, &slot_no, 1), 0); }),
        expected == 31 ? "1.0+" : "");
    EXPECT_EQ(text_of(pointer, slot_no), "1.0/" + std::to_string(expected));
  }
  EXPECT_EQ(fs()->available_slots, nullptr);
}

TEST_F(alloc_slot, a_new_directory_sector_is_erased_but_for_its_owner) {
  make_and_mount();
  keep_slots(0);
  flashfs_sctr_ptr pointer = {};
  uint8_t slot_no = 0;
  ASSERT_EQ(flashfs_alloc_slot(fs(), &pointer, &slot_no, 0), 0);
  EXPECT_EQ(fileid_at(1, 0), 1);
  EXPECT_TRUE(is_erased(image().sector_at(1, 0) + 2, 2054));
}

TEST_F(alloc_slot, the_last_one_is_kept_back_and_a_fresh_sector_taken_instead) {
  make_and_mount();
  keep_slots(1);
  flashfs_sctr_ptr pointer = {};
  uint8_t slot_no = 0;
  EXPECT_EQ(flashfs_alloc_slot(fs(), &pointer, &slot_no, 0), 0);
  EXPECT_EQ(text_of(pointer, slot_no), "1.0/31");
  EXPECT_EQ(fs()->num_available_slots, 32U);
}

TEST_F(alloc_slot, the_last_one_is_given_from_the_reserve) {
  make_and_mount();
  keep_slots(1);
  flashfs_sctr_ptr pointer = {};
  uint8_t slot_no = 9;
  EXPECT_EQ(flashfs_alloc_slot(fs(), &pointer, &slot_no, 1), 0);
  EXPECT_EQ(text_of(pointer, slot_no), "0.0/1");
  EXPECT_EQ(fs()->available_slots, nullptr);
}

TEST_F(alloc_slot, without_a_sector_there_is_no_slot) {
  make_full_but_one();
  flashfs_sctr_ptr pointer = {5, 5};
  uint8_t slot_no = 0;
  EXPECT_EQ(flashfs_alloc_slot(fs(), &pointer, &slot_no, 0), 1);
  EXPECT_EQ(pointer.block_num, -1);
  EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
}

TEST_F(alloc_slot, the_reserve_turns_the_last_sector_into_slots) {
  make_full_but_one();
  flashfs_sctr_ptr pointer = {};
  uint8_t slot_no = 0;
  EXPECT_EQ(flashfs_alloc_slot(fs(), &pointer, &slot_no, 1), 0);
  EXPECT_EQ(text_of(pointer, slot_no), "1.3/31");
  EXPECT_EQ(fs()->available_sectors, nullptr);
}

TEST_F(alloc_slot, a_failing_read_or_write_of_the_new_sector_fails) {
  for (const flash_call kind : {flash_call::read, flash_call::write}) {
    make_and_mount();
    keep_slots(0);
    device().fail(kind, 1, flash_operation_failed);
    flashfs_sctr_ptr pointer = {};
    uint8_t slot_no = 0;
    const int failure = kind == flash_call::read ? alloc_failed : alloc_without_space;
    output_of([&] { EXPECT_EQ(flashfs_alloc_slot(fs(), &pointer, &slot_no, 0), failure); });
    EXPECT_EQ(pointer.block_num, -1);
    EXPECT_EQ(fs()->available_slots, nullptr);
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
  }
}

TEST_F(alloc_slot, no_sector_buffer_is_needed) {
  make_and_mount();
  chunk_pool* pool = fs()->sctr_buf_chunk;
  fs()->sctr_buf_chunk = nullptr;
  flashfs_sctr_ptr pointer = {};
  uint8_t slot_no = 0;
  EXPECT_EQ(output_of([&] { EXPECT_EQ(flashfs_alloc_slot(fs(), &pointer, &slot_no, 1), 0); }), "");
  fs()->sctr_buf_chunk = pool;
  EXPECT_EQ(fs()->num_available_slots, 30U);
}

// --- growing a file ---

TEST_F(extend_list, a_sector_that_cannot_be_looked_at_gives_minus_1) {
  make_and_mount();
  flashfs_sctr_map* file = filemap_insert(fs(), 7, 1, 0x8700);
  device().fail(flash_call::read, 2, flash_operation_failed);
  output_of([&] { EXPECT_EQ(extend_sctr_list(fs(), file, 3 * 2048), -1); });
  EXPECT_EQ(list_text(fs(), 7), "0:1.0/254");
}

TEST_F(extend_list, a_file_is_not_given_what_is_not_erased) {
  make();
  image().sector_at(1, 0)[100] = 0;
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  const std::string text(3000, 'x');
  ASSERT_EQ(files().write_file("f", text), 0);
  std::string read;
  EXPECT_EQ(files().read_file("f", &read), 0);
  EXPECT_EQ(read, text);
  EXPECT_EQ(files().verify("f"), 0);
}

TEST_F(extend_list, two_sectors_are_reserved_for_2049_bytes) {
  make_and_mount();
  flashfs_sctr_map* file = filemap_insert(fs(), 7, 1, 0x8700);
  EXPECT_EQ(writes_of(fs(), [&] { EXPECT_EQ(extend_sctr_list(fs(), file, 2049), 4096); }),
            "1.0+ 1.1+");
  EXPECT_EQ(list_text(fs(), 7), "0:1.0/254 1:1.1/254");
  EXPECT_EQ(block_text(1), "7 7 - -");
  EXPECT_TRUE(is_erased(image().sector_at(1, 0) + 2, 2054));
}

TEST_F(extend_list, a_size_of_0_gives_the_capacity_held) {
  make_and_mount();
  flashfs_sctr_map* file = filemap_insert(fs(), 7, 1, 0x8700);
  EXPECT_EQ(extend_sctr_list(fs(), file, 0), 0);
  ASSERT_EQ(extend_sctr_list(fs(), file, 2048), 2048);
  device().clear_counts();
  EXPECT_EQ(extend_sctr_list(fs(), file, 0), 2048);
  EXPECT_EQ(extend_sctr_list(fs(), file, 2048), 2048);
  EXPECT_EQ(device().counts().calls(), 0U);
}

TEST_F(extend_list, a_negative_size_asks_for_nothing) {
  make_and_mount();
  flashfs_sctr_map* file = filemap_insert(fs(), 7, 1, 0x8700);
  EXPECT_EQ(extend_sctr_list(fs(), file, -1), 0);
  EXPECT_EQ(extend_sctr_list(fs(), file, INT_MIN), 0);
  EXPECT_EQ(file->sctr_list, nullptr);
}

TEST_F(extend_list, new_sectors_come_behind_those_held) {
  make_and_mount();
  flashfs_sctr_map* file = filemap_insert(fs(), 7, 1, 0x8700);
  ASSERT_EQ(extend_sctr_list(fs(), file, 1), 2048);
  file->sctr_list->slot_no = slot_of_sector;
  EXPECT_EQ(extend_sctr_list(fs(), file, 3 * 2048), 6144);
  EXPECT_EQ(list_text(fs(), 7), "0:1.0/255 1:1.1/254 2:1.2/254");
}

TEST_F(extend_list, what_there_is_is_taken_when_space_runs_out) {
  make_and_mount();
  keep_slots(0);
  keep_sectors(2);
  // All else is taken, so that nothing can be collected.
  flashfs_sctr_map* file = filemap_insert(fs(), 7, 1, 0x8700);
  EXPECT_EQ(output_of([&] { EXPECT_EQ(extend_sctr_list(fs(), file, 2049), 2048); }), "");
  EXPECT_EQ(list_text(fs(), 7), "0:0.2/254");
  EXPECT_EQ(file->sctr_list->next, nullptr);
  EXPECT_EQ(sectors_text(fs()), "0.3");
}

TEST_F(extend_list, the_reserve_is_left_alone) {
  make_full_but_one();
  flashfs_sctr_map* file = filemap_insert(fs(), 7, 1, 0x8700);
  EXPECT_EQ(extend_sctr_list(fs(), file, 1), 0);
  EXPECT_EQ(file->sctr_list, nullptr);
  EXPECT_EQ(sectors_text(fs()), "1.3");
}

TEST_F(extend_list, a_claim_that_cannot_be_written_gives_minus_1) {
  make_and_mount();
  flashfs_sctr_map* file = filemap_insert(fs(), 7, 1, 0x8700);
  device().fail(flash_call::write, 2, flash_operation_failed);
  EXPECT_EQ(output_of([&] { EXPECT_EQ(extend_sctr_list(fs(), file, 3 * 2048), -1); }),
            "flashfs[0]: writing to flash handle " + handle_text(device()) + ", device 0, offset " +
                hex(block_bytes(4)) +
                ", length 0x2: Operation Failed\nflashfs[0]: sector ptr: {0x1, 0x1}\n");
  EXPECT_EQ(list_text(fs(), 7), "0:1.0/254 1:1.1/254");
}

TEST_F(extend_list, a_file_ends_where_the_numbers_of_its_sectors_do) {
  make_and_mount();
  std::vector<flashfs_sctr_list_ordered> held(65535);
  for (size_t i = 0; i < held.size(); i++) {
    held[i] = {i + 1 < held.size() ? &held[i + 1] : nullptr,
               static_cast<uint16_t>(i),
               slot_of_sector,
               {0, 0}};
  }
  flashfs_sctr_map file = {};
  file.fileid = 7;
  file.sctr_list = held.data();
  EXPECT_EQ(extend_sctr_list(fs(), &file, INT_MAX), 65536 * 2048);
  flashfs_sctr_list_ordered* last = held.back().next;
  ASSERT_NE(last, nullptr);
  EXPECT_EQ(last->seq_no, 65535);
  EXPECT_EQ(last->next, nullptr);
  chunk_free(fs()->sctr_ptr_chunk, last);
}

}  // namespace
