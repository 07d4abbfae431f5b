// Compares the tree that is found with those around the operation.
#include "reliability/judge.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "flashfs/format.h"
#include "reliability/power_cuts.h"

namespace reliability {

namespace {

constexpr const char* lost_and_found = "lost+found";

std::string sector_of(const std::string& content, size_t index) {
  const size_t start = index * sector_data_size;
  return start < content.size() ? content.substr(start, sector_data_size) : "";
}

const tree_node* find(const tree& nodes, const std::string& path) {
  const auto found = nodes.find(path);
  return found == nodes.end() ? nullptr : &found->second;
}

bool same_attributes(const tree_node& node, const tree_node* other) {
  return other != nullptr && node.mode == other->mode && node.date == other->date;
}

// It is wholly there as long as it has its name.
void judge_removed(const tree_node& node, const tree_node& before, std::set<outcome>* found) {
  if (node.content.empty() && node.mode == before.mode && !before.content.empty()) {
    found->insert(outcome::touched_dropped);
  } else if (node.content != before.content || !same_attributes(node, &before)) {
    found->insert(outcome::touched_torn);
  }
}

void judge_touched(const tree& now, const states& expected, const std::string& path,
                   std::set<outcome>* found) {
  const tree_node* before = find(expected.before, path);
  const tree_node* after = find(expected.after, path);
  const tree_node* node = find(now, path);
  if (node == nullptr) {
    if (before != nullptr && after != nullptr) {
      found->insert(outcome::touched_lost);
    }
    return;
  }
  if (after == nullptr && before != nullptr) {
    judge_removed(*node, *before, found);
    return;
  }
  const std::string old_content = before != nullptr ? before->content : "";
  const std::string new_content = after != nullptr ? after->content : "";
  const size_t least = std::min(old_content.size(), new_content.size());
  if (node->content.empty() && least != 0) {
    found->insert(outcome::touched_dropped);
  } else if (node->content.size() < least || !is_mixture(node->content, old_content, new_content) ||
             !(same_attributes(*node, before) || same_attributes(*node, after))) {
    found->insert(outcome::touched_torn);
  }
}

std::multiset<std::string> touched_contents(const operation& what, const tree& nodes) {
  std::multiset<std::string> contents;
  for (const auto& [path, node] : nodes) {
    if (is_touched(what, path) && is_regular_mode(node.mode)) {
      contents.insert(node.content);
    }
  }
  return contents;
}

std::set<std::string> touched_paths(const operation& what, const tree& nodes) {
  std::set<std::string> paths;
  for (const auto& [path, node] : nodes) {
    if (is_touched(what, path)) {
      paths.insert(path);
    }
  }
  return paths;
}

// A file that moved must be whole in its old or its new place.
void judge_moves(const operation& what, const tree& now, const states& expected,
                 std::set<outcome>* found) {
  if (touched_paths(what, expected.before) == touched_paths(what, expected.after)) {
    return;
  }
  const std::multiset<std::string> after = touched_contents(what, expected.after);
  const std::multiset<std::string> held = touched_contents(what, now);
  for (const std::string& content : touched_contents(what, expected.before)) {
    if (after.count(content) != 0 && held.count(content) == 0) {
      found->insert(outcome::touched_lost);
    }
  }
}

}  // namespace

bool is_mixture(const std::string& content, const std::string& before, const std::string& after) {
  if (content.rfind("<errno", 0) == 0) {
    return false;
  }
  for (size_t i = 0; i * sector_data_size < content.size(); i++) {
    const std::string sector = sector_of(content, i);
    if (sector != sector_of(before, i) && sector != sector_of(after, i)) {
      return false;
    }
  }
  return true;
}

bool is_touched(const operation& what, const std::string& path) {
  return std::any_of(what.touched.begin(), what.touched.end(), [&](const std::string& touched) {
    return path == touched || path.rfind(touched + "/", 0) == 0;
  });
}

std::set<outcome> judge_tree(const operation& what, const tree& now, const states& expected) {
  std::set<outcome> found;
  for (const auto& [path, node] : now) {
    if (path == lost_and_found || path.rfind(std::string(lost_and_found) + "/", 0) == 0) {
      if (!is_touched(what, lost_and_found)) {
        found.insert(outcome::relinked);
      }
    } else if (is_touched(what, path)) {
      judge_touched(now, expected, path, &found);
    } else if (const tree_node* old = find(expected.before, path); old == nullptr) {
      found.insert(outcome::stray_name);
    } else if (!(*old == node) && !(is_directory_mode(node.mode) && old->mode == node.mode)) {
      // A directory's own date moves with what happens in it.
      found.insert(outcome::other_changed);
    }
  }
  for (const auto& [path, node] : expected.before) {
    if (find(now, path) == nullptr) {
      if (!is_touched(what, path)) {
        found.insert(outcome::other_changed);
      } else {
        judge_touched(now, expected, path, &found);
      }
    }
  }
  judge_moves(what, now, expected, &found);
  return found;
}

}  // namespace reliability
