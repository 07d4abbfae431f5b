// What a user finds of the files that an operation touches, after a cut of it and a recovery.
#pragma once

#include <cstddef>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "reliability/rescue_table.h"
#include "reliability/rig.h"

namespace reliability {

// Judges the trees of the touched paths, each by what all of them tell together: which states stand
// between two steps of the operation is known only when all have been seen.
class touched_judge {
 public:
  touched_judge(tree before, tree after);

  // The tree, kept as long as this lives; equal ones are one.
  const tree* keep(tree nodes);
  // The full check had nothing to do on a flash with this tree.
  void note_quiet(const tree* nodes) {
    quiet_.insert(nodes);
  }
  // Of a tree that is kept, when all are noted.
  touched_state state_of(const tree* nodes) const;

 private:
  bool has_whole_contents(const tree& nodes) const;
  bool is_old_or_new_each(const tree& nodes) const;
  bool is_by_sector(const tree& nodes) const;
  size_t least_of(const std::string& path) const;

  std::vector<std::unique_ptr<tree>> kept_;
  const tree* before_;
  const tree* after_;
  std::set<const tree*> quiet_;
};

}  // namespace reliability
