// Plays the cuts and judges what they leave.
#include "reliability/power_cuts.h"

#include <algorithm>
#include <cstring>
#include <unordered_set>

namespace reliability {

namespace {

constexpr const char* lost_and_found = "lost+found";
constexpr size_t max_samples = 40;

bool is_touched(const operation& what, const std::string& path) {
  return std::any_of(what.touched.begin(), what.touched.end(), [&](const std::string& touched) {
    return path == touched || path.rfind(touched + "/", 0) == 0;
  });
}

std::string sector_of(const std::string& content, size_t index) {
  const size_t start = index * sector_data_size;
  return start < content.size() ? content.substr(start, sector_data_size) : "";
}

// Whether each sector is the old one, the new one, or a reserved one that became zeros.
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

struct states {
  tree before;
  tree after;
};

const tree_node* find(const tree& nodes, const std::string& path) {
  const auto found = nodes.find(path);
  return found == nodes.end() ? nullptr : &found->second;
}

bool same_type(const tree_node& node, const tree_node& other) {
  return (node.mode & ppc_mode_type_mask) == (other.mode & ppc_mode_type_mask);
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
  const tree_node nothing;
  const tree_node& reference = before != nullptr ? *before : after != nullptr ? *after : nothing;
  if (!same_type(*node, reference) ||
      !is_mixture(node->content, before != nullptr ? before->content : "",
                  after != nullptr ? after->content : "")) {
    found->insert(outcome::touched_torn);
  }
}

// A file that moved must be in its old or its new place.
void judge_moves(const operation& what, const tree& now, const states& expected,
                 std::set<outcome>* found) {
  const auto counts_touched = [&](const tree& nodes) {
    return std::count_if(nodes.begin(), nodes.end(),
                         [&](const auto& each) { return is_touched(what, each.first); });
  };
  const auto least = std::min(counts_touched(expected.before), counts_touched(expected.after));
  if (counts_touched(now) < least) {
    found->insert(outcome::touched_lost);
  }
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

class cut_run {
 public:
  explicit cut_run(const operation& what) : what_(what), rig_(what.blocks) {
    rig_.restore({});
    what.prepare(rig_);
    expected_.before = rig_.walk();
    rig_.unmount();
    if (what.damage) {
      what.damage(rig_);
    }
    start_ = rig_.snapshot();
    play(0, sim::cut_kind::before);
    counts_.mutations = rig_.supply().mutations();
    expected_.after = rig_.walk();
  }

  uint64_t mutations() const {
    return counts_.mutations;
  }

  cut_counts run(uint64_t stride, uint64_t second_stride) {
    for (uint64_t n = 1; n <= counts_.mutations; n += stride) {
      for (const sim::cut_kind kind :
           {sim::cut_kind::before, sim::cut_kind::during, sim::cut_kind::during_noise}) {
        play(n, kind);
        rig_.supply().restore();
        rig_.unmount();
        const std::vector<uint8_t> left = rig_.snapshot();
        if (!seen_.insert(hash_of(left)).second) {
          continue;
        }
        const std::string place = what_.name + ": cut " + std::to_string(n) + " " + kind_name(kind);
        try_checks(left, place, second_stride);
      }
    }
    return counts_;
  }

 private:
  static const char* kind_name(sim::cut_kind kind) {
    return kind == sim::cut_kind::before   ? "before"
           : kind == sim::cut_kind::during ? "during"
                                           : "during_noise";
  }

  // Runs the operation on the prepared flash with the power failing at its n-th mutation.
  void play(uint64_t n, sim::cut_kind kind) {
    rig_.restore(start_);
    rig_.supply().restore();
    if (what_.damage) {
      rig_.register_only();
    } else {
      rig_.mount(full_check);
    }
    rig_.supply().restore();
    if (n != 0) {
      rig_.supply().cut_at(n, kind, n);
    }
    what_.act(rig_);
  }

  void try_checks(const std::vector<uint8_t>& left, const std::string& place,
                  uint64_t second_stride) {
    for (const uint32_t flags : {quick_check, full_check}) {
      const std::string check_place = place + (flags == quick_check ? ", quick" : ", full");
      counts_.cuts++;
      const uint64_t mutations = try_check(left, flags, check_place);
      for (uint64_t m = 1; second_stride != 0 && m <= mutations; m += second_stride) {
        for (const sim::cut_kind kind : {sim::cut_kind::before, sim::cut_kind::during}) {
          rig_.restore(left);
          rig_.register_only();
          rig_.supply().restore();
          rig_.supply().cut_at(m, kind, m);
          rig_.check(flags);
          rig_.supply().restore();
          rig_.unmount();
          const std::vector<uint8_t> second_left = rig_.snapshot();
          if (!seen_second_.insert(hash_of(second_left) ^ flags).second) {
            continue;
          }
          counts_.second_cuts++;
          try_check(second_left, flags,
                    check_place + ", second cut " + std::to_string(m) + " " + kind_name(kind));
        }
      }
    }
  }

  // Mounts what a cut left, judges it and mounts once more. Returns the mutations of the check.
  uint64_t try_check(const std::vector<uint8_t>& left, uint32_t flags, const std::string& place) {
    rig_.restore(left);
    rig_.supply().restore();
    const int32_t result = rig_.mount(flags);
    const uint64_t mutations = rig_.supply().mutations();
    std::set<outcome> found;
    if (result != 0) {
      found.insert(outcome::check_refuses);
    } else {
      found = judge_tree(what_, rig_.walk(), expected_);
      rig_.unmount();
      const std::vector<uint8_t> settled = rig_.snapshot();
      if (rig_.mount(flags) != 0 || rig_.snapshot() != settled) {
        found.insert(outcome::not_settled);
      }
    }
    record(found, flags, place);
    return mutations;
  }

  void record(const std::set<outcome>& found, uint32_t flags, const std::string& place) {
    const bool quick = flags == quick_check;
    auto& counters = quick ? counts_.quick : counts_.full;
    const auto& explained = quick ? what_.explained_quick : what_.explained_full;
    counts_.clean += found.empty() ? 1 : 0;
    bool unexplained = false;
    std::string kinds;
    for (const outcome kind : found) {
      counters[kind]++;
      if (explained.count(kind) == 0) {
        unexplained = true;
        kinds += std::string(" ") + outcome_name(kind);
      }
    }
    if (unexplained) {
      counts_.unexplained++;
      if (counts_.unexplained_samples.size() < max_samples) {
        counts_.unexplained_samples.push_back(place + ":" + kinds);
      }
    }
  }

  const operation& what_;
  rig rig_;
  std::vector<uint8_t> start_;
  states expected_;
  cut_counts counts_;
  std::unordered_set<uint64_t> seen_;
  std::unordered_set<uint64_t> seen_second_;
};

}  // namespace

const char* outcome_name(outcome kind) {
  switch (kind) {
    case outcome::check_refuses:
      return "check refuses";
    case outcome::other_changed:
      return "other file changed";
    case outcome::stray_name:
      return "stray name";
    case outcome::touched_lost:
      return "touched file lost";
    case outcome::touched_torn:
      return "touched file torn";
    case outcome::relinked:
      return "relinked";
    case outcome::not_settled:
      return "not settled";
  }
  return "";
}

uint64_t count_mutations(const operation& what) {
  return cut_run(what).mutations();
}

std::set<outcome> judge(const operation& what, const tree& now, const tree& before,
                        const tree& after) {
  return judge_tree(what, now, {before, after});
}

cut_counts try_power_cuts(const operation& what, uint64_t stride, uint64_t second_stride) {
  return cut_run(what).run(stride, second_stride);
}

}  // namespace reliability
