// A flash that a check has recovered is used, as somebody would who goes on working on it: what a
// cut broke without a trace shows then.
#pragma once

#include <set>
#include <string>

#include "reliability/rig.h"

namespace reliability {

struct use_result {
  bool fails = false;          // a step failed for another reason than want of space
  bool differs = false;        // a check after it, or memory before that, has something else
  bool short_of_room = false;  // a step failed for want of space
  bool reclaimed = false;      // a block was erased
  std::string story;           // what failed or differed, a line each; for people

  bool is_sound() const {
    return !fails && !differs;
  }
};

// Uses the mounted file system: makes a file, overwrites in another, removes a third and writes
// until a block is reclaimed. Then memory must hold just that, and so must what the quick and the
// full check find afterwards. The flash is as it was at the end, and unmounted.
use_result use_flash(rig& flash);

// How `now` differs from `expected`, a line for each path; dates count unless in `undated`, and for
// files only.
std::string difference_of_trees(const tree& now, const tree& expected,
                                const std::set<std::string>& undated);

}  // namespace reliability
