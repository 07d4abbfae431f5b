// The program's seam to its hardware, over the simulated chassis: the installed one, or else that
// of the chassis folder. The base of a window is the address of its node. The clock is
// sim/window_clock.cpp.
#include "window/window.h"

#include "sim/chassis.h"
#include "sim/cpld.h"
#include "sim/folder.h"

namespace {

sim::cpld& node_at(window_base base) {
  return *static_cast<sim::cpld*>(const_cast<void*>(base));
}

}  // namespace

int window_open(const char* path) {
  return sim::chassis_in_use().open(path);
}

int window_lock(int fd, bool wait) {
  return sim::chassis_in_use().lock(fd, wait);
}

window_base window_map(int fd, size_t length, uint32_t offset) {
  return sim::chassis_in_use().map(fd, length, offset);
}

int window_unmap(window_base base, size_t length) {
  return sim::chassis_in_use().unmap(base, length);
}

uint32_t window_load32(window_base base, uint32_t offset) {
  return node_at(base).load32(offset);
}

void window_store32(window_base base, uint32_t offset, uint32_t value) {
  node_at(base).store32(offset, value);
}

uint16_t window_load16(window_base base, uint32_t offset) {
  return node_at(base).load16(offset);
}

void window_store16(window_base base, uint32_t offset, uint16_t value) {
  node_at(base).store16(offset, value);
}
