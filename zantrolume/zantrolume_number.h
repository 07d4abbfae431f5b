// Numbers of the command line. Nothing is refused here: what is no number counts as 0.
// For the sources of this folder only.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>

// What strtol makes of a word, saturated to 32 bits whatever the width of a long.
inline int32_t parse_number(const char* word, int base) {
  const int64_t value = strtol(word, nullptr, base);
  return static_cast<int32_t>(std::clamp<int64_t>(value, INT32_MIN, INT32_MAX));
}
