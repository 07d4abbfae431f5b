// info: what an image is, how full, how worn, and what is wrong with it. Space is what the board
// would tell, from a private view; everything else is read from the records, so that an image that
// cannot be mounted is told of as well.
#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>

#include "flashfs/check_flags.h"
#include "image/check_report.h"
#include "image/commands/commands.h"
#include "image/interrupt.h"
#include "image/record_fields.h"
#include "image/session.h"
#include "image/text.h"

namespace image {

namespace {

using json = nlohmann::ordered_json;

struct info_options {
  std::string image;
};

// Beyond so many nobody reads on.
constexpr size_t finding_lines_max = 200;
constexpr size_t check_lines_max = 20;

// What a mount tells: nothing of what cannot be mounted.
struct mounted_space {
  bool mounts = false;
  bool changes = false;  // the check repairs something
  uint64_t total = 0;    // bytes
  uint64_t available = 0;
};

struct erase_counts {
  uint32_t blocks = 0;  // that have a count
  uint64_t total = 0;
  uint32_t least = UINT32_MAX;
  uint32_t most = 0;
  uint32_t most_worn = 0;  // block
};

class image_info {
 public:
  image_info(const globals& all, opened_image& opened, report& out)
      : all_(all),
        opened_(opened),
        out_(out),
        records_(read_records(opened.contents(), opened.layout)) {}

  void run() {
    if (!measure_space()) {
      return;
    }
    count_entries();
    tell_image();
    tell_space();
    tell_files();
    tell_blocks();
    tell_findings();
    tell_check();
    if (all_.strict && has_errors(records_.findings)) {
      out_.raise(exit_status::faults);
    }
  }

 private:
  void line(const char* name, const std::string& value) {
    out_.print(fmt::format("{:<14} {}\n", name, value));
  }

  bool measure_space() {
    std::string why;
    const std::optional<std::span<uint8_t>> view = opened_.private_view(&why);
    if (!view) {
      out_.fail(exit_status::failed, why, opened_.name);
      return false;
    }
    mounted system(*view, opened_.layout);
    space_.mounts = system.check(all_.full ? flashfs_check_full : flashfs_check_quick);
    space_.changes = system.flash().changed();
    ppc_statfs space = {};
    if (space_.mounts && system.files().statfs(&space) == 0) {
      space_.total = uint64_t{space.total_blocks} * space.block_size;
      space_.available = uint64_t{space.free_blocks} * space.block_size;
    }
    if (space_.changes || !space_.mounts) {
      const records after = read_records(*view, opened_.layout);
      check_does_ = report_check({.before = records_,
                                  .after = after,
                                  .passed = space_.mounts,
                                  .lines = system.said(),
                                  .mounted = space_.mounts ? &system.files() : nullptr});
    }
    return !interrupted();
  }

  void count_entries() {
    for (const auto& [id, entry] : records_.entries) {
      if (!entry.is_reached) {
        orphans_ += entry.is_orphan ? 1 : 0;
      } else if (id != fileid_root) {
        (entry.is_directory ? directories_ : files_)++;
        contents_ += entry.is_directory ? 0 : entry.size;
      }
    }
    for (const block_record& block : records_.blocks) {
      if (block.header == nullptr || block.verdict != header_verdict::good) {
        continue;
      }
      const uint32_t count = block.header->erase_count;
      wear_.blocks++;
      wear_.total += count;
      wear_.least = std::min(wear_.least, count);
      if (wear_.blocks == 1 || count > wear_.most) {
        wear_.most = count;
        wear_.most_worn = block.number;
      }
    }
  }

  void tell_image() {
    const geometry& layout = opened_.layout;
    const uint32_t others = block_count(layout) - layout.usable_blocks;
    line("image", fmt::format("{}, {} bytes ({})", out_.shown(opened_.name),
                              opened_.contents().size(), size_text(opened_.contents().size())));
    line("geometry", geometry_text(layout) +
                         (others == 0 ? ""
                                      : fmt::format(", the first {} blocks are the file system's",
                                                    layout.usable_blocks)));
    json& result = out_.result();
    put_text(&result, "image", opened_.name);
    result["size"] = opened_.contents().size();
    json runs = json::array();
    for (const geometry::run& run : layout.runs) {
      runs.push_back({{"count", run.count}, {"size", run.size}});
    }
    result["geometry"] = {{"text", geometry_text(layout)},
                          {"runs", runs},
                          {"blocks", block_count(layout)},
                          {"usable_blocks", layout.usable_blocks}};
  }

  void tell_space() {
    const char* check = all_.full ? "full check" : "quick check";
    line("mounts", !space_.mounts   ? fmt::format("no: the {} fails", check)
                   : space_.changes ? fmt::format("yes, when the {} has repaired it", check)
                                    : "yes");
    json& result = out_.result();
    result["mounts"] = space_.mounts;
    result["repairs"] = space_.changes;
    json space;
    if (space_.mounts) {
      const uint64_t used = space_.total - std::min(space_.total, space_.available);
      const double percent =
          space_.total == 0 ? 0.0
                            : 100.0 * static_cast<double>(used) / static_cast<double>(space_.total);
      line("space", fmt::format("{} bytes, {} used, {} available; {:.1f} % full", space_.total,
                                used, space_.available, percent));
      space = {{"total", space_.total}, {"used", used}, {"available", space_.available}};
    }
    result["space"] = space;
    const record_counts& total = records_.total;
    line("sectors", fmt::format("{} of data, {} of directories, {} obsolete, {} free, {} bad",
                                total.data_sectors, total.directory_sectors, total.obsolete_sectors,
                                total.free_sectors, total.bad_sectors));
    line("slots", fmt::format("{} good, {} deleted, {} free, {} bad", total.good_slots,
                              total.deleted_slots, total.free_slots, total.bad_slots));
    result["sectors"] = {{"data", total.data_sectors},
                         {"directory", total.directory_sectors},
                         {"obsolete", total.obsolete_sectors},
                         {"free", total.free_sectors},
                         {"bad", total.bad_sectors}};
    result["slots"] = {{"good", total.good_slots},
                       {"deleted", total.deleted_slots},
                       {"free", total.free_slots},
                       {"bad", total.bad_slots}};
  }

  void tell_files() {
    line("files",
         fmt::format("{}, {} bytes in all, {}; {} without a name", counted(files_, "file", "files"),
                     contents_, counted(directories_, "directory", "directories"), orphans_));
    out_.result()["files"] = {{"files", files_},
                              {"bytes", contents_},
                              {"directories", directories_},
                              {"orphans", orphans_}};
  }

  void tell_blocks() {
    json wear;
    if (wear_.blocks > 0) {
      line("erase counts", fmt::format("{} to {}, {} in all; block {} is worn most", wear_.least,
                                       wear_.most, wear_.total, wear_.most_worn));
      wear = {{"least", wear_.least},
              {"most", wear_.most},
              {"total", wear_.total},
              {"most_worn", wear_.most_worn}};
    }
    out_.result()["erase_counts"] = wear;
    std::map<std::string, uint32_t> states;
    json blocks = json::array();
    for (const block_record& block : records_.blocks) {
      states[state_of(block)]++;
      blocks.push_back(json_of(block));
    }
    out_.result()["blocks"] = blocks;
    std::string text;
    for (const auto& [state, count] : states) {
      text += (text.empty() ? "" : ", ") + fmt::format("{} {}", count, state);
    }
    line("blocks",
         text + (records_.spare ? fmt::format("; the spare is {}", *records_.spare) : ""));
    out_.result()["spare"] = records_.spare ? json(*records_.spare) : json();
    tell_each_block();
  }

  std::string state_of(const block_record& block) const {
    return block.is_erased                         ? "blank"
           : block.verdict != header_verdict::good ? "with a bad header"
                                                   : state_text(block.state);
  }

  void tell_each_block() {
    // A flash that has never been used has nothing to tell, block by block.
    const auto is_told = [](const block_record& block) { return !block.is_erased; };
    if (std::none_of(records_.blocks.begin(), records_.blocks.end(), is_told)) {
      return;
    }
    out_.print("\n  block  erased  state         data   dir  obsolete  free   bad  full\n");
    for (const block_record& block : records_.blocks) {
      const record_counts& counts = block.counts;
      const uint32_t used = block.sector_count - counts.free_sectors;
      const bool has_count = block.header != nullptr && block.verdict != header_verdict::erased;
      out_.print(fmt::format(
          "  {:>5}  {:>6}  {:<12} {:>5} {:>5}  {:>8} {:>5} {:>5}  {:>3}%{}\n", block.number,
          has_count ? std::to_string(block.header->erase_count) : "-",
          block.verdict == header_verdict::good || block.is_erased ? state_of(block) : "bad header",
          counts.data_sectors, counts.directory_sectors, counts.obsolete_sectors,
          counts.free_sectors, counts.bad_sectors,
          block.sector_count == 0 ? 0 : 100 * used / block.sector_count,
          records_.spare == block.number ? "  spare" : ""));
    }
  }

  json json_of(const block_record& block) const {
    const record_counts& counts = block.counts;
    const bool has_count = block.header != nullptr && block.verdict != header_verdict::erased;
    return {{"block", block.number},
            {"offset", block.offset},
            {"size", block.size},
            {"state", block.is_erased ? "blank" : state_text(block.state)},
            {"header", verdict_text(block.verdict)},
            {"erase_count",
             has_count ? json(static_cast<uint32_t>(block.header->erase_count)) : json()},
            {"sectors", block.sector_count},
            {"data", counts.data_sectors},
            {"directory", counts.directory_sectors},
            {"obsolete", counts.obsolete_sectors},
            {"free", counts.free_sectors},
            {"bad", counts.bad_sectors}};
  }

  // Part of the answer. Blocks that have the same to tell, one behind the other, take one line.
  void tell_findings() {
    const std::vector<finding>& findings = records_.findings;
    if (out_.json()) {
      for (const finding& each : findings) {
        out_.add_to_document(each);
      }
      return;
    }
    out_.print(findings.empty() ? "\nNothing is wrong.\n" : "\nWhat is wrong:\n");
    size_t lines = 0;
    for (size_t i = 0; i < findings.size(); ++lines) {
      if (lines == finding_lines_max) {
        out_.print(fmt::format("  and {} more, which dump and --json tell\n", findings.size() - i));
        return;
      }
      size_t end = i + 1;
      while (end < findings.size() && follows(findings[end - 1], findings[end])) {
        end++;
      }
      print_findings(findings[i], findings[end - 1]);
      i = end;
    }
  }

  // What the next mount makes of it, before it does, the worst first; "check" tells all of that.
  void tell_check() {
    for (const finding& each : check_does_) {
      out_.add_to_document(each);
    }
    std::erase_if(check_does_, [&](const finding& each) {
      return each.severity == severity::info && space_.mounts && !all_.verbose;
    });
    if (check_does_.empty()) {
      return;
    }
    std::stable_partition(check_does_.begin(), check_does_.end(),
                          [](const finding& each) { return each.severity == severity::error; });
    out_.print(fmt::format("\nWhat the {} check does with it, where it runs:\n",
                           all_.full ? "full" : "quick"));
    const size_t shown = std::min(check_does_.size(), check_lines_max);
    for (size_t i = 0; i < shown; ++i) {
      out_.print(fmt::format("  {}: {}\n", severity_text(check_does_[i].severity),
                             line_of(check_does_[i])));
    }
    if (shown < check_does_.size()) {
      out_.print(fmt::format("  and {} more, which check tells\n", check_does_.size() - shown));
    }
  }

  static bool follows(const finding& one, const finding& next) {
    return one.code == next.code && one.block && next.block && *one.block + 1 == *next.block &&
           !one.sector && !next.sector && one.text == next.text;
  }

  void print_findings(const finding& first, const finding& last) {
    std::string place;
    if (first.block) {
      place = first.block == last.block ? fmt::format("block {}", *first.block)
                                        : fmt::format("blocks {} to {}", *first.block, *last.block);
    }
    place += first.sector ? fmt::format(", sector {}", *first.sector) : "";
    place += first.slot ? fmt::format(", slot {}", *first.slot) : "";
    place += first.path.empty() ? "" : (place.empty() ? "" : ": ") + escaped(first.path);
    const color tint = first.severity == severity::error     ? color::red
                       : first.severity == severity::warning ? color::yellow
                                                             : color::none;
    out_.print("  " + out_.colored(tint, severity_text(first.severity)) +
               fmt::format(" {}{}{}: {}\n", first.code, place.empty() ? "" : ": ", place,
                           escaped(first.text)));
  }

  const globals& all_;
  opened_image& opened_;
  report& out_;
  const records records_;
  mounted_space space_;
  std::vector<finding> check_does_;  // with what is wrong
  erase_counts wear_;
  uint64_t contents_ = 0;  // bytes
  uint32_t files_ = 0;
  uint32_t directories_ = 0;
  uint32_t orphans_ = 0;
};

void run(const info_options& options, const globals& all, report& out) {
  std::optional<opened_image> opened =
      open_image(all, options.image, flash_file::access::read, out);
  if (opened) {
    image_info(all, *opened, out).run();
  }
}

}  // namespace

command info_command() {
  auto options = std::make_shared<info_options>();
  return {"info", "Tells what an image is, how full, how worn, and what is wrong",
          "flashfs-image info boot.img",
          [options](arguments& take) { take.image(&options->image); },
          [options](const globals& all, report& out) { run(*options, all, out); }};
}

}  // namespace image
