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
#include <string>
#include <vector>

namespace sim {

// What the mutation at which the power fails leaves behind.
enum class cut_kind {
  before,  // nothing of it
  during,  // a word with some of its bits cleared; an erase with a blank beginning, rest as was
  during_noise,  // the same word; an erase with a blank beginning and noise behind it
  after,         // all of it
};

// The power of one or more flashes. It counts their mutations (each programmed word and each erase
// is one) and fails at a chosen one. From then on the flashes are dead: writes change nothing and
// reads give all ones.
class power {
 public:
  // Fails at the `mutation`-th mutation from now on (1: the next one). The seed decides which bits
  // of a torn word or erase are left.
  void cut_at(uint64_t mutation, cut_kind kind, uint64_t seed = 1);
  // Power on again: alive, no cut planned, the count at 0. Flash contents stay.
  void restore();
  bool dead() const {
    return dead_;
  }
  // Mutations since the beginning or the last restore; the one that was cut is counted.
  uint64_t mutations() const {
    return mutations_;
  }
  // Called once when the power has failed, after the flash holds its torn state.
  std::function<void()> on_cut;

  // For flashes. Counts a mutation; true when it is the one at which the power fails. The flash
  // then leaves what `kind` says and calls `fail`.
  bool next_mutation() {
    return ++mutations_ == cut_mutation_;
  }
  cut_kind kind() const {
    return kind_;
  }
  uint64_t random();
  void fail();

 private:
  uint64_t mutations_ = 0;
  uint64_t cut_mutation_ = 0;  // 0: none; counted as mutations_ is
  uint64_t random_state_ = 0;
  cut_kind kind_ = cut_kind::before;
  bool dead_ = false;
};

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
