// Records explained.
#include "image/record_fields.h"

#include <fmt/format.h>

#include "image/record_fit.h"
#include "image/text.h"

namespace image {

namespace {

// Collects the fields of a record one behind the other.
class field_list {
 public:
  explicit field_list(uint32_t offset) : offset_(offset) {}

  void add(const char* name, size_t size, std::string value, std::string meaning,
           bool is_good = true) {
    const auto bytes = static_cast<uint32_t>(size);
    fields_.push_back({name, offset_, bytes, std::move(value), std::move(meaning), is_good});
    offset_ += bytes;
  }
  std::vector<record_field> take() {
    return std::move(fields_);
  }

 private:
  uint32_t offset_;
  std::vector<record_field> fields_;
};

std::string hex16(uint16_t value) {
  return fmt::format("{:04x}", value);
}

std::string decimal(uint32_t value) {
  return std::to_string(value);
}

void add_unused(field_list* fields, const void* bytes, size_t size) {
  const bool erased = is_erased(bytes, size);
  fields->add("unused", size, erased ? "erased" : "not erased",
              erased ? "as it should be" : "of no consequence", erased);
}

std::string state_meaning(uint8_t state) {
  switch (state) {
    case block_available:
      return "available: erased, not used since";
    case block_invalid1:
      return "invalid1: a copy is being written into it; its sectors do not count";
    case block_committed:
      return "committed: a copy that is whole; its sectors count";
    case block_invalid2:
      return "invalid2: given up, about to be erased; its sectors do not count";
    case block_in_use:
      return "in use: its sectors count";
    default:
      return "unknown: torn; its sectors do not count";
  }
}

// "file 5, /a/b", "directory 7".
std::string named(const records& all, uint16_t id) {
  const entry_record* entry = all.find_entry(id);
  const std::string path = path_of(all, id);
  std::string text = entry != nullptr && entry->is_directory ? "directory " : "file ";
  if (id == fileid_root) {
    text = "directory ";
  }
  return text + std::to_string(id) + (path.empty() ? "" : ", " + path);
}

std::string checksum_meaning(bool good, uint32_t fitting) {
  return good ? "fits" : fmt::format("does not fit: {:04x} would", fitting);
}

// --- sectors ---

std::string owner_meaning(const records& all, const sector_record& sector) {
  const uint16_t owner = sector.bytes->fileid;
  switch (sector.kind) {
    case sector_kind::free:
    case sector_kind::not_erased:
      return "free";
    case sector_kind::obsolete:
      return fmt::format("obsolete; the checksum fits owner {}, for what that is worth",
                         fitting_owner(*sector.bytes));
    case sector_kind::directory:
      return "a directory sector: 32 slots, of any directories";
    case sector_kind::data:
      break;
  }
  return "data of " + named(all, owner);
}

void add_directory_fields(field_list* fields, const sector_record& sector,
                          const block_record& block) {
  const flashfs_sector& bytes = *sector.bytes;
  fields->add("count", sizeof(bytes.count), hex16(bytes.count), "unused in a directory sector");
  fields->add("slots", sizeof(bytes.data), "32 slots",
              "each has a checksum of its own; see them with --slot " + decimal(block.number) +
                  "." + decimal(sector.sector) + ".I");
  fields->add("number", sizeof(bytes.seq_no), hex16(bytes.seq_no), "unused in a directory sector");
  fields->add("checksum", sizeof(bytes.checksum), hex16(bytes.checksum),
              "unused in a directory sector");
}

void add_data_fields(field_list* fields, const sector_record& sector) {
  const flashfs_sector& bytes = *sector.bytes;
  const bool judged = sector.kind == sector_kind::data;
  const bool erased = sector.kind == sector_kind::free;
  const uint16_t count = bytes.count;
  fields->add("count", sizeof(bytes.count), erased ? "erased" : decimal(count),
              erased                     ? "nothing yet"
              : count > sector_data_size ? "bytes of data: more than a sector holds, 2048 are taken"
                                         : "bytes of data in use",
              !judged || count <= sector_data_size);
  const uint32_t used = sector_bytes_used(&bytes);
  const bool rest_is_erased = is_erased(bytes.data + used, sector_data_size - used);
  fields->add("data", sizeof(bytes.data), erased ? "erased" : decimal(used) + " bytes",
              used == sector_data_size || erased ? ""
              : rest_is_erased                   ? "erased behind them"
                                                 : "something else behind them, of no consequence");
  fields->add("number", sizeof(bytes.seq_no), erased ? "erased" : decimal(bytes.seq_no),
              erased                                   ? "nothing yet"
              : sector.kind == sector_kind::not_erased ? "of no consequence without an owner"
                                                       : "the sector's place in its file, from 0");
  const bool good = sector_crc(&bytes) == flashfs_good_crc;
  fields->add("checksum", sizeof(bytes.checksum), erased ? "erased" : hex16(bytes.checksum),
              erased ? "nothing yet"
              : judged
                  ? checksum_meaning(good, generate_crc(offsetof(flashfs_sector, checksum), &bytes))
                  : "covers the owner, which is gone",
              !judged || good);
}

// --- slots ---

std::string directory_meaning(const records& all, const slot_record& slot) {
  const uint16_t directory = slot.bytes->dir_fileid;
  if (slot.verdict == slot_verdict::free || slot.verdict == slot_verdict::not_erased) {
    return "free";
  }
  if (slot.verdict == slot_verdict::deleted) {
    return fmt::format("deleted; the checksum fits directory {}, for what that is worth",
                       fitting_directory(*slot.bytes));
  }
  const std::string path = path_of(all, directory);
  return "the directory that holds the entry" + (path.empty() ? "" : ", " + path);
}

std::string type_meaning(ppc_mode_t mode) {
  constexpr ppc_mode_t shown_bits[] = {0x400, 0x200, 0x100};
  std::string text = is_directory_mode(mode) ? "d" : is_regular_mode(mode) ? "-" : "?";
  for (int i = 0; i < 3; ++i) {
    text += (mode & shown_bits[i]) != 0 ? "rwx"[i] : '-';
  }
  text += is_directory_mode(mode) ? ": a directory" : is_regular_mode(mode) ? ": a file" : "";
  return text[0] == '?' ? text + ": neither file nor directory" : text;
}

bool is_id(uint16_t id) {
  return id != fileid_invalidated && id != fileid_available;
}

}  // namespace

std::vector<record_field> fields_of(const block_record& block) {
  if (block.header == nullptr) {
    return {};
  }
  const flashfs_blkheader& header = *block.header;
  field_list fields(block.offset);
  fields.add("erase count", sizeof(header.erase_count), decimal(header.erase_count),
             block.verdict == header_verdict::erased ? "none yet" : "how often it was erased");
  fields.add("timestamp", sizeof(header.timestamp), decimal(header.timestamp),
             "the last erase: " + date_text(header.timestamp));
  const bool fits = blkheader_crc(&header) == flashfs_good_crc;
  fields.add("checksum", sizeof(header.checksum), hex16(header.checksum),
             checksum_meaning(fits, generate_crc(sizeof(header.timestamp), &header.timestamp)) +
                 " (it covers the timestamp alone)",
             fits);
  const bool own = header.block_num == block.number;
  fields.add("number", sizeof(header.block_num), decimal(header.block_num),
             own ? "its own" : "not its own, which is " + decimal(block.number), own);
  const bool known = std::string(state_text(block.state)) != "unknown";
  fields.add("state", sizeof(header.state), fmt::format("{:02x}", header.state),
             state_meaning(block.state), known);
  add_unused(&fields, header.reserved, sizeof(header.reserved));
  return fields.take();
}

std::vector<record_field> fields_of(const records& all, const sector_record& sector) {
  field_list fields(sector.offset);
  fields.add("owner", sizeof(sector.bytes->fileid), decimal(sector.bytes->fileid),
             owner_meaning(all, sector), sector.kind != sector_kind::not_erased);
  if (sector.kind == sector_kind::directory) {
    add_directory_fields(&fields, sector, all.block_of(sector));
  } else {
    add_data_fields(&fields, sector);
  }
  return fields.take();
}

std::vector<record_field> fields_of(const records& all, const slot_record& slot) {
  const flashfs_dir_slot& bytes = *slot.bytes;
  field_list fields(slot.offset);
  if (slot.verdict == slot_verdict::free) {
    fields.add("slot", sizeof(bytes), "erased", "free");
    return fields.take();
  }
  const bool judged = slot.verdict != slot_verdict::deleted;
  fields.add("number", sizeof(bytes.seq_no), decimal(bytes.seq_no),
             "the slot's place in its directory");
  fields.add("directory", sizeof(bytes.dir_fileid), decimal(bytes.dir_fileid),
             directory_meaning(all, slot), slot.verdict != slot_verdict::not_erased);
  fields.add("entry", sizeof(bytes.entry_fileid), decimal(bytes.entry_fileid),
             is_id(bytes.entry_fileid) ? "what it names: " + named(all, bytes.entry_fileid)
                                       : "nothing can have this id",
             !judged || is_id(bytes.entry_fileid));
  const bool type_is_known = is_directory_mode(bytes.mode) || is_regular_mode(bytes.mode);
  fields.add("mode", sizeof(bytes.mode), hex16(bytes.mode), type_meaning(bytes.mode),
             !judged || type_is_known);
  fields.add("date", sizeof(bytes.date), decimal(bytes.date), date_text(bytes.date));
  add_unused(&fields, bytes.reserved, sizeof(bytes.reserved));
  const std::string name(slot_name(bytes));
  const int illegal = filename_illegal_char(name.c_str());
  fields.add("name", sizeof(bytes.name), name,
             illegal != 0                 ? fmt::format("the character {:02x} must not stand in it",
                                                        static_cast<unsigned>(illegal) & 0xFF)
             : name.size() > filename_max ? "it has no end"
             : name.empty()               ? "empty, as the root's is"
                                          : decimal(static_cast<uint32_t>(name.size())) +
                                  (name.size() == 1 ? " character" : " characters"),
             !judged || (illegal == 0 && name.size() <= filename_max));
  const bool fits = dir_slot_crc(&bytes) == flashfs_good_crc;
  fields.add(
      "checksum", sizeof(bytes.checksum), hex16(bytes.checksum),
      judged ? checksum_meaning(fits, generate_crc(offsetof(flashfs_dir_slot, checksum), &bytes))
             : "covers the directory, which is gone",
      !judged || fits);
  return fields.take();
}

std::string summary_of(const block_record& block) {
  if (block.verdict == header_verdict::missing) {
    return verdict_text(block.verdict);
  }
  if (block.is_erased) {
    return "blank";
  }
  const record_counts& counts = block.counts;
  const std::string holds =
      fmt::format("{} data, {} directory, {} obsolete, {} free{}", counts.data_sectors,
                  counts.directory_sectors, counts.obsolete_sectors, counts.free_sectors,
                  counts.bad_sectors == 0 ? "" : fmt::format(", {} bad", counts.bad_sectors));
  if (block.verdict != header_verdict::good) {
    return fmt::format("bad header, {}: {}", verdict_text(block.verdict), holds);
  }
  return fmt::format("{}, erase count {}: {}", state_text(block.state),
                     static_cast<uint32_t>(block.header->erase_count), holds);
}

std::string summary_of(const records& all, const sector_record& sector) {
  const flashfs_sector& bytes = *sector.bytes;
  switch (sector.kind) {
    case sector_kind::free:
      return "free";
    case sector_kind::not_erased:
      return verdict_text(sector.verdict);
    case sector_kind::obsolete:
      return "obsolete";
    case sector_kind::directory: {
      record_counts counts;
      for (const slot_record& slot : all.slots_of(sector)) {
        counts.good_slots += slot.verdict == slot_verdict::good ? 1 : 0;
        counts.free_slots += slot.verdict == slot_verdict::free ? 1 : 0;
        counts.deleted_slots += slot.verdict == slot_verdict::deleted ? 1 : 0;
      }
      const uint32_t bad =
          slots_per_sector - counts.good_slots - counts.free_slots - counts.deleted_slots;
      return fmt::format("directory: {} good slots, {} deleted, {} free{}", counts.good_slots,
                         counts.deleted_slots, counts.free_slots,
                         bad == 0 ? "" : fmt::format(", {} bad", bad));
    }
    case sector_kind::data:
      break;
  }
  std::string text =
      sector.verdict == sector_verdict::unfinished
          ? named(all, bytes.fileid)
          : fmt::format("number {} of {}: {} bytes", static_cast<uint16_t>(bytes.seq_no),
                        named(all, bytes.fileid), sector_bytes_used(&bytes));
  if (sector.verdict != sector_verdict::good) {
    text += std::string("; ") + verdict_text(sector.verdict);
  } else if (!sector.is_current) {
    text += "; it does not count";
  }
  return text;
}

std::string summary_of(const slot_record& slot) {
  const flashfs_dir_slot& bytes = *slot.bytes;
  if (slot.verdict == slot_verdict::free || slot.verdict == slot_verdict::not_erased) {
    return verdict_text(slot.verdict);
  }
  std::string text = fmt::format(
      "number {} of directory {}: {} {}, \"", static_cast<uint16_t>(bytes.seq_no),
      static_cast<uint16_t>(bytes.dir_fileid), is_directory_mode(bytes.mode) ? "directory" : "file",
      static_cast<uint16_t>(bytes.entry_fileid));
  text.append(slot_name(bytes)).append("\"");
  if (slot.verdict != slot_verdict::good) {
    text += std::string("; ") + verdict_text(slot.verdict);
  } else if (!slot.is_name) {
    text += "; it does not count";
  }
  return text;
}

}  // namespace image
