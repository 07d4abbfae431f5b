// The checksum: known values, continuation, and agreement with the definition, bit by bit.
#include "ifs/crc.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace {

// The definition: one bit at a time.
uint32_t reference_crc(uint32_t seed, const uint8_t* bytes, uint32_t length) {
  if (length == 0) {
    return seed & 0xFFFF;
  }
  uint32_t crc = ~seed & 0xFFFF;
  for (uint32_t i = 0; i < length; ++i) {
    crc ^= static_cast<uint32_t>(bytes[i]) << 8;
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc & 0x8000) != 0 ? ((crc << 1) ^ 0x1021) & 0xFFFF : crc << 1;
    }
  }
  return ~crc & 0xFFFF;
}

std::vector<uint8_t> random_bytes(size_t count, std::mt19937& random) {
  std::vector<uint8_t> bytes(count);
  for (uint8_t& byte : bytes) {
    byte = static_cast<uint8_t>(random());
  }
  return bytes;
}

TEST(crc, the_digits_1_to_9_give_d64e) {
  EXPECT_EQ(generate_crc(9, "123456789"), 0xD64Eu);
}

TEST(crc, the_single_byte_41_gives_46ea) {
  EXPECT_EQ(generate_crc(1, "\x41"), 0x46EAu);
}

TEST(crc, two_zero_bytes_give_e2f0) {
  EXPECT_EQ(generate_crc(2, "\0\0"), 0xE2F0u);
}

TEST(crc, no_bytes_give_0) {
  EXPECT_EQ(generate_crc(0, nullptr), 0u);
}

TEST(crc, no_bytes_give_the_low_16_bits_of_the_seed) {
  EXPECT_EQ(generate_seeded_crc(0x1234, 0, nullptr), 0x1234u);
  EXPECT_EQ(generate_seeded_crc(0xFFFF, 0, "x"), 0xFFFFu);
  EXPECT_EQ(generate_seeded_crc(0xABCD1234, 0, nullptr), 0x1234u);
}

TEST(crc, the_high_16_bits_of_the_seed_do_not_count) {
  EXPECT_EQ(generate_seeded_crc(0xABCD1234, 9, "123456789"),
            generate_seeded_crc(0x1234, 9, "123456789"));
}

TEST(crc, an_unseeded_sum_is_one_with_seed_0) {
  EXPECT_EQ(generate_crc(5, "abcde"), generate_seeded_crc(0, 5, "abcde"));
}

TEST(crc, agrees_with_the_bitwise_definition_for_all_lengths_and_alignments) {
  std::mt19937 random(20240229);
  std::vector<uint32_t> lengths(601);
  for (uint32_t length = 0; length < lengths.size(); ++length) {
    lengths[length] = length;
  }
  lengths.push_back(2056);
  for (const uint32_t length : lengths) {
    for (uint32_t offset = 0; offset < 9; ++offset) {
      const std::vector<uint8_t> bytes = random_bytes(offset + length, random);
      const uint32_t seed = static_cast<uint32_t>(random());
      const uint8_t* data = bytes.data() + offset;
      ASSERT_EQ(generate_seeded_crc(seed, length, data), reference_crc(seed, data, length))
          << "length " << length << ", offset " << offset;
      ASSERT_EQ(generate_crc(length, data), reference_crc(0, data, length));
    }
  }
}

TEST(crc, each_single_byte_agrees_with_the_bitwise_definition_at_each_place_of_a_step) {
  for (uint32_t place = 0; place < 8; ++place) {
    for (int value = 0; value < 256; ++value) {
      uint8_t bytes[8] = {};
      bytes[place] = static_cast<uint8_t>(value);
      ASSERT_EQ(generate_crc(8, bytes), reference_crc(0, bytes, 8))
          << "place " << place << ", value " << value;
    }
  }
}

TEST(crc, the_sum_of_a_part_seeds_the_sum_of_the_rest) {
  std::mt19937 random(7);
  for (int round = 0; round < 2000; ++round) {
    const uint32_t length = static_cast<uint32_t>(random() % 2100);
    const std::vector<uint8_t> bytes = random_bytes(length, random);
    const uint32_t split = static_cast<uint32_t>(random() % (length + 1));
    const uint32_t first = generate_crc(split, bytes.data());
    ASSERT_EQ(generate_seeded_crc(first, length - split, bytes.data() + split),
              generate_crc(length, bytes.data()))
        << "length " << length << ", split at " << split;
  }
}

TEST(crc, a_record_with_its_own_sum_behind_it_sums_to_e2f0) {
  std::mt19937 random(11);
  for (uint32_t length = 1; length < 100; ++length) {
    std::vector<uint8_t> bytes = random_bytes(length, random);
    const uint32_t sum = generate_crc(length, bytes.data());
    bytes.push_back(static_cast<uint8_t>(sum >> 8));
    bytes.push_back(static_cast<uint8_t>(sum & 0xFF));
    ASSERT_EQ(generate_crc(length + 2, bytes.data()), 0xE2F0u);
  }
}

}  // namespace
