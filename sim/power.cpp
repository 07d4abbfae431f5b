// When the power fails, and the random bits that a torn mutation leaves.
#include "sim/power.h"

namespace sim {

void power::cut_at(uint64_t mutation, cut_kind kind, uint64_t seed) {
  cut_mutation_ = mutation == 0 ? 0 : mutations_ + mutation;
  kind_ = kind;
  random_state_ = seed;
}

void power::restore() {
  mutations_ = 0;
  cut_mutation_ = 0;
  dead_ = false;
}

// SplitMix64: every seed, 0 too, gives a good sequence.
uint64_t power::random() {
  random_state_ += 0x9E3779B97F4A7C15;
  uint64_t mixed = random_state_;
  mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9;
  mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EB;
  return mixed ^ (mixed >> 31);
}

void power::fail() {
  dead_ = true;
  if (on_cut) {
    on_cut();
  }
}

}  // namespace sim
