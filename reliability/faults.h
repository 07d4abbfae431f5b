// Failing flash: each driver call of each operation fails in turn, with each code that the driver
// can give, and the file system is looked at and mounted again.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "reliability/power_cuts.h"

namespace reliability {

struct fault_counts {
  uint64_t calls = 0;         // of the driver, by the operation
  uint64_t faults = 0;        // tried: calls times codes
  uint64_t marked_down = 0;   // the operation said so and nothing is served until a check
  uint64_t check_failed = 0;  // the check or the format ended with a failure
  uint64_t carried_on =
      0;  // the file system is still up: the failure was reported or worked around
  uint64_t unexpected = 0;
  std::vector<std::string> unexpected_samples;
};

// The operations of the power cuts, and reading everything.
std::vector<operation> fault_operations();

// Fails every `stride`-th call.
fault_counts try_faults(const operation& what, uint64_t stride);

}  // namespace reliability
