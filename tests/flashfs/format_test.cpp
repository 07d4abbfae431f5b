// The on-flash records in memory and as bytes: layout, states, checksums, names.
#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <iosfwd>
#include <set>
#include <string>

#include "flashfs/flashfs.h"
#include "tests/flashfs/flashfs_test_tools.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"

using namespace test_support;

namespace {

template <typename record>
std::array<uint8_t, sizeof(record)> bytes_of(const record& value) {
  return std::bit_cast<std::array<uint8_t, sizeof(record)>>(value);
}

template <typename record>
record erased_record() {
  record value;
  std::memset(&value, 0xFF, sizeof value);
  return value;
}

flashfs_dir_slot slot_named(const std::string& bytes) {
  auto slot = erased_record<flashfs_dir_slot>();
  std::memset(slot.name, 0, sizeof slot.name);
  std::memcpy(slot.name, bytes.data(), bytes.size());
  return slot;
}

std::string name_of(const flashfs_dir_slot& slot) {
  char name[filename_buffer_size];
  dir_slot_get_name(&slot, name);
  return name;
}

}  // namespace

// --- fields and layout ---

TEST(format_fields, multi_byte_fields_have_their_high_byte_first) {
  be16 half{};
  half = 0x1234;
  EXPECT_EQ(half.bytes[0], 0x12);
  EXPECT_EQ(half.bytes[1], 0x34);
  EXPECT_EQ(static_cast<uint16_t>(half), 0x1234);
  be32 word{};
  word = 0x89ABCDEF;
  EXPECT_EQ(word.bytes[0], 0x89);
  EXPECT_EQ(word.bytes[1], 0xAB);
  EXPECT_EQ(word.bytes[2], 0xCD);
  EXPECT_EQ(word.bytes[3], 0xEF);
  EXPECT_EQ(static_cast<uint32_t>(word), 0x89ABCDEFU);
}

TEST(format_fields, a_header_has_its_fields_in_the_first_thirteen_bytes) {
  auto header = erased_record<flashfs_blkheader>();
  header.erase_count = 0x01020304;
  header.timestamp = 0x05060708;
  header.checksum = 0x090A;
  header.block_num = 0x0B0C;
  header.state = 0x0D;
  const auto bytes = bytes_of(header);
  ASSERT_EQ(bytes.size(), 32U);
  for (size_t i = 0; i < bytes.size(); i++) {
    EXPECT_EQ(bytes[i], i < 13 ? i + 1 : 0xFF) << i;
  }
}

TEST(format_fields, a_sector_has_its_data_between_two_pairs_of_fields) {
  auto sector = erased_record<flashfs_sector>();
  sector.fileid = 0x0102;
  sector.count = 0x0304;
  sector.data[0] = 5;
  sector.data[2047] = 6;
  sector.seq_no = 0x0708;
  sector.checksum = 0x090A;
  const auto bytes = bytes_of(sector);
  ASSERT_EQ(bytes.size(), 2056U);
  EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 5), "\x01\x02\x03\x04\x05");
  EXPECT_EQ(std::string(bytes.end() - 5, bytes.end()), "\x06\x07\x08\x09\x0A");
}

TEST(format_fields, slot_k_of_a_directory_sector_lies_at_4_plus_64_k) {
  for (size_t k = 0; k < 32; k++) {
    auto sector = erased_record<flashfs_sector>();
    sector.slots[k].seq_no = 0x0102;
    sector.slots[k].dir_fileid = 0x0304;
    sector.slots[k].entry_fileid = 0x0506;
    sector.slots[k].mode = 0x0708;
    sector.slots[k].date = 0x090A0B0C;
    sector.slots[k].name[0] = 'n';
    sector.slots[k].name[45] = 'm';
    sector.slots[k].checksum = 0x0D0E;
    const auto bytes = bytes_of(sector);
    const auto at = bytes.begin() + 4 + 64 * static_cast<std::ptrdiff_t>(k);
    EXPECT_EQ(std::string(at, at + 17),
              "\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0A\x0B\x0C\xFF\xFF\xFF\xFFn");
    EXPECT_EQ(std::string(at + 61, at + 64), "m\x0D\x0E");
  }
}

// --- block headers ---

TEST(format_header, the_state_is_the_low_nibble) {
  auto header = erased_record<flashfs_blkheader>();
  for (int byte = 0; byte < 256; byte++) {
    header.state = static_cast<uint8_t>(byte);
    EXPECT_EQ(blkheader_state(&header), byte & 0xF);
  }
}

TEST(format_header, setting_the_state_keeps_the_high_nibble_and_all_other_bytes) {
  for (int byte = 0; byte < 256; byte++) {
    for (int state = 0; state < 256; state++) {
      auto header = erased_record<flashfs_blkheader>();
      header.state = static_cast<uint8_t>(byte);
      auto expected = bytes_of(header);
      expected[12] = static_cast<uint8_t>((byte & 0xF0) | (state & 0x0F));
      blkheader_set_state(&header, static_cast<uint8_t>(state));
      ASSERT_EQ(bytes_of(header), expected) << byte << " " << state;
    }
  }
}

TEST(format_header, every_state_has_its_printed_form) {
  const char* const texts[16] = {
      "in_use[0x0]",  "invalid2[0x1]", "unknown[0x2]", "committed[0x3]",
      "unknown[0x4]", "unknown[0x5]",  "unknown[0x6]", "invalid1[0x7]",
      "unknown[0x8]", "unknown[0x9]",  "unknown[0xa]", "unknown[0xb]",
      "unknown[0xc]", "unknown[0xd]",  "unknown[0xe]", "available[0xf]",
  };
  for (uint32_t state = 0; state < 16; state++) {
    EXPECT_STREQ(block_state_text(state), texts[state]);
    EXPECT_STREQ(block_state_text(0xFFFFFFF0U | state), texts[state]) << "masked first";
  }
}

TEST(format_header, the_printed_form_is_in_one_buffer_that_the_next_call_overwrites) {
  const char* first = block_state_text(block_available);
  const char* second = block_state_text(block_in_use);
  EXPECT_EQ(first, second);
  EXPECT_STREQ(first, "in_use[0x0]");
}

TEST(format_header, each_state_clears_bits_of_the_one_before_it) {
  const uint8_t states[] = {block_available, block_invalid1, block_committed, block_invalid2,
                            block_in_use};
  EXPECT_EQ(std::string(states, states + 5), std::string("\x0F\x07\x03\x01\x00", 5));
}

TEST(format_header, the_checksum_covers_the_timestamp_only) {
  auto header = erased_record<flashfs_blkheader>();
  header.timestamp = 0x12345678;
  blkheader_set_checksum(&header);
  const uint16_t checksum = header.checksum;
  EXPECT_EQ(checksum, image_crc("\x12\x34\x56\x78", 4));
  EXPECT_EQ(blkheader_crc(&header), 0xE2F0U);

  header.erase_count = 77;
  header.block_num = 3;
  header.state = 0xF0;
  std::memset(reinterpret_cast<uint8_t*>(&header) + 13, 0, 19);
  EXPECT_EQ(blkheader_crc(&header), 0xE2F0U);
  blkheader_set_checksum(&header);
  EXPECT_EQ(header.checksum, checksum);

  header.timestamp = 0x12345679;
  EXPECT_NE(blkheader_crc(&header), 0xE2F0U);
}

TEST(format_header, an_erased_header_is_not_good) {
  const auto header = erased_record<flashfs_blkheader>();
  EXPECT_NE(blkheader_crc(&header), 0xE2F0U);
}

// --- sectors and slots ---

TEST(format_sector, the_checksum_covers_2054_bytes_and_is_stored_behind_them) {
  flashfs_sector sector;
  auto* bytes = reinterpret_cast<uint8_t*>(&sector);
  for (size_t i = 0; i < sizeof sector; i++) {
    bytes[i] = static_cast<uint8_t>(i * 7 + i / 256);
  }
  const uint16_t expected = image_crc(bytes, 2054);
  EXPECT_EQ(sector_set_checksum(&sector), expected);
  EXPECT_EQ(bytes[2054], expected >> 8);
  EXPECT_EQ(bytes[2055], expected & 0xFF);
  EXPECT_EQ(sector_crc(&sector), 0xE2F0U);
  for (const size_t i : {0U, 2U, 4U, 2051U, 2053U, 2055U}) {
    bytes[i] ^= 1;
    EXPECT_NE(sector_crc(&sector), 0xE2F0U) << i;
    bytes[i] ^= 1;
  }
}

TEST(format_slot, the_checksum_covers_62_bytes_and_is_stored_behind_them) {
  flashfs_dir_slot slot;
  auto* bytes = reinterpret_cast<uint8_t*>(&slot);
  for (size_t i = 0; i < sizeof slot; i++) {
    bytes[i] = static_cast<uint8_t>(i * 11);
  }
  const uint16_t expected = image_crc(bytes, 62);
  EXPECT_EQ(dir_slot_set_checksum(&slot), expected);
  EXPECT_EQ(bytes[62], expected >> 8);
  EXPECT_EQ(bytes[63], expected & 0xFF);
  EXPECT_EQ(dir_slot_crc(&slot), 0xE2F0U);
  for (size_t i = 0; i < 64; i++) {
    bytes[i] ^= 0x80;
    EXPECT_NE(dir_slot_crc(&slot), 0xE2F0U) << i;
    bytes[i] ^= 0x80;
  }
}

TEST(format_sector, a_damaged_count_is_cut_to_the_data_area) {
  auto sector = erased_record<flashfs_sector>();
  EXPECT_EQ(sector_bytes_used(&sector), 2048U);
  for (const uint16_t count : u16s{0, 1, 2047, 2048}) {
    sector.count = count;
    EXPECT_EQ(sector_bytes_used(&sector), count);
  }
  sector.count = 2049;
  EXPECT_EQ(sector_bytes_used(&sector), 2048U);
}

TEST(format_sector, file_ids_2_to_65534_own_data_sectors) {
  for (uint32_t fileid = 0; fileid <= 0xFFFF; fileid++) {
    ASSERT_EQ(is_file_sector(static_cast<uint16_t>(fileid)), fileid >= 2 && fileid <= 65534);
  }
}

TEST(format_slot, only_two_file_types_are_known) {
  for (uint32_t mode = 0; mode <= 0xFFFF; mode++) {
    ASSERT_EQ(is_directory_mode(static_cast<ppc_mode_t>(mode)), (mode & 0xF000) == 0x4000);
    ASSERT_EQ(is_regular_mode(static_cast<ppc_mode_t>(mode)), (mode & 0xF000) == 0x8000);
  }
}

TEST(format_sector, a_record_is_erased_when_every_byte_is) {
  auto sector = erased_record<flashfs_sector>();
  EXPECT_TRUE(is_erased(&sector, sizeof sector));
  auto* bytes = reinterpret_cast<uint8_t*>(&sector);
  for (const size_t i : {0U, 1U, 63U, 1024U, 2055U}) {
    bytes[i] = 0xFE;
    EXPECT_FALSE(is_erased(&sector, sizeof sector)) << i;
    EXPECT_TRUE(is_erased(&sector, i)) << "the byte is not looked at";
    bytes[i] = 0xFF;
  }
  std::memset(&sector, 0, sizeof sector);
  EXPECT_FALSE(is_erased(&sector, sizeof sector)) << "equal bytes, but not erased";
}

// --- names ---

TEST(format_name, forty_bytes_and_all_from_0x80_on_are_illegal) {
  std::set<int> illegal = {0x7F, ' ', '"', '\'', '`', '\\', '/', ':', ';'};
  for (int byte = 1; byte < 0x20; byte++) {
    illegal.insert(byte);
  }
  ASSERT_EQ(illegal.size(), 40U);
  for (int byte = 1; byte < 256; byte++) {
    const char name[] = {'a', static_cast<char>(byte), 'b', '\0'};
    const int expected = byte >= 0x80 ? byte - 256 : illegal.count(byte) != 0 ? byte : 0;
    EXPECT_EQ(filename_illegal_char(name), expected) << byte;
  }
}

TEST(format_name, a_space_a_colon_and_a_slash_are_refused_but_not_a_tilde_a_dot_or_a_bang) {
  EXPECT_EQ(filename_illegal_char("a b"), ' ');
  EXPECT_EQ(filename_illegal_char("a:b"), ':');
  EXPECT_EQ(filename_illegal_char("a/b"), '/');
  EXPECT_EQ(filename_illegal_char("a\x7F"), 0x7F);
  EXPECT_EQ(filename_illegal_char("\x80"), -128);
  EXPECT_EQ(filename_illegal_char("\xFF"), -1);
  EXPECT_EQ(filename_illegal_char("~.!"), 0);
}

TEST(format_name, the_first_illegal_byte_is_the_one_returned) {
  EXPECT_EQ(filename_illegal_char("good;bad:"), ';');
  EXPECT_EQ(filename_illegal_char("\xE4:"), 0xE4 - 256);
}

TEST(format_name, an_empty_name_has_no_illegal_byte) {
  EXPECT_EQ(filename_illegal_char(""), 0);
}

TEST(format_name, a_name_of_45_characters_fits_and_has_one_zero_behind_it) {
  const std::string name(45, 'x');
  auto slot = erased_record<flashfs_dir_slot>();
  dir_slot_set_name(&slot, name.c_str());
  const auto bytes = bytes_of(slot);
  EXPECT_EQ(std::string(bytes.begin() + 16, bytes.begin() + 62), name + std::string(1, '\0'));
  EXPECT_EQ(bytes[15], 0xFF);
  EXPECT_EQ(bytes[62], 0xFF);
  EXPECT_EQ(name_of(slot), name);
}

TEST(format_name, a_longer_name_is_cut_at_45_characters) {
  auto slot = erased_record<flashfs_dir_slot>();
  dir_slot_set_name(&slot, std::string(100, 'y').c_str());
  EXPECT_EQ(name_of(slot), std::string(45, 'y'));
  EXPECT_EQ(bytes_of(slot)[61], 0);
}

TEST(format_name, a_shorter_name_is_padded_with_zeros_over_what_was_there) {
  auto slot = slot_named(std::string(45, 'z'));
  dir_slot_set_name(&slot, "ab");
  const auto bytes = bytes_of(slot);
  EXPECT_EQ(std::string(bytes.begin() + 16, bytes.begin() + 62), "ab" + std::string(44, '\0'));
}

TEST(format_name, a_name_without_its_terminator_ends_with_its_field) {
  auto slot = slot_named(std::string(46, 'q'));
  slot.checksum = 0x7171;  // reads on as "qq"
  EXPECT_EQ(name_of(slot), std::string(46, 'q'));
  EXPECT_TRUE(dir_slot_name_equals(&slot, std::string(46, 'q').c_str()));
  EXPECT_FALSE(dir_slot_name_equals(&slot, std::string(45, 'q').c_str()));
  EXPECT_FALSE(dir_slot_name_equals(&slot, std::string(47, 'q').c_str()));
  EXPECT_FALSE(dir_slot_name_equals(&slot, std::string(48, 'q').c_str()));
}

TEST(format_name, names_are_compared_byte_by_byte) {
  const auto slot = slot_named("Name");
  EXPECT_TRUE(dir_slot_name_equals(&slot, "Name"));
  EXPECT_FALSE(dir_slot_name_equals(&slot, "name"));
  EXPECT_FALSE(dir_slot_name_equals(&slot, "Nam"));
  EXPECT_FALSE(dir_slot_name_equals(&slot, "Names"));
  EXPECT_FALSE(dir_slot_name_equals(&slot, ""));
}
