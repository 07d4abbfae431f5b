// Judging an image: every fault of a record by itself, every record that stands for something that
// another one stands for as well, and what hangs nowhere.
#include "image/record_findings.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <set>
#include <string>

#include "image/finding_place.h"
#include "image/record_decode.h"
#include "image/record_owners.h"
#include "image/text.h"

namespace image {

namespace {

constexpr uint32_t in_hexadecimal = 0xFFFF;

__attribute__((format(printf, 1, 2))) std::string text_of(const char* format, ...) {
  char text[256];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  return text;
}

unsigned shown(uint32_t value) {
  return value & in_hexadecimal;
}

class judge {
 public:
  explicit judge(const records& all) : all_(all) {}

  std::vector<finding> run() {
    judge_image();
    find_winners();
    for (const block_record& block : all_.blocks) {
      judge_block(block);
      if (block.is_read) {
        judge_sectors(block);
      }
    }
    for (const auto& [id, entry] : all_.entries) {
      judge_entry(entry);
    }
    return std::move(findings_);
  }

 private:
  finding& add(const char* code, std::string text) {
    return findings_.emplace_back(make_finding(code, std::move(text)));
  }
  void add(const char* code, const block_record& block, std::string text) {
    findings_.push_back(make_finding_at(block, code, std::move(text)));
  }
  void add(const char* code, const sector_record& sector, std::string text) {
    finding& made = findings_.emplace_back(make_finding_at(sector, code, std::move(text)));
    if (sector.kind == sector_kind::data) {
      made.path = path_of(all_, sector.bytes->fileid);
    }
  }
  void add(const char* code, const slot_record& slot, std::string text) {
    findings_.push_back(make_finding_at(all_, slot, code, std::move(text)));
  }

  // --- the whole ---

  void judge_image() {
    const uint64_t wanted = size_bytes(all_.layout);
    if (all_.image.size() != wanted) {
      add("image-size", text_of("the image has %llu bytes, its blocks have %llu",
                                static_cast<unsigned long long>(all_.image.size()),
                                static_cast<unsigned long long>(wanted)));
    }
    if (!all_.spare && !check_makes_spare()) {
      add("no-spare", "no block of the largest size is erased: the file system cannot be used");
    }
    // Of an image that was never used nothing else can be expected.
    const entry_record* root = all_.find_entry(fileid_root);
    if (!all_.entries.empty() && (root == nullptr || !root->name)) {
      add("root-missing", "the root has no slot: a check writes one");
    }
  }

  static bool is_erased_by_check(const block_record& block) {
    if (block.verdict != header_verdict::good) {
      return true;
    }
    return block.state != block_available && block.state != block_in_use &&
           block.state != block_committed;
  }

  bool check_makes_spare() const {
    uint32_t largest = 0;
    for (const block_record& block : all_.blocks) {
      largest = std::max(largest, block.sector_count);
    }
    return std::any_of(all_.blocks.begin(), all_.blocks.end(), [&](const block_record& block) {
      return block.sector_count == largest && is_erased_by_check(block);
    });
  }

  // --- blocks ---

  // What an erase would cost.
  static std::string at_stake(const block_record& block) {
    const uint32_t good = block.counts.good_records();
    return good == 0 ? "nothing in it passes a checksum"
                     : "it holds " + counted(block.counts.data_sectors, "good sector") + " and " +
                           counted(block.counts.good_slots, "good slot");
  }

  void judge_block(const block_record& block) {
    switch (block.verdict) {
      case header_verdict::missing:
        return;  // told of the image
      case header_verdict::erased:
        if (block.is_erased) {
          add("block-blank", block, "erased, without a header: a check writes one");
        } else {
          add("block-header-erased", block,
              "the header is erased: a check erases the block; " + at_stake(block));
        }
        return;
      case header_verdict::bad_number:
        add("block-number", block,
            text_of("the header is of block %u: a check erases the block; ",
                    static_cast<unsigned>(block.header->block_num)) +
                at_stake(block));
        return;
      case header_verdict::bad_checksum:
        add("block-checksum", block,
            text_of("the header's checksum %04x does not fit its timestamp: a check erases the "
                    "block; ",
                    shown(block.header->checksum)) +
                at_stake(block));
        return;
      case header_verdict::good:
        break;
    }
    judge_state(block);
    judge_unused(block);
  }

  void judge_state(const block_record& block) {
    switch (block.state) {
      case block_in_use:
        return;
      case block_available:
        if (block.counts.free_sectors != block.sector_count) {
          add("block-not-erased", block,
              "available, but " +
                  counted(block.sector_count - block.counts.free_sectors, "sector") +
                  " not erased; " + at_stake(block));
        }
        return;
      case block_invalid1:
        add("block-invalid1", block,
            "a copy that was cut, its source still stands: a check erases the block; " +
                at_stake(block));
        return;
      case block_committed:
        add("block-committed", block,
            "a copy that is whole: a check takes the block into use; " + at_stake(block));
        return;
      case block_invalid2:
        add("block-invalid2", block, "given up: a check erases the block; " + at_stake(block));
        return;
      default:
        add("block-state", block,
            text_of("the state %x is unknown: a check erases the block; ",
                    static_cast<unsigned>(block.state)) +
                at_stake(block));
    }
  }

  void judge_unused(const block_record& block) {
    constexpr uint8_t unused_state_bits = 0xF0;
    if ((block.header->state & unused_state_bits) != unused_state_bits ||
        !is_erased(block.header->reserved, sizeof(block.header->reserved))) {
      add("block-header-unused", block, "unused bytes of the header are not erased");
    }
    if (!block.tail_is_erased) {
      add("block-tail", block, "what lies behind the last sector is not erased");
    }
  }

  // --- sectors and slots ---

  // Which record stands for what another one stands for as well.
  void find_winners() {
    for (const auto& [id, entry] : all_.entries) {
      for (const record_index index : entry.sectors) {
        sector_winners_[key_of(id, all_.sectors[index].bytes->seq_no)] = index;
      }
      for (const record_index index : entry.slots) {
        slot_winners_[key_of(id, all_.slots[index].bytes->seq_no)] = index;
      }
    }
  }

  static uint32_t key_of(uint16_t id, uint16_t seq_no) {
    return uint32_t{id} << 16 | seq_no;
  }

  // Where that stands which counts in a record's stead; empty when nothing does.
  std::string place_of_winner(uint16_t id, uint16_t seq_no) const {
    const uint32_t key = key_of(id, seq_no);
    if (const auto sector = sector_winners_.find(key); sector != sector_winners_.end()) {
      const sector_record& found = all_.sectors[sector->second];
      return text_of("sector %u.%u", found.block, found.sector);
    }
    if (const auto slot = slot_winners_.find(key); slot != slot_winners_.end()) {
      const slot_record& found = all_.slots[slot->second];
      return text_of("slot %u.%u.%u", found.block, found.sector, found.slot);
    }
    return "";
  }

  void judge_sectors(const block_record& block) {
    for (const sector_record& sector : all_.sectors_of(block)) {
      switch (sector.kind) {
        case sector_kind::free:
        case sector_kind::obsolete:
          break;
        case sector_kind::not_erased:
          add("sector-not-erased", sector, "no owner, but not erased");
          break;
        case sector_kind::directory:
          for (const slot_record& slot : all_.slots_of(sector)) {
            judge_slot(slot);
          }
          break;
        case sector_kind::data:
          judge_data(sector);
      }
    }
  }

  void judge_data(const sector_record& sector) {
    const flashfs_sector& bytes = *sector.bytes;
    const auto owner = static_cast<unsigned>(bytes.fileid);
    if (sector.verdict == sector_verdict::unfinished) {
      add("sector-unfinished", sector, text_of("claimed for file %u, not written whole", owner));
      return;
    }
    if (sector.verdict != sector_verdict::good) {
      add("sector-checksum", sector,
          text_of("of file %u: the checksum %04x does not fit, %04x would", owner,
                  shown(bytes.checksum),
                  shown(generate_crc(offsetof(flashfs_sector, checksum), &bytes))));
      return;
    }
    if (bytes.count > sector_data_size) {
      add("sector-count", sector,
          text_of("of file %u: %u bytes of data, 2048 are taken", owner,
                  static_cast<unsigned>(bytes.count)));
    }
    if (sector.is_current) {
      return;
    }
    const std::string winner = place_of_winner(bytes.fileid, bytes.seq_no);
    if (!winner.empty()) {
      add("sector-duplicate", sector,
          text_of("number %u of file %u is also in ", static_cast<unsigned>(bytes.seq_no), owner) +
              winner + ", which counts");
    }
  }

  void judge_slot(const slot_record& slot) {
    const flashfs_dir_slot& bytes = *slot.bytes;
    switch (slot.verdict) {
      case slot_verdict::free:
      case slot_verdict::deleted:
        return;
      case slot_verdict::not_erased:
        add("slot-not-erased", slot, "no directory, but not erased");
        return;
      case slot_verdict::unfinished:
        add("slot-unfinished", slot, "begun, but not written whole");
        return;
      case slot_verdict::bad_checksum:
        add("slot-checksum", slot,
            text_of("the checksum %04x does not fit, %04x would", shown(bytes.checksum),
                    shown(generate_crc(offsetof(flashfs_dir_slot, checksum), &bytes))));
        return;
      case slot_verdict::bad_type:
        add("slot-type", slot,
            text_of("the mode %04x is neither a file's nor a directory's", shown(bytes.mode)));
        return;
      case slot_verdict::bad_name:
        add("slot-name", slot, "the name has a character that must not stand in one");
        return;
      case slot_verdict::good:
        judge_good_slot(slot);
    }
  }

  void judge_good_slot(const slot_record& slot) {
    const flashfs_dir_slot& bytes = *slot.bytes;
    const auto named = static_cast<unsigned>(bytes.entry_fileid);
    const size_t length = slot_name(bytes).size();
    if (length > filename_max) {
      add("slot-name-length", slot, "the name has no end: it ends with its field");
    }
    if (length == 0 && bytes.entry_fileid != fileid_root) {
      add("slot-name-empty", slot, text_of("the name of %u is empty", named));
    }
    if (bytes.entry_fileid == fileid_invalidated || bytes.entry_fileid == fileid_available) {
      add("slot-entry", slot,
          text_of("it names %u, which nothing can have: no check passes", named));
      return;
    }
    if (!slot.is_current) {
      const std::string winner = place_of_winner(bytes.dir_fileid, bytes.seq_no);
      add("slot-duplicate", slot,
          text_of("number %u of directory %u is also in ", static_cast<unsigned>(bytes.seq_no),
                  static_cast<unsigned>(bytes.dir_fileid)) +
              (winner.empty() ? "another" : winner + ", which counts"));
      return;
    }
    const entry_record* entry = all_.find_entry(bytes.entry_fileid);
    if (!slot.is_name && entry != nullptr && entry->name) {
      const slot_record& name = all_.slots[*entry->name];
      add("slot-second-name", slot,
          text_of("what it names, %u, has its name from slot %u.%u.%u", named, name.block,
                  name.sector, name.slot));
    }
  }

  // --- ids ---

  void judge_entry(const entry_record& entry) {
    const auto id = static_cast<unsigned>(entry.id);
    if (entry.has_gap) {
      add("file-gap", text_of("file %u: the numbers of its ", id) +
                          counted(entry.other_sectors.size(), "sector") +
                          " have a gap: a check drops them all")
          .path = path_of(all_, entry.id);
    }
    if (entry.is_orphan) {
      const uint64_t records = entry.is_directory ? entry.slots.size() : entry.sectors.size();
      add("orphan", text_of("%s %u with ", entry.is_directory ? "directory" : "file", id) +
                        counted(records, entry.is_directory ? "slot" : "sector") +
                        text_of(" has no name: a check gives it \"/lost+found/%05u\"", id));
    }
    if (entry.is_directory && !entry.sectors.empty()) {
      add("file-in-directory",
          text_of("directory %u owns ", id) + counted(entry.sectors.size(), "sector") + " of data")
          .path = path_of(all_, entry.id);
    }
    if (!entry.is_directory && !entry.slots.empty()) {
      add("slots-in-file", text_of("file %u has ", id) + counted(entry.slots.size(), "slot")).path =
          path_of(all_, entry.id);
    }
    judge_full_sectors(entry);
    judge_names(entry);
  }

  void judge_full_sectors(const entry_record& entry) {
    for (size_t i = 0; i + 1 < entry.sectors.size(); ++i) {
      const sector_record& sector = all_.sectors[entry.sectors[i]];
      if (sector.bytes->count < sector_data_size) {
        add("sector-short", sector,
            text_of("number %u of file %u has %u bytes, and is not the last one",
                    static_cast<unsigned>(sector.bytes->seq_no), static_cast<unsigned>(entry.id),
                    static_cast<unsigned>(sector.bytes->count)));
      }
    }
  }

  void judge_names(const entry_record& entry) {
    std::set<std::string_view> names;
    for (const record_index index : entry.slots) {
      const slot_record& slot = all_.slots[index];
      if (slot.is_name && slot.bytes->entry_fileid != fileid_root &&
          !names.insert(slot_name(*slot.bytes)).second) {
        add("slot-same-name", slot, "the name stands in this directory already");
      }
    }
  }

  const records& all_;
  std::map<uint32_t, record_index> sector_winners_;
  std::map<uint32_t, record_index> slot_winners_;
  std::vector<finding> findings_;
};

bool has(std::span<const finding> findings, severity wanted) {
  return std::any_of(findings.begin(), findings.end(),
                     [&](const finding& each) { return each.severity == wanted; });
}

}  // namespace

std::vector<finding> judge_records(const records& all) {
  return judge(all).run();
}

bool has_errors(std::span<const finding> findings) {
  return has(findings, severity::error);
}

bool has_warnings(std::span<const finding> findings) {
  return has(findings, severity::warning);
}

}  // namespace image
