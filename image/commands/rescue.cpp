// rescue: mends what a power cut or a check has left, with everything that the records tell, into a
// new image, into files of the host, or on a complex in place. An image is never changed.
#include "image/rescue.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>

#include "flashfs/check_flags.h"
#include "flashfs/format.h"
#include "image/commands/commands.h"
#include "image/commands/take_out_options.h"
#include "image/interrupt.h"
#include "image/mounted.h"
#include "image/session.h"
#include "image/take_out.h"

namespace image {

namespace {

using json = nlohmann::ordered_json;

struct rescue_command_options {
  std::string image;
  host_place to;
  bool plan = false;
  bool deleted = false;
};

finding finding_of(const rescue_decision& decision) {
  finding made = make_finding(decision.code, decision.what);
  made.offset = decision.offset;
  made.block = decision.block;
  made.sector = decision.sector;
  made.slot = decision.slot;
  made.path = decision.path;
  return made;
}

json json_of(const rescue_decision& decision) {
  json object = json_of(finding_of(decision));
  object.erase("text");
  object["file"] = decision.fileid == 0 ? json(nullptr) : json(decision.fileid);
  object["certainty"] = certainty_text(decision.sure);
  object["what"] = decision.what;
  object["evidence"] = decision.evidence;
  object["alternatives"] =
      decision.alternatives.empty() ? json(nullptr) : json(decision.alternatives);
  return object;
}

bool is_loss(const rescue_decision& decision) {
  return find_code(decision.code)->severity == severity::error;
}

// What comes back because it was asked for is no guess about what stood.
bool is_guess(const rescue_decision& decision) {
  return decision.sure == certainty::guessed && !decision.asked && !is_loss(decision);
}

std::string count_text(size_t count, const char* word, const char* plural) {
  return std::to_string(count) + " " + (count == 1 ? word : plural);
}

bool is_same_file(const std::string& one, const std::string& other) {
  struct stat first = {};
  struct stat second = {};
  return stat(one.c_str(), &first) == 0 && stat(other.c_str(), &second) == 0 &&
         first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

// Empty when the line says clearly where the result goes, and that is not the image.
std::string objection(const rescue_command_options& options, const globals& all) {
  const int places = (all.output.empty() ? 0 : 1) + (options.to.folder.empty() ? 0 : 1) +
                     (options.to.archive.empty() ? 0 : 1);
  if (places > 1) {
    return "only one of -o, --to-dir and --to-tar can be meant";
  }
  if (places == 0 && !options.plan && !all.ppc) {
    return "-o, --to-dir or --to-tar says where the result goes: the image is never changed";
  }
  if (std::string why = objection_to_output(options.to.archive, all.json); !why.empty()) {
    return why;
  }
  if (!all.output.empty() && !options.image.empty() && is_same_file(all.output, options.image)) {
    return "the image itself is never changed: -o needs another name";
  }
  return "";
}

// A flash with as many blocks again behind its own, erased: whatever is taken out of it has room.
struct wider_flash {
  std::vector<uint8_t> bytes;
  geometry layout;
};

wider_flash widened(std::span<const uint8_t> bytes, const geometry& narrow) {
  wider_flash wide;
  uint32_t size = 0;
  for (const flash_block_info& block : block_table(narrow)) {
    if (block.skip == 0) {
      wide.layout.runs.push_back({1, block.size});
      size = std::max(size, block.size);
      const auto from = bytes.subspan(block.offset, block.size);
      wide.bytes.insert(wide.bytes.end(), from.begin(), from.end());
    }
  }
  wide.layout.usable_blocks = 2 * narrow.usable_blocks;
  for (uint32_t number = narrow.usable_blocks; number < wide.layout.usable_blocks; ++number) {
    wide.layout.runs.push_back({1, size});
    flashfs_blkheader header;
    memset(&header, flash_erased_byte, sizeof(header));
    header.erase_count = 0;
    header.timestamp = 0;
    header.block_num = static_cast<uint16_t>(number);
    blkheader_set_checksum(&header);
    const auto* first = reinterpret_cast<const uint8_t*>(&header);
    wide.bytes.insert(wide.bytes.end(), first, first + sizeof(header));
    wide.bytes.insert(wide.bytes.end(), size - sizeof(header), flash_erased_byte);
  }
  return wide;
}

class rescuer {
 public:
  rescuer(const rescue_command_options& options, const globals& all, const opened_image& opened,
          report& out)
      : options_(options), all_(all), opened_(opened), out_(out) {}

  void run() {
    const std::span<const uint8_t> before = opened_.contents();
    if (interrupted()) {
      return;
    }
    out_.progress("the rescue", 0, 1);
    layout_ = opened_.layout;
    plan(before);
    if (is_taken_out() && lacks_room()) {
      const wider_flash wide = widened(before, opened_.layout);
      layout_ = wide.layout;
      plan(wide.bytes);
      out_.message("what is taken out is more than it has room for");
    }
    if (interrupted()) {
      return;
    }
    tell();
    if (is_possible() && (options_.plan || write())) {
      tell_end();
    }
  }

 private:
  void plan(std::span<const uint8_t> bytes) {
    plan_ = plan_rescue(bytes, block_table(layout_), {.deleted = options_.deleted});
  }

  bool is_taken_out() const {
    return !options_.to.folder.empty() || !options_.to.archive.empty();
  }

  static bool is_without_room(const rescue_decision& decision) {
    return std::string_view(decision.code) == no_room_to_return;
  }

  bool lacks_room() const {
    return !plan_.complete ||
           std::any_of(plan_.decisions.begin(), plan_.decisions.end(), is_without_room);
  }

  // --- the answer ---

  // Where an archive or an image is the answer, messages are the place for this.
  void say(const std::string& text) {
    if ((options_.to.is_standard_output() && !options_.plan) || all_.output == "-") {
      out_.message(text);
    } else {
      out_.print(text + "\n");
    }
  }

  void tell() {
    json decisions = json::array();
    size_t left_out = 0;
    for (const rescue_decision& each : plan_.decisions) {
      decisions.push_back(json_of(each));
      const finding found = finding_of(each);
      out_.add_to_document(found);
      if (options_.plan || all_.verbose || found.severity != severity::info) {
        tell(each, found);
      } else {
        left_out++;
      }
    }
    if (left_out != 0) {
      say("  (" +
          (left_out == plan_.decisions.size() ? count_text(left_out, "decision", "decisions")
                                              : std::to_string(left_out) + " more") +
          "; -v shows " + (left_out == 1 ? "it" : "them") + ")");
    }
    const auto erases =
        static_cast<size_t>(std::count_if(plan_.steps.begin(), plan_.steps.end(),
                                          [](const rescue_step& each) { return each.is_erase; }));
    out_.result()["decisions"] = std::move(decisions);
    out_.result()["steps"] = {{"programs", plan_.steps.size() - erases}, {"erases", erases}};
  }

  void tell(const rescue_decision& decision, const finding& found) {
    say(std::string("  ") + severity_text(found.severity) + ": " + line_of(found));
    say(std::string("    ") + decision.code + ", " + certainty_text(decision.sure) + ": " +
        decision.evidence);
    if (!decision.alternatives.empty()) {
      say("    or: " + decision.alternatives);
    }
  }

  // What was found decides the status, and the highest counts: so this comes last.
  void tell_end() {
    const auto count = [&](auto&& fits) {
      return static_cast<size_t>(
          std::count_if(plan_.decisions.begin(), plan_.decisions.end(), fits));
    };
    const size_t losses = count(is_loss);
    const size_t guesses = count(is_guess);
    const size_t no_room = count(is_without_room);
    std::string verdict = plan_.steps.empty()             ? "nothing to mend"
                          : options_.plan || all_.dry_run ? "it would be mended"
                                                          : "mended";
    verdict += losses == 0 ? "" : ", with " + count_text(losses, "loss", "losses");
    verdict += guesses == 0 ? "" : ", with " + count_text(guesses, "guess", "guesses");
    const bool doubtful = losses + guesses != 0;
    say(out_.colored(doubtful              ? color::red
                     : plan_.steps.empty() ? color::green
                                           : color::yellow,
                     verdict));
    out_.raise(doubtful               ? exit_status::faults
               : no_room != 0         ? exit_status::partial
               : !plan_.steps.empty() ? exit_status::changed
                                      : exit_status::good);
  }

  // --- the result ---

  // Whether there is a result that may be written: the full check finds nothing in it, and says
  // nothing but that it is done.
  bool is_possible() {
    if (!plan_.complete) {
      out_.fail(exit_status::failed,
                "there is no room for all that has to be written, so nothing is written",
                opened_.name);
      return false;
    }
    checked_ = plan_.mended;
    mended_ = std::make_unique<mounted>(checked_, layout_);
    out_.progress("the full check of the result", 0, 1);
    const bool passed = mended_->check(flashfs_check_full);
    if (interrupted()) {
      return false;
    }
    const std::vector<std::string>& said = mended_->said();
    if (passed && !mended_->flash().changed() && said.size() == 1) {
      return true;
    }
    out_.fail(exit_status::failed,
              "the full check still finds something in the result, so nothing is written" +
                  (said.empty() ? std::string() : ": " + said.front()),
              opened_.name);
    return false;
  }

  bool write() {
    if (!is_taken_out()) {
      return write_checked(all_, opened_, plan_.mended, out_, &(order_ = changes()));
    }
    host_place to = options_.to;
    to.never = opened_.identity();
    take_out(mended_->files(), to, all_, out_);
    return out_.status() < exit_status::faults && !interrupted();
  }

  change_list changes() const {
    change_list list;
    for (const rescue_step& each : plan_.steps) {
      if (each.is_erase) {
        list.erase(each.offset);
      } else {
        list.program(each.offset, each.bytes);
      }
    }
    return list;
  }

  const rescue_command_options& options_;
  const globals& all_;
  const opened_image& opened_;
  report& out_;
  geometry layout_;
  rescue_plan plan_;
  change_list order_;
  std::vector<uint8_t> checked_;  // a copy of the result, which is mounted
  std::unique_ptr<mounted> mended_;
};

void run(const rescue_command_options& options, const globals& all, report& out) {
  const std::string wrong = objection(options, all);
  if (!wrong.empty()) {
    out.fail(exit_status::usage, wrong);
    return;
  }
  const bool in_place = all.ppc && all.output.empty() && options.to.folder.empty() &&
                        options.to.archive.empty() && !options.plan;
  const std::optional<opened_image> opened = open_image(
      all, options.image, in_place ? flash_file::access::edit : flash_file::access::read, out);
  if (opened) {
    rescuer(options, all, *opened, out).run();
  }
}

}  // namespace

command rescue_command() {
  auto options = std::make_shared<rescue_command_options>();
  return {"rescue", "Mends what a power cut or a check has left",
          "flashfs-image rescue --plan damaged.img\n"
          "flashfs-image rescue -o mended.img damaged.img\n"
          "flashfs-image rescue --deleted --to-dir files damaged.img\n"
          "flashfs-image --ppc 4 rescue",
          [options](arguments& take) {
            take.edits();
            take.image(
                &options->image, "IMAGE",
                "The image, which stays as it is; what is mended goes into a new one (-o), a "
                "folder or an archive");
            take.option("--to-dir", "DIR", &options->to.folder,
                        "What is rescued goes into this folder, made if missing");
            take.option("--to-tar", "FILE", &options->to.archive,
                        "What is rescued goes into a tar archive, '-' for standard output");
            take.flag("--plan", &options->plan,
                      "Only tell each decision, its evidence and its alternatives");
            take.flag("--deleted", &options->deleted,
                      "Bring back removed files, too, of which everything is still there");
            add_take_out_flags(take, &options->to);
          },
          [options](const globals& all, report& out) { run(*options, all, out); }};
}

}  // namespace image
