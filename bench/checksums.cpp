// The checksum by nibbles, by bytes, and by 2 to 16 bytes at a step, with tables derived from the
// 16 entries that define it. What the product uses is ifs/crc.cpp.
#include "bench/checksums.h"

#include <array>

#include "ifs/crc.h"

namespace bench {

namespace {

constexpr std::array<uint16_t, 16> nibble_table = {
    0x0000, 0x1021, 0x2042, 0x3063, 0x4084, 0x50A5, 0x60C6, 0x70E7,
    0x8108, 0x9129, 0xA14A, 0xB16B, 0xC18C, 0xD1AD, 0xE1CE, 0xF1EF,
};

constexpr uint32_t shift_nibble(uint32_t crc, uint32_t nibble) {
  return nibble_table[(crc >> 12) ^ nibble] ^ ((crc << 4) & 0xFFFF);
}

constexpr uint32_t shift_byte(uint32_t crc, uint32_t byte) {
  return shift_nibble(shift_nibble(crc, byte >> 4), byte & 0xF);
}

using table = std::array<uint16_t, 256>;

template <uint32_t count>
constexpr std::array<table, count> make_slices() {
  std::array<table, count> slices{};
  for (uint32_t byte = 0; byte < 256; ++byte) {
    uint32_t crc = shift_byte(0, byte);
    for (uint32_t zeros = 0; zeros < count; ++zeros) {
      slices[zeros][byte] = static_cast<uint16_t>(crc);
      crc = shift_byte(crc, 0);
    }
  }
  return slices;
}

uint32_t by_nibbles(uint32_t seed, uint32_t length, const void* data) {
  uint32_t crc = ~seed & 0xFFFF;
  const auto* bytes = static_cast<const uint8_t*>(data);
  for (; length > 0; --length, ++bytes) {
    crc = shift_byte(crc, *bytes);
  }
  return ~crc & 0xFFFF;
}

// `step` bytes at once; 1 is the plain byte table.
template <uint32_t step>
uint32_t by_slices(uint32_t seed, uint32_t length, const void* data) {
  static constexpr std::array<table, step> slices = make_slices<step>();
  uint32_t crc = ~seed & 0xFFFF;
  const auto* bytes = static_cast<const uint8_t*>(data);
  if constexpr (step > 1) {
    for (; length >= step; length -= step, bytes += step) {
      uint32_t next = slices[step - 1][(crc >> 8) ^ bytes[0]];
      next ^= slices[step - 2][(crc & 0xFF) ^ bytes[1]];
#pragma GCC unroll 16
      for (uint32_t i = 2; i < step; ++i) {
        next ^= slices[step - 1 - i][bytes[i]];
      }
      crc = next;
    }
  }
  for (; length > 0; --length, ++bytes) {
    crc = (slices[0][(crc >> 8) ^ *bytes] ^ (crc << 8)) & 0xFFFF;
  }
  return ~crc & 0xFFFF;
}

}  // namespace

const std::vector<checksum_way>& checksum_ways() {
  static const std::vector<checksum_way> ways = {
      {"nibbles", 32, by_nibbles},
      {"bytes", 512, by_slices<1>},
      {"2 bytes", 1024, by_slices<2>},
      {"4 bytes", 2048, by_slices<4>},
      {"8 bytes", 4096, by_slices<8>},
      {"16 bytes", 8192, by_slices<16>},
      {"folded, then 8 bytes (in use)", 4096, generate_seeded_crc},
  };
  return ways;
}

}  // namespace bench
