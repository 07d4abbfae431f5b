#include "reliability/rescue_state.h"

#include <algorithm>
#include <set>
#include <utility>

#include "reliability/judge.h"

namespace reliability {

namespace {

// A mixture of sectors that are old or new; `least`: what it may not be shorter than.
bool is_mixture_of_length(const std::string& content, const std::string& before,
                          const std::string& after, size_t least) {
  return content.size() >= least && content.size() <= std::max(before.size(), after.size()) &&
         is_mixture(content, before, after);
}

// What a path held before, or after; nothing is as good as an empty file here.
std::string content_of(const tree& nodes, const std::string& path) {
  const auto found = nodes.find(path);
  return found == nodes.end() ? "" : found->second.content;
}

const tree_node* node_of(const tree& nodes, const std::string& path) {
  const auto found = nodes.find(path);
  return found == nodes.end() ? nullptr : &found->second;
}

bool same_node(const tree_node* one, const tree_node* other) {
  return one == nullptr || other == nullptr ? one == other : *one == *other;
}

std::multiset<std::string> contents_of(const tree& nodes) {
  std::multiset<std::string> contents;
  for (const auto& [path, node] : nodes) {
    contents.insert(node.content);
  }
  return contents;
}

}  // namespace

touched_judge::touched_judge(tree before, tree after)
    : before_(keep(std::move(before))), after_(keep(std::move(after))) {}

const tree* touched_judge::keep(tree nodes) {
  const auto same =
      std::find_if(kept_.begin(), kept_.end(), [&](const auto& each) { return *each == nodes; });
  if (same != kept_.end()) {
    return same->get();
  }
  kept_.push_back(std::make_unique<tree>(std::move(nodes)));
  return kept_.back().get();
}

// A file that is emptied on the way may be found shorter than it was and than it is to be.
size_t touched_judge::least_of(const std::string& path) const {
  const bool emptied = std::any_of(quiet_.begin(), quiet_.end(), [&](const tree* nodes) {
    return content_of(*nodes, path).empty();
  });
  return emptied ? 0
                 : std::min(content_of(*before_, path).size(), content_of(*after_, path).size());
}

// Whether the tree has no content that is a mixture.
bool touched_judge::has_whole_contents(const tree& nodes) const {
  return std::all_of(nodes.begin(), nodes.end(), [&](const auto& each) {
    const std::string& content = each.second.content;
    return content.empty() || content == content_of(*before_, each.first) ||
           content == content_of(*after_, each.first);
  });
}

// Whether each path by itself is old or new, and no content has got lost or doubled with it.
bool touched_judge::is_old_or_new_each(const tree& nodes) const {
  const bool each = std::all_of(nodes.begin(), nodes.end(), [&](const auto& one) {
    return same_node(&one.second, node_of(*before_, one.first)) ||
           same_node(&one.second, node_of(*after_, one.first));
  });
  const std::multiset<std::string> contents = contents_of(nodes);
  const std::multiset<std::string> old_contents = contents_of(*before_);
  const bool whole =
      std::includes(contents.begin(), contents.end(), old_contents.begin(), old_contents.end());
  return each && whole && nodes.size() <= std::max(before_->size(), after_->size());
}

// Whether each sector is old or new, of paths that were there or are to be.
bool touched_judge::is_by_sector(const tree& nodes) const {
  std::set<std::string> paths;
  for (const tree* each : {before_, after_}) {
    for (const auto& [path, node] : *each) {
      paths.insert(path);
    }
  }
  for (const auto& [path, node] : nodes) {
    if (paths.count(path) == 0) {
      return false;
    }
  }
  for (const std::string& path : paths) {
    const bool may_be_absent = before_->count(path) == 0 || after_->count(path) == 0;
    if (nodes.count(path) == 0
            ? !may_be_absent
            : !is_mixture_of_length(content_of(nodes, path), content_of(*before_, path),
                                    content_of(*after_, path), least_of(path))) {
      return false;
    }
  }
  return true;
}

touched_state touched_judge::state_of(const tree* nodes) const {
  if (nodes == before_) {
    return touched_state::old;
  }
  if (nodes == after_) {
    return touched_state::as_new;
  }
  if ((quiet_.count(nodes) != 0 && has_whole_contents(*nodes)) || is_old_or_new_each(*nodes)) {
    return touched_state::between;
  }
  return is_by_sector(*nodes) ? touched_state::by_sector : touched_state::neither;
}

}  // namespace reliability
