// Walking two trees side by side.
#include "image/tree_diff.h"

namespace image {

namespace {

std::string differences_of(const tree_entry& first, const tree_entry& second, compared what) {
  if (first.directory != second.directory) {
    return "type";
  }
  std::string text;
  const auto add = [&](bool differs, const char* word) {
    if (differs) {
      text += (text.empty() ? "" : ", ") + std::string(word);
    }
  };
  add(first.size != second.size || first.contents != second.contents, "contents");
  if (what == compared::all) {
    add(first.mode != second.mode, "mode");
    add(first.mtime != second.mtime, "date");
  }
  return text;
}

}  // namespace

std::vector<tree_difference> compare_trees(const tree& first, const tree& second, compared what) {
  using kind = tree_difference::kind;
  std::vector<tree_difference> found;
  auto at = first.entries.begin();
  auto other = second.entries.begin();
  while (at != first.entries.end() || other != second.entries.end()) {
    const bool at_end = at == first.entries.end();
    if (other == second.entries.end() || (!at_end && path_is_before(at->path, other->path))) {
      found.push_back({kind::only_first, at->path, at->directory, ""});
      ++at;
    } else if (at_end || path_is_before(other->path, at->path)) {
      found.push_back({kind::only_second, other->path, other->directory, ""});
      ++other;
    } else {
      if (std::string text = differences_of(*at, *other, what); !text.empty()) {
        found.push_back({kind::differs, at->path, at->directory, std::move(text)});
      }
      ++at;
      ++other;
    }
  }
  return found;
}

}  // namespace image
