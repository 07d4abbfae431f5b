// Ways to compute the checksum of a record, all with the same results as generate_seeded_crc.
#pragma once

#include <cstdint>
#include <vector>

namespace bench {

struct checksum_way {
  const char* name;
  uint32_t table_bytes;
  uint32_t (*compute)(uint32_t seed, uint32_t length, const void* data);
};

// The last one is the product's own.
const std::vector<checksum_way>& checksum_ways();

}  // namespace bench
