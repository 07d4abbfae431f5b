// Plays the failing calls and judges what they leave.
#include "reliability/faults.h"

#include <algorithm>

namespace reliability {

namespace {

using test_support::flash_call;

constexpr flash_return_code codes[] = {flash_operation_failed, flash_illegal_operation,
                                       flash_poll_timeout};
constexpr const char* down_line = "filesystem marked down.  Use \"fsck\" to recover.";
constexpr size_t max_samples = 20;

// One after another, as the commands do; nothing is mounted again in between.
void read_everything(rig&) {
  ppc_dirent entry;
  ppc_stat status;
  ppc_statfs space;
  uint8_t buffer[512];
  int32_t fd = ifs_open("bootflash:/", ifs_open_read, 0);
  while (fd >= 0 && ifs_getdents(fd, &entry, sizeof(entry)) > 0) {
    ifs_stat(full_path(entry.name).c_str(), &status);
  }
  ifs_close(fd);
  for (const char* path : {"keep", "d/inner"}) {
    fd = ifs_open(full_path(path).c_str(), ifs_open_read, 0);
    while (fd >= 0 && ifs_read(fd, buffer, sizeof(buffer)) > 0) {
    }
    ifs_close(fd);
  }
  ifs_ioctl("bootflash:file", 7, nullptr);
  ifs_statfs("bootflash:", &space);
}

class fault_run {
 public:
  explicit fault_run(const operation& what) : what_(what), rig_(what.blocks) {
    what.prepare(rig_);
    before_ = rig_.walk();
    rig_.unmount();
    if (what.damage) {
      what.damage(rig_);
    }
    start_ = rig_.snapshot();
    play(0, flash_ok);
    counts_.calls = rig_.device().counts().calls();
    after_ = rig_.walk();
  }

  fault_counts run(uint64_t stride) {
    for (uint64_t n = 1; n <= counts_.calls; n += stride) {
      for (const flash_return_code code : codes) {
        counts_.faults++;
        play(n, code);
        const std::string wrong = judge_fault(code);
        if (!wrong.empty()) {
          counts_.unexpected++;
          if (counts_.unexpected_samples.size() < max_samples) {
            counts_.unexpected_samples.push_back(what_.name + ": call " + std::to_string(n) +
                                                 ", code " + std::to_string(code) + ": " + wrong);
          }
        }
      }
    }
    return counts_;
  }

 private:
  // Runs the operation on the prepared flash with the n-th of its driver calls failing.
  void play(uint64_t n, flash_return_code code) {
    rig_.restore(start_);
    if (what_.damage) {
      rig_.register_only();
    } else {
      rig_.mount(full_check);
    }
    rig_.take_output();
    rig_.device().clear_counts();
    rig_.device().fail(flash_call::any, n, code);
    what_.act(rig_);
    rig_.device().fail(flash_call::any, 0, flash_ok);
  }

  // What is wrong with how the operation ended and with what it left; empty when nothing is.
  std::string judge_fault(flash_return_code code) {
    const std::string said = rig_.take_output();
    std::string wrong;
    if (said.find(flash_return_code_text(static_cast<uint32_t>(code))) == std::string::npos) {
      wrong += " no message of the driver's failure;";
    }
    if (rig_.fs()->sctr_bufs_allocated != 0) {
      wrong += " a sector buffer is out;";
    }
    const bool said_down = said.find(down_line) != std::string::npos;
    if (rig_.fs()->ready != 0) {
      counts_.carried_on++;
      wrong += said_down ? " marked down and yet up;" : "";
    } else if (said_down) {
      counts_.marked_down++;
    } else {
      counts_.check_failed++;
    }
    return wrong + judge_flash();
  }

  std::string judge_flash() {
    std::string wrong;
    rig_.unmount();
    if (rig_.device().deviations() != 0) {
      wrong += " an access that no correct file system makes;";
    }
    if (rig_.mount(full_check) != 0) {
      if (!explained(outcome::check_refuses)) {
        wrong += " the next mount fails;";
      }
      return wrong;
    }
    for (const outcome kind : judge(what_, rig_.walk(), before_, after_)) {
      if (!explained(kind)) {
        wrong += std::string(" ") + outcome_name(kind) + ";";
      }
    }
    return wrong;
  }

  // Whether a full check may find this because the operation ended in its middle.
  bool explained(outcome kind) const {
    return std::any_of(what_.own_causes.begin(), what_.own_causes.end(),
                       [&](cause why) { return outcomes_of(why, false).count(kind) != 0; });
  }

  const operation& what_;
  rig rig_;
  std::vector<uint8_t> start_;
  tree before_;
  tree after_;
  fault_counts counts_;
};

}  // namespace

std::vector<operation> fault_operations() {
  std::vector<operation> all = power_cut_operations();
  operation reading = all.front();
  reading.name = "list, stat, read, verify";
  reading.touched = {};
  reading.act = read_everything;
  all.insert(all.begin(), reading);
  return all;
}

fault_counts try_faults(const operation& what, uint64_t stride) {
  return fault_run(what).run(stride);
}

}  // namespace reliability
