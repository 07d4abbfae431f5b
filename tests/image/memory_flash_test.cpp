// The flash in memory behaves like the device, and the file system's console and clock are the
// tool's.
#include "image/memory_flash.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "flashfs/check_flags.h"
#include "image/clock.h"
#include "image/console.h"
#include "image/mounted.h"
#include "window/clock.h"

namespace {

constexpr uint32_t block_size = 32768;
constexpr image::geometry::run blocks{4, block_size};

class memory_flash : public testing::Test {
 protected:
  image::geometry layout_{{blocks}, 3};
  std::vector<uint8_t> bytes_ = std::vector<uint8_t>(4 * block_size, 0xFF);
  image::memory_flash flash_{bytes_, layout_};
  const flash_driver_info* driver_ = flash_.driver();
};

TEST_F(memory_flash, programming_clears_bits_and_an_erase_sets_them) {
  const uint8_t first[] = {0xF0, 0x0F};
  const uint8_t second[] = {0x3C, 0xFF};
  EXPECT_EQ(driver_->write(flash_.handle(), block_size, 2, first), flash_ok);
  EXPECT_EQ(driver_->write(flash_.handle(), block_size, 2, second), flash_ok);
  EXPECT_EQ(bytes_[block_size], 0x30);
  EXPECT_EQ(bytes_[block_size + 1], 0x0F);
  EXPECT_EQ(driver_->erase(flash_.handle(), block_size), flash_ok);
  EXPECT_EQ(bytes_[block_size], 0xFF);
  EXPECT_EQ(flash_.erased_blocks(), std::set<uint32_t>{1});
}

TEST_F(memory_flash, what_is_programmed_as_it_was_is_no_change) {
  const uint8_t ones[] = {0xFF, 0xFF};
  EXPECT_EQ(driver_->write(flash_.handle(), 0, 2, ones), flash_ok);
  EXPECT_FALSE(flash_.changed());
  const uint8_t other[] = {0xFE, 0xFF};
  EXPECT_EQ(driver_->write(flash_.handle(), 0, 2, other), flash_ok);
  EXPECT_TRUE(flash_.changed());
  flash_.clear_counts();
  EXPECT_FALSE(flash_.changed());
}

TEST_F(memory_flash, clears_bits_of_any_length_anywhere) {
  for (uint32_t length = 1; length < 100; ++length) {
    std::fill(bytes_.begin(), bytes_.end(), uint8_t{0xF3});
    const std::vector<uint8_t> wanted(length, 0x3F);
    EXPECT_EQ(driver_->write(flash_.handle(), length, length, wanted.data()), flash_ok);
    std::vector<uint8_t> expected(bytes_.size(), 0xF3);
    std::fill_n(expected.begin() + length, length, uint8_t{0x33});
    EXPECT_EQ(bytes_, expected) << length;
  }
}

TEST_F(memory_flash, a_block_is_erased_again_once_it_was_programmed) {
  const uint8_t zeros[4] = {};
  for (int times = 0; times < 2; ++times) {
    // The last bytes of a block and the first of the next one.
    EXPECT_EQ(driver_->write(flash_.handle(), 2 * block_size - 2, 4, zeros), flash_ok);
    EXPECT_EQ(driver_->erase(flash_.handle(), block_size), flash_ok);
    EXPECT_EQ(driver_->erase(flash_.handle(), 2 * block_size), flash_ok);
    EXPECT_EQ(bytes_, std::vector<uint8_t>(4 * block_size, 0xFF));
    EXPECT_EQ(flash_.erased_blocks(), (std::set<uint32_t>{1, 2}));
  }
  EXPECT_EQ(driver_->erase(flash_.handle(), 1), flash_illegal_operation);
  EXPECT_EQ(driver_->erase(flash_.handle(), 4 * block_size), flash_illegal_operation);
}

TEST_F(memory_flash, has_its_bytes_from_a_source_when_they_are_looked_at) {
  std::vector<std::pair<uint32_t, size_t>> asked;
  flash_.fill_from([&](uint32_t offset, std::span<uint8_t> to) {
    asked.emplace_back(offset, to.size());
    std::fill(to.begin(), to.end(), uint8_t{0x5A});
  });
  using places = std::vector<std::pair<uint32_t, size_t>>;
  uint8_t read[100];
  EXPECT_EQ(driver_->read(flash_.handle(), 70, 1, read), flash_ok);
  EXPECT_EQ(read[0], 0x5A);
  EXPECT_EQ(driver_->read(flash_.handle(), 71, 0, read), flash_ok);
  EXPECT_EQ(asked, (places{{64, 32}}));
  // What is there already is not asked for again.
  EXPECT_EQ(driver_->read(flash_.handle(), 40, 100, read), flash_ok);
  EXPECT_EQ(asked, (places{{64, 32}, {32, 32}, {96, 64}}));
  EXPECT_EQ(read[99], 0x5A);
  EXPECT_EQ(driver_->read(flash_.handle(), 40, 100, read), flash_ok);
  EXPECT_EQ(asked.size(), 3U);
  // What is programmed is had first; what is erased, never.
  asked.clear();
  const uint8_t word[] = {0xF0, 0xF0};
  EXPECT_EQ(driver_->write(flash_.handle(), 1000, 2, word), flash_ok);
  EXPECT_EQ(bytes_[1000], 0x50);
  EXPECT_EQ(driver_->erase(flash_.handle(), block_size), flash_ok);
  EXPECT_EQ(driver_->read(flash_.handle(), block_size, 100, read), flash_ok);
  EXPECT_EQ(read[0], 0xFF);
  EXPECT_EQ(asked, (places{{992, 32}}));
}

TEST_F(memory_flash, keeps_its_changes_in_their_order) {
  image::change_list list;
  flash_.keep_changes(&list);
  const uint8_t ones[] = {0xFF, 0xFF};
  const uint8_t word[] = {0x12, 0x34};
  EXPECT_EQ(driver_->write(flash_.handle(), 10, 2, word), flash_ok);
  EXPECT_EQ(driver_->write(flash_.handle(), 20, 2, ones), flash_ok);
  EXPECT_EQ(driver_->erase(flash_.handle(), block_size), flash_ok);
  EXPECT_EQ(driver_->write(flash_.handle(), block_size, 2, word), flash_ok);
  ASSERT_EQ(list.changes().size(), 3U);
  EXPECT_FALSE(list.changes()[0].is_erase);
  EXPECT_EQ(list.changes()[0].offset, 10U);
  EXPECT_TRUE(std::ranges::equal(list.bytes_of(list.changes()[0]), word));
  EXPECT_TRUE(list.changes()[1].is_erase);
  EXPECT_EQ(list.changes()[1].offset, block_size);
  EXPECT_EQ(list.changes()[2].offset, block_size);
  EXPECT_TRUE(std::ranges::equal(list.bytes_of(list.changes()[2]), word));
}

TEST_F(memory_flash, what_lies_outside_is_refused) {
  uint8_t byte = 0;
  const uint32_t end = 4 * block_size;
  EXPECT_EQ(driver_->read(flash_.handle(), end - 1, 1, &byte), flash_ok);
  EXPECT_EQ(driver_->read(flash_.handle(), end, 1, &byte), flash_illegal_operation);
  EXPECT_EQ(driver_->read(flash_.handle(), 1, 0xFFFFFFFF, &byte), flash_illegal_operation);
  EXPECT_EQ(driver_->write(flash_.handle(), end, 1, &byte), flash_illegal_operation);
  EXPECT_EQ(driver_->erase(flash_.handle(), 1), flash_illegal_operation);
  EXPECT_EQ(driver_->erase(flash_.handle(), end), flash_illegal_operation);
  EXPECT_EQ(flash_.bytes_read(), 1U);
}

TEST_F(memory_flash, blocks_that_are_not_the_file_systems_are_skipped) {
  EXPECT_EQ(driver_->blocks[2].skip, 0);
  EXPECT_EQ(driver_->blocks[3].skip, 1);
  image::mounted system(bytes_, layout_);
  ASSERT_TRUE(system.format());
  EXPECT_EQ(bytes_[3 * block_size], 0xFF);
  EXPECT_NE(bytes_[2 * block_size], 0xFF);
}

TEST_F(memory_flash, what_the_file_system_says_is_kept_line_by_line) {
  image::mounted system(bytes_, layout_);
  ASSERT_TRUE(system.format());
  ASSERT_TRUE(system.check(flashfs_check_full));
  EXPECT_FALSE(system.flash().changed());
  ASSERT_EQ(system.said().size(), 1U);
  EXPECT_EQ(system.said().front(), "flashfs fsck took 0 seconds.");
  EXPECT_TRUE(image::console_take().empty());
  bytes_[12] = 0x77;
  bytes_[10] = 0x55;
  ASSERT_TRUE(system.check(flashfs_check_quick));
  ASSERT_GE(system.said().size(), 2U);
  EXPECT_EQ(system.said().front(), "Checking block 0...bad block number (21760)");
  EXPECT_EQ(system.said()[1], "erasing block 0... eS0 wS0done.");
}

TEST(clock, dates_are_clamped) {
  unsetenv("SOURCE_DATE_EPOCH");
  EXPECT_EQ(image::clock_date_of(0), 1U);
  EXPECT_EQ(image::clock_date_of(-5), 1U);
  EXPECT_EQ(image::clock_date_of(int64_t{1} << 40), UINT32_MAX);
  setenv("SOURCE_DATE_EPOCH", "1700000000", 1);
  EXPECT_EQ(image::clock_date_of(1600000000), 1600000000U);
  EXPECT_EQ(image::clock_date_of(1800000000), 1700000000U);
  EXPECT_EQ(window_clock(), 1700000000);
  image::clock_set(5);
  EXPECT_EQ(window_clock(), 5);
  image::clock_set(std::nullopt);
  setenv("SOURCE_DATE_EPOCH", "soon", 1);
  EXPECT_EQ(image::clock_date_of(1800000000), 1800000000U);
  unsetenv("SOURCE_DATE_EPOCH");
}

}  // namespace
