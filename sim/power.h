// The power supply of simulated flashes: it counts what changes them and fails where a test has
// planned it.
#pragma once

#include <cstdint>
#include <functional>

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

}  // namespace sim
