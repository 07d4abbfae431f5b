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

constexpr sim::cut_kind cut_kinds[] = {sim::cut_kind::before, sim::cut_kind::during,
                                       sim::cut_kind::during_noise};
constexpr uint64_t variants_of_torn_words = 8;

const char* cut_kind_name(sim::cut_kind kind) {
  return kind == sim::cut_kind::before   ? "before"
         : kind == sim::cut_kind::during ? "during"
                                         : "during_noise";
}

struct states {
  tree before;
  tree after;
};

const tree_node* find(const tree& nodes, const std::string& path) {
  const auto found = nodes.find(path);
  return found == nodes.end() ? nullptr : &found->second;
}

bool same_attributes(const tree_node& node, const tree_node* other) {
  return other != nullptr && node.mode == other->mode && node.date == other->date;
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

// Plays one operation with cuts.
class cut_player {
 public:
  explicit cut_player(const operation& what) : what_(what), rig_(what.blocks) {
    rig_.restore({});
    {
      const rig::capture quiet(rig_);
      what.prepare(rig_);
    }
    expected_.before = rig_.walk();
    rig_.unmount();
    if (what.damage) {
      what.damage(rig_);
    }
    start_ = rig_.snapshot();
    play({0, sim::cut_kind::before});
    mutations_ = rig_.supply().mutations();
    expected_.after = rig_.walk();
  }

  uint64_t mutations() const {
    return mutations_;
  }
  const states& expected() const {
    return expected_;
  }
  rig& flash() {
    return rig_;
  }

  // Runs the operation on the prepared flash with the power failing at one of its mutations (0: at
  // none). After a cut the flash is unmounted and has its power back.
  void play(planned_cut planned) {
    rig_.restore(start_);
    rig_.supply().restore();
    if (what_.damage) {
      rig_.register_only();
    } else {
      rig_.mount(flashfs_check_full);
    }
    rig_.supply().restore();
    cut_during(planned, [&] { what_.act(rig_); });
  }

  // The same for the check of a flash.
  void play_check(const std::vector<uint8_t>& contents, uint32_t flags, planned_cut planned) {
    rig_.restore(contents);
    rig_.register_only();
    rig_.supply().restore();
    cut_during(planned, [&] { rig_.check(flags); });
  }

  // Where the latest cut fell.
  cut made(planned_cut planned) {
    return look_at_cut(planned.mutation, planned.kind, rig_.device());
  }

 private:
  template <typename Act>
  void cut_during(planned_cut planned, Act act) {
    const rig::capture quiet(rig_);
    if (planned.mutation == 0) {
      act();
      return;
    }
    const uint64_t seed = planned.mutation + (planned.variant << 32);
    rig_.supply().cut_at(planned.mutation, planned.kind, seed);
    act();
    rig_.supply().restore();
    rig_.unmount();
  }

  const operation& what_;
  rig rig_;
  std::vector<uint8_t> start_;
  states expected_;
  uint64_t mutations_ = 0;
};

// Tries an operation's cuts and counts what they leave.
class cut_run {
 public:
  explicit cut_run(const operation& what) : what_(what), player_(what) {
    counts_.mutations = player_.mutations();
  }

  cut_counts run(uint64_t stride, uint64_t second_stride) {
    for (uint64_t n = 1; n <= counts_.mutations; n += stride) {
      for_each_cut(
          n, [&](const planned_cut& planned) { player_.play(planned); },
          [&](const planned_cut& planned, const cut& first) {
            const std::vector<uint8_t> left = player_.flash().snapshot();
            if (seen_.insert(hash_of(left)).second) {
              try_checks(left, {.planned = planned, .where = first}, second_stride);
            }
          });
    }
    return counts_;
  }

 private:
  struct made_cut {
    planned_cut planned;
    cut where;
    uint32_t check_flags = flashfs_check_quick;  // of the check that was cut
  };

  // Plays every cut at one mutation: before it, in the middle of an erase in two ways, and in the
  // middle of a word that decides what a record is in several.
  template <typename Play, typename Use>
  void for_each_cut(uint64_t mutation, Play play, Use use) {
    place where = place::erase;
    for (const sim::cut_kind kind : cut_kinds) {
      if (kind == sim::cut_kind::during_noise && where != place::erase) {
        continue;
      }
      const uint64_t variants =
          kind == sim::cut_kind::during && decides(where) ? variants_of_torn_words : 1;
      for (uint64_t variant = 0; variant < variants; variant++) {
        const planned_cut planned = {mutation, kind, variant};
        play(planned);
        const cut made = player_.made(planned);
        where = made.where;
        // A word that came out whole is the same as a cut before it or before the next one.
        if (kind == sim::cut_kind::before || made.torn) {
          use(planned, made);
        }
      }
    }
  }

  static bool decides(place where) {
    return where == place::header_state || where == place::sector_claim ||
           where == place::sector_invalidation || where == place::slot_deletion;
  }

  void try_checks(const std::vector<uint8_t>& left, const made_cut& first, uint64_t second_stride) {
    for (const uint32_t flags : {flashfs_check_quick, flashfs_check_full}) {
      counts_.cuts++;
      const uint64_t mutations = try_check(left, flags, first, std::nullopt);
      for (uint64_t m = 1; second_stride != 0 && m <= mutations; m += second_stride) {
        for_each_cut(
            m, [&](const planned_cut& planned) { player_.play_check(left, flags, planned); },
            [&](const planned_cut& planned, const cut& second) {
              const std::vector<uint8_t> second_left = player_.flash().snapshot();
              if (seen_second_.insert(hash_of(second_left)).second) {
                counts_.second_cuts += 2;
                for (const uint32_t last_flags : {flashfs_check_quick, flashfs_check_full}) {
                  try_check(second_left, last_flags, first, made_cut{planned, second, flags});
                }
              }
            });
      }
    }
  }

  // Mounts what a cut left, judges it and mounts once more. Returns the mutations of the check.
  uint64_t try_check(const std::vector<uint8_t>& left, uint32_t flags, const made_cut& first,
                     const std::optional<made_cut>& second) {
    rig& flash = player_.flash();
    flash.restore(left);
    flash.supply().restore();
    const int32_t result = flash.mount(flags);
    const uint64_t mutations = flash.supply().mutations();
    std::set<outcome> found;
    if (result != 0) {
      found.insert(outcome::check_refuses);
    } else {
      found = judge_tree(what_, flash.walk(), player_.expected());
      flash.unmount();
      const std::vector<uint8_t> settled = flash.snapshot();
      if (flash.mount(flags) != 0 || flash.snapshot() != settled) {
        found.insert(outcome::not_settled);
      }
    }
    record(found, flags == flashfs_check_quick, first, second);
    return mutations;
  }

  void record(const std::set<outcome>& found, bool quick, const made_cut& first,
              const std::optional<made_cut>& second) {
    counts_.clean += found.empty() ? 1 : 0;
    std::string unexplained;
    for (const outcome kind : found) {
      (quick ? counts_.quick : counts_.full)[kind]++;
      const std::optional<cause> why = explain(
          kind, {quick, second && second->check_flags == flashfs_check_quick}, what_.own_causes,
          first.where, second ? std::optional(second->where) : std::nullopt);
      if (!why) {
        unexplained += std::string(" ") + outcome_name(kind);
        continue;
      }
      cause_counts& counts = counts_.causes[*why];
      (quick ? counts.quick : counts.full)[kind]++;
      if (!second) {
        counts.window.insert(first.planned.mutation);
      }
    }
    if (!unexplained.empty()) {
      counts_.unexplained++;
      if (counts_.unexplained_samples.size() < max_samples) {
        counts_.unexplained_samples.push_back(arguments_of(quick, first, second) + ":" +
                                              unexplained);
      }
    }
  }

  std::string arguments_of(bool quick, const made_cut& first,
                           const std::optional<made_cut>& second) const {
    std::string arguments = "play '" + what_.name + "' " + cut_text(first.planned);
    if (second) {
      arguments += check_text(second->check_flags) + cut_text(second->planned);
    }
    return arguments + check_text(quick ? flashfs_check_quick : flashfs_check_full);
  }

  static const char* check_text(uint32_t flags) {
    return flags == flashfs_check_quick ? " quick " : " full ";
  }

  const operation& what_;
  cut_player player_;
  cut_counts counts_;
  std::unordered_set<uint64_t> seen_;
  std::unordered_set<uint64_t> seen_second_;
};

std::string listing(const tree& nodes) {
  std::string text;
  for (const auto& [path, node] : nodes) {
    text += "    " + path + (is_directory_mode(node.mode) ? "/" : "") + ", " +
            std::to_string(node.content.size()) + " bytes\n";
  }
  return text;
}

}  // namespace

std::string cut_text(const planned_cut& planned) {
  const std::string text = std::to_string(planned.mutation) + " " + cut_kind_name(planned.kind);
  return planned.variant == 0 ? text : text + "+" + std::to_string(planned.variant);
}

bool parse_cut(const char* mutation, const char* kind, planned_cut* planned) {
  const std::string words(kind);
  const size_t plus = std::min(words.find('+'), words.size());
  planned->mutation = strtoull(mutation, nullptr, 10);
  planned->variant = plus < words.size() ? strtoull(kind + plus + 1, nullptr, 10) : 0;
  for (const sim::cut_kind each : cut_kinds) {
    if (words.substr(0, plus) == cut_kind_name(each)) {
      planned->kind = each;
      return planned->mutation != 0;
    }
  }
  return false;
}

std::vector<uint8_t> left_by_power_cut(const operation& what, planned_cut planned) {
  cut_player player(what);
  player.play(planned);
  return player.flash().snapshot();
}

std::string ranges_text(const std::set<uint64_t>& numbers) {
  std::string text;
  for (auto first = numbers.begin(); first != numbers.end();) {
    auto last = first;
    while (std::next(last) != numbers.end() && *std::next(last) == *last + 1) {
      ++last;
    }
    text += (text.empty() ? "" : ", ") + std::to_string(*first);
    text += first == last ? "" : "-" + std::to_string(*last);
    first = std::next(last);
  }
  return text;
}

uint64_t count_mutations(const operation& what) {
  return cut_player(what).mutations();
}

std::set<outcome> judge(const operation& what, const tree& now, const tree& before,
                        const tree& after) {
  return judge_tree(what, now, {before, after});
}

cut_counts try_power_cuts(const operation& what, uint64_t stride, uint64_t second_stride) {
  return cut_run(what).run(stride, second_stride);
}

std::string play_power_cut(const operation& what, planned_cut first,
                           std::optional<planned_check> cut_check, uint32_t check_flags) {
  constexpr int max_mounts = 10;
  cut_player player(what);
  rig& flash = player.flash();
  player.play(first);
  if (cut_check) {
    player.play_check(flash.snapshot(), cut_check->flags, cut_check->planned);
  }
  std::string text;
  for (int i = 1; i <= max_mounts; i++) {
    const std::vector<uint8_t> left = flash.snapshot();
    const int32_t result = flash.mount(check_flags);
    text += "mount " + std::to_string(i) + (result == 0 ? "\n" : " fails\n") + flash.take_output();
    if (result == 0) {
      const tree found = flash.walk();
      text += listing(found);
      for (const outcome kind : judge_tree(what, found, player.expected())) {
        text += std::string("  ") + outcome_name(kind) + "\n";
      }
    }
    flash.unmount();
    if (flash.snapshot() == left) {
      break;
    }
  }
  return text;
}

}  // namespace reliability
