// What is different between two trees.
#pragma once

#include <string>
#include <vector>

#include "image/tree.h"

namespace image {

struct tree_difference {
  enum class kind { only_first, only_second, differs };
  kind what;
  std::string path;
  bool directory = false;  // where it is; of the first
  std::string differs_in;  // "contents, mode, date" or "type"
};

enum class compared { contents, all };  // all: modes and dates, too

// In the order of the paths. Of a folder that only one of them has, all in it is listed, too.
// Contents that still are where they come from are read, where sizes agree; what cannot be read
// then goes to `unread`, and is no difference.
[[nodiscard]] std::vector<tree_difference> compare_trees(const tree& first, const tree& second,
                                                         compared what,
                                                         std::vector<tree_problem>* unread);

}  // namespace image
