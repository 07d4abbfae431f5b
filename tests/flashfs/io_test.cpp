// Block and sector input/output: what reaches the driver, what is printed, what ends the program.
#include "flashfs/io.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <random>
#include <string>
#include <vector>

#include "flashfs/buffer.h"
#include "flashfs/erase.h"
#include "flashfs/flashfs.h"
#include "sim/flash.h"
#include "tests/flashfs/flashfs_test_tools.h"
#include "tests/support/flashfs_fixture.h"
#include "tests/support/golden.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"

using namespace test_support;

namespace {

constexpr int64_t now = 0x61626364;
constexpr uint32_t block_bytes = 0x20000;
const std::string log_start = "flashfs[0]: ";

class block_io : public flashfs_fixture {
 protected:
  void make(const std::vector<ram_block>& blocks) {
    make_flash(blocks);
    ASSERT_EQ(initialize(), 0);
    device().clear_counts();
  }
  void SetUp() override {
    make(ram_blocks(4, block_bytes));
    std::memset(&sector_, 0x11, sizeof sector_);
    std::memset(&header_, 0x11, sizeof header_);
    std::memset(&erased_header_, 0xFF, sizeof erased_header_);
  }
  // Every driver call says so: a call that a range check should have stopped shows up.
  void announce_driver_calls() {
    fs()->fdi[0].read = [](const void*, uint32_t, uint32_t, void*) {
      std::printf("READ");
      return flash_ok;
    };
    fs()->fdi[0].write = [](const void*, uint32_t, uint32_t, const void*) {
      std::printf("WRITE");
      return flash_ok;
    };
    fs()->fdi[0].erase = [](const void*, uint32_t) {
      std::printf("ERASE");
      return flash_ok;
    };
  }
  flashfs_block& block(size_t number) {
    return fs()->flashfs_blocks[number];
  }
  std::string at(int number, uint32_t offset) {
    return "flash handle " + handle_text(device(static_cast<size_t>(number))) + ", device " +
           std::to_string(number) + ", offset " + hex(offset);
  }
  held_clock clock_{now};
  flashfs_sector sector_;
  flashfs_blkheader header_;
  flashfs_blkheader erased_header_;
};

std::string bytes_at(const uint8_t* bytes, size_t count) {
  return {bytes, bytes + count};
}

}  // namespace

// --- texts, time, geometry ---

TEST(flash_return_code_text, every_code_has_its_text) {
  const char* const texts[] = {
      "[OK]",
      "Not Found",
      "No Resources",
      "Operation Failed",
      "Illegal Operation -- setting bit(s) with write operation",
      "Read Verify Failed",
      "Busy",
      "Poll Timeout",
  };
  for (uint32_t code = 0; code < 8; code++) {
    EXPECT_STREQ(flash_return_code_text(code), texts[code]);
  }
}

TEST(flash_return_code_text, an_unknown_code_leaves_the_text_of_the_call_before) {
  const char* text = flash_return_code_text(4);
  for (const uint32_t code : {8U, 9U, 255U, 0x80000000U, 0xFFFFFFFFU}) {
    EXPECT_EQ(flash_return_code_text(code), text) << "one buffer";
    EXPECT_STREQ(text, "Illegal Operation -- setting bit(s) with write operation");
  }
  flash_return_code_text(6);
  EXPECT_STREQ(flash_return_code_text(8), "Busy");
}

TEST(block_geometry, a_block_of_128_kib_has_63_sectors_and_1512_bytes_over) {
  EXPECT_EQ(block_sector_count(131072), 63);
  EXPECT_EQ(block_spare_bytes(131072), 1512U);
}

TEST(block_geometry, a_block_too_small_for_a_sector_holds_only_its_header) {
  EXPECT_EQ(block_sector_count(32 + 2055), 0);
  EXPECT_EQ(block_spare_bytes(32 + 2055), 2055U);
  EXPECT_EQ(block_sector_count(32 + 2056), 1);
  EXPECT_EQ(block_spare_bytes(32 + 2056), 0U);
  EXPECT_EQ(block_sector_count(32), 0);
}

TEST(block_geometry, a_block_smaller_than_a_header_has_nothing) {
  for (const uint32_t size : {0U, 1U, 31U}) {
    EXPECT_EQ(block_sector_count(size), 0) << size;
    EXPECT_EQ(block_spare_bytes(size), 0U) << size;
  }
}

TEST(block_geometry, the_sector_count_is_cut_to_16_bits) {
  EXPECT_EQ(block_sector_count(32 + 2056 * 65537U), 1);
}

TEST_F(block_io, a_block_has_the_size_that_the_driver_gave) {
  make({{4200, false}, {block_bytes, false}, {2000, false}, {32 + 3 * 2056, false}});
  EXPECT_EQ(block_size(fs(), 0), 4200U);
  EXPECT_EQ(block_size(fs(), 1), block_bytes);
  EXPECT_EQ(block_size(fs(), 2), 2000U);
  EXPECT_EQ(block_size(fs(), 3), 32U + 3 * 2056);
}

TEST(flashfs_timestamp, is_the_hosts_time_in_seconds) {
  const held_clock clock(0xF1F2F3F4);
  EXPECT_EQ(flashfs_timestamp(), 0xF1F2F3F4U);
}

// --- headers and whole blocks ---

TEST_F(block_io, a_header_is_the_first_32_bytes_of_its_block) {
  image_builder(device()).header(2, {.erase_count = 0x01020304});
  EXPECT_EQ(output_of([&] { EXPECT_EQ(read_blkheader(fs(), 2, &header_, whole_header), 0); }), "");
  EXPECT_EQ(std::memcmp(&header_, device().bytes() + 2 * block_bytes, 32), 0);
  EXPECT_EQ(device().counts().reads, 1U);
  EXPECT_EQ(device().counts().bytes_read, 32U);
}

TEST_F(block_io, a_written_header_carries_the_number_of_its_block) {
  header_.block_num = 0x7777;
  EXPECT_EQ(output_of([&] { EXPECT_EQ(update_blkheader(fs(), 3, erased_header_, &header_), 0); }),
            " wS3");
  EXPECT_EQ(header_.block_num, 3);
  std::string expected(32, '\x11');
  expected[10] = 0;
  expected[11] = 3;
  EXPECT_EQ(bytes_at(device().bytes() + 3 * block_bytes, 32), expected);
  EXPECT_EQ(device().bytes()[3 * block_bytes + 32], 0xFF);
  EXPECT_EQ(device().counts().calls(), 1U);
}

TEST_F(block_io, a_whole_block_is_read_and_written_in_one_call) {
  std::vector<uint8_t> contents(block_bytes);
  for (size_t i = 0; i < contents.size(); i++) {
    contents[i] = static_cast<uint8_t>(i * 31 + i / 256);
  }
  EXPECT_EQ(output_of([&] { EXPECT_EQ(write_block(fs(), 1, contents.data()), 0); }), " wS1");
  EXPECT_EQ(std::memcmp(device().bytes() + block_bytes, contents.data(), block_bytes), 0);
  std::vector<uint8_t> back(block_bytes);
  EXPECT_EQ(output_of([&] {
              EXPECT_EQ(read_block(fs(), 1, {0, block_bytes}, back.data()), 0);
            }),
            "");
  EXPECT_EQ(back, contents);
  EXPECT_EQ(device().counts().calls(), 2U);
  EXPECT_EQ(device().counts().bytes_read, block_bytes);
}

TEST_F(block_io, failing_header_and_block_calls_say_what_where_and_why) {
  std::vector<uint8_t> contents(block_bytes, 0xFF);
  device().fail(flash_call::any, 1, flash_poll_timeout, true);
  EXPECT_EQ(output_of([&] { EXPECT_EQ(read_blkheader(fs(), 2, &header_, whole_header), 1); }),
            log_start + "reading from " + at(0, 0x40000) + ": Poll Timeout\n");
  EXPECT_EQ(output_of([&] { EXPECT_EQ(update_blkheader(fs(), 2, erased_header_, &header_), 1); }),
            " wS2" + log_start + "writing to " + at(0, 0x40000) + ", length: 0x20: Poll Timeout\n");
  device().fail(flash_call::any, 1, flash_busy, true);
  EXPECT_EQ(output_of([&] {
              EXPECT_EQ(read_block(fs(), 3, {0, block_bytes}, contents.data()), 1);
            }),
            log_start + "reading from " + at(0, 0x60000) + ": Busy\n");
  EXPECT_EQ(output_of([&] { EXPECT_EQ(write_block(fs(), 3, contents.data()), 1); }),
            " wS3" + log_start + "writing to " + at(0, 0x60000) + ", length 0x20000: Busy\n");
  EXPECT_EQ(device().counts().calls(), 4U) << "nothing is tried again";
}

TEST_F(block_io, a_block_number_out_of_range_ends_the_program_before_the_flash_is_touched) {
  announce_driver_calls();
  std::vector<uint8_t> contents(block_bytes);
  for (const int number : {-32768, -1, 4, 5, 32767}) {
    const auto bad = static_cast<int16_t>(number);
    const std::string range =
        log_start + "block_num (" + std::to_string(number) + ") not in range between 0 and 3.\n";
    const auto expect_end = [&](const char* what, auto&& call) {
      const isolated_result end = end_of_child(call);
      EXPECT_EQ(end.status, 1);
      EXPECT_EQ(end.output, log_start + what + "\n" + range);
    };
    expect_end("Trying to read a block header not in the  flash device!.",
               [&] { (void)read_blkheader(fs(), bad, &header_, whole_header); });
    expect_end("Trying to write a block header not in the  flash device!.",
               [&] { (void)update_blkheader(fs(), bad, erased_header_, &header_); });
    expect_end("Trying to read a block not in the  flash device!.", [&] {
      (void)read_block(fs(), bad, {0, block_bytes}, contents.data());
    });
    expect_end("Trying to write a block not in the  flash device!.",
               [&] { (void)write_block(fs(), bad, contents.data()); });
    expect_end("Trying to write a sector not in the flash device!.", [&] {
      (void)write_sector(fs(), {bad, 0}, &sector_, whole_sector);
    });
    EXPECT_EQ(end_of_child([&] { (void)erase_block(fs(), bad, true, true); }).status, 1);
    const isolated_result erase = end_of_child([&] { (void)erase_block(fs(), bad, false, false); });
    EXPECT_EQ(erase.status, 1);
    EXPECT_EQ(erase.output.find("ERASE"), std::string::npos);
  }
}

TEST_F(block_io, the_highest_block_number_is_in_range) {
  EXPECT_EQ(read_blkheader(fs(), 0, &header_, whole_header), 0);
  EXPECT_EQ(read_blkheader(fs(), 3, &header_, whole_header), 0);
}

TEST_F(block_io, without_blocks_every_number_is_out_of_range) {
  make({{block_bytes, true}});
  const isolated_result end =
      end_of_child([&] { (void)read_blkheader(fs(), 0, &header_, whole_header); });
  EXPECT_EQ(end.status, 1);
  EXPECT_EQ(end.output, log_start + "Trying to read a block header not in the  flash device!.\n" +
                            log_start + "block_num (0) not in range between 0 and -1.\n");
}

// --- block states ---

TEST_F(block_io, a_blocks_state_is_the_low_nibble_in_its_header) {
  image_builder image(device());
  for (const uint8_t expected : {block_available, block_invalid1, block_committed, block_invalid2,
                                 block_in_use, block_state{5}}) {
    for (const uint8_t high_nibble : {uint8_t{0xF0}, uint8_t{0x20}}) {
      image.header(1);
      image.header_at(1)[12] = high_nibble | expected;
      device().clear_counts();
      uint8_t state = 0xAA;
      EXPECT_EQ(read_block_state(fs(), 1, &state), 0);
      EXPECT_EQ(state, expected);
      EXPECT_EQ(device().counts().calls(), 1U);
      EXPECT_EQ(device().counts().bytes_read, 2U) << "the word that has it";
    }
  }
}

TEST_F(block_io, a_state_that_cannot_be_read_is_told_and_leaves_the_callers) {
  device().fail(flash_call::read, 1, flash_busy);
  uint8_t state = 0xAA;
  EXPECT_EQ(output_of([&] { EXPECT_EQ(read_block_state(fs(), 1, &state), 1); }),
            log_start + "reading from " + at(0, 0x20000) + ": Busy\n");
  EXPECT_EQ(state, 0xAA);
}

TEST_F(block_io, a_block_moves_down_all_its_states_without_an_erase) {
  make(ram_blocks(2, 0x20000));
  output_of([&] {
    ASSERT_EQ(erase_block(fs(), 1, true, false), 0);
    device().clear_counts();
    for (const block_state state :
         {block_invalid1, block_committed, block_invalid2, block_in_use}) {
      ASSERT_EQ(set_block_state(fs(), 1, state), 0);
      flashfs_blkheader header;
      ASSERT_EQ(read_blkheader(fs(), 1, &header, whole_header), 0);
      EXPECT_EQ(blkheader_state(&header), state);
      EXPECT_EQ(header.state >> 4, 0xF);
      EXPECT_EQ(blkheader_crc(&header), flashfs_good_crc);
    }
  });
  EXPECT_EQ(device().counts().erases, 0U);
  EXPECT_EQ(device().counts().writes, 4U);
  EXPECT_EQ(device().counts().words_programmed, 4U);
}

TEST_F(block_io, states_may_be_skipped_on_the_way_down) {
  make(ram_blocks(2, 0x20000));
  output_of([&] {
    ASSERT_EQ(erase_block(fs(), 1, true, false), 0);
    EXPECT_EQ(set_block_state(fs(), 1, block_in_use), 0);
  });
  EXPECT_EQ(image_builder(device()).header_at(1)[12], 0xF0);
}

TEST_F(block_io, a_state_that_would_set_bits_is_refused_by_the_driver) {
  expect_no_deviations_ = false;
  make(ram_blocks(2, 0x20000));
  output_of([&] {
    ASSERT_EQ(erase_block(fs(), 1, true, false), 0);
    ASSERT_EQ(set_block_state(fs(), 1, block_in_use), 0);
  });
  const std::string output = output_of([&] {
    EXPECT_EQ(set_block_state(fs(), 1, block_invalid1), 1);
    EXPECT_EQ(set_block_state(fs(), 1, block_available), 1);
  });
  const std::string line = " wS1flashfs[0]: writing to flash handle " + handle_text(device()) +
                           ", device 0, offset 0x20000, length: 0x20: "
                           "Illegal Operation -- setting bit(s) with write operation\n";
  EXPECT_EQ(output, line + line);
  EXPECT_EQ(image_builder(device()).header_at(1)[12], 0xF0);
}

TEST_F(block_io, failing_to_read_or_write_a_header_fails_the_change_of_state) {
  device().fail(flash_call::read, 1, flash_busy);
  EXPECT_EQ(output_of([&] { EXPECT_EQ(set_block_state(fs(), 1, block_in_use), 1); }),
            log_start + "reading from " + at(0, 0x20000) + ": Busy\n");
  device().fail(flash_call::write, 1, flash_busy);
  output_of([&] { EXPECT_EQ(set_block_state(fs(), 1, block_in_use), 1); });
  EXPECT_EQ(device().counts().words_programmed, 0U);
}

// --- sectors ---

TEST_F(block_io, sectors_follow_the_header_and_the_tail_is_never_written) {
  make({{6000, false}, {6000, false}});
  ASSERT_EQ(fs()->flashfs_blocks[1].num_sectors, 2);
  flashfs_sector sector;
  std::memset(&sector, 0, sizeof sector);
  for (uint16_t s = 0; s < 2; s++) {
    sector.seq_no = static_cast<uint16_t>(0x1100 + s);
    ASSERT_EQ(write_sector(fs(), {1, s}, &sector, whole_sector), 0);
  }
  const uint8_t* block = device().bytes() + 6000;
  for (size_t i = 0; i < 6000; i++) {
    const bool in_sectors = i >= 32 && i < 32 + 2 * 2056;
    const size_t in_sector = (i - 32) % 2056;
    const int expected = !in_sectors         ? 0xFF
                         : in_sector == 2052 ? 0x11
                         : in_sector == 2053 ? static_cast<int>((i - 32) / 2056)
                                             : 0;
    ASSERT_EQ(block[i], expected) << i;
  }
}

TEST_F(block_io, a_read_of_length_2_gives_just_the_file_id) {
  image_builder(device()).data_sector(1, 5, 0x1234, 0, "abc");
  EXPECT_EQ(read_sector(fs(), {1, 5}, &sector_, only_fileid), 0);
  EXPECT_EQ(sector_.fileid, 0x1234);
  EXPECT_EQ(sector_.count, 0x1111) << "the rest of the buffer stays";
  EXPECT_EQ(sector_.checksum, 0x1111);
  EXPECT_EQ(device().counts().reads, 1U);
  EXPECT_EQ(device().counts().bytes_read, 2U);
}

TEST_F(block_io, a_read_of_length_0_gives_the_whole_sector) {
  image_builder image(device());
  image.data_sector(1, 5, 0x1234, 7, std::string(2048, 'd'));
  EXPECT_EQ(read_sector(fs(), {1, 5}, &sector_, whole_sector), 0);
  EXPECT_EQ(std::memcmp(&sector_, image.sector_at(1, 5), 2056), 0);
  EXPECT_EQ(device().counts().reads, 1U);
  EXPECT_EQ(device().counts().bytes_read, 2056U);
}

TEST_F(block_io, a_write_of_a_length_reaches_just_those_bytes) {
  EXPECT_EQ(output_of([&] {
              EXPECT_EQ(write_sector(fs(), {2, 1}, &sector_, only_fileid), 0);
            }),
            "");
  const uint8_t* at_sector = device().bytes() + 2 * block_bytes + 32 + 2056;
  EXPECT_EQ(bytes_at(at_sector - 1, 4), "\xFF\x11\x11\xFF");
  EXPECT_EQ(output_of([&] {
              EXPECT_EQ(write_sector(fs(), {2, 1}, &sector_, whole_sector), 0);
            }),
            "");
  EXPECT_EQ(bytes_at(at_sector, 2056), std::string(2056, '\x11'));
  EXPECT_EQ(bytes_at(at_sector + 2056, 4), "\xFF\xFF\xFF\xFF");
  EXPECT_EQ(device().counts().writes, 2U);
}

TEST_F(block_io, an_update_programs_just_the_words_that_differ_and_neighbours_in_one_call) {
  std::minstd_rand random(1);
  uint8_t* const on_flash = device().bytes() + 0x20000 + sizeof(flashfs_blkheader);
  for (uint32_t round = 0; round < 300; round++) {
    std::array<uint8_t, sizeof(flashfs_sector)> held = {};
    std::array<uint8_t, sizeof(flashfs_sector)> wanted = {};
    uint32_t words = 0;
    uint32_t runs = 0;
    bool differed = false;
    for (size_t i = 0; i < held.size(); i += 2) {
      // Runs of all lengths; a word differs in its first byte, its second, or both.
      const bool differs = random() % (2 + round % 40) == 0 ? !differed : differed;
      const uint32_t which = 1 + static_cast<uint32_t>(random()) % 3;
      for (size_t j = 0; j < 2; j++) {
        held[i + j] = static_cast<uint8_t>(random() | 1);
        wanted[i + j] = static_cast<uint8_t>(
            differs && (which >> j & 1) != 0 ? held[i + j] & random() & 0xFE : held[i + j]);
      }
      words += differs ? 1 : 0;
      runs += differs && !differed ? 1 : 0;
      differed = differs;
    }
    std::copy(held.begin(), held.end(), on_flash);
    device().clear_counts();
    ASSERT_EQ(update_sector(fs(), {1, 0}, reinterpret_cast<const flashfs_sector*>(held.data()),
                            reinterpret_cast<const flashfs_sector*>(wanted.data())),
              0);
    ASSERT_TRUE(std::equal(wanted.begin(), wanted.end(), on_flash)) << round;
    ASSERT_EQ(device().counts().words_programmed, words) << round;
    ASSERT_EQ(device().counts().writes, runs) << round;
  }
}

TEST_F(block_io, sector_62_is_the_last_one_of_a_128_kib_block) {
  EXPECT_EQ(write_sector(fs(), {1, 62}, &sector_, whole_sector), 0);
  EXPECT_EQ(device().bytes()[block_bytes + 127504 - 1], 0xFF);
  EXPECT_EQ(device().bytes()[block_bytes + 127504], 0x11);
  EXPECT_EQ(device().bytes()[block_bytes + 127504 + 2055], 0x11);
  EXPECT_EQ(device().bytes()[block_bytes + 127504 + 2056], 0xFF);
  EXPECT_EQ(read_sector(fs(), {1, 62}, &sector_, whole_sector), 0);
}

TEST_F(block_io, reading_a_sector_number_out_of_range_is_an_error) {
  for (const uint16_t bad : u16s{63, 64, 65535}) {
    EXPECT_EQ(output_of([&] {
                EXPECT_EQ(read_sector(fs(), {1, bad}, &sector_, whole_sector), 1);
              }),
              log_start +
                  "Trying to read a sector from block 1, with an invalid sector number!!!\n" +
                  log_start + "The sector number (" + std::to_string(bad) +
                  ") is not between 0 and 62.\n");
  }
  EXPECT_EQ(device().counts().calls(), 0U);
}

TEST_F(block_io, reading_a_sector_of_a_block_out_of_range_is_an_error) {
  for (const int bad : {-32768, -1, 4, 32767}) {
    EXPECT_EQ(
        output_of([&] {
          EXPECT_EQ(read_sector(fs(), {static_cast<int16_t>(bad), 0}, &sector_, only_fileid), 1);
        }),
        log_start + "Trying to read a sector not in the flash device!.\n" + log_start +
            "block_num (" + std::to_string(bad) + ") not in range between 0 and 3.\n");
  }
  EXPECT_EQ(device().counts().calls(), 0U);
}

TEST_F(block_io, writing_a_sector_number_out_of_range_ends_the_program) {
  announce_driver_calls();
  for (const uint16_t bad : u16s{63, 65535}) {
    const isolated_result end = end_of_child([&] {
      (void)write_sector(fs(), {2, bad}, &sector_, whole_sector);
    });
    EXPECT_EQ(end.status, 1);
    EXPECT_EQ(end.output,
              log_start +
                  "Trying to write a sector from block 2, with an invalid sector number!!!\n" +
                  log_start + "The sector number (" + std::to_string(bad) +
                  ") is not between 0 and 62.\n");
  }
}

TEST_F(block_io, a_failing_sector_read_prints_the_sectors_offset) {
  device().fail(flash_call::read, 1, flash_read_verify_failed);
  EXPECT_EQ(
      output_of([&] {
        EXPECT_EQ(read_sector(fs(), {2, 3}, &sector_, whole_sector), 1);
      }),
      log_start + "reading from " + at(0, 0x40000 + 32 + 3 * 2056) + ": Read Verify Failed\n");
  EXPECT_EQ(device().counts().reads, 1U);
}

TEST_F(block_io, a_failing_sector_write_prints_the_blocks_offset_and_the_pointer) {
  device().fail(flash_call::write, 1, flash_operation_failed, true);
  EXPECT_EQ(output_of([&] {
              EXPECT_EQ(write_sector(fs(), {2, 20}, &sector_, whole_sector), 1);
            }),
            log_start + "writing to " + at(0, 0x40000) + ", length 0x808: Operation Failed\n" +
                log_start + "sector ptr: {0x2, 0x14}\n");
  EXPECT_EQ(output_of([&] {
              EXPECT_EQ(write_sector(fs(), {2, 20}, &sector_, only_fileid), 1);
            }),
            log_start + "writing to " + at(0, 0x40000) + ", length 0x2: Operation Failed\n" +
                log_start + "sector ptr: {0x2, 0x14}\n");
  EXPECT_EQ(device().counts().writes, 2U);
}

TEST_F(block_io, a_write_that_would_set_a_bit_fails_with_its_own_text) {
  expect_no_deviations_ = false;
  ASSERT_EQ(write_sector(fs(), {0, 0}, &sector_, whole_sector), 0);
  sector_.data[9] = 0x12;
  EXPECT_EQ(output_of([&] {
              EXPECT_EQ(write_sector(fs(), {0, 0}, &sector_, whole_sector), 1);
            }),
            log_start + "writing to " + at(0, 0) +
                ", length 0x808: Illegal Operation -- setting bit(s) with write operation\n" +
                log_start + "sector ptr: {0x0, 0x0}\n");
}

TEST_F(block_io, blocks_of_the_second_device_go_to_it_with_its_own_handle) {
  make_flash(ram_blocks(2, block_bytes), ram_blocks(3, 4200));
  ASSERT_EQ(initialize(), 0);
  output_of([&] {
    EXPECT_EQ(write_sector(fs(), {3, 1}, &sector_, whole_sector), 0);
    EXPECT_EQ(erase_block(fs(), 4, true, false), 0);
  });
  EXPECT_EQ(device(0).counts().calls(), 0U);
  EXPECT_EQ(device(1).bytes()[4200 + 32 + 2056], 0x11);
  EXPECT_EQ(device(1).bytes()[8400 + 11], 4) << "numbered over both devices";
  device(1).fail(flash_call::any, 1, flash_not_found, true);
  EXPECT_EQ(output_of([&] {
              EXPECT_EQ(read_sector(fs(), {4, 1}, &sector_, whole_sector), 1);
            }),
            log_start + "reading from " + at(1, 8400 + 32 + 2056) + ": Not Found\n");
  EXPECT_EQ(output_of([&] { EXPECT_EQ(erase_block(fs(), 4, false, false), 1); }),
            " eS4" + log_start + "erasing block, " + at(1, 8400) + ": Not Found\n");
}

TEST_F(block_io, the_handle_is_passed_exactly_as_it_was_registered) {
  static const void* seen[3];
  const int token = 0;
  fs()->handle[0] = &token;
  fs()->fdi[0].read = [](const void* handle, uint32_t, uint32_t, void*) {
    seen[0] = handle;
    return flash_ok;
  };
  fs()->fdi[0].write = [](const void* handle, uint32_t, uint32_t, const void*) {
    seen[1] = handle;
    return flash_ok;
  };
  fs()->fdi[0].erase = [](const void* handle, uint32_t) {
    seen[2] = handle;
    return flash_ok;
  };
  output_of([&] {
    EXPECT_EQ(read_sector(fs(), {0, 0}, &sector_, whole_sector), 0);
    EXPECT_EQ(write_sector(fs(), {0, 0}, &sector_, whole_sector), 0);
    EXPECT_EQ(erase_block(fs(), 0, false, false), 0);
  });
  for (const void* handle : seen) {
    EXPECT_EQ(handle, &token);
  }
}

TEST_F(block_io, a_null_handle_is_printed_as_0x0) {
  fs()->handle[0] = nullptr;
  fs()->fdi[0].read = [](const void*, uint32_t, uint32_t, void*) { return flash_no_resources; };
  EXPECT_EQ(output_of([&] { EXPECT_EQ(read_blkheader(fs(), 1, &header_, whole_header), 1); }),
            log_start + "reading from flash handle 0x0, device 0, offset 0x20000: No Resources\n");
}

TEST_F(block_io, whatever_changes_flash_is_counted_and_reading_is_not) {
  flashfs_blkheader header = {};
  image_builder(device()).data_sector(1, 6, 9, 0, "abc");
  const std::vector<uint8_t> contents(block_size(fs(), 2), flash_erased_byte);
  const std::function<int()> changes[] = {
      [&] {
        return write_sector(fs(), {2, 0}, &sector_, only_fileid);
      },
      [&] {
        return obsolete_on_flash(fs(), {1, 6}, slot_of_sector);
      },
      [&] { return erase_whole_block(fs(), 2); },
      [&] { return write_block(fs(), 2, contents.data()); },
      [&] {
        return read_blkheader(fs(), 2, &header, whole_header) +
               update_blkheader(fs(), 2, erased_header_, &header);
      },
  };
  for (const auto& change : changes) {
    const uint64_t before = flash_change_count();
    ASSERT_EQ(read_sector(fs(), {1, 5}, &sector_, only_fileid), 0);
    ASSERT_EQ(flash_change_count(), before);
    output_of([&] { ASSERT_EQ(change(), 0); });
    EXPECT_NE(flash_change_count(), before);
  }
}

// --- what becomes obsolete ---

TEST_F(block_io, invalidating_a_sector_counts_it_once_and_writes_nothing) {
  sector_.fileid = 9;
  invalidate_sector_buf(fs(), {2, 4}, &sector_);
  EXPECT_EQ(sector_.fileid, 0);
  EXPECT_EQ(sector_.count, 0x1111);
  EXPECT_EQ(block(2).invalid_sectors, 1);
  invalidate_sector_buf(fs(), {2, 4}, &sector_);
  EXPECT_EQ(block(2).invalid_sectors, 1) << "it was invalid already";
  EXPECT_EQ(device().counts().calls(), 0U);
}

TEST_F(block_io, deleting_a_slot_counts_it_once_and_writes_nothing) {
  sector_.fileid = fileid_root;
  delete_slot_buf(fs(), {2, 4}, &sector_, 6);
  EXPECT_EQ(sector_.slots[6].dir_fileid, 0);
  EXPECT_EQ(sector_.slots[6].entry_fileid, 0x1111);
  EXPECT_EQ(sector_.slots[5].dir_fileid, 0x1111);
  EXPECT_EQ(sector_.fileid, 1);
  EXPECT_EQ(block(2).invalid_slots, 1);
  delete_slot_buf(fs(), {2, 4}, &sector_, 6);
  EXPECT_EQ(block(2).invalid_slots, 1);
  EXPECT_EQ(block(2).invalid_sectors, 0);
  EXPECT_EQ(device().counts().calls(), 0U);
}

TEST_F(block_io, deleting_the_last_live_slot_invalidates_the_sector) {
  sector_.fileid = fileid_root;
  for (uint32_t k = 0; k < 32; k++) {
    if (k != 17) {
      delete_slot_buf(fs(), {2, 4}, &sector_, k);
    }
  }
  block(2).invalid_slots = 40;  // 31 of this sector, the others elsewhere in the block
  block(2).invalid_sectors = 3;
  delete_slot_buf(fs(), {2, 4}, &sector_, 17);
  EXPECT_EQ(sector_.fileid, 0);
  EXPECT_EQ(block(2).invalid_sectors, 4);
  EXPECT_EQ(block(2).invalid_slots, 40 - 31);
}

TEST_F(block_io, the_slots_of_one_invalidated_sector_come_down_to_0) {
  sector_.fileid = fileid_root;
  for (uint32_t k = 0; k < 32; k++) {
    delete_slot_buf(fs(), {2, 4}, &sector_, k);
  }
  EXPECT_EQ(block(2).invalid_slots, 0);
  EXPECT_EQ(block(2).invalid_sectors, 1);
}

TEST_F(block_io, the_slot_counter_never_falls_below_0) {
  sector_.fileid = fileid_root;
  for (uint32_t k = 0; k < 32; k++) {
    sector_.slots[k].dir_fileid = 0;
  }
  delete_slot_buf(fs(), {2, 4}, &sector_, 0);
  EXPECT_EQ(sector_.fileid, 0);
  EXPECT_EQ(block(2).invalid_slots, 0);
}

TEST_F(block_io, a_slot_number_from_damaged_data_stays_inside_the_sector) {
  sector_.fileid = fileid_root;
  for (const uint32_t bad : {32U, 254U, 255U, 256U, 0xFFFFFFFFU}) {
    delete_slot_buf(fs(), {2, 4}, &sector_, bad);
  }
  EXPECT_EQ(sector_.seq_no, 0x1111);
  EXPECT_EQ(sector_.checksum, 0x1111);
}

TEST_F(block_io, a_slot_number_counts_modulo_256) {
  sector_.fileid = fileid_root;
  delete_slot_buf(fs(), {2, 4}, &sector_, 256 + 5);
  EXPECT_EQ(sector_.slots[5].dir_fileid, 0);
}

TEST_F(block_io, failing_to_obsolete_leaves_the_flash_as_it_was) {
  image_builder image(device());
  image.data_sector(1, 5, 9, 0, "abc");
  const auto before = device().flash().snapshot();
  for (const flash_call kind : {flash_call::read, flash_call::write}) {
    device().fail(kind, 1, flash_operation_failed);
    output_of([&] { EXPECT_EQ(obsolete_on_flash(fs(), {1, 5}, slot_of_sector), 1); });
    EXPECT_EQ(device().flash().first_difference(before), before.size());
  }
}

TEST_F(block_io, a_reserved_sector_is_made_obsolete_as_a_sector) {
  image_builder image(device());
  image.data_sector(1, 5, 9, 0, "abc");
  EXPECT_EQ(obsolete_on_flash(fs(), {1, 5}, slot_of_reserved_sector), 0);
  EXPECT_EQ(bytes_at(image.sector_at(1, 5), 2), std::string(2, '\0'));
}

TEST_F(block_io, a_sector_whose_slots_are_all_deleted_is_invalidated) {
  make(ram_blocks(1, 0x20000));
  flashfs_sector sector;
  std::memset(&sector, 0xFF, sizeof sector);
  sector.fileid = fileid_root;
  for (uint32_t k = 0; k < 31; k++) {
    delete_slot_buf(fs(), {0, 5}, &sector, k);
    EXPECT_EQ(sector.fileid, 1) << "an available slot keeps the sector";
  }
  delete_slot_buf(fs(), {0, 5}, &sector, 31);
  EXPECT_EQ(sector.fileid, 0);
}

TEST_F(block_io, a_slot_is_deleted_by_clearing_its_directory_id_alone) {
  make(ram_blocks(1, 0x20000));
  image_builder image(device());
  image.slot(0, 3, 7, {.entry_fileid = 9, .name = "gone"});
  image.slot(0, 3, 8, {.entry_fileid = 10, .name = "kept"});
  std::string expected(image.sector_at(0, 3), image.sector_at(0, 3) + 2056);
  expected[4 + 64 * 7 + 2] = 0;
  expected[4 + 64 * 7 + 3] = 0;
  ASSERT_EQ(obsolete_on_flash(fs(), {0, 3}, 7), 0);
  EXPECT_EQ(std::string(image.sector_at(0, 3), image.sector_at(0, 3) + 2056), expected);
  EXPECT_EQ(device().counts().reads, 2U) << "its directory, and that of slot 0: free";
  EXPECT_EQ(device().counts().writes, 1U);
  EXPECT_EQ(device().counts().bytes_read, 4U);
  EXPECT_EQ(device().counts().words_programmed, 1U);
}

TEST_F(block_io, a_sector_is_invalidated_by_clearing_its_file_id_alone) {
  make(ram_blocks(1, 0x20000));
  image_builder image(device());
  image.data_sector(0, 3, 9, 0, "contents");
  std::string expected(image.sector_at(0, 3), image.sector_at(0, 3) + 2056);
  expected[0] = 0;
  expected[1] = 0;
  ASSERT_EQ(obsolete_on_flash(fs(), {0, 3}, slot_of_sector), 0);
  EXPECT_EQ(std::string(image.sector_at(0, 3), image.sector_at(0, 3) + 2056), expected);
  EXPECT_EQ(fs()->flashfs_blocks[0].invalid_sectors, 1);
  EXPECT_EQ(device().counts().reads, 1U);
  EXPECT_EQ(device().counts().writes, 1U);
  EXPECT_EQ(device().counts().bytes_read, 2U);
  EXPECT_EQ(device().counts().words_programmed, 1U);
}
