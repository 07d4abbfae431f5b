#include "reliability/rescue_run.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <set>
#include <unordered_set>
#include <utility>

#include "flashfs/check_flags.h"
#include "image/rescue.h"
#include "image/rescue_evidence.h"
#include "reliability/cut_player.h"
#include "reliability/judge.h"
#include "reliability/left_flash.h"
#include "reliability/rescue_state.h"

namespace reliability {

namespace {

constexpr int64_t time_of_preparation = 1800000000;
constexpr int64_t time_of_operation = time_of_preparation + 1000;

// The last line of a check is the only one that a mended flash may bring.
constexpr const char* closing_line = "flashfs fsck took";

// One flash after one recovery, not judged yet: the states between are known only at the end.
struct observation {
  left_by left;
  recovery how;
  bool refused = false;
  std::string untouched_lost = {};  // the paths of such, each behind a blank
  std::string unexpected_name = {};
  bool not_silent = false;
  const tree* touched = nullptr;
  std::string played;
};

operation at_times(operation what, const std::function<void(int64_t)>& set_clock) {
  what.prepare = [prepare = what.prepare, set_clock](rig& flash) {
    set_clock(time_of_preparation);
    prepare(flash);
  };
  what.act = [act = what.act, set_clock](rig& flash) {
    set_clock(time_of_operation);
    return act(flash);
  };
  return what;
}

image::rescue_plan plan_of(rig& flash, const std::vector<uint8_t>& left) {
  return image::plan_rescue(left, flash.device().blocks(),
                            {.now = static_cast<uint32_t>(time_of_operation)});
}

class rescue_run {
 public:
  rescue_run(const operation& what, const std::function<void(int64_t)>& set_clock)
      : what_(at_times(what, set_clock)),
        set_clock_(set_clock),
        player_(what_),
        judge_(touched_of(player_.expected().before), touched_of(player_.expected().after)) {
    note_erases();
  }

  rescue_rows run(const rescue_sample& sample,
                  const std::function<void(const std::string&)>& tell) {
    sample_ = sample;
    std::set<uint64_t> mutations = player_.edges();
    for (uint64_t n = 1; n <= player_.mutations(); n += sample.stride) {
      mutations.insert(n);
    }
    player_.try_cuts(mutations, &seen_, [&](const cut_flash& left) { look_at_first(left); });
    rescue_rows rows;
    for (const observation& each : observed_) {
      count(each, &rows, tell);
    }
    return rows;
  }

 private:
  void note_erases() {
    rig& flash = player_.flash();
    flash.device().watch([&](const sim::mutation& next) {
      if (next.is_erase && first_erase_ == 0) {
        first_erase_ = flash.supply().mutations() + 1;
      }
    });
    player_.play({0, sim::cut_kind::before});
    flash.device().watch({});
    flash.supply().restore();
    flash.unmount();
  }

  void look_at_first(const cut_flash& left) {
    const bool erased = first_erase_ != 0 && left.planned.mutation > first_erase_;
    const std::string played = "'" + what_.name + "' " + cut_text(left.planned);
    recover(left.contents, erased ? left_by::cut_after_erase : left_by::first_cut, played);
    states_++;
    if (states_ % sample_.second_of != 0) {
      return;
    }
    if (sample_.rescue_stride != 0) {
      cut_rescue(left, played);
    }
    if (sample_.second_stride == 0) {
      return;
    }
    for (const uint32_t flags : {flashfs_check_quick, flashfs_check_full}) {
      const bool quick = flags == flashfs_check_quick;
      std::set<uint64_t> mutations;
      for (uint64_t m = 1 + states_ % sample_.second_stride; m <= check_mutations_[quick ? 0 : 1];
           m += sample_.second_stride) {
        mutations.insert(m);
      }
      player_.try_cuts_of_check(
          left.contents, flags, mutations, &seen_, [&](const cut_flash& second) {
            recover(second.contents, quick ? left_by::cut_quick_check : left_by::cut_full_check,
                    played + (quick ? " quick " : " full ") + cut_text(second.planned));
          });
    }
  }

  // Cuts the rescue itself at its mutations, in all ways, and rescues what that leaves.
  void cut_rescue(const cut_flash& left, const std::string& played) {
    const std::vector<image::rescue_step> steps = plan_of(player_.flash(), left.contents).steps;
    const uint64_t mutations = carry_out(steps, left.contents, {0, sim::cut_kind::before});
    for (uint64_t m = 1 + states_ % sample_.rescue_stride; m <= mutations;
         m += sample_.rescue_stride) {
      for (const sim::cut_kind kind :
           {sim::cut_kind::before, sim::cut_kind::during, sim::cut_kind::during_noise}) {
        const planned_cut planned = {m, kind};
        carry_out(steps, left.contents, planned);
        const std::vector<uint8_t> contents = player_.flash().snapshot();
        if (seen_.insert(hash_of(contents.data(), contents.size())).second) {
          check(rescued(player_.flash(), contents), left_by::cut_rescue, recovery::rescue,
                played + " rescue " + cut_text(planned));
        }
      }
    }
  }

  // Takes the steps of a rescue on a flash whose power fails; returns the mutations. The flash has
  // its power back afterwards.
  uint64_t carry_out(const std::vector<image::rescue_step>& steps,
                     const std::vector<uint8_t>& contents, planned_cut planned) {
    rig& flash = player_.flash();
    flash.restore(contents);
    flash.supply().restore();
    if (planned.mutation != 0) {
      flash.supply().cut_at(planned.mutation, planned.kind, planned.mutation);
    }
    for (const image::rescue_step& each : steps) {
      if (each.is_erase) {
        flash.device().erase(each.offset);
      } else {
        flash.device().write(each.offset, static_cast<uint32_t>(each.bytes.size()),
                             each.bytes.data());
      }
    }
    const uint64_t mutations = flash.supply().mutations();
    flash.supply().restore();
    return mutations;
  }

  void recover(const std::vector<uint8_t>& left, left_by kind, const std::string& played) {
    set_clock_(
        time_of_operation);  // what a check or the rescue makes has the date of the operation
    check_mutations_[0] = check(left, kind, recovery::quick, played);
    check_mutations_[1] = check(left, kind, recovery::full, played);
    const std::vector<uint8_t> mended = rescued(player_.flash(), left);
    check(mended, kind, recovery::rescue, played);
  }

  // Mounts a flash and looks at it; returns how often the check has changed it. One that has been
  // rescued gets the full check, which must be silent, and then the quick one.
  uint64_t check(const std::vector<uint8_t>& contents, left_by kind, recovery how,
                 const std::string& played) {
    rig& flash = player_.flash();
    observation seen = {.left = kind, .how = how, .played = played};
    flash.restore(contents);
    flash.supply().restore();
    bool failed =
        flash.mount(how == recovery::quick ? flashfs_check_quick : flashfs_check_full) != 0;
    const uint64_t mutations = flash.supply().mutations();
    if (how == recovery::rescue) {
      const std::string said = flash.take_output();
      seen.not_silent = mutations != 0 || std::count(said.begin(), said.end(), '\n') != 1 ||
                        said.find(closing_line) == std::string::npos;
      failed = flash.mount(flashfs_check_quick) != 0 || failed;
    }
    seen.refused = failed;
    if (!failed) {
      compare(flash.walk(), &seen);
      if (how == recovery::full && mutations == 0) {
        judge_.note_quiet(seen.touched);
      }
    }
    flash.unmount();
    observed_.push_back(std::move(seen));
    return mutations;
  }

  void compare(const tree& now, observation* seen) {
    const tree& before = player_.expected().before;
    for (const auto& [path, node] : now) {
      if (is_touched(what_, path)) {
        continue;
      }
      const auto old = before.find(path);
      if (old == before.end()) {
        seen->unexpected_name += " " + path;
      } else if (is_directory_mode(old->second.mode) ? old->second.mode != node.mode
                                                     : !(old->second == node)) {
        seen->untouched_lost += " " + path;
      }
    }
    for (const auto& [path, node] : before) {
      if (!is_touched(what_, path) && now.count(path) == 0) {
        seen->untouched_lost += " " + path;
      }
    }
    seen->touched = judge_.keep(touched_of(now));
  }

  tree touched_of(const tree& nodes) const {
    tree found;
    for (const auto& [path, node] : nodes) {
      if (is_touched(what_, path)) {
        found[path] = node;
      }
    }
    return found;
  }

  void count(const observation& each, rescue_rows* rows,
             const std::function<void(const std::string&)>& tell) const {
    rescue_counts one;
    one.states = 1;
    one.refused = each.refused ? 1 : 0;
    one.untouched_lost = each.untouched_lost.empty() ? 0 : 1;
    one.unexpected_names = each.unexpected_name.empty() ? 0 : 1;
    one.not_silent = each.not_silent ? 1 : 0;
    std::string found = each.refused ? " refused" : "";
    found += each.untouched_lost.empty() ? "" : " untouched-lost" + each.untouched_lost;
    found += each.unexpected_name.empty() ? "" : " unexpected-name" + each.unexpected_name;
    found += each.not_silent ? " not-silent" : "";
    if (!each.refused) {
      const touched_state state = judge_.state_of(each.touched);
      one.touched[state] = 1;
      if (state == touched_state::by_sector || state == touched_state::neither) {
        found += std::string(" ") + touched_state_name(state);
        for (const auto& [path, node] : *each.touched) {
          found += " " + path + ":" + std::to_string(node.content.size());
        }
      }
    }
    (*rows)[{each.left, each.how}].add(one);
    if (each.how == recovery::rescue && !found.empty()) {
      tell(each.played + " |" + found);
    }
  }

  operation what_;
  const std::function<void(int64_t)>& set_clock_;
  cut_player player_;
  touched_judge judge_;
  rescue_sample sample_;
  uint64_t first_erase_ = 0;
  uint64_t states_ = 0;
  uint64_t check_mutations_[2] = {};
  std::vector<observation> observed_;
  std::unordered_set<uint64_t> seen_;
};

bool is_of_whole_device(const operation& what) {
  return what.name == "format" || what.name == "raw write";
}

// Every block, and every slot and sector that is not erased, a line each.
std::string records_text(rig& flash) {
  const std::vector<uint8_t> left = flash.snapshot();
  const image::rescuing::evidence found =
      image::rescuing::read_evidence(left, flash.device().blocks());
  std::string text;
  for (const image::rescuing::block_record& each : found.blocks) {
    text += "block " + std::to_string(&each - found.blocks.data()) + ": state " +
            std::to_string(each.state) + (each.header_good ? "" : ", no good header") + "\n";
  }
  for (const image::rescuing::slot_record& each : found.slots) {
    if (each.kind != image::rescuing::slot_kind::erased) {
      text += std::to_string(each.at.block) + "/" + std::to_string(each.at.sector) + "/" +
              std::to_string(each.index) + ": slot of kind " +
              std::to_string(static_cast<int>(each.kind)) + ", directory " +
              std::to_string(each.slot.dir_fileid) + " (" + std::to_string(each.fitting) +
              "), number " + std::to_string(each.slot.seq_no) + ", entry " +
              std::to_string(each.slot.entry_fileid) + ", date " + std::to_string(each.slot.date) +
              " " + each.name() + "\n";
    }
  }
  for (const image::rescuing::sector_record& each : found.sectors) {
    if (each.kind != image::rescuing::sector_kind::erased) {
      text += std::to_string(each.at.block) + "/" + std::to_string(each.at.sector) + ": kind " +
              std::to_string(static_cast<int>(each.kind)) + ", owner " +
              std::to_string(each.owner) + " (" + std::to_string(each.fitting) + "), number " +
              std::to_string(each.number) + ", " + std::to_string(each.count) + " bytes\n";
    }
  }
  return text;
}

}  // namespace

std::vector<uint8_t> rescued(rig& flash, const std::vector<uint8_t>& left) {
  return plan_of(flash, left).mended;
}

std::string play_rescue(const operation& what, planned_cut first,
                        const std::optional<planned_check>& cut_check,
                        const std::function<void(int64_t)>& set_clock) {
  const operation timed = at_times(what, set_clock);
  cut_player player(timed);
  rig& flash = player.flash();
  player.play(first);
  if (cut_check) {
    player.play_check(flash.snapshot(), cut_check->flags, cut_check->planned);
  }
  const image::rescue_plan plan = image::plan_rescue(
      flash.snapshot(), flash.device().blocks(), {.now = static_cast<uint32_t>(time_of_operation)});
  std::string text = records_text(flash);
  for (const image::rescue_decision& each : plan.decisions) {
    const auto place = [](const char* word, const std::optional<uint32_t>& number) {
      return number ? word + std::to_string(*number) + ", " : "";
    };
    text += std::string(each.code) + ", " + image::certainty_text(each.sure) + ": " +
            place("block ", each.block) + place("sector ", each.sector) +
            place("slot ", each.slot) + "file " + std::to_string(each.fileid) + " " + each.path +
            ": " + each.what + ": " + each.evidence + "\n";
  }
  return text + std::to_string(plan.steps.size()) + " steps" +
         (plan.complete ? "\n" : ", not complete\n");
}

const rescue_sample* find_rescue_sample(const std::string& name) {
  static const std::map<std::string, rescue_sample> samples = {
      {"all", {.stride = 1, .second_stride = 13, .second_of = 1, .rescue_stride = 61}},
      {"suite", {.stride = 97, .second_stride = 211, .second_of = 10, .rescue_stride = 211}},
      {"large", {.stride = 100, .large_blocks = true}},
  };
  const auto found = samples.find(name);
  return found == samples.end() ? nullptr : &found->second;
}

rescue_rows try_rescue(const operation& what, const rescue_sample& sample,
                       const std::function<void(int64_t)>& set_clock,
                       const std::function<void(const std::string&)>& tell) {
  operation tried = what;
  for (test_support::ram_block& block : tried.blocks) {
    block.size = sample.large_blocks ? test_support::ram_block().size : block.size;
  }
  return rescue_run(tried, set_clock).run(sample, tell);
}

std::vector<operation> rescue_operations() {
  std::vector<operation> chosen = power_cut_operations();
  std::erase_if(chosen, is_of_whole_device);
  return chosen;
}

std::vector<operation> further_rescue_operations() {
  const std::vector<operation> all = power_cut_operations();
  std::vector<operation> chosen;
  std::copy_if(all.begin(), all.end(), std::back_inserter(chosen), is_of_whole_device);
  const auto add = [&](const char* name, const std::string& path,
                       const std::function<int32_t(rig&)>& act) {
    operation made = *std::find_if(all.begin(), all.end(), [](const operation& each) {
      return each.name == "overwrite in the middle";
    });
    made.name = name;
    made.touched = {path};
    made.act = act;
    chosen.push_back(std::move(made));
  };
  add("overwrite three sectors", "file",
      [](rig& flash) { return flash.write("file", pattern(5000, 77), ifs_open_write); });
  add("overwrite and extend", "file",
      [](rig& flash) { return flash.write("file", pattern(6000, 77), ifs_open_write, 1000); });
  add("write anew", "file", [](rig& flash) {
    return flash.write("file", pattern(5000, 77), ifs_open_write | ifs_open_truncate);
  });
  return chosen;
}

}  // namespace reliability
