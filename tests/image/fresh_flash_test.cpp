// The flash of an image that is being made is flash like any other, though most of it is elsewhere.
#include "image/fresh_flash.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "image/memory_flash.h"
#include "tests/image/image_command.h"

namespace {

constexpr uint32_t block_size = 4096;
constexpr uint32_t block_count = 12;
constexpr uint32_t usable_blocks = 10;
constexpr uint32_t image_size = block_count * block_size;

class fresh_flash : public test_support::image_command {
 protected:
  // A draft that is a file, or one in memory.
  image::image_draft draft(bool is_file) {
    image::globals all;
    all.dry_run = !is_file;
    std::optional<image::image_draft> begun =
        image::image_draft::begin({.name = file("made.img")}, image_size, all, out_);
    EXPECT_TRUE(begun.has_value());
    return std::move(*begun);
  }
  static std::vector<uint8_t> bytes_of(image::image_draft* made) {
    std::vector<uint8_t> bytes(image_size);
    EXPECT_TRUE(made->read(0, bytes));
    const std::span<uint8_t> view = made->private_view().value();
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), view.begin(), view.end()));
    return bytes;
  }
  // Erased bytes as they come out: the file system's blocks have headers that count no erase.
  std::vector<uint8_t> without_counts(std::vector<uint8_t> bytes) const {
    for (const flash_block_info& block : image::block_table(layout_)) {
      if (block.skip == 0) {
        std::fill_n(bytes.begin() + block.offset + offsetof(flashfs_blkheader, erase_count), 4,
                    uint8_t{0});
      }
    }
    return bytes;
  }

  const image::geometry layout_{{{block_count, block_size}}, usable_blocks};
  image::report out_{{}, "create"};
};

TEST_F(fresh_flash, a_block_known_to_be_erased_is_erased_again_once_it_was_programmed) {
  image::image_draft made = draft(false);
  image::fresh_flash flash(layout_, &made);
  const flash_driver_info* driver = flash.driver();
  const uint8_t zeros[4] = {};
  for (int times = 0; times < 2; ++times) {
    // The last bytes of a block and the first of the next one.
    EXPECT_EQ(driver->write(flash.handle(), 2 * block_size - 2, 4, zeros), flash_ok);
    EXPECT_EQ(driver->erase(flash.handle(), block_size), flash_ok);
    EXPECT_EQ(driver->erase(flash.handle(), 2 * block_size), flash_ok);
    std::vector<uint8_t> read(image_size);
    EXPECT_EQ(driver->read(flash.handle(), 0, image_size, read.data()), flash_ok);
    EXPECT_EQ(read, std::vector<uint8_t>(image_size, 0xFF));
  }
  ASSERT_TRUE(flash.finish());
  EXPECT_EQ(bytes_of(&made), without_counts(std::vector<uint8_t>(image_size, 0xFF)));
}

TEST_F(fresh_flash, what_lies_outside_is_refused) {
  image::image_draft made = draft(false);
  image::fresh_flash flash(layout_, &made);
  const flash_driver_info* driver = flash.driver();
  uint8_t word[2] = {};
  EXPECT_EQ(driver->read(flash.handle(), image_size - 1, 2, word), flash_illegal_operation);
  EXPECT_EQ(driver->write(flash.handle(), image_size - 1, 2, word), flash_illegal_operation);
  EXPECT_EQ(driver->erase(flash.handle(), 1), flash_illegal_operation);
  EXPECT_EQ(driver->erase(flash.handle(), image_size), flash_illegal_operation);
  EXPECT_EQ(driver->read(flash.handle(), image_size, 0, word), flash_ok);
}

// More blocks than memory has room for, in any order.
TEST_F(fresh_flash, behaves_as_a_flash_in_memory) {
  for (const bool is_file : {true, false}) {
    image::image_draft made = draft(is_file);
    image::fresh_flash flash(layout_, &made);
    std::vector<uint8_t> expected(image_size, 0xFF);
    image::memory_flash plain(expected, layout_);
    std::mt19937 random(20261122);
    for (int step = 0; step < 4000; ++step) {
      const auto offset = static_cast<uint32_t>(random() % image_size);
      const auto length = static_cast<uint32_t>(std::min<uint64_t>(
          1 + random() % (step % 50 == 0 ? 3 * block_size : 100), image_size - offset));
      if (random() % 100 == 0) {
        const uint32_t block = offset / block_size * block_size;
        ASSERT_EQ(flash.driver()->erase(flash.handle(), block),
                  plain.driver()->erase(plain.handle(), block));
      }
      std::vector<uint8_t> bytes(length);
      std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(random()); });
      ASSERT_EQ(flash.driver()->write(flash.handle(), offset, length, bytes.data()), flash_ok);
      ASSERT_EQ(plain.driver()->write(plain.handle(), offset, length, bytes.data()), flash_ok);
      std::vector<uint8_t> read(length + 1);
      const uint32_t from = offset / 2;
      ASSERT_EQ(flash.driver()->read(flash.handle(), from, length, read.data()), flash_ok);
      ASSERT_TRUE(std::equal(read.begin(), read.end() - 1, expected.begin() + from)) << step;
    }
    ASSERT_TRUE(flash.finish());
    EXPECT_EQ(bytes_of(&made), without_counts(expected)) << is_file;
    EXPECT_EQ(made.fault(), "");
  }
}

TEST_F(fresh_flash, headers_that_change_late_are_written) {
  image::image_draft made = draft(true);
  image::fresh_flash flash(layout_, &made);
  const uint8_t marks[] = {0x12, 0x34};
  for (uint32_t block = 0; block < block_count; ++block) {
    ASSERT_EQ(flash.driver()->write(flash.handle(), block * block_size + 100, 2, marks), flash_ok);
  }
  ASSERT_EQ(flash.driver()->write(flash.handle(), 0, 2, marks), flash_ok);
  ASSERT_TRUE(flash.finish());
  std::vector<uint8_t> expected(image_size, 0xFF);
  std::copy(std::begin(marks), std::end(marks), expected.begin());
  for (uint32_t block = 0; block < block_count; ++block) {
    std::copy(std::begin(marks), std::end(marks), expected.begin() + block * block_size + 100);
  }
  EXPECT_EQ(bytes_of(&made), without_counts(expected));
}

TEST_F(fresh_flash, a_draft_has_no_name_before_it_is_finished) {
  {
    image::image_draft given_up = draft(true);
    image::fresh_flash flash(layout_, &given_up);
    ASSERT_TRUE(flash.finish());
    EXPECT_NE(names(), std::vector<std::string>{"made.img"});
    EXPECT_EQ(names().size(), 1U);
  }
  EXPECT_EQ(names(), std::vector<std::string>());
  image::image_draft made = draft(true);
  image::fresh_flash flash(layout_, &made);
  ASSERT_TRUE(flash.finish());
  // What is changed in the view stays there.
  made.private_view().value()[100] = 0x77;
  ASSERT_TRUE(made.finish());
  EXPECT_EQ(names(), std::vector<std::string>{"made.img"});
  EXPECT_EQ(contents("made.img")[100], '\xFF');
  EXPECT_EQ(contents("made.img").size(), image_size);
}

}  // namespace
