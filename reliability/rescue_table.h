// What the quick check, the full check and a rescue before any check make of the flashes that power
// cuts leave: the same states, judged alike.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "reliability/power_cuts.h"

namespace reliability {

// Which cuts are tried.
struct rescue_sample {
  uint64_t stride = 1;  // every so manieth mutation, and the first and last of each call
  // Of the mutations of the checks that follow, beginning with another one after each state, so
  // that states that are alike are cut at all of them; 0: none.
  uint64_t second_stride = 0;
  uint64_t second_of = 1;      // such cuts are tried after every so manieth state
  uint64_t rescue_stride = 0;  // of the mutations of the rescue of such a state, likewise; 0: none
  bool large_blocks = false;
};

// The named samples: "all" has every different state of first cuts, and one in so many of second
// ones; "suite" is what the tests try; "large" is of blocks of the size that the real device has.
// Null for another name.
const rescue_sample* find_rescue_sample(const std::string& name);

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

// Tries an operation. `set_clock` sets the time, so that what is made before the operation has
// another date than what it makes. What the rescue does not bring back as it was, is or legally
// stood in between is told to `tell`, as arguments that play it again and what was found.
rescue_rows try_rescue(const operation& what, const rescue_sample& sample,
                       const std::function<void(int64_t)>& set_clock,
                       const std::function<void(const std::string&)>& tell);

// The operations whose cuts the table is about: power_cut_operations() but those that change the
// whole device.
std::vector<operation> rescue_operations();
// Those, and others, which write several sectors where some stand or stood.
std::vector<operation> further_rescue_operations();

// The rows as a table in Markdown.
std::string rescue_table(const rescue_rows& rows);

// Plays an operation with its cut, and a check with its own, if any, and tells what the rescue
// decides.
std::string play_rescue(const operation& what, planned_cut first,
                        const std::optional<planned_check>& cut_check,
                        const std::function<void(int64_t)>& set_clock);

// The bytes that the rescue makes of a flash left by cuts.
std::vector<uint8_t> rescued(rig& flash, const std::vector<uint8_t>& left);

}  // namespace reliability
