// Power cuts at every flash mutation of an operation, and again at every mutation of the check that
// follows. What each cut leaves is judged by what a user would find afterwards.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "reliability/rig.h"

namespace reliability {

// What a cut can leave that is not the old or the new state, by the check that found it.
enum class outcome {
  check_refuses,  // the check fails: nothing is mounted
  other_changed,  // something that the operation does not touch is gone or different
  stray_name,     // an entry that nobody made
  touched_lost,   // a touched file is in neither its old nor its new place
  touched_torn,   // its content is no mixture of old and new sectors
  relinked,       // something stands in /lost+found
  not_settled,    // a further check still changes the flash
};
const char* outcome_name(outcome kind);

struct operation {
  std::string name;
  std::vector<test_support::ram_block> blocks;
  // Makes the flash on which the operation acts, with the file system mounted.
  std::function<void(rig&)> prepare;
  // Changes bytes of the unmounted flash; the operation is then the check itself. May be empty.
  std::function<void(rig&)> damage;
  // Acts on the mounted file system.
  std::function<void(rig&)> act;
  // Paths that it makes, changes or removes, and whatever lies below them.
  std::set<std::string> touched;
  // What the order in which records are written brings with it, found by the quick and by the full
  // check. docs/power-cuts.md says why.
  std::set<outcome> explained_quick;
  std::set<outcome> explained_full;
};

struct cut_counts {
  uint64_t mutations = 0;    // of the operation
  uint64_t cuts = 0;         // tried: mutations times the kinds of cut, both checks
  uint64_t second_cuts = 0;  // tried in the checks that follow
  uint64_t clean = 0;        // of both
  std::map<outcome, uint64_t> quick;
  std::map<outcome, uint64_t> full;
  uint64_t unexplained = 0;
  std::vector<std::string> unexplained_samples;  // how to play them again
};

std::vector<operation> power_cut_operations();

// What a user would find wrong in a tree that an interrupted operation left; `before` and `after`
// are the trees around the uninterrupted one.
std::set<outcome> judge(const operation& what, const tree& now, const tree& before,
                        const tree& after);

// The flash mutations of an operation that is not cut.
uint64_t count_mutations(const operation& what);

// Tries every `stride`-th mutation (1: all) and every `second_stride`-th of the check that follows
// (0: none).
cut_counts try_power_cuts(const operation& what, uint64_t stride, uint64_t second_stride);

}  // namespace reliability
