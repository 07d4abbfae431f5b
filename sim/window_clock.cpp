// The clock of the window over the simulated chassis. It stands alone in its object: a program with
// a clock of its own links the window without it.
#include "sim/chassis.h"
#include "sim/folder.h"
#include "window/clock.h"

int64_t window_clock() {
  return sim::chassis_in_use().clock();
}
