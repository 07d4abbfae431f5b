// The simulated chassis: the two CPLDs whose device windows the program maps, six flashes behind
// them, the run states and the clock. It counts what is done to it and every deviation from how
// the hardware must be driven, and plays faults. It never ends or throws because of a wrong access.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "sim/flash.h"
#include "window/window.h"

namespace sim {

constexpr int first_ppc = 3;
constexpr int last_ppc = 8;
constexpr int ppc_count = 6;
constexpr int node_count = 2;
constexpr int flashes_per_node = 3;
constexpr uint32_t chassis_flash_size = 32U << 20;    // bytes of one complex's flash
constexpr uint32_t chassis_sector_size = 128U << 10;  // bytes that one erase covers
constexpr uint32_t chassis_window_size = 32768;       // bytes

// Accesses, by kind.
struct access_counts {
  uint64_t run_state_reads = 0;
  uint64_t status_reads = 0;
  uint64_t page_writes = 0;
  uint64_t words_read = 0;
  uint64_t command_cycles = 0;  // unlock, set-up and confirm cycles
  uint64_t programs = 0;        // data cycles
  uint64_t erases = 0;
};

// Deviations from how the hardware must be driven, by kind. All must stay 0.
struct deviation_counts {
  uint64_t wrong_width = 0;        // a register that has another width
  uint64_t unaligned = 0;          // an offset that is no multiple of the width
  uint64_t unknown_register = 0;   // an offset where nothing is
  uint64_t wrong_direction = 0;    // read of a write-only register or the reverse
  uint64_t bad_page = 0;           // a page number above 0x1FFF
  uint64_t mid_sequence_read = 0;  // a data read in the middle of a command sequence
  uint64_t out_of_order = 0;       // a write that is not the next command cycle
  uint64_t while_busy = 0;         // an access before the ready bit came back after a cycle
  uint64_t bit_set = 0;            // a program that asked for a 0 bit to become 1
  uint64_t total() const;
};
std::ostream& operator<<(std::ostream& out, const deviation_counts& counts);

// One access in a trace, as the program made it.
struct traced_access {
  uint32_t offset;  // into the window
  uint8_t width;    // bits: 16 or 32
  bool is_write;
  uint32_t value;

  bool operator==(const traced_access&) const = default;
};
std::ostream& operator<<(std::ostream& out, const traced_access& access);
// Short forms for expected traces.
constexpr traced_access read16(uint32_t offset, uint16_t value) {
  return {offset, 16, false, value};
}
constexpr traced_access write16(uint32_t offset, uint16_t value) {
  return {offset, 16, true, value};
}
constexpr traced_access read32(uint32_t offset, uint32_t value) {
  return {offset, 32, false, value};
}
constexpr traced_access write32(uint32_t offset, uint32_t value) {
  return {offset, 32, true, value};
}

class chassis;

// One device node: the registers of a CPLD and the three flashes behind it.
class cpld {
 public:
  cpld(chassis& owner, power& supply);
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
  void count_wrong_access(uint32_t offset, uint32_t width, bool is_write);
  void write_data(bay& target, uint32_t offset, uint16_t value);
  command_state state_after(const bay& target, uint32_t offset, uint16_t value) const;
  void trace(uint32_t offset, uint8_t width, bool is_write, uint32_t value);
  void update_plain();

  // Memory of a flash while a read of its data window needs nothing but the word, else null: not
  // touched yet, in a command sequence, busy, dead, or traced.
  const uint8_t* plain_[flashes_per_node] = {};
  uint32_t page_ = 0;
  uint32_t waiting_reads_ = 0;  // status reads in a row, with nothing else between, not all ready
  bool tracing_ = false;
  access_counts counts_;
  deviation_counts deviations_;
  bay bays_[flashes_per_node];
  std::vector<traced_access> trace_;
  chassis* owner_;
};

class chassis {
 public:
  chassis();
  ~chassis();  // uninstalls itself
  chassis(const chassis&) = delete;
  chassis& operator=(const chassis&) = delete;

  // The node of a complex, 3 to 8, and the complex's place on it.
  cpld& node_of(int ppc) {
    return nodes_[(ppc - first_ppc) / flashes_per_node];
  }
  static int index_of(int ppc) {
    return (ppc - first_ppc) % flashes_per_node;
  }
  nor_flash& flash(int ppc) {
    return node_of(ppc).flash(index_of(ppc));
  }
  // The window of a complex's node, without opening and mapping it.
  window_base window_of(int ppc) {
    return &node_of(ppc);
  }

  void set_running(int ppc, bool running) {
    node_of(ppc).set_running(index_of(ppc), running);
  }
  void set_ready_never(int ppc, uint64_t after_cycles = 0) {
    node_of(ppc).set_ready_never(index_of(ppc), after_cycles);
  }
  void set_ready_low(int ppc, uint32_t status_reads) {
    node_of(ppc).set_ready_low(index_of(ppc), status_reads);
  }

  // The power of all six flashes: plan a cut with supply().cut_at(). When it has failed, every read
  // of a window gives ones, and every read of the clock finds a second gone.
  power& supply() {
    return supply_;
  }
  // Power on after a cut: the flashes live, the nodes are reset.
  void power_on();

  // The next and all later calls fail with the errno value; 0: they work.
  void fail_open(int error) {
    open_error_ = error;
  }
  void fail_map(int error) {
    map_error_ = error;
  }

  // --- the clock (real at first) ---

  void clock_real();
  // Stands still, except while a flash keeps a wait spinning: 1000 reads of the status in a row
  // that find a flash not ready are one second, so that waits end.
  void clock_hold(int64_t seconds);
  // Begins at `seconds` and goes on by one second after each `reads` reads of clock or status.
  void clock_step(int64_t seconds, uint32_t reads);
  // The descriptor that opening the first node gives; the second node's is the next one.
  void set_first_descriptor(int fd) {
    first_descriptor_ = fd;
  }
  // Mapping gives the null pointer.
  void map_null() {
    map_null_ = true;
  }
  // Seconds; counts as a read.
  int64_t clock();
  uint64_t clock_reads() const {
    return clock_reads_;
  }

  // Sums over both nodes.
  access_counts counts() const;
  deviation_counts deviations() const;
  void clear_counts();

  // --- for the window functions: as those of window/window.h ---

  int open(const char* path);
  window_base map(int fd, size_t length, off_t offset);
  int unmap(window_base base, size_t length);
  // Windows mapped and not unmapped.
  int mapped() const {
    return mapped_;
  }
  // Calls that have succeeded.
  int opens() const {
    return opens_;
  }

  // For the nodes: the status was read, for the `waiting_reads`-th time in a row without success.
  void status_was_read(uint32_t waiting_reads);

 private:
  enum class clock_mode { real, held, stepped };
  void step_clock();

  power supply_;
  cpld nodes_[node_count];
  bool node_open_[node_count] = {};
  int open_error_ = 0;
  int map_error_ = 0;
  int first_descriptor_ = 3;  // the first that a program finds free
  bool map_null_ = false;
  int mapped_ = 0;
  int opens_ = 0;
  clock_mode clock_mode_ = clock_mode::real;
  int64_t clock_seconds_ = 0;
  uint64_t clock_reads_ = 0;
  uint32_t step_reads_ = 0;
  uint32_t step_count_ = 0;
};

// Makes a chassis the one that window_open finds; null takes it away. Without one, window_open
// loads the chassis folder (sim/folder.h).
void install_chassis(chassis* installed);
chassis* installed_chassis();

}  // namespace sim
