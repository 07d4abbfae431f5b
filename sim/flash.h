// A NOR flash over a range of bytes: programming only clears bits, erasing sets a range to ones,
// and the power may fail at any mutation. It knows nothing of registers or command sequences, so it
// serves the simulated chassis and small flashes of any geometry alike.
//
// Bytes stand in flash order; the high byte of a 16-bit word is the one at the lower address.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "sim/power.h"

namespace sim {

// One programmed word or one erase.
struct mutation {
  bool is_erase = false;
  uint32_t offset = 0;
  uint16_t held = 0;    // the word before
  uint16_t wanted = 0;  // what was to be programmed
};

class nor_flash {
 public:
  // Gives `size` bytes that live as long as the flash. Called at the first touch.
  using memory_source = std::function<uint8_t*(size_t size)>;

  // A flash over its own memory, erased at the first touch, or over that of a source, taken as it
  // is. The supply must outlive the flash.
  nor_flash(size_t size_bytes, power& supply, memory_source source = {});

  // --- as the hardware acts ---

  uint16_t read16(uint32_t offset);
  // Reads bytes; past the end they read as ones.
  void read(uint32_t offset, void* buffer, size_t length);
  // Programs one word at an even offset: clears bits. A request for a 1 over a 0 is counted.
  void program16(uint32_t offset, uint16_t value);
  // Erases a range to ones, as one mutation.
  void erase(uint32_t offset, size_t length);
  bool dead() const {
    return supply_->dead();
  }
  // Makes bits of one byte read as stuck after every later program or erase that covers it.
  void stick(uint32_t offset, uint8_t stuck_at_zero, uint8_t stuck_at_one);

  // The latest mutation: the one at which the power failed, if it did.
  const mutation& last_mutation() const {
    return last_mutation_;
  }
  // Words whose program asked for a 0 bit to become 1.
  uint64_t bit_set_requests() const {
    return bit_set_requests_;
  }
  void clear_counts() {
    bit_set_requests_ = 0;
  }

  // --- past the rules, for tests and tools ---

  size_t size() const {
    return size_;
  }
  // Whether the memory has been made. An untouched own flash is erased.
  bool touched() const {
    return bytes_ != nullptr;
  }
  uint8_t* bytes() {
    if (bytes_ == nullptr) {
      touch();
    }
    return bytes_;
  }
  // Another source and supply; the flash must be untouched for the former.
  void set_source(memory_source source);
  void set_supply(power& supply) {
    supply_ = &supply;
  }
  power& supply() {
    return *supply_;
  }
  // The whole contents, and back. `restore` takes at most `size()` bytes; the rest becomes erased.
  std::vector<uint8_t> snapshot();
  void restore(const std::vector<uint8_t>& contents);
  void fill_erased();
  // Offset of the first byte that differs from a snapshot; size() when none does.
  size_t first_difference(const std::vector<uint8_t>& contents);

 private:
  void touch();
  void tear_word(uint32_t offset, uint16_t value);
  void tear_erase(uint32_t offset, size_t length);
  void apply_stuck_bits(uint32_t offset, size_t length);

  struct stuck_byte {
    uint32_t offset;
    uint8_t at_zero;
    uint8_t at_one;
  };

  uint8_t* bytes_ = nullptr;
  size_t size_;
  power* supply_;
  memory_source source_;
  std::unique_ptr<uint8_t[]> own_;
  std::vector<stuck_byte> stuck_;
  uint64_t bit_set_requests_ = 0;
  mutation last_mutation_;
};

}  // namespace sim
