// What is counted and recorded of the accesses to a device window: how many of each kind, how many
// against the rules of the hardware, and the accesses themselves as a trace.
#pragma once

#include <cstdint>
#include <iosfwd>

namespace sim {

// Accesses, by kind.
struct access_counts {
  uint64_t run_state_reads = 0;
  uint64_t status_reads = 0;
  uint64_t page_writes = 0;
  uint64_t words_read = 0;
  uint64_t command_cycles = 0;  // unlock, set-up and confirm cycles
  uint64_t programs = 0;        // data cycles
  uint64_t erases = 0;

  access_counts& operator+=(const access_counts& other);
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
  deviation_counts& operator+=(const deviation_counts& other);
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

}  // namespace sim
