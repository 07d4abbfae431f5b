// The registers of a node and the command sequences of its flashes, as tests of the simulated
// chassis use them.
#pragma once

#include <cstdint>

#include "sim/cpld.h"

namespace sim_test {

constexpr uint32_t run_state = 0x0000;
constexpr uint32_t page = 0x0020;
constexpr uint32_t status = 0x0034;

inline uint32_t window_of_index(int index) {
  return 0x4000 + (static_cast<uint32_t>(index) << 12);
}

inline void unlock(sim::cpld& node, uint32_t window) {
  node.store16(window + 0xAAA, 0xAA);
  node.store16(window + 0x554, 0x55);
}

inline void program(sim::cpld& node, uint32_t window, uint32_t address, uint16_t value) {
  node.store32(page, 0);
  unlock(node, window);
  node.store16(window + 0xAAA, 0xA0);
  node.store32(page, address >> 12);
  node.store16(window + (address & 0xFFF), value);
}

inline void erase(sim::cpld& node, uint32_t window, uint32_t address) {
  node.store32(page, 0);
  unlock(node, window);
  node.store16(window + 0xAAA, 0x80);
  unlock(node, window);
  node.store32(page, address >> 12);
  node.store16(window, 0x30);
}

}  // namespace sim_test
