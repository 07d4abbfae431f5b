// Saving, asking, changing.
#include "image/complex_edit.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <nlohmann/json.hpp>
#include <vector>

#include "image/host_file.h"
#include "image/interrupt.h"
#include "zantrolume/zantrolume_device.h"

namespace image {

namespace {

using json = nlohmann::ordered_json;

enum class block_change { none, cleared_bits, erase };

struct block_plan {
  uint32_t offset;
  uint32_t size;
  block_change change;
};

block_change change_of(std::span<const uint8_t> held, std::span<const uint8_t> wanted) {
  // Most blocks stay as they are.
  if (std::memcmp(held.data(), wanted.data(), held.size()) == 0) {
    return block_change::none;
  }
  for (size_t i = 0; i < held.size(); ++i) {
    if ((wanted[i] & ~held[i]) != 0) {
      return block_change::erase;
    }
  }
  return block_change::cleared_bits;
}

std::string count_text(size_t count, const char* word) {
  return std::to_string(count) + " " + word + (count == 1 ? "" : "s");
}

// "ppc4-20260131-235959.flash", in UTC.
std::string backup_name(int32_t ppc, int attempt) {
  const std::time_t now = std::time(nullptr);
  std::tm date = {};
  gmtime_r(&now, &date);
  char text[64];
  std::snprintf(text, sizeof(text), "ppc%d-%04d%02d%02d-%02d%02d%02d", ppc, date.tm_year + 1900,
                date.tm_mon + 1, date.tm_mday, date.tm_hour, date.tm_min, date.tm_sec);
  return text + (attempt == 0 ? "" : "-" + std::to_string(attempt)) + ".flash";
}

class complex_editor {
 public:
  complex_editor(const globals& options, complex_flash& flash, std::span<const uint8_t> wanted,
                 report& out)
      : options_(options), flash_(flash), wanted_(wanted), out_(out) {
    const std::span<const uint8_t> held = flash_.contents();
    for (const flash_block_info& block : block_table(default_geometry())) {
      const block_change change = change_of(held.subspan(block.offset, block.size),
                                            wanted_.subspan(block.offset, block.size));
      if (change != block_change::none) {
        plan_.push_back({block.offset, block.size, change});
      }
    }
  }

  bool nothing_to_do() const {
    return plan_.empty();
  }

  // Tells, saves and asks. False when nothing may be changed; told.
  bool begin() {
    if (interrupted()) {
      return false;
    }
    tell_plan();
    if (options_.dry_run) {
      return true;
    }
    if (!options_.no_backup && !save()) {
      return false;
    }
    if (!options_.yes && !ask()) {
      return false;
    }
    // The answer may have taken its time.
    return flash_.is_in_reset() || fail("is not in reset any more; nothing was changed");
  }

  bool make_changes(const change_list& list) {
    const held_step held("the change of the flash");
    size_t done = 0;
    for (const change_list::change& one : list.changes()) {
      out_.progress("changing " + flash_.name(), done, list.changes().size());
      std::string why;
      if (!(one.is_erase ? flash_.erase(one.offset, &why)
                         : flash_.program(one.offset, list.bytes_of(one), &why))) {
        return fail_midway(why);
      }
      done++;
    }
    return finish();
  }

  // Block by block; who may stop in between says so.
  bool make_blocks_equal(bool stops_between_blocks) {
    // What only clears bits costs nothing that was there, so it comes first.
    std::stable_sort(plan_.begin(), plan_.end(), [](const block_plan& a, const block_plan& b) {
      return a.change == block_change::cleared_bits && b.change == block_change::erase;
    });
    const held_step held(stops_between_blocks ? "this block" : "the change of the flash");
    size_t done = 0;
    for (const block_plan& block : plan_) {
      if (stops_between_blocks && interrupted()) {
        out_.fail(exit_status::interrupted,
                  "interrupted when " + std::to_string(done) + " of " +
                      count_text(plan_.size(), "block") + " were written; the same again goes on",
                  flash_.name());
        return false;
      }
      out_.progress("writing " + flash_.name(), done, plan_.size());
      if (!make_equal(block)) {
        return false;
      }
      done++;
    }
    return finish();
  }

 private:
  bool fail(const std::string& why) {
    out_.fail(exit_status::failed, why, flash_.name());
    return false;
  }

  bool fail_midway(const std::string& why) {
    const std::string back = backup_.empty() ? ""
                                             : "; \"write --ppc " + std::to_string(flash_.ppc()) +
                                                   " " + backup_ + "\" puts back what was there";
    return fail(why + "; it is changed in part" + back);
  }

  void tell_plan() {
    const auto erased =
        static_cast<size_t>(std::count_if(plan_.begin(), plan_.end(), [](const block_plan& block) {
          return block.change == block_change::erase;
        }));
    plan_text_ = count_text(plan_.size(), "block") + " of " + flash_.name() + " to be changed, " +
                 std::to_string(erased) + " of them erased";
    out_.message(plan_text_);
    out_.result()["complex"] = {{"ppc", flash_.ppc()},
                                {"blocks", plan_.size()},
                                {"erased", erased},
                                {"backup", nullptr},
                                {"written", false}};
  }

  bool save() {
    constexpr int attempts = 100;
    std::string why;
    for (int attempt = 0; attempt < attempts; ++attempt) {
      const std::string name = backup_name(flash_.ppc(), attempt);
      if (access(name.c_str(), F_OK) == 0) {
        continue;
      }
      if (!write_file(name, flash_.contents(), {}, &why)) {
        return fail("no copy can be saved: " + name + ": " + why + "; nothing was changed");
      }
      backup_ = name;
      out_.message(flash_.name() + " as it was is saved in " + name);
      out_.result()["complex"]["backup"] = name;
      return true;
    }
    return fail("no copy can be saved: no name is free; nothing was changed");
  }

  bool ask() {
    out_.ask(plan_text_ + ". Go on? [y/N] ");
    char answer[16] = "";
    const ssize_t got = ::read(STDIN_FILENO, answer, sizeof(answer));
    if (got > 0 && (answer[0] == 'y' || answer[0] == 'Y')) {
      return true;
    }
    return !interrupted() && fail("nothing was changed: the answer was not yes");
  }

  bool make_equal(const block_plan& block) {
    std::string why;
    if (block.change == block_change::erase && !flash_.erase(block.offset, &why)) {
      return fail_midway(why);
    }
    // The header first: the records behind it count from the moment they stand.
    if (!flash_.program(block.offset, wanted_.subspan(block.offset, block.size), &why)) {
      return fail_midway(why);
    }
    return true;
  }

  bool finish() {
    const std::span<const uint8_t> held = flash_.contents();
    if (!std::equal(held.begin(), held.end(), wanted_.begin(), wanted_.end())) {
      return fail_midway("the changes have not made it what it was to be");
    }
    out_.result()["complex"]["written"] = true;
    out_.set_written();
    return true;
  }

  const globals& options_;
  complex_flash& flash_;
  std::span<const uint8_t> wanted_;
  report& out_;
  std::vector<block_plan> plan_;
  std::string plan_text_;
  std::string backup_;
};

}  // namespace

bool may_change_complex(const globals& options, report& out) {
  if (options.yes || options.dry_run || isatty(STDIN_FILENO) != 0) {
    return true;
  }
  out.fail(exit_status::usage,
           "there is no terminal to ask at whether the complex may be changed; --yes says so");
  return false;
}

bool change_complex(const globals& options, complex_flash& flash, std::span<const uint8_t> wanted,
                    const change_list* in_order, report& out) {
  complex_editor editor(options, flash, wanted, out);
  if (editor.nothing_to_do()) {
    return !interrupted();
  }
  return editor.begin() &&
         (in_order != nullptr ? editor.make_changes(*in_order) : editor.make_blocks_equal(false));
}

bool write_complex(const globals& options, complex_flash& flash, std::span<const uint8_t> wanted,
                   report& out) {
  complex_editor editor(options, flash, wanted, out);
  if (editor.nothing_to_do() || interrupted()) {
    return !interrupted();
  }
  return editor.begin() && (options.dry_run || editor.make_blocks_equal(true));
}

}  // namespace image
