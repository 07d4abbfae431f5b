// One device node of the simulated chassis: the registers of a CPLD and the command sequences of
// the three flashes behind it. It counts what is done to it and every deviation from how the
// hardware must be driven, and plays faults of the ready bit. It never ends or throws because of a
// wrong access.
#pragma once

#include <cstdint>
#include <vector>

#include "sim/clock.h"
#include "sim/counts.h"
#include "sim/flash.h"
#include "sim/power.h"

namespace sim {

constexpr int flashes_per_node = 3;
constexpr uint32_t chassis_flash_size = 32U << 20;    // bytes of one complex's flash
constexpr uint32_t chassis_sector_size = 128U << 10;  // bytes that one erase covers

class cpld {
 public:
  // The supply feeds the flashes and the registers; supply and clock must outlive the node.
  cpld(power& supply, chassis_clock& clock);
  cpld(const cpld&) = delete;
  cpld& operator=(const cpld&) = delete;

  uint32_t load32(uint32_t offset);
  void store32(uint32_t offset, uint32_t value);
  uint16_t load16(uint32_t offset) {
    const uint32_t index = (offset >> 12) - 4;
    if (index >= flashes_per_node || plain_[index] == nullptr || (offset & 1) != 0 ||
        bays_[index].flash.dead()) [[unlikely]] {
      return load16_slow(offset);
    }
    counts_.words_read++;
    const uint8_t* word = plain_[index] + ((page_ << 12) | (offset & 0xFFF));
    return static_cast<uint16_t>((word[0] << 8) | word[1]);
  }
  void store16(uint32_t offset, uint16_t value);

  nor_flash& flash(int index) {
    return bays_[index].flash;
  }
  const access_counts& counts() const {
    return counts_;
  }
  // The deviations, those of the flashes included.
  deviation_counts deviations() const;
  void clear_counts();

  // Records every access from now on, into an empty trace.
  void start_trace();
  // Ends the recording and gives what was recorded.
  std::vector<traced_access> stop_trace();

  void set_running(int index, bool running);
  // The ready bit does not rise again after so many command, program and erase cycles from now on.
  void set_ready_never(int index, uint64_t after_cycles = 0);
  // The same after so many writes of the page register.
  void set_ready_never_after_pages(int index, uint64_t pages);
  // After every command, program and erase cycle, and from now on, the next `status_reads` reads of
  // the status find the flash not ready. 0: always ready.
  void set_ready_low(int index, uint32_t status_reads);
  // The state after power on: page 0, no command sequence begun, nothing busy. Faults stay.
  void reset();
  uint32_t page() const {
    return page_;
  }

 private:
  // Where a flash stands in its command sequence: the cycle that it has seen last.
  enum class command_state : uint8_t {
    idle,
    unlock_1,
    unlock_2,
    program_setup,
    erase_setup,
    erase_unlock_1,
    erase_unlock_2,
  };
  struct bay {
    nor_flash flash;
    command_state state = command_state::idle;
    bool running = false;
    bool ready_never = false;
    uint64_t cycles_until_never = 0;  // 0: none planned
    uint64_t pages_until_never = 0;   // 0: none planned
    bool busy = false;                // a cycle was taken and the ready bit has not been seen since
    uint32_t ready_low = 0;           // status reads that each cycle keeps the ready bit low
    uint32_t low_left = 0;
  };

  uint16_t load16_slow(uint32_t offset);
  uint32_t read_run_state();
  uint32_t read_status();
  void write_page(uint32_t value);
  void meet_page_write();
  void count_wrong_access(uint32_t offset, uint32_t width, bool is_write);
  void write_data(bay& target, uint32_t offset, uint16_t value);
  command_state state_after(const bay& target, uint32_t offset, uint16_t value) const;
  void trace(uint32_t offset, uint8_t width, bool is_write, uint32_t value);
  void update_plain();

  // Memory of a flash while a read of its data window needs nothing but the word, else null: not
  // touched yet, in a command sequence, busy, dead, or traced.
  const uint8_t* plain_[flashes_per_node] = {};
  // Whether a write of the page register may have to be looked at by a flash: one is busy, or
  // counts them. There is one for each word that is read.
  bool watches_pages_ = false;
  uint32_t page_ = 0;
  uint32_t waiting_reads_ = 0;  // status reads in a row, with nothing else between, not all ready
  bool tracing_ = false;
  access_counts counts_;
  deviation_counts deviations_;
  bay bays_[flashes_per_node];
  std::vector<traced_access> trace_;
  power* supply_;
  chassis_clock* clock_;
};

}  // namespace sim
