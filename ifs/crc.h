// CRC-16/GENIBUS, the checksum of every record on flash.
#pragma once

#include <cstdint>

// CRC-16/GENIBUS of `length` bytes, continuing from the result `seed` of the bytes before them
// (0: from the start). Returns the 16-bit result; for no bytes the low 16 bits of the seed.
uint32_t generate_seeded_crc(uint32_t seed, uint32_t length, const void* data);

// CRC-16/GENIBUS of `length` bytes.
uint32_t generate_crc(uint32_t length, const void* data);
