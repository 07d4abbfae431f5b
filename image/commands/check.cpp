// check: what the two checks would do to an image, and with --repair, one of them done. A check is
// run on a private copy; what it would change is the difference.
#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>

#include "flashfs/check_flags.h"
#include "image/check_report.h"
#include "image/commands/commands.h"
#include "image/interrupt.h"
#include "image/mounted.h"
#include "image/session.h"

namespace image {

namespace {

using json = nlohmann::ordered_json;

struct check_options {
  std::string image;
  bool quick = false;
  bool repair = false;
  bool force = false;
};

// A check that was tried, and what it leaves.
struct tried_check {
  bool passed = false;
  bool changes = false;
  bool loses = false;
  std::vector<finding> findings;
  std::vector<uint8_t> result;
  change_list order;  // of what it has changed, on a complex
};

class checker {
 public:
  checker(const check_options& options, const globals& all, const opened_image& opened, report& out)
      : options_(options), all_(all), opened_(opened), out_(out) {}

  void run() {
    // Unless one was named, both are told of: the quick one is what the board runs, the full one
    // is what counts.
    tried_check quick;
    tried_check full;
    if (options_.quick || (!all_.full && !options_.repair)) {
      quick = try_check("quick", flashfs_check_quick);
    }
    if (!options_.quick && !interrupted()) {
      full = try_check("full", flashfs_check_full);
    }
    tried_check& decisive = options_.quick ? quick : full;
    for (const finding& one : decisive.findings) {
      out_.add_to_document(one);
    }
    if (interrupted()) {
      return;
    }
    if (!decisive.passed || check_leaves_faults(decisive.findings)) {
      out_.raise(exit_status::faults);
    }
    if (!decisive.passed) {
      return;
    }
    if (options_.repair && decisive.changes) {
      repair(&decisive);
    } else if (options_.repair && !all_.output.empty()) {
      // The new image is wanted all the same; what keeps it from being written is told.
      static_cast<void>(write_checked(all_, opened_, opened_.contents(), out_));
    } else if (quick.changes || full.changes) {
      out_.raise(exit_status::faults);
    }
  }

 private:
  tried_check try_check(const char* name, uint32_t flags) {
    tried_check tried = try_on(opened_.contents(), name, flags);
    if (!interrupted()) {
      tell(name, tried);
    }
    return tried;
  }

  tried_check try_on(std::span<const uint8_t> before, const char* name, uint32_t flags) {
    tried_check tried;
    tried.result.assign(before.begin(), before.end());
    mounted system(tried.result, opened_.layout);
    if (opened_.complex) {
      system.flash().keep_changes(&tried.order);
    }
    out_.progress(std::string("the ") + name + " check", 0, 1);
    tried.passed = system.check(flags);
    tried.changes = system.flash().changed();
    if (interrupted()) {
      return tried;
    }
    const records records_before = read_records(before, opened_.layout);
    const records records_after = read_records(tried.result, opened_.layout);
    tried.findings = report_check({.before = records_before,
                                   .after = records_after,
                                   .passed = tried.passed,
                                   .lines = system.said(),
                                   .mounted = tried.passed ? &system.files() : nullptr});
    tried.loses = check_loses(tried.findings);
    return tried;
  }

  void tell(const char* name, const tried_check& tried) {
    const std::string verdict = !tried.passed   ? "cannot make it usable"
                                : tried.loses   ? "would repair it, and lose something"
                                : tried.changes ? "would repair it"
                                                : "nothing to do";
    const color tint = !tried.passed || tried.loses ? color::red
                       : tried.changes              ? color::yellow
                                                    : color::green;
    out_.print(std::string(name) + " check: " + out_.colored(tint, verdict) + "\n");
    json findings = json::array();
    for (const finding& one : tried.findings) {
      findings.push_back(json_of(one));
    }
    print_findings(tried);
    out_.result()["checks"].push_back({{"check", name},
                                       {"usable", tried.passed},
                                       {"changes", tried.changes},
                                       {"loses", tried.loses},
                                       {"findings", findings}});
  }

  // Information is for who asks for it, or has nothing else to go by.
  void print_findings(const tried_check& tried) {
    constexpr uint32_t enough = 8;
    const bool only_information =
        std::all_of(tried.findings.begin(), tried.findings.end(),
                    [](const finding& one) { return one.severity == severity::info; });
    const bool sound = tried.passed && !tried.changes;
    const bool wanted = all_.verbose || (!sound && (only_information || !tried.passed));
    uint32_t shown = 0;
    uint32_t left_out = 0;
    for (const finding& one : tried.findings) {
      const bool information = one.severity == severity::info;
      if (information && (!wanted || (!all_.verbose && shown >= enough))) {
        left_out++;
        continue;
      }
      shown++;
      out_.print(std::string("  ") + severity_text(one.severity) + ": " + line_of(one) + "\n");
    }
    if (wanted && left_out > 0) {
      out_.print("  (" + std::to_string(left_out) + " more; -v shows them)\n");
    }
  }

  void repair(tried_check* tried) {
    if (opened_.geometry_is_doubted && !options_.force) {
      out_.fail(exit_status::faults,
                "not repaired as what --geometry says, which its headers contradict; --force "
                "does it",
                opened_.name);
    } else if (tried->loses && !options_.force) {
      out_.fail(exit_status::faults,
                "not repaired: that would drop what still is good; --force does it", opened_.name);
    } else if (write_result(all_, opened_, tried->result, out_, &tried->order)) {
      out_.print(all_.dry_run ? "it would be repaired\n" : "repaired\n");
      out_.raise(exit_status::changed);
      look_again(tried->result);
    }
  }

  // Of two names of one entry, for instance, the next mount may show the other: then something can
  // be wrong that was not before.
  void look_again(std::span<const uint8_t> repaired) {
    const tried_check again = try_on(repaired, "second", flashfs_check_full);
    if (!interrupted() && check_leaves_faults(again.findings)) {
      out_.fail(exit_status::faults,
                "what no check mends is left in it; \"flashfs-image check\" tells it then",
                all_.output.empty() ? opened_.name : all_.output);
    }
  }

  const check_options& options_;
  const globals& all_;
  const opened_image& opened_;
  report& out_;
};

void run(const check_options& options, const globals& all, report& out) {
  if (options.quick && all.full) {
    out.fail(exit_status::usage, "--quick and --full are two checks");
    return;
  }
  if (!options.repair && !all.output.empty()) {
    out.fail(exit_status::usage, "--output is for the repaired image: --repair is missing");
    return;
  }
  const std::optional<opened_image> opened =
      options.repair ? open_image_to_edit(all, options.image, out)
                     : open_image(all, options.image, flash_file::access::read, out);
  if (opened) {
    checker(options, all, *opened, out).run();
  }
}

}  // namespace

command check_command() {
  auto options = std::make_shared<check_options>();
  return {"check", "Tells what a check would repair, or repairs it",
          "flashfs-image check boot.img\n"
          "flashfs-image check --repair -o mended.img boot.img",
          [options](arguments& take) {
            take.edits();
            take.image(&options->image);
            take.flag("--quick", &options->quick,
                      "Only the check that the board runs by itself; with --full only the full "
                      "one, else both");
            take.flag("--repair", &options->repair, "Do what the check would do");
            take.flag("--force", &options->force, "Even if good records are lost");
          },
          [options](const globals& all, report& out) { run(*options, all, out); }};
}

}  // namespace image
