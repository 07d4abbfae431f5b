// diff: what is different between two images, in their files or in their records.
#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>

#include "flashfs/format.h"
#include "image/commands/commands.h"
#include "image/interrupt.h"
#include "image/paths.h"
#include "image/session.h"
#include "image/tree_diff.h"
#include "image/volume_tree.h"

namespace image {

namespace {

struct diff_options {
  std::string first;
  std::string second;
  bool files = false;
  bool records = false;
  bool brief = false;
};

using json = nlohmann::ordered_json;

// Gathers differences, so that --brief can tell of them in one line.
class difference_list {
 public:
  difference_list(const diff_options& options, report& out) : options_(options), out_(out) {
    out_.result()["differences"] = json::array();
  }

  void add(const std::string& line, json object) {
    out_.raise(exit_status::changed);
    any_ = true;
    if (options_.brief) {
      return;
    }
    out_.print(line + "\n");
    out_.result()["differences"].push_back(std::move(object));
  }
  // Of what could not be read nothing is known, so it keeps two images from being called equal; an
  // image with faults may well be equal to another.
  void finish(bool all_was_read) {
    out_.result()["equal"] = !any_ && all_was_read;
    if (any_ && options_.brief) {
      out_.print(out_.shown(options_.first) + " and " + out_.shown(options_.second) + " differ\n");
    }
  }

 private:
  const diff_options& options_;
  report& out_;
  bool any_ = false;
};

// --- files ---

std::optional<tree> files_of(const globals& all, const std::string& image, report& out) {
  const std::unique_ptr<session> opened = session::to_read(all, image, out);
  if (!opened) {
    return std::nullopt;
  }
  tree found = read_volume(opened->files());
  if (interrupted()) {
    return std::nullopt;
  }
  for (const tree_problem& one : found.errors) {
    out.fail(exit_status::faults, one.text, image + ": " + told_path(one.path));
  }
  return found;
}

void compare_files(const diff_options& options, const globals& all, report& out) {
  const std::optional<tree> first = files_of(all, options.first, out);
  const std::optional<tree> second = first ? files_of(all, options.second, out) : std::nullopt;
  if (!second || interrupted()) {
    return;
  }
  difference_list list(options, out);
  std::vector<tree_problem> unread;  // nothing: both hold their contents
  for (const tree_difference& one : compare_trees(*first, *second, compared::all, &unread)) {
    using kind = tree_difference::kind;
    const char* sign = one.what == kind::only_first    ? "-"
                       : one.what == kind::only_second ? "+"
                                                       : "!";
    json object;
    put_text(&object, "path", told_path(one.path));
    object["sign"] = sign;
    object["in"] = one.differs_in;
    std::string line = std::string(sign) + " " + out.shown(told_path(one.path));
    line += one.directory ? "/" : "";
    line += one.differs_in.empty() ? "" : " (" + one.differs_in + ")";
    list.add(line, std::move(object));
  }
  list.finish(first->errors.empty() && second->errors.empty());
}

// --- records ---

struct record_place {
  uint32_t block;
  int64_t sector;  // -1: the header; sectors; one more: what lies behind them
  uint32_t offset;
  uint32_t size;
};

std::string name_of(const record_place& place, bool behind) {
  if (place.sector < 0) {
    return fmt::format("block {} header", place.block);
  }
  return behind ? fmt::format("block {} behind its sectors", place.block)
                : fmt::format("sector {}.{}", place.block, place.sector);
}

class record_comparison {
 public:
  record_comparison(std::span<const uint8_t> first, std::span<const uint8_t> second,
                    const geometry& layout, difference_list* list)
      : first_(first), second_(second), layout_(layout), list_(list) {}

  void run() {
    uint32_t number = 0;
    for (const flash_block_info& block : block_table(layout_)) {
      if (interrupted()) {
        return;
      }
      compare_block(number++, block);
    }
  }

 private:
  bool differs(uint32_t offset, uint32_t size) const {
    const auto begin = first_.begin() + offset;
    return !std::equal(begin, begin + size, second_.begin() + offset);
  }

  void compare_block(uint32_t number, const flash_block_info& block) {
    if (!differs(block.offset, block.size)) {
      return;
    }
    if (block.skip != 0) {
      tell("block " + std::to_string(number) + ", which is not the file system's",
           {number, -1, block.offset, block.size});
      return;
    }
    const auto sectors =
        static_cast<uint32_t>((block.size - sizeof(flashfs_blkheader)) / sizeof(flashfs_sector));
    uint32_t offset = block.offset;
    compare({number, -1, offset, sizeof(flashfs_blkheader)}, false);
    offset += sizeof(flashfs_blkheader);
    for (uint32_t i = 0; i < sectors; ++i, offset += sizeof(flashfs_sector)) {
      compare({number, i, offset, sizeof(flashfs_sector)}, false);
    }
    compare({number, sectors, offset, block.offset + block.size - offset}, true);
  }

  void compare(const record_place& place, bool behind) {
    if (!differs(place.offset, place.size)) {
      return;
    }
    std::string text = name_of(place, behind);
    if (place.sector >= 0 && !behind) {
      text += owners(place.offset);
    }
    tell(text, place);
  }

  // "owner 2" or "owner 2, then 0".
  std::string owners(uint32_t offset) const {
    const auto owner = [&](std::span<const uint8_t> bytes) {
      return bytes[offset] << 8 | bytes[offset + 1];
    };
    const int before = owner(first_);
    const int after = owner(second_);
    return before == after ? fmt::format(" (owner {})", before)
                           : fmt::format(" (owner {}, then {})", before, after);
  }

  void tell(const std::string& text, const record_place& place) {
    json object;
    object["offset"] = place.offset;
    object["block"] = place.block;
    object["sector"] = place.sector < 0 ? json() : json(place.sector);
    object["what"] = text;
    list_->add(fmt::format("0x{:08x} {}", place.offset, text), std::move(object));
  }

  std::span<const uint8_t> first_;
  std::span<const uint8_t> second_;
  const geometry& layout_;
  difference_list* list_;
};

void compare_records(const diff_options& options, const globals& all, report& out) {
  using access = flash_file::access;
  const std::optional<opened_image> first = open_image(all, options.first, access::read, out);
  const std::optional<opened_image> second =
      first ? open_image(all, options.second, access::read, out) : std::nullopt;
  if (!second) {
    return;
  }
  difference_list list(options, out);
  if (first->layout != second->layout || first->contents().size() != second->contents().size()) {
    const std::string text = "the geometries differ: " + geometry_text(first->layout) + " and " +
                             geometry_text(second->layout);
    list.add(text, json{{"what", text}});
  } else if (first->contents().size() < size_bytes(first->layout)) {
    out.fail(exit_status::failed, "the images are shorter than their geometry");
  } else {
    record_comparison(first->contents(), second->contents(), first->layout, &list).run();
  }
  list.finish(out.status() < exit_status::failed);
}

void run(const diff_options& options, const globals& all, report& out) {
  if (options.files && options.records) {
    out.fail(exit_status::usage, "either --files or --records");
  } else if (options.records) {
    compare_records(options, all, out);
  } else {
    compare_files(options, all, out);
  }
}

}  // namespace

command diff_command() {
  auto options = std::make_shared<diff_options>();
  return {"diff", "Tells what is different between two images",
          "flashfs-image diff before.img after.img",
          [options](arguments& take) {
            take.image(&options->first, "A", "An image");
            take.word("B", &options->second, "Another one");
            take.flag("--files", &options->files,
                      "Names, contents, modes and dates, wherever they lie on flash (so without)");
            take.flag("--records", &options->records, "Block headers and sectors, by their place");
            take.flag("--brief", &options->brief, "Only whether they differ");
          },
          [options](const globals& all, report& out) { run(*options, all, out); }};
}

}  // namespace image
