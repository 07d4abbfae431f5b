// What an image comes to: whether it mounts and how much room a mount tells, and what its records
// come to, which is told of an image that cannot be mounted as well.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "image/erase_counts.h"
#include "image/records.h"
#include "image/session.h"

namespace image {

struct mounted_space {
  bool mounts = false;
  bool changes = false;  // the check repairs something
  uint64_t total = 0;    // bytes
  uint64_t available = 0;
  std::vector<finding> check_does;  // what the check repairs or drops
};

// What the board would tell, from a private view; `before` are the image's records. Nothing after a
// failure, which is told and has raised the status, and after a signal.
std::optional<mounted_space> measure_space(opened_image& opened, const records& before,
                                           const globals& all, report& out);

struct entry_counts {
  uint64_t contents = 0;  // bytes
  uint32_t files = 0;
  uint32_t directories = 0;  // without the root
  uint32_t orphans = 0;
};

entry_counts count_entries(const records& all);
// Of the blocks with a good header.
erase_counts count_erases(const records& all);

}  // namespace image
