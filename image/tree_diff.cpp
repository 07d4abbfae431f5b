// Walking two trees side by side.
#include "image/tree_diff.h"

namespace image {

namespace {

// Two trees of which contents may still have to be read.
class tree_comparison {
 public:
  tree_comparison(const tree& first, const tree& second, compared what,
                  std::vector<tree_problem>* unread)
      : first_(first), second_(second), what_(what), unread_(unread) {}

  std::string differences_of(const tree_entry& first, const tree_entry& second);

 private:
  bool have_equal_contents(const tree_entry& first, const tree_entry& second);
  // False when they cannot be read, which is told.
  bool read(const tree& from, const tree_entry& entry, std::string* held,
            std::string_view* contents);

  const tree& first_;
  const tree& second_;
  const compared what_;
  std::vector<tree_problem>* unread_;
  std::string held_;
  std::string held_too_;
};

bool tree_comparison::read(const tree& from, const tree_entry& entry, std::string* held,
                           std::string_view* contents) {
  std::string fault = contents_of(from, entry, held, contents);
  if (fault.empty()) {
    return true;
  }
  unread_->push_back({entry.path, std::move(fault)});
  return false;
}

bool tree_comparison::have_equal_contents(const tree_entry& first, const tree_entry& second) {
  if (first.size != second.size) {
    return false;
  }
  std::string_view contents;
  std::string_view others;
  // What cannot be read is told, and neither equal nor different.
  return !read(first_, first, &held_, &contents) || !read(second_, second, &held_too_, &others) ||
         contents == others;
}

std::string tree_comparison::differences_of(const tree_entry& first, const tree_entry& second) {
  if (first.directory != second.directory) {
    return "type";
  }
  std::string text;
  const auto add = [&](bool differs, const char* word) {
    if (differs) {
      text += (text.empty() ? "" : ", ") + std::string(word);
    }
  };
  add(!first.directory && !have_equal_contents(first, second), "contents");
  if (what_ == compared::all) {
    add(first.mode != second.mode, "mode");
    add(first.mtime != second.mtime, "date");
  }
  return text;
}

}  // namespace

std::vector<tree_difference> compare_trees(const tree& first, const tree& second, compared what,
                                           std::vector<tree_problem>* unread) {
  using kind = tree_difference::kind;
  std::vector<tree_difference> found;
  tree_comparison comparison(first, second, what, unread);
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
      if (std::string text = comparison.differences_of(*at, *other); !text.empty()) {
        found.push_back({kind::differs, at->path, at->directory, std::move(text)});
      }
      ++at;
      ++other;
    }
  }
  return found;
}

}  // namespace image
