// Titles, fields, rows, findings and bytes of records, as lines and as a document.
#include "image/record_printer.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "image/record_fields.h"
#include "image/text.h"

namespace image {

namespace {

using json = nlohmann::ordered_json;

constexpr uint32_t hex_line_bytes = 16;

std::string place_text(const sector_record& sector) {
  return fmt::format("sector {}.{}", sector.block, sector.sector);
}

std::string place_text(const slot_record& slot) {
  return fmt::format("slot {}.{}.{}", slot.block, slot.sector, slot.slot);
}

class record_printer {
 public:
  record_printer(const records& all, const print_options& options, report& out)
      : all_(all), options_(options), out_(out) {}

  // Whether a finding that was told is an error.
  bool has_errors() const {
    return has_errors_;
  }

  void dump_image() {
    title("image", 0, geometry_text(all_.layout));
    json blocks = json::array();
    rows row(this);
    for (const block_record& block : all_.blocks) {
      const bool is_empty = block.is_erased || (block.state == block_available &&
                                                block.counts.free_sectors == block.sector_count);
      row.add(fmt::format("block {}", block.number), block.offset, summary_of(block),
              is_empty && block.number != all_.spare);
      blocks.push_back(json_of(block));
    }
    row.end();
    out_.result()["blocks"] = std::move(blocks);
    tell_findings([](const finding&) { return true; });
  }

  void dump(const block_record& block) {
    title(fmt::format("block {}", block.number), block.offset, summary_of(block));
    out_.result()["block"] = json_of(block);
    print_fields(fields_of(block));
    json sectors = json::array();
    rows row(this);
    for (const sector_record& sector : all_.sectors_of(block)) {
      row.add(place_text(sector), sector.offset, summary_of(all_, sector),
              sector.kind == sector_kind::free);
      sectors.push_back(json_of(sector));
    }
    row.end();
    out_.result()["sectors"] = std::move(sectors);
    if (!block.tail_is_erased) {
      print_line("behind the last sector: not erased");
    }
    tell_findings([&](const finding& each) { return each.block == block.number; });
    hex(block.offset, block.size, &out_.result());
  }

  void dump(const sector_record& sector) {
    title(place_text(sector), sector.offset, summary_of(all_, sector));
    out_.result()["sector"] = json_of(sector);
    print_fields(fields_of(all_, sector));
    if (sector.kind == sector_kind::directory) {
      json slots = json::array();
      rows row(this);
      for (const slot_record& slot : all_.slots_of(sector)) {
        row.add(place_text(slot), slot.offset, summary_of(slot),
                slot.verdict == slot_verdict::free);
        slots.push_back(json_of(slot));
      }
      row.end();
      out_.result()["slots"] = std::move(slots);
    }
    tell_findings([&](const finding& each) {
      return each.block == sector.block && each.sector == sector.sector;
    });
    hex(sector.offset, sizeof(flashfs_sector), &out_.result());
  }

  void dump(const slot_record& slot) {
    title(place_text(slot), slot.offset, summary_of(slot));
    out_.result()["slot"] = json_of(slot);
    print_fields(fields_of(all_, slot));
    tell_findings([&](const finding& each) {
      return each.block == slot.block && each.sector == slot.sector && each.slot == slot.slot;
    });
    hex(slot.offset, sizeof(flashfs_dir_slot), &out_.result());
  }

  // A file or directory: its slot, and the records of which it is made.
  void dump(const entry_record& entry) {
    const std::string path = path_of(all_, entry.id);
    const char* kind = entry.is_directory ? "directory" : "file";
    print_line(fmt::format("{}: {} {}, {} bytes", escaped(path), kind, entry.id, entry.size));
    json& result = out_.result();
    put_text(&result, "path", path);
    result["type"] = kind;
    result["id"] = entry.id;
    result["size"] = entry.size;
    if (entry.name) {
      const slot_record& slot = all_.slots[*entry.name];
      title(place_text(slot), slot.offset, summary_of(slot));
      result["slot"] = json_of(slot);
      print_fields(fields_of(all_, slot));
      hex(slot.offset, sizeof(flashfs_dir_slot), &result["slot"]);
    }
    json slots = json::array();
    json sectors = json::array();
    add_slots(entry.slots, &slots);
    add_slots(entry.other_slots, &slots);
    add_sectors(entry.sectors, &sectors);
    add_sectors(entry.other_sectors, &sectors);
    result["slots"] = std::move(slots);
    result["sectors"] = std::move(sectors);
    tell_findings([&](const finding& each) { return each.path == path; });
  }

  void dump_nothing(uint64_t offset) {
    title("nothing", offset, "not the file system's");
    hex(offset & ~uint64_t{hex_line_bytes - 1}, hex_line_bytes, &out_.result());
  }

 private:
  void add_slots(const std::vector<record_index>& indexes, json* to) {
    rows row(this);
    for (const record_index index : indexes) {
      const slot_record& slot = all_.slots[index];
      row.add(place_text(slot), slot.offset, summary_of(slot), false);
      to->push_back(json_of(slot));
    }
    row.end();
  }

  void add_sectors(const std::vector<record_index>& indexes, json* to) {
    rows row(this);
    for (const record_index index : indexes) {
      const sector_record& sector = all_.sectors[index];
      row.add(place_text(sector), sector.offset, summary_of(all_, sector), false);
      row.end();
      to->push_back(json_of(sector));
      hex(sector.offset, sizeof(flashfs_sector), &to->back());
    }
  }

  // --- text ---

  void print_line(std::string_view text) {
    out_.print(fmt::format("{}\n", text));
  }

  void title(const std::string& what, uint64_t offset, const std::string& summary) {
    print_line(out_.colored(color::bold, what) +
               fmt::format(" at 0x{:07x}: {}", offset, escaped(summary)));
    out_.result()["offset"] = offset;
  }

  void print_fields(const std::vector<record_field>& fields) {
    json list = json::array();
    for (const record_field& field : fields) {
      const bool asked = options_.at && *options_.at >= field.offset &&
                         *options_.at < uint64_t{field.offset} + field.size;
      std::string line =
          fmt::format("{} 0x{:07x}  {:<12} {:<12} {}", asked ? '>' : ' ', field.offset, field.name,
                      escaped(field.value), escaped(field.meaning));
      line.erase(line.find_last_not_of(' ') + 1);
      print_line(field.is_good ? line : out_.colored(color::red, line + "  <-- bad"));
      json object = {{"name", field.name}, {"offset", field.offset}, {"size", field.size}};
      put_text(&object, "value", field.value);
      put_text(&object, "meaning", field.meaning);
      object["good"] = field.is_good;
      if (options_.at) {
        object["asked"] = asked;
      }
      list.push_back(std::move(object));
    }
    out_.result()["fields"] = std::move(list);
  }

  // Lines for records, in which a run of blank or free ones takes one.
  class rows {
   public:
    explicit rows(record_printer* to) : to_(to) {}
    void add(const std::string& place, uint32_t offset, const std::string& text, bool may_join) {
      if (may_join && count_ > 0 && text == text_) {
        last_ = place;
        count_++;
        return;
      }
      end();
      if (!may_join) {
        print(place, offset, text);
        return;
      }
      first_ = place;
      offset_ = offset;
      text_ = text;
      count_ = 1;
    }
    void end() {
      if (count_ > 0) {
        print(count_ == 1 ? first_ : fmt::format("{} to {}", first_, number_of(last_)), offset_,
              text_);
      }
      count_ = 0;
    }

   private:
    void print(const std::string& place, uint32_t offset, const std::string& text) {
      to_->print_line(fmt::format("  0x{:07x}  {:<25} {}", offset, place, escaped(text)));
    }
    // "1.5" of "sector 1.5".
    static std::string_view number_of(std::string_view place) {
      return place.substr(place.rfind(' ') + 1);
    }
    record_printer* to_;
    std::string first_;
    std::string last_;
    std::string text_;
    uint32_t offset_ = 0;
    uint32_t count_ = 0;
  };

  // Those of which this is true, in their order.
  template <typename Concerns>
  void tell_findings(Concerns concerns) {
    for (const finding& each : all_.findings) {
      if (!concerns(each)) {
        continue;
      }
      if (each.severity == severity::error) {
        has_errors_ = true;
      }
      if (out_.json()) {
        out_.add_to_document(each);
        continue;
      }
      std::string place = each.block ? fmt::format(" {}", *each.block) : "";
      place += each.sector ? fmt::format(".{}", *each.sector) : "";
      place += each.slot ? fmt::format(".{}", *each.slot) : "";
      print_line(out_.colored(each.severity == severity::error ? color::red : color::yellow,
                              fmt::format("  {}: {}{}: {}", severity_text(each.severity), each.code,
                                          place, escaped(each.text))));
    }
  }

  // With --hex: prints the bytes, and puts them into the object.
  void hex(uint64_t offset, uint64_t length, json* to) {
    if (!options_.hex) {
      return;
    }
    const uint64_t end = std::min<uint64_t>(offset + length, all_.image.size());
    std::string digits;
    for (uint64_t at = offset; at < end; at += hex_line_bytes) {
      std::string line = fmt::format("    {:07x}:", at);
      std::string text;
      for (uint64_t i = at; i < std::min<uint64_t>(at + hex_line_bytes, end); ++i) {
        const uint8_t byte = all_.image[static_cast<size_t>(i)];
        line += fmt::format(" {:02x}", byte);
        text += byte >= 0x20 && byte < 0x7F ? static_cast<char>(byte) : '.';
        digits += fmt::format("{:02x}", byte);
      }
      print_line(fmt::format("{:<60}  {}", line, text));
    }
    (*to)["hex"] = digits;
  }

  // --- documents ---

  json json_of(const block_record& block) const {
    json object = {{"block", block.number},
                   {"offset", block.offset},
                   {"size", block.size},
                   {"verdict", block.is_erased ? "blank" : verdict_text(block.verdict)},
                   {"state", state_text(block.state)},
                   {"read", block.is_read}};
    object["erase_count"] = block.erase_count() ? json(*block.erase_count()) : json();
    object["spare"] = all_.spare == block.number;
    return object;
  }

  json json_of(const sector_record& sector) const {
    const flashfs_sector& bytes = *sector.bytes;
    json object = {{"block", sector.block},
                   {"sector", sector.sector},
                   {"offset", sector.offset},
                   {"kind", kind_text(sector.kind)},
                   {"verdict", verdict_text(sector.verdict)},
                   {"owner", static_cast<uint16_t>(bytes.fileid)}};
    if (sector.kind == sector_kind::data) {
      object["number"] = static_cast<uint16_t>(bytes.seq_no);
      object["count"] = static_cast<uint16_t>(bytes.count);
      object["counts"] = sector.is_current;
    }
    return object;
  }

  json json_of(const slot_record& slot) const {
    const flashfs_dir_slot& bytes = *slot.bytes;
    json object = {{"block", slot.block},
                   {"sector", slot.sector},
                   {"slot", slot.slot},
                   {"offset", slot.offset},
                   {"verdict", verdict_text(slot.verdict)}};
    if (slot.verdict != slot_verdict::free) {
      object["number"] = static_cast<uint16_t>(bytes.seq_no);
      object["directory"] = static_cast<uint16_t>(bytes.dir_fileid);
      object["entry"] = static_cast<uint16_t>(bytes.entry_fileid);
      put_text(&object, "name", slot_name(bytes));
      object["counts"] = slot.is_name;
    }
    return object;
  }

  const records& all_;
  const print_options& options_;
  report& out_;
  bool has_errors_ = false;
};

template <typename Record>
bool print(const records& all, const Record& record, const print_options& options, report& out) {
  record_printer printer(all, options, out);
  printer.dump(record);
  return !printer.has_errors();
}

}  // namespace

bool print_records(const records& all, const print_options& options, report& out) {
  record_printer printer(all, options, out);
  printer.dump_image();
  return !printer.has_errors();
}

bool print_record(const records& all, const block_record& block, const print_options& options,
                  report& out) {
  return print(all, block, options, out);
}

bool print_record(const records& all, const sector_record& sector, const print_options& options,
                  report& out) {
  return print(all, sector, options, out);
}

bool print_record(const records& all, const slot_record& slot, const print_options& options,
                  report& out) {
  return print(all, slot, options, out);
}

bool print_record(const records& all, const entry_record& entry, const print_options& options,
                  report& out) {
  return print(all, entry, options, out);
}

void print_no_record(const records& all, uint64_t offset, const print_options& options,
                     report& out) {
  record_printer(all, options, out).dump_nothing(offset);
}

}  // namespace image
