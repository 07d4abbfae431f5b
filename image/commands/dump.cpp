// dump: the records of an image, each field named, explained and judged. Nothing is mounted: what
// stands there is shown as it is. Bytes from flash are escaped, on a terminal or not.
#include <fmt/format.h>

#include <charconv>
#include <memory>

#include "image/commands/commands.h"
#include "image/record_printer.h"
#include "image/session.h"
#include "image/text.h"

namespace image {

namespace {

struct dump_options {
  std::string image;
  std::optional<uint32_t> block;
  std::string sector;
  std::string slot;
  std::string path;
  std::string at;
  bool hex = false;
};

// "B.S" or "B.S.I": so many numbers. Empty when it is anything else.
std::vector<uint32_t> parse_place(std::string_view text, size_t numbers) {
  std::vector<uint32_t> place;
  for (;;) {
    uint32_t value = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    if (result.ec != std::errc()) {
      return {};
    }
    place.push_back(value);
    text.remove_prefix(static_cast<size_t>(result.ptr - text.data()));
    if (text.empty()) {
      return place.size() == numbers ? place : std::vector<uint32_t>();
    }
    if (text.front() != '.') {
      return {};
    }
    text.remove_prefix(1);
  }
}

class selection {
 public:
  selection(const dump_options& options, const records& all, report& out)
      : options_(options), all_(all), out_(out), shown_{.hex = options.hex, .at = std::nullopt} {}

  void run() {
    const int selected = (options_.block ? 1 : 0) + (options_.sector.empty() ? 0 : 1) +
                         (options_.slot.empty() ? 0 : 1) + (options_.path.empty() ? 0 : 1) +
                         (options_.at.empty() ? 0 : 1);
    if (selected > 1) {
      out_.fail(exit_status::usage, "only one of --block, --sector, --slot, --path and --at");
    } else if (options_.block) {
      select_block(*options_.block);
    } else if (!options_.sector.empty()) {
      select_sector();
    } else if (!options_.slot.empty()) {
      select_slot();
    } else if (!options_.path.empty()) {
      select_path();
    } else if (!options_.at.empty()) {
      select_offset();
    } else {
      is_sound_ = print_records(all_, shown_, out_);
    }
  }

  // Whether what was shown has no error.
  bool is_sound() const {
    return is_sound_;
  }

 private:
  void select_block(uint32_t number) {
    if (const block_record* block = find_block(number); block != nullptr) {
      dump(*block);
    }
  }

  void select_sector() {
    const std::vector<uint32_t> place = parse_place(options_.sector, 2);
    if (place.empty()) {
      out_.fail(exit_status::usage,
                "--sector takes the numbers of a block and of a sector, as 1.0");
      return;
    }
    if (const sector_record* sector = find_sector(place[0], place[1]); sector != nullptr) {
      dump(*sector);
    }
  }

  void select_slot() {
    const std::vector<uint32_t> place = parse_place(options_.slot, 3);
    if (place.empty()) {
      out_.fail(exit_status::usage,
                "--slot takes the numbers of a block, a sector and a slot, as 1.0.31");
      return;
    }
    const sector_record* sector = find_sector(place[0], place[1]);
    if (sector == nullptr) {
      return;
    }
    const std::span<const slot_record> slots = all_.slots_of(*sector);
    if (place[2] >= slots_per_sector) {
      out_.fail(exit_status::failed, "a sector has slots 0 to 31");
    } else if (slots.empty()) {
      out_.fail(exit_status::failed,
                fmt::format("sector {}.{} is no directory sector, so it has no slots",
                            sector->block, sector->sector));
    } else {
      dump(slots[place[2]]);
    }
  }

  void select_path() {
    const entry_record* entry = find_path(all_, options_.path);
    if (entry == nullptr) {
      out_.fail(exit_status::failed, "no record that counts leads to this path", options_.path);
      return;
    }
    dump(*entry);
  }

  void select_offset() {
    const std::optional<uint64_t> offset = parse_size(options_.at);
    if (!offset) {
      out_.fail(exit_status::usage, "--at takes a number of bytes, as 133096, 0x207e8 or 128K");
      return;
    }
    if (*offset >= all_.image.size()) {
      out_.fail(exit_status::failed,
                fmt::format("the image ends before it, at 0x{:x}", all_.image.size()));
      return;
    }
    shown_.at = offset;
    const image_place place = find_place(all_, *offset);
    if (place.slot != nullptr) {
      dump(*place.slot);
    } else if (place.sector != nullptr) {
      dump(*place.sector);
    } else if (place.block != nullptr) {
      dump(*place.block);
    } else {
      print_no_record(all_, *offset, shown_, out_);
    }
  }

  const block_record* find_block(uint32_t number) {
    if (number >= all_.blocks.size()) {
      out_.fail(exit_status::failed,
                fmt::format("there is no block {}: the file system has blocks 0 to {}", number,
                            all_.blocks.size() - 1));
      return nullptr;
    }
    return &all_.blocks[number];
  }

  const sector_record* find_sector(uint32_t block_number, uint32_t number) {
    const block_record* block = find_block(block_number);
    if (block == nullptr) {
      return nullptr;
    }
    if (number >= block->sector_count) {
      out_.fail(exit_status::failed, fmt::format("there is no sector {}: block {} has {} of them",
                                                 number, block_number, block->sector_count));
      return nullptr;
    }
    return &all_.sectors_of(*block)[number];
  }

  template <typename Record>
  void dump(const Record& record) {
    is_sound_ = print_record(all_, record, shown_, out_);
  }

  const dump_options& options_;
  const records& all_;
  report& out_;
  print_options shown_;
  bool is_sound_ = true;
};

void run(const dump_options& options, const globals& all, report& out) {
  const std::optional<opened_image> opened =
      open_image(all, options.image, flash_file::access::read, out);
  if (!opened) {
    return;
  }
  const records read = read_records(opened->contents(), opened->layout);
  selection dump(options, read, out);
  dump.run();
  if (all.strict && !dump.is_sound()) {
    out.raise(exit_status::faults);
  }
}

}  // namespace

command dump_command() {
  auto options = std::make_shared<dump_options>();
  return {"dump", "Shows records, each field named, explained and judged",
          "flashfs-image dump --slot 1.0.31 boot.img\n"
          "flashfs-image dump --path /config/a --hex boot.img\n"
          "flashfs-image dump --at 0x207e8 boot.img",
          [options](arguments& take) {
            take.image(&options->image);
            take.option("--block", "N", &options->block, "The header and sectors of a block");
            take.option("--sector", "B.S", &options->sector, "Sector S of block B");
            take.option("--slot", "B.S.I", &options->slot, "Slot I of a directory sector");
            take.option("--path", "P", &options->path, "All records of a file or directory");
            take.option("--at", "OFFSET", &options->at,
                        "The record and field at a byte of the image");
            take.flag("--hex", &options->hex, "The bytes, too");
          },
          [options](const globals& all, report& out) { run(*options, all, out); }};
}

}  // namespace image
