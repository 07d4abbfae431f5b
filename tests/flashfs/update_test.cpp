// What is handed to the driver of a record that changes, and what is read for it: the words that
// differ, and those that decide.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "flashfs/buffer.h"
#include "flashfs/flashfs.h"
#include "flashfs/io.h"
#include "tests/flashfs/driver_calls.h"
#include "tests/flashfs/flashfs_test_tools.h"
#include "tests/support/flashfs_fixture.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"

using namespace test_support;

namespace {

constexpr uint32_t block_bytes = 0x20000;
constexpr uint32_t sector_3 = block_bytes + 32 + 3 * 2056;
constexpr flashfs_sctr_ptr at_sector_3 = {1, 3};
const std::string log_start = "flashfs[0]: ";

class update : public flashfs_fixture {
 protected:
  void SetUp() override {
    make_flash(ram_blocks(3, block_bytes));
    ASSERT_EQ(initialize(), 0);
    std::memset(&held_, 0xFF, sizeof held_);
    wanted_ = held_;
    std::memset(&slot_, 0x11, sizeof slot_);
  }
  // Sector 3 of block 1 as it is meant to be before.
  void put(const flashfs_sector& sector) {
    std::memcpy(device().flash().bytes() + sector_3, &sector, sizeof sector);
  }
  bool flash_has(const flashfs_sector& sector) {
    return std::memcmp(device().bytes() + sector_3, &sector, sizeof sector) == 0;
  }
  std::string write_failure(const char* why, const char* length = "0x808") {
    return log_start + "writing to flash handle " + handle_text(device()) +
           ", device 0, offset 0x20000, length " + length + ": " + why + "\n" + log_start +
           "sector ptr: {0x1, 0x3}\n";
  }
  flashfs_sector held_;
  flashfs_sector wanted_;
  flashfs_dir_slot slot_;
};

const char* const sets_bits = "Illegal Operation -- setting bit(s) with write operation";

using obsolete = update;

}  // namespace

// --- the words that differ ---

TEST_F(update, the_words_that_differ_go_to_the_driver_first_to_last_neighbours_in_one_call) {
  held_.fileid = 9;
  put(held_);
  wanted_ = held_;
  wanted_.data[5] = 0;   // the second byte of its word
  wanted_.data[6] = 0;   // the first one of the next
  wanted_.data[10] = 0;  // with a word between them that stays
  wanted_.checksum = 0;
  const driver_calls calls(fs());
  EXPECT_EQ(output_of([&] { EXPECT_EQ(update_sector(fs(), at_sector_3, &held_, &wanted_), 0); }),
            "");
  EXPECT_EQ(calls.text(sector_3), "w8-12 w14-16 w2054-2056");
  EXPECT_TRUE(flash_has(wanted_));
}

TEST_F(update, of_a_sector_that_is_erased_all_is_known) {
  wanted_.fileid = 9;
  wanted_.data[0] = 7;
  const driver_calls calls(fs());
  EXPECT_EQ(update_sector(fs(), at_sector_3, nullptr, &wanted_), 0);
  EXPECT_EQ(calls.text(sector_3), "w0-2 w4-6");
  EXPECT_TRUE(flash_has(wanted_));
}

TEST_F(update, where_nothing_differs_the_driver_is_not_called) {
  const driver_calls calls(fs());
  EXPECT_EQ(update_sector(fs(), at_sector_3, &held_, &wanted_), 0);
  EXPECT_EQ(update_slot(fs(), at_sector_3, 7, &slot_, &slot_), 0);
  flashfs_blkheader header = {};
  header.block_num = 1;
  const flashfs_blkheader same = header;
  EXPECT_EQ(output_of([&] { EXPECT_EQ(update_blkheader(fs(), 1, same, &header), 0); }), " wS1");
  EXPECT_EQ(calls.text(), "");
}

TEST_F(update, of_a_record_that_fails_nothing_further_is_programmed_and_it_is_told_once) {
  wanted_.fileid = 9;
  wanted_.data[0] = 7;
  wanted_.checksum = 0;
  device().fail(flash_call::write, 2, flash_operation_failed);
  EXPECT_EQ(output_of([&] { EXPECT_EQ(update_sector(fs(), at_sector_3, nullptr, &wanted_), 1); }),
            write_failure("Operation Failed"));
  EXPECT_EQ(device().counts().writes, 2U);
  held_.fileid = 9;
  EXPECT_TRUE(flash_has(held_));
}

TEST_F(update, a_bit_that_would_be_set_is_refused_before_anything_is_programmed) {
  expect_no_deviations_ = false;
  held_.data[100] = 0;
  put(held_);
  wanted_.fileid = 9;
  wanted_.data[100] = 1;
  wanted_.seq_no = 4;
  const driver_calls calls(fs());
  EXPECT_EQ(output_of([&] { EXPECT_EQ(update_sector(fs(), at_sector_3, &held_, &wanted_), 1); }),
            write_failure(sets_bits));
  EXPECT_EQ(calls.text(sector_3), "w0-2054") << "from the first word that differs to the last";
  EXPECT_TRUE(flash_has(held_));
}

TEST_F(update, a_bad_address_ends_the_program_even_where_nothing_differs) {
  EXPECT_EQ(end_of_child([&] { (void)update_sector(fs(), {1, 63}, &held_, &wanted_); }).status, 1);
  EXPECT_EQ(end_of_child([&] { (void)update_slot(fs(), {3, 0}, 0, &slot_, &slot_); }).status, 1);
}

TEST_F(update, is_counted_as_a_change_where_something_differs) {
  const uint64_t before = flash_change_count();
  ASSERT_EQ(update_sector(fs(), at_sector_3, &held_, &wanted_), 0);
  EXPECT_EQ(flash_change_count(), before);
  ASSERT_EQ(update_slot(fs(), at_sector_3, 0, nullptr, &slot_), 0);
  EXPECT_NE(flash_change_count(), before);
}

// --- slots ---

TEST_F(update, a_slot_is_read_and_written_at_its_place) {
  std::memset(slot_.reserved, 0xFF, sizeof slot_.reserved);
  {
    const driver_calls calls(fs());
    EXPECT_EQ(update_slot(fs(), at_sector_3, 31, nullptr, &slot_), 0);
    EXPECT_EQ(calls.text(sector_3 + 4 + 31 * 64), "w0-12 w16-64") << "ones stay between them";
  }
  wanted_.slots[31] = slot_;
  EXPECT_TRUE(flash_has(wanted_));
  flashfs_dir_slot back;
  const driver_calls calls(fs());
  EXPECT_EQ(read_slot(fs(), at_sector_3, 31, &back), 0);
  EXPECT_EQ(calls.text(sector_3 + 4 + 31 * 64), "r0-64");
  EXPECT_EQ(std::memcmp(&back, &slot_, sizeof back), 0);
}

TEST_F(update, a_slot_that_fails_is_told_as_its_sector) {
  device().fail(flash_call::any, 1, flash_busy, true);
  EXPECT_EQ(output_of([&] { EXPECT_EQ(read_slot(fs(), at_sector_3, 31, &slot_), 1); }),
            log_start + "reading from flash handle " + handle_text(device()) +
                ", device 0, offset " + hex(sector_3) + ": Busy\n");
  EXPECT_EQ(output_of([&] { EXPECT_EQ(update_slot(fs(), at_sector_3, 31, nullptr, &slot_), 1); }),
            write_failure("Busy"));
}

// --- copies ---

TEST_F(update, a_copy_without_erased_words_goes_over_in_one_call) {
  std::memset(&wanted_, 0x11, sizeof wanted_);
  const driver_calls calls(fs());
  EXPECT_EQ(write_sector_copy(fs(), at_sector_3, &wanted_), 0);
  EXPECT_EQ(calls.text(sector_3), "w0-2056");
  EXPECT_TRUE(flash_has(wanted_));
}

TEST_F(update, a_copy_leaves_words_out_only_where_they_are_seen_to_be_erased) {
  expect_no_deviations_ = false;
  std::memset(&wanted_, 0x11, sizeof wanted_);
  wanted_.data[0] = 0xFF;
  wanted_.data[1] = 0xFF;
  {
    const driver_calls calls(fs());
    EXPECT_EQ(write_sector_copy(fs(), at_sector_3, &wanted_), 0);
    EXPECT_EQ(calls.text(sector_3), "r0-2056 w0-4 w6-2056");
    EXPECT_TRUE(flash_has(wanted_));
  }
  held_.data[1] = 0xFE;
  put(held_);
  EXPECT_EQ(output_of([&] { EXPECT_EQ(write_sector_copy(fs(), at_sector_3, &wanted_), 1); }),
            write_failure(sets_bits));
  EXPECT_TRUE(flash_has(held_));
}

// --- states of blocks ---

TEST_F(update, a_state_is_one_word_and_two_are_read_for_it) {
  image_builder(device()).header(1);
  const driver_calls calls(fs());
  EXPECT_EQ(output_of([&] { EXPECT_EQ(set_block_state(fs(), 1, block_in_use), 0); }), " wS1");
  EXPECT_EQ(calls.text(block_bytes), "r10-14 w12-14");
}

TEST_F(update, a_header_that_is_known_is_not_read_for_its_next_state) {
  image_builder(device()).header(1);
  flashfs_blkheader header = {};
  output_of([&] {
    ASSERT_EQ(read_blkheader(fs(), 1, &header, number_and_state), 0);
    const driver_calls calls(fs());
    EXPECT_EQ(change_block_state(fs(), 1, &header, block_invalid1), 0);
    EXPECT_EQ(change_block_state(fs(), 1, &header, block_committed), 0);
    EXPECT_EQ(calls.text(block_bytes), "w12-14 w12-14");
  });
  EXPECT_EQ(image_builder(device()).header_at(1)[12], 0xF3);
}

TEST_F(update, a_header_gets_the_number_of_its_block_with_its_state) {
  image_builder image(device());
  image.header(1);
  image.header_at(1)[10] = 0x80;
  const driver_calls calls(fs());
  output_of([&] { EXPECT_EQ(set_block_state(fs(), 1, block_in_use), 0); });
  EXPECT_EQ(calls.text(block_bytes), "r10-14 w10-14");
  EXPECT_EQ(image.header_at(1)[10], 0);
}

// --- what becomes obsolete ---

TEST_F(obsolete, a_sector_whose_owner_is_known_is_not_read) {
  held_.fileid = 9;
  put(held_);
  const driver_calls calls(fs());
  EXPECT_EQ(obsolete_sector(fs(), at_sector_3, 9), 0);
  EXPECT_EQ(calls.text(sector_3), "w0-2");
  EXPECT_EQ(fs()->flashfs_blocks[1].invalid_sectors, 1);
}

TEST_F(obsolete, a_sector_that_is_so_already_is_neither_counted_nor_written) {
  held_.fileid = 0;
  put(held_);
  const driver_calls calls(fs());
  EXPECT_EQ(obsolete_on_flash(fs(), at_sector_3, slot_of_sector), 0);
  EXPECT_EQ(calls.text(sector_3), "r0-2");
  EXPECT_EQ(fs()->flashfs_blocks[1].invalid_sectors, 0);
}

TEST_F(obsolete, with_a_slot_no_more_others_are_looked_at_than_to_the_first_that_is_not_deleted) {
  held_.fileid = fileid_root;
  for (const int k : {0, 1, 2}) {
    held_.slots[k].dir_fileid = 0;
  }
  held_.slots[31].dir_fileid = 5;
  put(held_);
  const driver_calls calls(fs());
  EXPECT_EQ(obsolete_on_flash(fs(), at_sector_3, 31), 0);
  const std::string own = std::to_string(4 + 31 * 64 + 2) + "-" + std::to_string(4 + 31 * 64 + 4);
  EXPECT_EQ(calls.text(sector_3), "r" + own + " r6-8 r70-72 r134-136 r198-200 w" + own);
  EXPECT_EQ(fs()->flashfs_blocks[1].invalid_slots, 1);
}

TEST_F(obsolete, the_sector_of_the_last_slot_goes_before_the_slot) {
  held_.fileid = fileid_root;
  for (flashfs_dir_slot& slot : held_.slots) {
    slot.dir_fileid = 0;
  }
  held_.slots[0].dir_fileid = 5;
  put(held_);
  fs()->flashfs_blocks[1].invalid_slots = 40;
  const driver_calls calls(fs());
  EXPECT_EQ(obsolete_slot(fs(), at_sector_3, 0, 5), 0);
  const std::string text = calls.text(sector_3);
  EXPECT_EQ(text.substr(text.find(" r0-2")), " r0-2 w0-2 w6-8");
  EXPECT_EQ(fs()->flashfs_blocks[1].invalid_sectors, 1);
  EXPECT_EQ(fs()->flashfs_blocks[1].invalid_slots, 40 + 1 - 32);
}

TEST_F(obsolete, when_the_sectors_owner_cannot_be_written_the_slot_stays) {
  held_.fileid = fileid_root;
  for (flashfs_dir_slot& slot : held_.slots) {
    slot.dir_fileid = 0;
  }
  held_.slots[9].dir_fileid = 5;
  put(held_);
  device().fail(flash_call::write, 1, flash_operation_failed);
  EXPECT_EQ(output_of([&] { EXPECT_EQ(obsolete_slot(fs(), at_sector_3, 9, 5), 1); }),
            write_failure("Operation Failed"));
  EXPECT_EQ(device().counts().writes, 1U);
  EXPECT_TRUE(flash_has(held_));
}

// Whatever damaged flash says: as if the sector had been read, changed and written whole.
TEST_F(obsolete, leaves_flash_and_counters_as_a_change_of_the_whole_sector_would) {
  std::mt19937 random(1);
  const uint16_t ids[] = {0, 0, 0, 0, 0, 0, 1, 9, 0xFFFF};
  const auto any_id = [&] { return ids[random() % std::size(ids)]; };
  flashfs_block& block = fs()->flashfs_blocks[1];
  for (int i = 0; i < 2000; i++) {
    held_.fileid = any_id();
    const bool all_deleted = random() % 2 == 0;
    for (flashfs_dir_slot& slot : held_.slots) {
      slot.dir_fileid = all_deleted ? uint16_t{0} : any_id();
    }
    const auto slot_no = static_cast<uint8_t>(random() % 33);
    held_.slots[slot_no % 32].dir_fileid = any_id();
    put(held_);
    const flashfs_block before = block;
    block.invalid_slots = static_cast<uint16_t>(random() % 50);
    const uint16_t slots_before = block.invalid_slots;
    flashfs_sector expected = held_;
    if (slot_no == 32) {
      invalidate_sector_buf(fs(), at_sector_3, &expected);
    } else {
      delete_slot_buf(fs(), at_sector_3, &expected, slot_no);
    }
    const flashfs_block counted = block;
    block = before;
    block.invalid_slots = slots_before;
    ASSERT_EQ(obsolete_on_flash(fs(), at_sector_3, slot_no == 32 ? slot_of_sector : slot_no), 0);
    ASSERT_TRUE(flash_has(expected)) << i;
    ASSERT_EQ(block.invalid_sectors, counted.invalid_sectors) << i;
    ASSERT_EQ(block.invalid_slots, counted.invalid_slots) << i;
  }
}
