// The binding of a flash with few blocks, in place of the product's: the linker takes this one. The
// driver under it is the real one over the simulated chassis; here its calls are counted, and a
// signal can be raised at any of them. A whole check is then a few hundred calls, so that every one
// of them can be tried.
#pragma once

#include <cstddef>
#include <cstdint>

namespace signals_test {

constexpr uint16_t block_count = 3;
constexpr uint32_t block_size_bytes = 0x20000;
constexpr size_t flash_bytes_used = size_t{block_count} * block_size_bytes;

// Signals raised at one driver call, before it does anything.
struct planned_signals {
  uint64_t at_call = 0;  // 1: the first; 0: none
  int signal = 0;
  int times = 1;
};
extern planned_signals plan;
// Calls since the process began: all, and those that erase.
extern uint64_t driver_calls;
extern uint64_t driver_erases;
// Registration fails, after a signal has been raised if one is named.
extern bool registration_fails;

}  // namespace signals_test
