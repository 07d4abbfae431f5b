// Small tools of the tests of the file system's lower half: a clock that stands still, the end of a
// child process, and the words that messages are made of.
#pragma once

#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <string>

#include "sim/chassis.h"
#include "tests/support/flashfs_fixture.h"
#include "tests/support/golden.h"

namespace test_support {

// Holds the clock that stamps records at one second while it lives.
class held_clock {
 public:
  explicit held_clock(int64_t seconds) {
    chassis_.clock_hold(seconds);
    sim::install_chassis(&chassis_);
  }
  ~held_clock() {
    sim::install_chassis(nullptr);
  }
  held_clock(const held_clock&) = delete;
  held_clock& operator=(const held_clock&) = delete;
  void set(int64_t seconds) {
    chassis_.clock_hold(seconds);
  }

 private:
  sim::chassis chassis_;
};

constexpr int child_came_back = 77;

// Runs a call that may end the process, in a child. A call that returns gives child_came_back.
template <typename callable>
isolated_result end_of_child(callable&& call) {
  return run_isolated([&] {
    call();
    std::fflush(stdout);
    end_child(child_came_back);
  });
}

// Numbers of 16 bits to go through.
using u16s = std::initializer_list<uint16_t>;

inline std::string hex(uint32_t value) {
  char text[sizeof "0x12345678"];
  std::snprintf(text, sizeof text, "0x%x", static_cast<unsigned>(value));
  return text;
}

// A device's handle as messages print it: its low 32 bits.
inline std::string handle_text(const ram_flash& device) {
  return hex(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(device.handle())));
}

}  // namespace test_support
