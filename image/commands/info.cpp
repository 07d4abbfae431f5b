// info: what an image is, how full, how worn, and what is wrong with it. Space is what the board
// would tell, from a private view; everything else is read from the records, so that an image that
// cannot be mounted is told of as well.
#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "image/commands/commands.h"
#include "image/finding_list.h"
#include "image/image_summary.h"
#include "image/record_decode.h"
#include "image/session.h"
#include "image/text.h"

namespace image {

namespace {

using json = nlohmann::ordered_json;

struct info_options {
  std::string image;
};

constexpr size_t check_lines_max = 20;

class image_info {
 public:
  image_info(const globals& all, opened_image& opened, report& out)
      : all_(all),
        opened_(opened),
        out_(out),
        records_(read_records(opened.contents(), opened.layout)) {}

  void run() {
    const std::optional<mounted_space> space = measure_space(opened_, records_, all_, out_);
    if (!space) {
      return;
    }
    tell_image();
    tell_space(*space);
    tell_files(count_entries(records_));
    tell_blocks(count_erases(records_));
    tell_finding_list(records_.findings, out_);
    tell_check(*space);
    if (all_.strict && has_errors(records_.findings)) {
      out_.raise(exit_status::faults);
    }
  }

 private:
  void line(const char* name, const std::string& value) {
    out_.print(fmt::format("{:<14} {}\n", name, value));
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

  void tell_space(const mounted_space& measured) {
    const char* check = all_.full ? "full check" : "quick check";
    line("mounts", !measured.mounts   ? fmt::format("no: the {} fails", check)
                   : measured.changes ? fmt::format("yes, when the {} has repaired it", check)
                                      : "yes");
    json& result = out_.result();
    result["mounts"] = measured.mounts;
    result["repairs"] = measured.changes;
    json space;
    if (measured.mounts) {
      const uint64_t used = measured.total - std::min(measured.total, measured.available);
      const double percent = measured.total == 0 ? 0.0
                                                 : 100.0 * static_cast<double>(used) /
                                                       static_cast<double>(measured.total);
      line("space", fmt::format("{} bytes, {} used, {} available; {:.1f} % full", measured.total,
                                used, measured.available, percent));
      space = {{"total", measured.total}, {"used", used}, {"available", measured.available}};
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

  void tell_files(const entry_counts& counts) {
    line("files",
         fmt::format("{}, {} bytes in all, {}; {} without a name",
                     counted(counts.files, "file", "files"), counts.contents,
                     counted(counts.directories, "directory", "directories"), counts.orphans));
    out_.result()["files"] = {{"files", counts.files},
                              {"bytes", counts.contents},
                              {"directories", counts.directories},
                              {"orphans", counts.orphans}};
  }

  void tell_blocks(const erase_counts& wear) {
    json counts;
    if (wear.blocks() > 0) {
      line("erase counts", fmt::format("{} to {}, {} in all; block {} is worn most", wear.least(),
                                       wear.most(), wear.total(), wear.most_worn()));
      counts = {{"least", wear.least()},
                {"most", wear.most()},
                {"total", wear.total()},
                {"most_worn", wear.most_worn()}};
    }
    out_.result()["erase_counts"] = counts;
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
      out_.print(fmt::format(
          "  {:>5}  {:>6}  {:<12} {:>5} {:>5}  {:>8} {:>5} {:>5}  {:>3}%{}\n", block.number,
          block.erase_count() ? std::to_string(*block.erase_count()) : "-",
          block.verdict == header_verdict::good || block.is_erased ? state_of(block) : "bad header",
          counts.data_sectors, counts.directory_sectors, counts.obsolete_sectors,
          counts.free_sectors, counts.bad_sectors,
          block.sector_count == 0 ? 0 : 100 * used / block.sector_count,
          records_.spare == block.number ? "  spare" : ""));
    }
  }

  json json_of(const block_record& block) const {
    const record_counts& counts = block.counts;
    return {{"block", block.number},
            {"offset", block.offset},
            {"size", block.size},
            {"state", block.is_erased ? "blank" : state_text(block.state)},
            {"header", verdict_text(block.verdict)},
            {"erase_count", block.erase_count() ? json(*block.erase_count()) : json()},
            {"sectors", block.sector_count},
            {"data", counts.data_sectors},
            {"directory", counts.directory_sectors},
            {"obsolete", counts.obsolete_sectors},
            {"free", counts.free_sectors},
            {"bad", counts.bad_sectors}};
  }

  // What the next mount makes of it, before it does, the worst first; "check" tells all of that.
  void tell_check(const mounted_space& measured) {
    std::vector<finding> findings = measured.check_does;
    for (const finding& each : findings) {
      out_.add_to_document(each);
    }
    std::erase_if(findings, [&](const finding& each) {
      return each.severity == severity::info && measured.mounts && !all_.verbose;
    });
    if (findings.empty()) {
      return;
    }
    std::stable_partition(findings.begin(), findings.end(),
                          [](const finding& each) { return each.severity == severity::error; });
    out_.print(fmt::format("\nWhat the {} check does with it, where it runs:\n",
                           all_.full ? "full" : "quick"));
    const size_t shown = std::min(findings.size(), check_lines_max);
    for (size_t i = 0; i < shown; ++i) {
      out_.print(
          fmt::format("  {}: {}\n", severity_text(findings[i].severity), line_of(findings[i])));
    }
    if (shown < findings.size()) {
      out_.print(fmt::format("  and {} more, which check tells\n", findings.size() - shown));
    }
  }

  const globals& all_;
  opened_image& opened_;
  report& out_;
  const records records_;
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
