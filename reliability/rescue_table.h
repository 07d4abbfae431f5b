// What the quick check, the full check and a rescue before any check make of the flashes that power
// cuts leave: the kinds of states, how many of each were found, and the table of them.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>

namespace reliability {

// What a flash was left by.
enum class left_by {
  first_cut,        // a cut before which the operation has erased nothing
  cut_after_erase,  // a cut of an operation that had erased a block
  cut_quick_check,  // a second cut, in the quick check that followed
  cut_full_check,
  cut_rescue,  // a second cut, in the rescue
};

enum class recovery { quick, full, rescue };

// What a user finds of the files that the operation touches.
enum class touched_state {
  old,
  as_new,
  between,    // a state between two steps of the operation that no check would change
  by_sector,  // each sector is old or new
  neither,
};

struct rescue_counts {
  uint64_t states = 0;
  uint64_t refused = 0;
  uint64_t untouched_lost = 0;  // or changed
  uint64_t unexpected_names = 0;
  uint64_t not_silent = 0;  // the full check after the rescue says more than its last line
  std::map<touched_state, uint64_t> touched;

  void add(const rescue_counts& other);
};

// What was found of each kind of state after each recovery.
using rescue_rows = std::map<std::pair<left_by, recovery>, rescue_counts>;

const char* left_by_name(left_by kind);
const char* recovery_name(recovery kind);
const char* touched_state_name(touched_state kind);

// The rows as a table in Markdown.
std::string rescue_table(const rescue_rows& rows);

}  // namespace reliability
