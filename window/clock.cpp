// The clock of the device: the system's.
#include "window/clock.h"

#include <ctime>

int64_t window_clock() {
  return time(nullptr);
}
