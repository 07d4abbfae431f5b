// The difference that a check makes. A record is lost when it passes its checksum before and
// nothing equal to it counts afterwards: reclamations move records, and copies that were cut hold
// nothing of their own.
#include "image/check_report.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <string_view>
#include <tuple>

#include "image/finding_place.h"
#include "image/text.h"

namespace image {

namespace {

std::string_view bytes_of(const flashfs_sector& sector) {
  return {reinterpret_cast<const char*>(&sector), sizeof(sector)};
}

// What a slot says, but for its number and date: a directory's date is written anew in a slot that
// takes the place of the old one.
using slot_meaning = std::tuple<uint16_t, uint16_t, std::string_view>;

slot_meaning meaning_of(const flashfs_dir_slot& slot) {
  return {slot.dir_fileid, slot.entry_fileid, slot_name(slot)};
}

// All that stands after the check.
class standing_records {
 public:
  explicit standing_records(const records& all) {
    for (const sector_record& sector : all.sectors) {
      if (sector.is_current) {
        sectors_.emplace(key_of(*sector.bytes), sector.bytes);
      }
    }
    for (const slot_record& slot : all.slots) {
      if (slot.is_current) {
        slots_.insert(meaning_of(*slot.bytes));
      }
    }
  }

  bool has(const flashfs_sector& sector) const {
    const auto found = sectors_.find(key_of(sector));
    return found != sectors_.end() && bytes_of(*found->second) == bytes_of(sector);
  }
  bool has(const flashfs_dir_slot& slot) const {
    return slots_.contains(meaning_of(slot));
  }

 private:
  // Of one place in one file only one sector counts.
  static uint32_t key_of(const flashfs_sector& sector) {
    return uint32_t{sector.fileid} << 16 | sector.seq_no;
  }

  std::map<uint32_t, const flashfs_sector*> sectors_;
  std::set<slot_meaning> slots_;
};

bool is_erased_meanwhile(const block_record& before, const block_record& after) {
  return before.header != nullptr && after.header != nullptr &&
         (before.verdict != header_verdict::good ||
          before.header->erase_count != after.header->erase_count) &&
         std::memcmp(before.header, after.header, sizeof(*before.header)) != 0;
}

// Something that has a path.
struct shown_entry {
  const entry_record* entry;
  const records* all;

  const flashfs_dir_slot* slot() const {
    return entry->name ? all->slots[*entry->name].bytes : nullptr;
  }
};
using shown_tree = std::map<std::string, shown_entry>;

shown_tree tree_of(const records& all) {
  shown_tree tree;
  for (const auto& [id, entry] : all.entries) {
    if (entry.is_reached) {
      // Of two with one name the first is the one that a path leads to.
      tree.try_emplace(path_of(all, id), shown_entry{&entry, &all});
    }
  }
  return tree;
}

bool have_equal_contents(const shown_entry& one, const shown_entry& other) {
  const auto& sectors = one.entry->sectors;
  const auto& others = other.entry->sectors;
  return std::equal(sectors.begin(), sectors.end(), others.begin(), others.end(),
                    [&](record_index a, record_index b) {
                      return bytes_of(*one.all->sectors[a].bytes).substr(sizeof(be16)) ==
                             bytes_of(*other.all->sectors[b].bytes).substr(sizeof(be16));
                    });
}

constexpr std::string_view lost_and_found = "/lost+found";

// "/lost+found/00012".
bool is_relinked_path(std::string_view path) {
  constexpr size_t digits = 5;
  return path.size() == lost_and_found.size() + 1 + digits && path.starts_with(lost_and_found) &&
         path.find_first_not_of("0123456789", lost_and_found.size() + 1) == std::string_view::npos;
}

bool is_below_relinked(std::string_view path) {
  return path.size() > lost_and_found.size() + 1 && path.starts_with(lost_and_found) &&
         path.find('/', lost_and_found.size() + 1) != std::string_view::npos;
}

class reporter {
 public:
  explicit reporter(const check_run& run)
      : run_(run), before_(run.before), after_(run.after), standing_(run.after) {}

  std::vector<finding> report() {
    compare_trees();
    // Told of the blocks first: what happens to a file is the sum of it.
    std::vector<finding> files = std::move(findings_);
    findings_.clear();
    compare_blocks();
    findings_.insert(findings_.end(), std::make_move_iterator(files.begin()),
                     std::make_move_iterator(files.end()));
    if (run_.mounted != nullptr && run_.passed) {
      compare_with_mounted();
    }
    if (!run_.passed) {
      add("check-fails",
          "the file system cannot be used after it: run \"flashfs-image rescue\" first");
    }
    for (const std::string& line : run_.lines) {
      // How long it took says nothing of the image, and is not the same twice.
      if (!line.starts_with("flashfs fsck took ")) {
        add("check-message", line);
      }
    }
    return std::move(findings_);
  }

 private:
  finding& add(const char* code, std::string text) {
    return findings_.emplace_back(make_finding(code, std::move(text)));
  }
  void add_path(const char* code, const std::string& path, std::string text) {
    add(code, std::move(text)).path = path;
  }
  void add(const char* code, const block_record& block, std::string text) {
    findings_.push_back(make_finding_at(block, code, std::move(text)));
  }
  void add(const char* code, const sector_record& sector, std::string text) {
    finding& made = findings_.emplace_back(make_finding_at(sector, code, std::move(text)));
    made.path = path_of(before_, sector.bytes->fileid);
  }
  void add(const char* code, const slot_record& slot, const records& all, std::string text) {
    findings_.push_back(make_finding_at(all, slot, code, std::move(text)));
  }

  // --- blocks and what stands in them ---

  void compare_blocks() {
    const size_t count = std::min(before_.blocks.size(), after_.blocks.size());
    for (size_t i = 0; i < count; ++i) {
      const block_record& before = before_.blocks[i];
      const block_record& after = after_.blocks[i];
      if (before.is_erased && !after.is_erased) {
        add("check-block-header", before, "it is blank and gets a header");
      } else if (is_erased_meanwhile(before, after)) {
        report_erase(before);
      } else {
        compare_states(before, after);
        compare_sectors(before, after);
      }
    }
  }

  void report_erase(const block_record& block) {
    uint32_t lost_sectors = 0;
    uint32_t lost_slots = 0;
    for (const sector_record& sector : before_.sectors_of(block)) {
      if (sector.kind == sector_kind::data && sector.verdict == sector_verdict::good) {
        lost_sectors += standing_.has(*sector.bytes) ? 0 : 1;
      }
      for (const slot_record& slot : before_.slots_of(sector)) {
        if (slot.verdict == slot_verdict::good) {
          lost_slots += standing_.has(*slot.bytes) ? 0 : 1;
        }
      }
    }
    std::string why = block.verdict != header_verdict::good
                          ? std::string("its header: ") + verdict_text(block.verdict)
                          : std::string("its state: ") + state_text(block.state);
    if (lost_sectors + lost_slots == 0) {
      add("check-block-erased", block, "it is erased (" + why + "); nothing is lost");
      return;
    }
    add("check-block-lost", block,
        "it is erased (" + why + ") with " + counted(lost_sectors, "good sector") + " and " +
            counted(lost_slots, "good slot") + " that stand nowhere else");
  }

  void compare_states(const block_record& before, const block_record& after) {
    if (before.state != after.state) {
      add("check-block-state", before,
          std::string("its state goes from ") + state_text(before.state) + " to " +
              state_text(after.state));
    }
  }

  void compare_sectors(const block_record& block, const block_record& block_after) {
    const std::span<const sector_record> sectors = before_.sectors_of(block);
    const std::span<const sector_record> sectors_after = after_.sectors_of(block_after);
    for (size_t s = 0; s < std::min(sectors.size(), sectors_after.size()); ++s) {
      const sector_record& sector = sectors[s];
      const sector_record& after = sectors_after[s];
      if (bytes_of(*sector.bytes) == bytes_of(*after.bytes)) {
        continue;
      }
      const bool goes = after.kind == sector_kind::obsolete && sector.kind != after.kind;
      if (goes && sector.kind != sector_kind::directory) {
        report_obsolete(sector);
      }
      compare_slots(sector, after);
    }
  }

  void report_obsolete(const sector_record& sector) {
    const uint16_t owner = sector.bytes->fileid;
    if (sector.kind == sector_kind::data && dropped_.contains(owner)) {
      return;  // told of the file
    }
    const std::string whose =
        sector.kind == sector_kind::data
            ? "number " + std::to_string(sector.bytes->seq_no) + " of file " + std::to_string(owner)
            : "a sector without owner";
    if (sector.verdict != sector_verdict::good) {
      add("check-sector-obsolete", sector,
          whose + " is made obsolete: " + verdict_text(sector.verdict));
    } else if (standing_.has(*sector.bytes)) {
      add("check-sector-obsolete", sector, whose + " is made obsolete: its like stands elsewhere");
    } else if (!sector.is_current) {
      add("check-sector-obsolete", sector,
          whose + " is made obsolete: another one counts in its stead");
    } else {
      add("check-sector-lost", sector, whose + " is good and is made obsolete");
    }
  }

  // Slots go one by one, or with their sector when none is left in it.
  void compare_slots(const sector_record& sector, const sector_record& after) {
    const std::span<const slot_record> slots = before_.slots_of(sector);
    const std::span<const slot_record> slots_after = after_.slots_of(after);
    for (size_t k = 0; k < slots.size(); ++k) {
      const bool gone = slots_after.empty() || slots_after[k].verdict == slot_verdict::deleted;
      const slot_verdict verdict = slots[k].verdict;
      if (gone && verdict != slot_verdict::free && verdict != slot_verdict::deleted) {
        report_deleted(slots[k]);
      }
    }
    for (size_t k = 0; k < slots_after.size(); ++k) {
      const bool was_free = slots.empty() || slots[k].verdict == slot_verdict::free;
      if (was_free && slots_after[k].verdict == slot_verdict::good) {
        add("check-slot-added", slots_after[k], after_, "a slot is written");
      }
    }
  }

  void report_deleted(const slot_record& slot) {
    if (slot.verdict != slot_verdict::good) {
      add("check-slot-deleted", slot, before_,
          std::string("it is deleted: ") + verdict_text(slot.verdict));
    } else if (standing_.has(*slot.bytes)) {
      add("check-slot-deleted", slot, before_, "it is deleted: its like stands elsewhere");
    } else if (!slot.is_name) {
      add("check-slot-deleted", slot, before_, "it is deleted: it names nothing");
    } else {
      add("check-slot-lost", slot, before_,
          "it is good and is deleted: the name of " + std::to_string(slot.bytes->entry_fileid));
    }
  }

  // --- files ---

  void compare_trees() {
    const shown_tree shown = tree_of(before_);
    const shown_tree shown_after = tree_of(after_);
    for (const auto& [path, entry] : shown) {
      const auto found = shown_after.find(path);
      if (found != shown_after.end()) {
        compare_entries(path, entry, found->second);
      } else {
        add_path("check-file-removed", path,
                 entry.entry->is_directory
                     ? "the directory goes"
                     : "the name goes, of " + std::to_string(entry.entry->size) + " bytes");
      }
    }
    for (const auto& [path, entry] : shown_after) {
      if (!shown.contains(path)) {
        report_new_path(path, entry);
      }
    }
    report_orphans_that_go();
  }

  // Of an orphan, what it is told by is its id.
  void report_orphans_that_go() {
    for (const auto& [id, entry] : before_.entries) {
      if (!entry.is_reached && !entry.is_directory && loses_good_sectors(entry) &&
          dropped_.insert(id).second) {
        add("check-file-dropped", "file " + std::to_string(id) + ", which has no name, loses " +
                                      counted(good_sectors(entry), "good sector"));
      }
    }
  }

  static uint64_t good_sectors(const entry_record& entry) {
    return entry.sectors.size() + entry.other_sectors.size();
  }

  // Whether good sectors stood before, and nothing owns any afterwards.
  bool loses_good_sectors(const entry_record& entry) const {
    const entry_record* left = after_.find_entry(entry.id);
    return good_sectors(entry) > 0 && (left == nullptr || good_sectors(*left) == 0);
  }

  void report_new_path(const std::string& path, const shown_entry& entry) {
    if (is_below_relinked(path) && !is_relinked_path(path)) {
      return;  // it comes with what was relinked
    }
    const char* kind = entry.entry->is_directory ? "directory" : "file";
    if (is_relinked_path(path)) {
      add_path("check-relinked", path,
               std::string("the orphaned ") + kind + " " + std::to_string(entry.entry->id) +
                   " gets a name, " + std::to_string(entry.entry->size) + " bytes");
    } else if (path != "/") {
      add_path("check-file-added", path, std::string("a ") + kind + " appears");
    }
  }

  void compare_entries(const std::string& path, const shown_entry& before,
                       const shown_entry& after) {
    if (!before.entry->is_directory && loses_good_sectors(*before.entry)) {
      dropped_.insert(before.entry->id);
      add_path("check-file-dropped", path,
               "it loses its contents, " + counted(good_sectors(*before.entry), "good sector"));
    } else if (!before.entry->is_directory && !have_equal_contents(before, after)) {
      add_path("check-file-changed", path,
               "its contents change, from " + std::to_string(before.entry->size) + " bytes to " +
                   std::to_string(after.entry->size));
    }
    const flashfs_dir_slot* slot = before.slot();
    const flashfs_dir_slot* slot_after = after.slot();
    if (slot != nullptr && slot_after != nullptr &&
        (slot->mode != slot_after->mode || slot->date != slot_after->date)) {
      add_path("check-file-dated", path,
               slot->mode != slot_after->mode ? "its mode changes" : "its date changes");
    }
  }

  // --- what would be shown ---

  // A quick check believes records that are not good: what it shows is seen only by looking.
  void compare_with_mounted() {
    std::vector<volume::entry> found;
    const int32_t result = run_.mounted->walk("/", &found);
    const shown_tree shown = tree_of(after_);
    std::set<std::string> seen{"/"};
    for (const volume::entry& each : found) {
      const std::string path = "/" + each.path;
      seen.insert(path);
      if (!shown.contains(path)) {
        add_path("check-file-added", path, "a name is shown that no good record gives");
      }
      if (each.error != 0 || (each.is_regular() && run_.mounted->verify(each.path) != 0)) {
        add_path("check-file-unreadable", path, "it is shown but cannot be read");
      }
    }
    for (const auto& [path, entry] : shown) {
      if (!seen.contains(path)) {
        add_path("check-file-hidden", path, "it stands on flash but is not shown");
      }
    }
    if (result != 0) {
      add("check-file-unreadable", "not every directory can be listed");
    }
  }

  const check_run& run_;
  const records& before_;
  const records& after_;
  const standing_records standing_;
  std::set<uint16_t> dropped_;  // files that lose all they had
  std::vector<finding> findings_;
};

}  // namespace

std::vector<finding> report_check(const check_run& run) {
  return reporter(run).report();
}

bool check_leaves_faults(std::span<const finding> report) {
  return std::any_of(report.begin(), report.end(), [](const finding& each) {
    return std::string_view(each.code) == "check-file-unreadable";
  });
}

bool check_loses(std::span<const finding> report) {
  static constexpr std::string_view losses[] = {"check-block-lost",   "check-file-dropped",
                                                "check-file-changed", "check-file-removed",
                                                "check-sector-lost",  "check-slot-lost"};
  return std::any_of(report.begin(), report.end(), [](const finding& each) {
    return std::find(std::begin(losses), std::end(losses), each.code) != std::end(losses);
  });
}

}  // namespace image
