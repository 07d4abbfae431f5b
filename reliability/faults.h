// Failing flash: each driver call of each operation fails in turn, with each code that the driver
// can give, alone and with all calls after it. How the operation ends, what it says and what the
// next mount finds are judged.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "reliability/power_cuts.h"

namespace reliability {

// How an operation ends when the flash fails under it.
enum class ending {
  marked_down,  // -1 with EIO; it says that the file system is marked down, and nothing is served
  check_fails,  // -1 with EIO: no check has brought the file system up
  up_again,     // -1 with EIO, marked down; closing the raw handle brought the file system up
  no_space,     // -1 with ENOSPC: no sector could be had; the file system stays up
  step_fails,   // a failure of a step that is called here without the operation that marks down
  carries_on,   // 0: what could not be done is left undone
};
const char* ending_name(ending how);
constexpr ending all_endings[] = {ending::marked_down, ending::check_fails, ending::up_again,
                                  ending::no_space,    ending::step_fails,  ending::carries_on};

struct fault_operation {
  operation what;
  std::set<ending> endings;  // that it may have
};

struct fault_counts {
  uint64_t calls = 0;   // of the driver, by the operation
  uint64_t faults = 0;  // tried: calls times codes, alone and with all after
  std::map<ending, uint64_t> endings;
  uint64_t dropped = 0;  // after which a quick check drops the file that was being written
  uint64_t excused =
      0;  // outcomes that a cause, of the operation or of a part that failed, brings about
  uint64_t unexpected = 0;
  std::vector<std::string> unexpected_samples;
};

// The operations of the power cuts, and those that only read.
std::vector<fault_operation> fault_operations();

// Fails every `stride`-th call.
fault_counts try_faults(const fault_operation& each, uint64_t stride);

}  // namespace reliability
