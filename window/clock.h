// The clock with which records are stamped and waits are bounded. Like the window it is defined
// twice, for the device and for the simulated chassis, whose clock tests can hold still.
#pragma once

#include <cstdint>

// The wall clock in whole seconds since the epoch.
int64_t window_clock();

// The same as the 32 bits that records and messages hold.
inline int32_t unix_time() {
  return static_cast<int32_t>(window_clock());
}
