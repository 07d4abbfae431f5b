// Plays the cuts and judges what they leave.
#include "reliability/power_cuts.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "flashfs/check_flags.h"
#include "flashfs/flashfs.h"
#include "flashfs/format.h"
#include "ifs/types.h"
#include "reliability/cut_player.h"
#include "reliability/judge.h"
#include "reliability/left_flash.h"
#include "reliability/use.h"
#include "sim/flash.h"
#include "volume/volume.h"

namespace reliability {

namespace {

constexpr size_t max_samples = 40;

constexpr sim::cut_kind cut_kinds[] = {sim::cut_kind::before, sim::cut_kind::during,
                                       sim::cut_kind::during_noise};
const char* cut_kind_name(sim::cut_kind kind) {
  return kind == sim::cut_kind::before   ? "before"
         : kind == sim::cut_kind::during ? "during"
                                         : "during_noise";
}

// Tries an operation's cuts and counts what they leave.
class cut_run {
 public:
  explicit cut_run(const operation& what) : what_(what), player_(what) {
    counts_.mutations = player_.mutations();
  }

  cut_counts run(const cut_plan& plan) {
    plan_ = plan;
    counts_.completed_quick = look_at_completed(flashfs_check_quick);
    counts_.completed_full = look_at_completed(flashfs_check_full);
    std::set<uint64_t> mutations = player_.edges();
    for (uint64_t n = 1; n <= counts_.mutations; n += plan.stride) {
      mutations.insert(n);
    }
    player_.try_cuts(mutations, &seen_, [&](const cut_flash& left) { try_checks(left); });
    return counts_;
  }

 private:
  // What a check of a flash finds.
  struct finding {
    std::set<outcome> found;
    uint64_t mutations = 0;  // of the check

    bool operator==(const finding&) const = default;
  };

  struct made_cut {
    planned_cut planned;
    cut where;
    uint32_t check_flags = flashfs_check_quick;  // of the check that was cut
  };

  // How the flash after the whole operation differs from memory, and what is wrong in its use.
  std::string look_at_completed(uint32_t flags) {
    rig& flash = player_.flash();
    player_.play({0, sim::cut_kind::before});
    const uint64_t room = room_of(flash);
    flash.unmount();
    if (flash.mount(flags) != 0) {
      return "    the check refuses\n";
    }
    std::string wrong = difference_of_trees(flash.walk(), player_.expected().after, {});
    if (room_of(flash) != room) {
      wrong += "    room for " + std::to_string(room_of(flash)) + " sectors, not " +
               std::to_string(room) + "\n";
    }
    return wrong + use_flash(flash).story;
  }

  // Sectors that are free.
  static uint64_t room_of(rig& flash) {
    const rig::capture quiet(flash);
    ppc_statfs space = {};
    return flash.files().statfs(&space) == 0 ? space.free_blocks : UINT64_MAX;
  }

  void try_checks(const cut_flash& left) {
    const made_cut first = {left.planned, left.where};
    const uint64_t meaning = meaning_of_contents(left.contents);
    for (const uint32_t flags : {flashfs_check_quick, flashfs_check_full}) {
      counts_.cuts++;
      const finding& checked = look_at(left.contents, meaning, flags, false);
      record(checked.found, flags, first, std::nullopt);
      std::set<uint64_t> mutations;
      for (uint64_t m = 1; plan_.second_stride != 0 && m <= checked.mutations;
           m += plan_.second_stride) {
        mutations.insert(m);
      }
      player_.try_cuts_of_check(
          left.contents, flags, mutations, &seen_second_, [&](const cut_flash& second) {
            try_last_checks(first, {second.planned, second.where, flags}, second.contents);
          });
    }
  }

  void try_last_checks(const made_cut& first, const made_cut& second,
                       const std::vector<uint8_t>& left) {
    counts_.second_cuts += 2;
    const uint64_t meaning = meaning_of_contents(left);
    for (const uint32_t flags : {flashfs_check_quick, flashfs_check_full}) {
      record(look_at(left, meaning, flags, true).found, flags, first, second);
    }
  }

  uint64_t meaning_of_contents(const std::vector<uint8_t>& contents) {
    player_.flash().restore(contents);
    return meaning_of(player_.flash().device());
  }

  // What a check finds of a flash. Flashes that differ only in what is obsolete are the same to it;
  // one in a few of them is looked at all the same, and what is found must be, too.
  const finding& look_at(const std::vector<uint8_t>& left, uint64_t meaning, uint32_t flags,
                         bool two_cuts) {
    constexpr uint64_t looked_at_again = 16;
    auto& known = (flags == flashfs_check_quick ? known_quick_ : known_full_)[two_cuts ? 1 : 0];
    const bool used = plan_.used == uses::all || (plan_.used == uses::after_one_cut && !two_cuts);
    const auto [place, is_new] = known.try_emplace(meaning);
    if (is_new) {
      place->second = mount_and_judge(left, flags, used);
    } else if (++looked_up_ % looked_at_again == 0 &&
               mount_and_judge(left, flags, used) != place->second) {
      note_unexplained("'" + what_.name + "': a check depends on what is obsolete");
    }
    return place->second;
  }

  // Mounts what a cut left, judges it, mounts once more and uses it.
  finding mount_and_judge(const std::vector<uint8_t>& left, uint32_t flags, bool used) {
    rig& flash = player_.flash();
    flash.restore(left);
    const std::set<std::string> whole = files_that_stand_whole();
    flash.supply().restore();
    finding result;
    const int32_t failure = flash.mount(flags);
    result.mutations = flash.supply().mutations();
    if (failure != 0) {
      result.found.insert(outcome::check_refuses);
      return result;
    }
    const tree now = flash.walk();
    result.found = judge_tree(what_, now, player_.expected());
    if (std::any_of(whole.begin(), whole.end(), [&](const std::string& path) {
          const auto found = now.find(path);
          return found == now.end() || found->second != player_.expected().before.at(path);
        })) {
      result.found.insert(outcome::lost_though_whole);
    }
    flash.unmount();
    result.found.merge(look_at_recovered(flags, used));
    return result;
  }

  // Of an image that is written: what its part on flash holds whole.
  std::set<std::string> files_that_stand_whole() {
    std::set<std::string> whole;
    if (what_.own_causes.count(cause::image_incomplete) != 0) {
      for (const auto& [path, node] : player_.expected().before) {
        if (is_regular_mode(node.mode) &&
            stands_whole(player_.flash().device(), path, node.content)) {
          whole.insert(path);
        }
      }
    }
    return whole;
  }

  // Checks the unmounted flash once more, which must change nothing, and uses it. One that means
  // the same as another is not looked at again.
  std::set<outcome> look_at_recovered(uint32_t flags, bool used) {
    rig& flash = player_.flash();
    const uint64_t meaning = meaning_of(flash.device());
    auto& known = flags == flashfs_check_quick ? known_settled_quick_ : known_settled_full_;
    const auto [settled, is_new] = known.try_emplace(meaning, true);
    if (is_new) {
      const std::vector<uint8_t> before = flash.snapshot();
      settled->second = flash.mount(flags) == 0 && flash.snapshot() == before;
    }
    std::set<outcome> found = used ? use(meaning, flags) : std::set<outcome>{};
    if (!settled->second) {
      found.insert(outcome::not_settled);
    }
    return found;
  }

  std::set<outcome> use(uint64_t meaning, uint32_t flags) {
    const auto [place, is_new] = known_uses_.try_emplace(meaning);
    rig& flash = player_.flash();
    if (!is_new || (!is_mounted(flash) && flash.mount(flags) != 0)) {
      return place->second;
    }
    const use_result used = use_flash(flash);
    counts_.used++;
    counts_.short_of_room += used.short_of_room ? 1 : 0;
    counts_.reclaimed += used.reclaimed ? 1 : 0;
    if (used.fails) {
      place->second.insert(outcome::fails_in_use);
    }
    if (used.differs) {
      place->second.insert(outcome::differs_in_use);
    }
    return place->second;
  }

  static bool is_mounted(rig& flash) {
    return flash.fs() != nullptr && flash.fs()->ready != 0;
  }

  void record(const std::set<outcome>& found, uint32_t flags, const made_cut& first,
              const std::optional<made_cut>& second) {
    const bool quick = flags == flashfs_check_quick;
    counts_.clean += found.empty() ? 1 : 0;
    std::string unexplained;
    std::optional<cause> reason;  // of what was found before the flash was used
    for (const outcome kind : found) {
      (quick ? counts_.quick : counts_.full)[kind]++;
      std::optional<cause> why = cause_of(kind, quick, first, second);
      // What was found amiss already may come to more when it is used.
      why = !why && is_of_use(kind) ? reason : why;
      reason = reason ? reason : why;
      exception_counts& counts = counts_.exceptions[{why, second.has_value(), quick, kind}];
      counts.count++;
      counts.window.insert(first.planned.mutation);
      if (second) {
        counts.second_window.insert(second->planned.mutation);
      }
      if (!why) {
        unexplained += std::string(" ") + outcome_name(kind);
        continue;
      }
      cause_counts& by_cause = counts_.causes[*why];
      (quick ? by_cause.quick : by_cause.full)[kind]++;
      if (!second) {
        by_cause.window.insert(first.planned.mutation);
      }
    }
    if (!unexplained.empty()) {
      note_unexplained(arguments_of(quick, first, second) + ":" + unexplained);
    }
  }

  std::optional<cause> cause_of(outcome kind, bool quick, const made_cut& first,
                                const std::optional<made_cut>& second) {
    return explain(kind, {quick, second && second->check_flags == flashfs_check_quick},
                   what_.own_causes, first.where,
                   second ? std::optional(second->where) : std::nullopt);
  }

  void note_unexplained(const std::string& sample) {
    counts_.unexplained++;
    if (counts_.unexplained_samples.size() < max_samples) {
      counts_.unexplained_samples.push_back(sample);
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
  cut_plan plan_;
  cut_counts counts_;
  // By meaning; after one cut and after two.
  std::unordered_map<uint64_t, finding> known_quick_[2];
  std::unordered_map<uint64_t, finding> known_full_[2];
  // By the meaning of what was recovered.
  std::unordered_map<uint64_t, bool> known_settled_quick_;
  std::unordered_map<uint64_t, bool> known_settled_full_;
  std::unordered_map<uint64_t, std::set<outcome>> known_uses_;
  uint64_t looked_up_ = 0;
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

std::string story_of_use(rig& flash, uint32_t check_flags) {
  flash.mount(check_flags);
  const use_result used = use_flash(flash);
  return "used: " + std::string(used.is_sound() ? "sound" : "not sound") +
         (used.short_of_room ? ", short of room" : "") + (used.reclaimed ? ", reclaimed" : "") +
         "\n" + used.story;
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

cut_counts try_power_cuts(const operation& what, const cut_plan& plan) {
  return cut_run(what).run(plan);
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
      return result == 0 ? text + story_of_use(flash, check_flags) : text;
    }
  }
  return text;
}

}  // namespace reliability
