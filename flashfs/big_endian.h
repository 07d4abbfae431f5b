// Big-endian fields of alignment 1, of which the records on flash are made. The one place that
// knows the host's byte order.
#pragma once

#include <bit>
#include <cstdint>

// What is read from flash has these types, what is computed with is an integer of the host.
struct be16 {
  uint8_t bytes[2];

  constexpr operator uint16_t() const {
    const auto stored = std::bit_cast<uint16_t>(*this);
    return std::endian::native == std::endian::big ? stored : __builtin_bswap16(stored);
  }
  constexpr be16& operator=(uint16_t value) {
    const uint16_t stored =
        std::endian::native == std::endian::big ? value : __builtin_bswap16(value);
    return *this = std::bit_cast<be16>(stored);
  }
};

struct be32 {
  uint8_t bytes[4];

  constexpr operator uint32_t() const {
    const auto stored = std::bit_cast<uint32_t>(*this);
    return std::endian::native == std::endian::big ? stored : __builtin_bswap32(stored);
  }
  constexpr be32& operator=(uint32_t value) {
    const uint32_t stored =
        std::endian::native == std::endian::big ? value : __builtin_bswap32(value);
    return *this = std::bit_cast<be32>(stored);
  }
};
static_assert(sizeof(be16) == 2 && alignof(be16) == 1);
static_assert(sizeof(be32) == 4 && alignof(be32) == 1);
