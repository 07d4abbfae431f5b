// Plays the failing calls and judges what they leave.
#include "reliability/faults.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <set>

#include "flashfs/io.h"
#include "reliability/judge.h"
#include "reliability/left_flash.h"

namespace reliability {

namespace {

using test_support::flash_call;

constexpr flash_return_code codes[] = {flash_operation_failed, flash_illegal_operation,
                                       flash_poll_timeout};
constexpr const char* down_line = "flashfs[0]: filesystem marked down.  Use \"fsck\" to recover.\n";
constexpr size_t max_samples = 20;

struct planned_fault {
  uint64_t call;  // 0: none
  flash_return_code code;
  bool and_after;
};

const char* message_of(flash_call kind) {
  switch (kind) {
    case flash_call::read:
      return "flashfs[0]: reading from flash handle 0x";
    case flash_call::write:
      return "flashfs[0]: writing to flash handle 0x";
    case flash_call::erase:
      return "flashfs[0]: erasing block, flash handle 0x";
    case flash_call::any:
      break;
  }
  return "";
}

// Whether the text has the line of a driver's failure: what failed, and with which code.
bool has_message(const std::string& said, flash_call kind, flash_return_code code) {
  const size_t line = said.find(message_of(kind));
  if (line == std::string::npos) {
    return false;
  }
  const std::string rest = said.substr(line, said.find('\n', line) - line);
  const std::string text = std::string(": ") + flash_return_code_text(static_cast<uint32_t>(code));
  return rest.size() >= text.size() &&
         rest.compare(rest.size() - text.size(), text.size(), text) == 0;
}

class fault_run {
 public:
  explicit fault_run(const fault_operation& each) : each_(each), rig_(each.what.blocks) {
    rig_.restore({});
    {
      const rig::capture quiet(rig_);
      each.what.prepare(rig_);
    }
    before_ = rig_.walk();
    rig_.unmount();
    if (each.what.damage) {
      each.what.damage(rig_);
    }
    start_ = rig_.snapshot();
    play({0, flash_ok, false});
    counts_.calls = rig_.device().counts().calls();
    after_ = rig_.walk();
  }

  fault_counts run(uint64_t stride) {
    for (uint64_t n = 1; n <= counts_.calls; n += stride) {
      for (const flash_return_code code : codes) {
        for (const bool and_after : {false, true}) {
          try_fault({n, code, and_after});
        }
      }
    }
    return counts_;
  }

 private:
  void try_fault(const planned_fault& fault) {
    counts_.faults++;
    play(fault);
    std::string wrong = judge_ending(fault.code);
    wrong += judge_flash();
    if (wrong.empty()) {
      return;
    }
    counts_.unexpected++;
    if (counts_.unexpected_samples.size() < max_samples) {
      counts_.unexpected_samples.push_back(
          each_.what.name + ": call " + std::to_string(fault.call) + ", code " +
          std::to_string(fault.code) + (fault.and_after ? " and all after:" : ":") + wrong);
    }
  }

  // Runs the operation on the prepared flash with one of its driver calls failing.
  void play(const planned_fault& fault) {
    rig_.restore(start_);
    if (each_.what.damage) {
      rig_.register_only();
    } else {
      rig_.mount(flashfs_check_full);
    }
    rig_.take_output();
    rig_.device().clear_counts();
    rig_.device().fail(flash_call::any, fault.call, fault.code, fault.and_after);
    const rig::capture quiet(rig_);
    errno = 0;
    result_ = each_.what.act(rig_);
    error_ = errno;
    rig_.device().fail(flash_call::any, 0, flash_ok);
  }

  std::optional<ending> ending_of(bool said_down) {
    const bool up = rig_.fs()->ready != 0;
    if (result_ >= 0) {
      return up && !said_down ? std::optional(ending::carries_on) : std::nullopt;
    }
    if (error_ == ENOSPC) {
      return up && !said_down ? std::optional(ending::no_space) : std::nullopt;
    }
    if (error_ == 0) {
      return up && !said_down ? std::optional(ending::step_fails) : std::nullopt;
    }
    if (error_ != EIO) {
      return std::nullopt;
    }
    if (said_down) {
      return up ? ending::up_again : ending::marked_down;
    }
    return up ? ending::step_fails : ending::check_fails;
  }

  // What is wrong with how the operation ended; empty when nothing is.
  std::string judge_ending(flash_return_code code) {
    const std::string said = rig_.take_output();
    std::string wrong;
    if (!has_message(said, rig_.device().failed_kind(), code)) {
      wrong += " no message of the driver's failure;";
    }
    if (rig_.fs()->sctr_bufs_allocated != 0) {
      wrong += " a sector buffer is out;";
    }
    const std::optional<ending> how = ending_of(said.find(down_line) != std::string::npos);
    if (how && each_.endings.count(*how) != 0) {
      counts_.endings[*how]++;
      return wrong;
    }
    return wrong + " " + (how ? ending_name(*how) : "an ending of no kind") + ", result " +
           std::to_string(result_) + ", errno " + std::to_string(error_) + ";";
  }

  // What is wrong with what the operation left; empty when nothing is.
  std::string judge_flash() {
    std::string wrong;
    rig_.unmount();
    if (rig_.device().deviations() != 0) {
      wrong += " an access that no correct file system makes;";
    }
    for (const uint32_t flags : {flashfs_check_full, flashfs_check_quick}) {
      const std::vector<uint8_t> left = rig_.snapshot();
      wrong += judge_mount(flags);
      rig_.unmount();
      rig_.restore(left);
    }
    return wrong;
  }

  std::string judge_mount(uint32_t flags) {
    const bool unfinished = has_unfinished_sector(rig_.device());
    // A slot is written in parts, where words of it stay erased: a part that fails leaves what a
    // power cut leaves there.
    causes_ = each_.what.own_causes;
    if (has_unfinished_slot(rig_.device())) {
      causes_.insert(cause::half_written_slot);
    }
    if (rig_.mount(flags) != 0) {
      return explained(outcome::check_refuses, flags) ? "" : " the next mount fails;";
    }
    std::string wrong;
    for (const outcome kind : judge_tree(each_.what, rig_.walk(), {before_, after_})) {
      if (flags == flashfs_check_quick && unfinished && kind == outcome::touched_dropped) {
        counts_.dropped++;
      } else if (!explained(kind, flags)) {
        wrong += std::string(" ") + outcome_name(kind) + ";";
      }
    }
    return wrong;
  }

  // Whether a check may find this because the operation ended in its middle.
  bool explained(outcome kind, uint32_t flags) {
    const bool is_explained = std::any_of(causes_.begin(), causes_.end(), [&](cause why) {
      return outcomes_of(why, flags == flashfs_check_quick).count(kind) != 0;
    });
    counts_.excused += is_explained ? 1 : 0;
    return is_explained;
  }

  const fault_operation& each_;
  std::set<cause> causes_;  // of what a check may find
  rig rig_;
  std::vector<uint8_t> start_;
  tree before_;
  tree after_;
  fault_counts counts_;
  int32_t result_ = 0;
  int error_ = 0;
};

}  // namespace

const char* ending_name(ending how) {
  switch (how) {
    case ending::marked_down:
      return "marked down";
    case ending::check_fails:
      return "check fails";
    case ending::up_again:
      return "up again";
    case ending::no_space:
      return "no space";
    case ending::step_fails:
      return "step fails";
    case ending::carries_on:
      return "carries on";
  }
  return "";
}

fault_counts try_faults(const fault_operation& each, uint64_t stride) {
  return fault_run(each).run(stride);
}

}  // namespace reliability
