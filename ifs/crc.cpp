// CRC-16/GENIBUS: polynomial 0x1021, most significant bit first, register preset to ones, result
// complemented. The checksum is defined by 16 table entries, one for each nibble; the tables used
// here are derived from them at compile time and take eight bytes at a step, and long records are
// made short before that, because checking a device sums all of it.
#include "ifs/crc.h"

#include <array>
#include <bit>
#include <cstring>

namespace {

constexpr uint32_t step_bytes = 8;

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

using slice_tables = std::array<std::array<uint16_t, 256>, step_bytes>;

// Entry [zeros][byte] is the register after the byte and that many zero bytes, starting from 0.
constexpr slice_tables make_slices() {
  slice_tables slices{};
  for (uint32_t byte = 0; byte < 256; ++byte) {
    uint32_t crc = shift_byte(0, byte);
    for (uint32_t zeros = 0; zeros < step_bytes; ++zeros) {
      slices[zeros][byte] = static_cast<uint16_t>(crc);
      crc = shift_byte(crc, 0);
    }
  }
  return slices;
}

constexpr slice_tables slices = make_slices();

// The register is linear in the bytes: each contributes what it would alone, followed by zeros. The
// register's own 16 bits act as if they were added to the first two bytes.
uint32_t shift_step(uint32_t crc, const uint8_t* bytes) {
  return static_cast<uint32_t>(slices[7][(crc >> 8) ^ bytes[0]] ^
                               slices[6][(crc & 0xFF) ^ bytes[1]] ^ slices[5][bytes[2]] ^
                               slices[4][bytes[3]] ^ slices[3][bytes[4]] ^ slices[2][bytes[5]] ^
                               slices[1][bytes[6]] ^ slices[0][bytes[7]]);
}

// Long records are first folded to one block without any table. The polynomial is x^16 + x^12 +
// x^5 + 1, and its powers of 2^k have as few terms: modulo the polynomial, 16 machine words further
// to the left is the same as 12 and 5 words to the left and in place, added. So every word but
// those of the last block can be added to the words 4, 11 and 16 places behind it and then
// forgotten. Words are added to words, so the byte order does not matter.
static_assert(nibble_table[1] == ((1U << 12) | (1U << 5) | 1U));

using word = size_t;
static_assert(std::has_single_bit(sizeof(word)));

constexpr uint32_t block_words = 16;
constexpr uint32_t block_bytes = block_words * sizeof(word);

// The 16 words before those of the next block, with all that has been added to them.
using folded_words = std::array<word, block_words>;

word load_word(const uint8_t* bytes, uint32_t index) {
  word value = 0;
  std::memcpy(&value, bytes + index * sizeof(word), sizeof(value));
  return value;
}

void fold_block(folded_words& folded, const uint8_t* bytes) {
#pragma GCC unroll 16
  for (uint32_t i = 0; i < block_words; ++i) {
    folded[i] ^=
        load_word(bytes, i) ^ folded[(i + 12) % block_words] ^ folded[(i + 5) % block_words];
  }
}

// The words of the last block stay where they are.
void fold_last_block(folded_words& folded, const uint8_t* bytes) {
#pragma GCC unroll 16
  for (uint32_t i = 0; i < block_words; ++i) {
    folded[i] ^= load_word(bytes, i) ^ (i < 4 ? folded[i + 12] : 0) ^ (i < 11 ? folded[i + 5] : 0);
  }
}

// Folds whole blocks, `length` bytes of them, into one.
folded_words fold(uint32_t crc, uint32_t length, const uint8_t* bytes) {
  folded_words folded{};
  const uint8_t start[sizeof(word)] = {static_cast<uint8_t>(crc >> 8), static_cast<uint8_t>(crc)};
  folded[0] = load_word(start, 0);
  for (; length > block_bytes; length -= block_bytes, bytes += block_bytes) {
    fold_block(folded, bytes);
  }
  fold_last_block(folded, bytes);
  return folded;
}

uint32_t shift_bytes(uint32_t crc, uint32_t length, const uint8_t* bytes) {
  for (; length >= step_bytes; length -= step_bytes, bytes += step_bytes) {
    crc = shift_step(crc, bytes);
  }
  for (; length > 0; --length, ++bytes) {
    crc = (slices[0][(crc >> 8) ^ *bytes] ^ (crc << 8)) & 0xFFFF;
  }
  return crc;
}

}  // namespace

uint32_t generate_seeded_crc(uint32_t seed, uint32_t length, const void* data) {
  uint32_t crc = ~seed & 0xFFFF;
  const auto* bytes = static_cast<const uint8_t*>(data);
  if (length >= 2 * block_bytes) {
    const uint32_t whole = length - length % block_bytes;
    const folded_words folded = fold(crc, whole, bytes);
    crc = shift_bytes(0, block_bytes, reinterpret_cast<const uint8_t*>(folded.data()));
    bytes += whole;
    length -= whole;
  }
  return ~shift_bytes(crc, length, bytes) & 0xFFFF;
}

uint32_t generate_crc(uint32_t length, const void* data) {
  return generate_seeded_crc(0, length, data);
}
