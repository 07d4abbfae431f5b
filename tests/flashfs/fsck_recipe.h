// The small images that tests of the check begin with, and what the check says.
#pragma once

#include <string>
#include <vector>

#include "flashfs/filemap.h"
#include "flashfs/path.h"
#include "tests/flashfs/flashfs_recipe.h"

namespace test_support {

// A line of the file system's.
inline std::string said(const std::string& text) {
  return "flashfs[0]: " + text + "\n";
}

inline std::string relinked(const std::string& kind, const std::string& digits) {
  return said("relinked orphaned " + kind + " into the fs as \"/lost+found/" + digits + "\".");
}

// A small file system with a file and a directory.
class check_recipe : public recipe_fixture {
 protected:
  void make() {
    make_small_tree(4);
  }
  void image_state(int block, uint8_t state) {
    image().header(block, {.erase_count = 5, .state = state});
  }
  void expect_tree() {
    EXPECT_EQ(path_lookup(fs(), "f"), 2);
    EXPECT_EQ(path_lookup(fs(), "d/x"), 4);
    EXPECT_EQ(sctr_list_length(entry(2)->sctr_list), 2U);
  }
};

// A file system that holds nothing yet.
class tree_recipe : public recipe_fixture {
 protected:
  void make() {
    make_root(4);
  }
  void expect_unchanged(const std::vector<uint8_t>& before) {
    EXPECT_EQ(device().flash().first_difference(before), before.size());
  }
};

}  // namespace test_support
