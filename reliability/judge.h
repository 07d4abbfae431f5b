// What a user would find wrong in a tree that an interrupted operation left.
#pragma once

#include <set>
#include <string>

#include "reliability/cut_causes.h"
#include "reliability/rig.h"

namespace reliability {

struct operation;

// The trees around an operation that is not interrupted.
struct states {
  tree before;
  tree after;
};

// Each touched file must be old or new, sector by sector; one that is removed, wholly there or
// wholly gone; everything else as it was.
std::set<outcome> judge_tree(const operation& what, const tree& now, const states& expected);

// Whether each sector of a file is the old one, the new one, or a reserved one that became zeros.
bool is_mixture(const std::string& content, const std::string& before, const std::string& after);

// Whether the path, or a directory above it, is one that the operation touches.
bool is_touched(const operation& what, const std::string& path);

}  // namespace reliability
