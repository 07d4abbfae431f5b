// Plays the cuts of an operation and recovers each flash that they leave in three ways: the quick
// check, the full check, and a rescue before any check. What stands then is judged alike.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "reliability/power_cuts.h"
#include "reliability/rescue_table.h"

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

// Plays an operation with its cut, and a check with its own, if any, and tells what the rescue
// decides.
std::string play_rescue(const operation& what, planned_cut first,
                        const std::optional<planned_check>& cut_check,
                        const std::function<void(int64_t)>& set_clock);

// The bytes that the rescue makes of a flash left by cuts.
std::vector<uint8_t> rescued(rig& flash, const std::vector<uint8_t>& left);

}  // namespace reliability
