// Erasing blocks, with and without their history, and the destructive block test.
#include "flashfs/erase.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "flashfs/flashfs.h"
#include "flashfs/io.h"
#include "sim/flash.h"
#include "tests/flashfs/flashfs_test_tools.h"
#include "tests/support/flashfs_fixture.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"

using namespace test_support;

namespace {

constexpr int64_t now = 0x61626364;
const std::string log_start = "flashfs[0]: ";

// Small blocks of two sectors, so that whole tests are quick.
class block_erase : public flashfs_fixture {
 protected:
  void make(const std::vector<ram_block>& blocks) {
    make_flash(blocks);
    ASSERT_EQ(initialize(), 0);
    device().clear_counts();
  }
  void SetUp() override {
    make(ram_blocks(3, 4200));
  }
  flashfs_block& block(size_t number) {
    return fs()->flashfs_blocks[number];
  }
  std::string at(int number, uint32_t offset) {
    return "flash handle " + handle_text(device(static_cast<size_t>(number))) + ", device " +
           std::to_string(number) + ", offset " + hex(offset);
  }
  held_clock clock_{now};
  flashfs_blkheader header_;
};

}  // namespace

TEST_F(block_erase, an_erase_without_header_leaves_the_block_all_ones) {
  image_builder image(device());
  image.header(1, {.erase_count = 5, .state = 0});
  image.data_sector(1, 0, 9, 0, "abc");
  block(1).invalid_sectors = 2;
  block(1).invalid_slots = 3;
  EXPECT_EQ(output_of([&] { EXPECT_EQ(erase_block(fs(), 1, false, false), 0); }), " eS1");
  EXPECT_TRUE(is_erased(device().bytes() + 4200, 4200));
  EXPECT_EQ(block(1).invalid_sectors, 0);
  EXPECT_EQ(block(1).invalid_slots, 0);
  EXPECT_EQ(device().counts().erases, 1U);
  EXPECT_EQ(device().counts().calls(), 1U);
}

TEST_F(block_erase, an_erase_with_header_carries_the_count_over) {
  image_builder image(device());
  image.header(1, {.erase_count = 5, .state = 0});
  EXPECT_EQ(output_of([&] { EXPECT_EQ(erase_block(fs(), 1, true, false), 0); }), " eS1 wS1");
  ASSERT_EQ(read_blkheader(fs(), 1, &header_, whole_header), 0);
  EXPECT_EQ(header_.erase_count, 6U);
  EXPECT_EQ(header_.timestamp, 0x61626364U);
  EXPECT_EQ(header_.block_num, 1);
  EXPECT_EQ(blkheader_state(&header_), block_available);
  EXPECT_EQ(blkheader_crc(&header_), flashfs_good_crc);
}

TEST_F(block_erase, an_erase_with_header_reads_it_before_and_after) {
  output_of([&] { EXPECT_EQ(erase_block(fs(), 1, true, false), 0); });
  EXPECT_EQ(device().counts().reads, 2U);
  EXPECT_EQ(device().counts().bytes_read, 4U + 12U) << "the count; all that is written anew";
  EXPECT_EQ(device().counts().writes, 1U);
  EXPECT_EQ(device().counts().erases, 1U);
}

TEST_F(block_erase, an_erase_with_header_and_test_adds_three_to_a_count_of_5) {
  image_builder image(device());
  image.header(1, {.erase_count = 5, .state = 0});
  image.data_sector(1, 1, 9, 0, "abc");
  EXPECT_EQ(output_of([&] { EXPECT_EQ(erase_block(fs(), 1, true, true), 0); }),
            " eS1" + log_start + "testing block 1...erased 0x5 times\n eS1 eS1 wS1");
  ASSERT_EQ(read_blkheader(fs(), 1, &header_, whole_header), 0);
  EXPECT_EQ(header_.erase_count, 8U);
  EXPECT_TRUE(is_erased(image.sector_at(1, 0), 2 * 2056));
  EXPECT_EQ(device().counts().erases, 3U);
}

TEST_F(block_erase, a_test_without_header_has_no_count) {
  image_builder(device()).header(1, {.erase_count = 5});
  EXPECT_EQ(output_of([&] { EXPECT_EQ(erase_block(fs(), 1, false, true), 0); }),
            " eS1" + log_start + "testing block 1\n eS1 eS1");
  EXPECT_TRUE(is_erased(device().bytes() + 4200, 4200));
}

TEST_F(block_erase, a_failing_erase_keeps_the_counters) {
  image_builder(device()).header(1, {.erase_count = 5});
  block(1).invalid_sectors = 2;
  block(1).invalid_slots = 3;
  device().fail(flash_call::erase, 1, flash_poll_timeout);
  EXPECT_EQ(output_of([&] { EXPECT_EQ(erase_block(fs(), 1, true, true), 1); }),
            " eS1" + log_start + "erasing block, " + at(0, 4200) + ": Poll Timeout\n");
  EXPECT_EQ(block(1).invalid_sectors, 2);
  EXPECT_EQ(block(1).invalid_slots, 3);
}

TEST_F(block_erase, a_header_that_cannot_be_read_keeps_the_block_from_being_erased) {
  image_builder(device()).header(1, {.erase_count = 5});
  device().fail(flash_call::read, 1, flash_busy);
  EXPECT_EQ(output_of([&] { EXPECT_EQ(erase_block(fs(), 1, true, false), 1); }),
            log_start + "reading from " + at(0, 4200) + ": Busy\n");
  EXPECT_EQ(device().counts().erases, 0U);
}

TEST_F(block_erase, the_call_fails_with_any_of_its_driver_calls) {
  output_of([&] { ASSERT_EQ(erase_block(fs(), 1, true, true), 0); });
  const uint64_t calls = device().counts().calls();
  // Header, erase, sectors read; twice: sectors written, read, erase, read; header read, written.
  EXPECT_EQ(calls, 1U + 1 + 2 + 2 * (2 + 2 + 1 + 2) + 2);
  for (uint64_t n = 1; n <= calls; n++) {
    output_of([&] { ASSERT_EQ(erase_block(fs(), 1, false, false), 0); });
    device().clear_counts();
    device().fail(flash_call::any, n, flash_operation_failed);
    block(1).invalid_slots = 3;
    output_of([&] { EXPECT_EQ(erase_block(fs(), 1, true, true), 1) << n; });
    EXPECT_EQ(device().counts().calls(), n) << "nothing follows the failure";
    EXPECT_EQ(block(1).invalid_slots, 3);
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
    device().fail(flash_call::any, 0, flash_ok);
  }
}

TEST_F(block_erase, a_failing_erase_inside_the_test_is_reported) {
  device().fail(flash_call::erase, 2, flash_busy);
  EXPECT_EQ(output_of([&] { EXPECT_EQ(erase_block(fs(), 1, false, true), 1); }),
            " eS1" + log_start + "testing block 1\n eS1" + log_start + "erasing block, " +
                at(0, 4200) + ": Busy\n");
}

TEST_F(block_erase, a_full_test_adds_2_to_the_counter) {
  uint32_t count = 0xABCDEF01;
  EXPECT_EQ(output_of([&] { EXPECT_EQ(test_block(fs(), 2, &count), 0); }),
            log_start + "testing block 2...erased 0xabcdef01 times\n eS2 eS2");
  EXPECT_EQ(count, 0xABCDEF03U);
  EXPECT_EQ(output_of([&] { EXPECT_EQ(test_block(fs(), 2, nullptr), 0); }),
            log_start + "testing block 2\n eS2 eS2");
}

TEST_F(block_erase, a_test_writes_a_checkerboard_and_then_its_inverse) {
  static std::vector<std::pair<uint32_t, std::string>> writes;
  static const flash_driver_info* driver;
  writes.clear();
  driver = device().driver();
  fs()->fdi[0].write = [](const void* handle, uint32_t offset, uint32_t length,
                          const void* buffer) {
    writes.emplace_back(offset, std::string(static_cast<const char*>(buffer), length));
    return driver->write(handle, offset, length, buffer);
  };
  output_of([&] { ASSERT_EQ(test_block(fs(), 1, nullptr), 0); });
  std::string even;
  std::string odd;
  for (int i = 0; i < 1028; i++) {
    even += "\x5A\xA5";
    odd += "\xA5\x5A";
  }
  ASSERT_EQ(writes.size(), 4U);
  const uint32_t first = 4200 + 32;
  EXPECT_EQ(writes[0], (std::pair{first, even}));
  EXPECT_EQ(writes[1], (std::pair{first + 2056, odd}));
  EXPECT_EQ(writes[2], (std::pair{first, odd}));
  EXPECT_EQ(writes[3], (std::pair{first + 2056, even}));
}

TEST_F(block_erase, a_byte_that_is_not_erased_fails_the_test_before_anything_is_written) {
  device().bytes()[4200 + 32 + 2056 + 9] = 0x7F;
  uint32_t count = 5;
  EXPECT_EQ(output_of([&] { EXPECT_EQ(test_block(fs(), 1, &count), 1); }),
            log_start + "testing block 1...erased 0x5 times\n" + log_start +
                "testing block, 0x7f != 0xff, flash handle " + handle_text(device()) +
                ", device 0, block 1, sector 1, byte 9\n");
  EXPECT_EQ(device().counts().writes, 0U);
  EXPECT_EQ(count, 5U);
}

TEST_F(block_erase, the_last_byte_of_a_sector_is_tested_too) {
  device().bytes()[4200 + 32 + 2055] = 0;
  EXPECT_EQ(output_of([&] { EXPECT_EQ(test_block(fs(), 1, nullptr), 1); }),
            log_start + "testing block 1\n" + log_start +
                "testing block, 0x0 != 0xff, flash handle " + handle_text(device()) +
                ", device 0, block 1, sector 0, byte 2055\n");
}

TEST_F(block_erase, the_first_byte_of_a_sector_is_tested_too) {
  std::memset(device().bytes() + 4200 + 32, 0xFE, 2056);  // equal bytes are not erased ones
  EXPECT_EQ(output_of([&] { EXPECT_EQ(test_block(fs(), 1, nullptr), 1); }),
            log_start + "testing block 1\n" + log_start +
                "testing block, 0xfe != 0xff, flash handle " + handle_text(device()) +
                ", device 0, block 1, sector 0, byte 0\n");
}

TEST_F(block_erase, a_bit_that_stays_1_fails_the_comparison) {
  // Pass 0 asks for 0x5A at an even byte of an even sector.
  device().flash().stick(4200 + 32 + 8, 0x00, 0x80);
  uint32_t count = 5;
  EXPECT_EQ(output_of([&] { EXPECT_EQ(test_block(fs(), 1, &count), 1); }),
            log_start + "testing block 1...erased 0x5 times\n" + log_start +
                "testing block, 0x5a != 0xda, flash handle " + handle_text(device()) +
                ", device 0, block 1, sector 0, byte 8\n");
  EXPECT_EQ(count, 5U);
}

TEST_F(block_erase, a_bit_that_stays_1_in_the_inverse_pattern_fails_the_second_pass) {
  // 0x40 of an odd byte of sector 1 is 1 in the first pattern and 0 in the second.
  device().flash().stick(4200 + 32 + 2056 + 9, 0x00, 0x40);
  uint32_t count = 5;
  EXPECT_EQ(output_of([&] { EXPECT_EQ(test_block(fs(), 1, &count), 1); }),
            log_start + "testing block 1...erased 0x5 times\n eS1" + log_start +
                "testing block, 0xa5 != 0xe5, flash handle " + handle_text(device()) +
                ", device 0, block 1, sector 1, byte 9\n");
  EXPECT_EQ(count, 6U);
}

TEST_F(block_erase, a_bit_that_does_not_come_back_with_the_erase_fails_the_test) {
  // 0x20 of an even byte of sector 0 is 0 in the first pattern and stays so from then on.
  device().flash().stick(4200 + 32 + 4, 0x20, 0x00);
  uint32_t count = 5;
  EXPECT_EQ(output_of([&] { EXPECT_EQ(test_block(fs(), 1, &count), 1); }),
            log_start + "testing block 1...erased 0x5 times\n eS1" + log_start +
                "testing block, 0xdf != 0xff, flash handle " + handle_text(device()) +
                ", device 0, block 1, sector 0, byte 4\n");
  EXPECT_EQ(count, 6U) << "the erase was made and counts";
}

TEST_F(block_erase, a_failed_test_leaves_no_new_header) {
  image_builder(device()).header(1, {.erase_count = 5});
  device().flash().stick(4200 + 32 + 4, 0x20, 0x00);
  output_of([&] { EXPECT_EQ(erase_block(fs(), 1, true, true), 1); });
  EXPECT_TRUE(is_erased(device().bytes() + 4200, 32));
}

TEST_F(block_erase, the_test_has_no_sectors_to_write_in_a_tiny_block) {
  make({{2000, false}, {4200, false}});
  EXPECT_EQ(output_of([&] { EXPECT_EQ(erase_block(fs(), 0, true, true), 0); }),
            " eS0" + log_start + "testing block 0...erased 0xffffffff times\n eS0 eS0 wS0");
  ASSERT_EQ(read_blkheader(fs(), 0, &header_, whole_header), 0);
  EXPECT_EQ(header_.erase_count, 2U);
}

TEST_F(block_erase, a_block_without_sectors_still_has_a_header) {
  make({{2048, false}, {0x20000, false}});
  EXPECT_EQ(fs()->flashfs_blocks[0].num_sectors, 0);
  output_of([&] { EXPECT_EQ(erase_block(fs(), 0, true, false), 0); });
  flashfs_blkheader header;
  ASSERT_EQ(read_blkheader(fs(), 0, &header, whole_header), 0);
  EXPECT_EQ(header.erase_count, 0U);
  flashfs_sector sector;
  output_of([&] { EXPECT_EQ(read_sector(fs(), {0, 0}, &sector, whole_sector), 1); });
}

TEST_F(block_erase, the_destructive_test_leaves_the_tail_alone) {
  make({{6000, false}});
  const uint8_t before = device().bytes()[5999];
  output_of([&] { ASSERT_EQ(erase_block(fs(), 0, false, true), 0); });
  EXPECT_EQ(before, 0xFF);
  EXPECT_EQ(device().deviations(), 0U);
  // Two passes over two sectors of 1028 words each, and nothing else.
  EXPECT_EQ(device().counts().words_programmed, 2U * 2U * 1028U);
}

TEST_F(block_erase, an_erased_header_counts_ffffffff_and_its_first_counted_erase_stores_0) {
  make(ram_blocks(2, 0x20000));
  flashfs_blkheader header;
  ASSERT_EQ(read_blkheader(fs(), 1, &header, whole_header), 0);
  EXPECT_EQ(header.erase_count, 0xFFFFFFFFU);
  output_of([&] { ASSERT_EQ(erase_block(fs(), 1, true, false), 0); });
  ASSERT_EQ(read_blkheader(fs(), 1, &header, whole_header), 0);
  EXPECT_EQ(header.erase_count, 0U);
  output_of([&] { ASSERT_EQ(erase_block(fs(), 1, true, false), 0); });
  ASSERT_EQ(read_blkheader(fs(), 1, &header, whole_header), 0);
  EXPECT_EQ(header.erase_count, 1U);
}

TEST_F(block_erase, a_header_written_after_an_erase_is_available_and_else_erased) {
  make(ram_blocks(3, 0x20000));
  image_builder image(device());
  image.header(2, {.erase_count = 0x00FFFFFF, .state = 0});
  output_of([&] { ASSERT_EQ(erase_block(fs(), 2, true, false), 0); });
  const uint16_t checksum = image_crc("abcd", 4);  // of the time that it is
  std::string expected(
      "\x01\x00\x00\x00"
      "abcd",
      8);
  expected += static_cast<char>(checksum >> 8);
  expected += static_cast<char>(checksum);
  expected += std::string("\x00\x02", 2);
  expected += std::string(20, '\xFF');
  EXPECT_EQ(std::string(image.header_at(2), image.header_at(2) + 32), expected);
}
