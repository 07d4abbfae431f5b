#include "image/rescue_names.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <utility>

#include "image/rescue_bits.h"
#include "image/rescue_slots.h"

namespace image::rescuing {

namespace {

constexpr uint16_t mode_of_root = 0x4600;
// Of what a check finds without a name.
constexpr uint16_t mode_of_directory = 0x4600;
constexpr uint16_t mode_of_file = 0x8600;
constexpr uint16_t mode_of_lost_and_found = 0x4700;
constexpr const char* lost_and_found = "lost+found";

bool counts(const evidence& found, const slot_record& slot) {
  return slot.kind == slot_kind::good && found.is_kept(slot.at);
}

// Slots are taken from the end of a sector. A creation dates its directory in the next one.
bool is_followed_by_directory(const slot_record& slot, const slot_record* next) {
  return next != nullptr && next->at == slot.at && next->index + 1 == slot.index &&
         next->slot.entry_fileid == slot.slot.dir_fileid && next->slot.date == slot.slot.date &&
         next->is_directory();
}

bool same_name(const slot_record& one, const slot_record& other) {
  return memcmp(one.slot.name, other.slot.name, filename_size) == 0;
}

// Whether the slot has been rewritten, as the end of a write does.
bool has_former_twin(const former_index& former, const slot_record& slot) {
  const auto [first, last] = former.equal_range(slot.slot.entry_fileid);
  return std::any_of(first, last, [&](const auto& other) {
    return former_directory(*other.second) == slot.slot.dir_fileid &&
           same_name(slot, *other.second);
  });
}

// The name that a check gives to what has none.
std::string digits_of(uint16_t id) {
  char digits[sizeof("65535")];
  snprintf(digits, sizeof(digits), "%05u", static_cast<unsigned>(id));
  return digits;
}

class name_judge {
 public:
  name_judge(const evidence& found, const std::set<uint16_t>& with_data, uint32_t date)
      : found_(found), with_data_(with_data), date_(date), former_(index_former(found)) {}

  name_changes judge() {
    collect();
    mend_damaged();
    finish_or_undo_deletions();
    place_root();
    delete_names_in_files();
    relink_orphans();
    connect_to_root();
    return std::move(changes_);
  }

 private:
  using standing_slot = standing_names::standing_slot;

  rescue_decision& note(const char* code, certainty sure, const slot_record* about,
                        const flashfs_dir_slot& slot, const std::string& what,
                        const std::string& evidence_text) {
    rescue_decision decision = {.code = code, .sure = sure, .fileid = slot.entry_fileid};
    if (about != nullptr) {
      decision.block = about->at.block;
      decision.sector = about->at.sector;
      decision.slot = about->index;
    }
    decision.path = standing_names::name_of(slot);
    decision.what = what;
    decision.evidence = evidence_text;
    changes_.decisions.push_back(std::move(decision));
    return changes_.decisions.back();
  }

  void remove(const slot_record& record) {
    changes_.deletions.push_back({record.at, record.index});
  }

  // A check gives what it finds without a name its number for one, also where it has deleted only
  // the directory's name: any other one is better. Else the newer is.
  bool is_better(const slot_record& one, const slot_record& other) const {
    const bool has_digits = one.name() == digits_of(one.slot.entry_fileid);
    const bool other_has_digits = other.name() == digits_of(other.slot.entry_fileid);
    return has_digits == other_has_digits ? is_newer(one, other) : other_has_digits;
  }

  // Everything that is neither good nor erased nor deleted goes. An id has one name: of two the
  // newer stands, since it was written whole before the other was to go.
  void collect() {
    std::map<uint16_t, const slot_record*> best;
    for (const slot_record& each : found_.slots) {
      if (!found_.is_kept(each.at)) {
        continue;
      }
      if (each.kind == slot_kind::good) {
        const slot_record*& chosen = best[each.slot.entry_fileid];
        if (chosen != nullptr) {
          drop_second_name(is_better(each, *chosen) ? *chosen : each);
        }
        chosen = chosen == nullptr || is_better(each, *chosen) ? &each : chosen;
      } else if (each.kind != slot_kind::erased && each.kind != slot_kind::deleted) {
        remove(each);
        note_bad(each);
        if (each.kind == slot_kind::half_written &&
            is_sound_slot(each.slot, each.slot.dir_fileid)) {
          begun_[each.slot.entry_fileid] = &each;
        }
      }
    }
    for (const auto& [entry, record] : best) {
      add_standing(*record);
    }
  }

  void note_bad(const slot_record& record) {
    if (record.kind == slot_kind::half_written) {
      note("slot-dropped", certainty::proved, &record, record.slot, "delete the slot",
           "it is half-written");
    }
  }

  void drop_second_name(const slot_record& record) {
    note("second-name", certainty::supported, &record, record.slot, "delete the slot",
         "another one names the same file, and is newer");
    remove(record);
  }

  void note_damaged(const slot_record& record, bool named_elsewhere) {
    if (named_elsewhere) {
      note("slot-dropped", certainty::supported, &record, record.slot, "delete the slot",
           "its checksum does not hold, and another one names the same");
    } else {
      note("slot-lost", certainty::supported, &record, record.slot, "delete the slot",
           "its checksum does not hold, or its fields contradict themselves");
    }
  }

  // Two entries of a directory have not one number, and not one name.
  void add_standing(const slot_record& record) {
    flashfs_dir_slot slot = record.slot;
    const bool is_root = slot.entry_fileid == fileid_root;
    if (!is_root && names_.find_name(slot.dir_fileid, standing_names::name_of(slot)) != 0) {
      note("name-taken", certainty::proved, &record, slot, "delete the slot",
           "another one in the directory has its name");
      remove(record);
      lose(slot);
    } else if (names_.is_taken(slot.dir_fileid, slot.seq_no)) {
      note("slot-renumbered", certainty::proved, &record, slot,
           "write the slot anew with another number",
           "another one in the directory has its number");
      remove(record);
      renumbered_.push_back(slot);
      // Its number is given when all others are known.
      names_.add(slot, nullptr);
    } else {
      names_.add(slot, &record);
    }
  }

  void lose(const flashfs_dir_slot& slot) {
    lost_[slot.entry_fileid] = slot.mode;
  }

  // A slot that is whole but for one bit, or for its type, and that names something that no other
  // slot names.
  void mend_damaged() {
    for (const flashfs_dir_slot& each : renumbered_) {
      write(each);
    }
    for (const slot_record& each : found_.slots) {
      // One damaged slot in two looks like one whose deletion was torn, but of no directory's.
      const bool damaged =
          each.kind == slot_kind::damaged ||
          (each.kind == slot_kind::deleted_torn && !names_.is_directory(each.fitting));
      if (!damaged || !found_.is_kept(each.at)) {
        continue;
      }
      const std::optional<flashfs_dir_slot> mended = mended_slot(each.slot);
      if (mended && names_.find(mended->entry_fileid) == nullptr &&
          with_data_.contains(mended->entry_fileid) && is_regular_mode(mended->mode) &&
          names_.find_name(mended->dir_fileid, standing_names::name_of(*mended)) == 0) {
        note("slot-mended", certainty::supported, &each, *mended, "write the slot anew",
             "a single change makes it good, and nothing else names the file");
        write(*mended);
      } else if (each.kind == slot_kind::damaged) {
        note_damaged(each, mended && names_.find(mended->entry_fileid) != nullptr);
      }
    }
  }

  // A slot whose deletion was cut: the newer name stands, or nothing did but the removal.
  void finish_or_undo_deletions() {
    for (const slot_record& each : found_.slots) {
      if (each.kind != slot_kind::deleted_torn || !found_.is_kept(each.at)) {
        continue;
      }
      if (names_.find(each.slot.entry_fileid) != nullptr || !can_return(each)) {
        note("deletion-finished", certainty::supported, &each, each.slot, "delete the slot",
             "its deletion was cut, and another one stands for it");
        continue;
      }
      note("deletion-undone", certainty::supported, &each, each.slot, "write the slot anew",
           "its deletion was cut: its checksum holds for its directory, and nothing else names "
           "the file")
          .alternatives = "finish the removal";
      bring_back(each);
    }
  }

  bool can_return(const slot_record& record) const {
    const uint16_t directory = former_directory(record);
    if (directory == 0) {
      return false;
    }
    if (record.slot.entry_fileid == fileid_root) {
      return true;
    }
    return names_.is_directory(directory) && names_.find_name(directory, record.name()) == 0 &&
           (!with_data_.contains(record.slot.entry_fileid) || !record.is_directory());
  }

  void bring_back(const slot_record& record) {
    flashfs_dir_slot slot = record.slot;
    slot.dir_fileid = former_directory(record);
    write(slot);
  }

  void write(flashfs_dir_slot slot) {
    if (names_.is_taken(slot.dir_fileid, slot.seq_no)) {
      slot.seq_no = names_.next_number(slot.dir_fileid);
    }
    dir_slot_set_checksum(&slot);
    changes_.writes.push_back(slot);
    names_.add(slot, nullptr);
  }

  void place_root() {
    if (names_.find(fileid_root) != nullptr) {
      return;
    }
    const slot_record* former = newest_former(fileid_root);
    if (former != nullptr) {
      note("root-restored", certainty::supported, former, former->slot,
           "write the root's slot anew", "no slot of the root stands, and this one was its last");
      bring_back(*former);
      return;
    }
    const flashfs_dir_slot slot = made_slot(fileid_root, fileid_root, mode_of_root, "");
    note("root-made", certainty::proved, nullptr, slot, "make a slot for the root",
         "no slot of the root stands");
    write(slot);
  }

  flashfs_dir_slot made_slot(uint16_t directory, uint16_t entry, uint16_t mode, const char* name) {
    flashfs_dir_slot slot;
    memset(&slot, flash_erased_byte, sizeof(slot));
    slot.seq_no = names_.next_number(directory);
    slot.dir_fileid = directory;
    slot.entry_fileid = entry;
    slot.mode = mode;
    slot.date = date_;
    dir_slot_set_name(&slot, name);
    return slot;
  }

  const slot_record* newest_former(uint16_t entry) const {
    const slot_record* newest = nullptr;
    const auto [first, last] = former_.equal_range(entry);
    for (auto each = first; each != last; ++each) {
      if (can_return(*each->second) && (newest == nullptr || is_newer(*each->second, *newest))) {
        newest = each->second;
      }
    }
    return newest;
  }

  void take_name(uint16_t entry) {
    const standing_slot slot = *names_.find(entry);
    if (slot.on_flash != nullptr) {
      remove(*slot.on_flash);
    }
    lose(slot.slot);
    names_.remove(entry);
  }

  // A slot in what is a file names nothing.
  void delete_names_in_files() {
    std::vector<uint16_t> taken;
    for (const auto& [entry, each] : names_.all()) {
      const standing_slot* holder = names_.find(each.slot.dir_fileid);
      if (holder != nullptr && is_regular_mode(holder->slot.mode) && each.on_flash != nullptr) {
        note("name-in-file", certainty::proved, each.on_flash, each.slot, "delete the slot",
             "what holds it is a file");
        taken.push_back(entry);
      }
    }
    for (const uint16_t entry : taken) {
      take_name(entry);
    }
  }

  // What has sectors or entries but no name, the lowest id first.
  void relink_orphans() {
    for (const uint16_t id : with_data_) {
      if (names_.find(id) == nullptr) {
        lost_.try_emplace(id, mode_of_file);
      }
    }
    for (const auto& [entry, each] : names_.all()) {
      const uint16_t directory = each.slot.dir_fileid;
      if (directory != fileid_root && names_.find(directory) == nullptr) {
        lost_[directory] = mode_of_directory;
      }
    }
    const std::map<uint16_t, uint16_t> lost = lost_;
    for (const auto& [id, mode] : lost) {
      if (names_.find(id) == nullptr) {
        relink(id);
      }
    }
  }

  void relink(uint16_t id) {
    const slot_record* former = newest_former(id);
    if (former != nullptr && is_directory_mode(former->slot.mode) == is_directory_mode(lost_[id])) {
      note("orphan-named", certainty::supported, former, former->slot, "write the slot anew",
           "something has its id and no name, and this one was the last to name it")
          .alternatives = "give up what it names: it was removed";
      bring_back(*former);
      return;
    }
    if (const auto begun = begun_.find(id);
        begun != begun_.end() && can_be_finished(*begun->second)) {
      note("orphan-named", certainty::supported, begun->second, begun->second->slot,
           "write the slot anew",
           "something has its id and no name, and this one was being written to name it")
          .alternatives = "name it in /lost+found";
      write(begun->second->slot);
      return;
    }
    put_into_lost_and_found(id);
  }

  bool can_be_finished(const slot_record& begun) const {
    const uint16_t directory = begun.slot.dir_fileid;
    return is_directory_mode(begun.slot.mode) ==
               is_directory_mode(lost_.at(begun.slot.entry_fileid)) &&
           names_.is_directory(directory) && names_.find_name(directory, begun.name()) == 0;
  }

  void put_into_lost_and_found(uint16_t id) {
    const uint16_t directory = lost_and_found_id();
    const flashfs_dir_slot slot =
        made_slot(directory, id, lost_[id], free_name(directory, id).c_str());
    note("orphan-relinked", certainty::proved, nullptr, slot,
         directory == fileid_root ? "name it in the root, for want of /lost+found"
                                  : "name it in /lost+found",
         "nothing that is left names it");
    write(slot);
  }

  // As a check names an orphan; where something has that name, with "-1" or more.
  std::string free_name(uint16_t directory, uint16_t id) const {
    const std::string digits = digits_of(id);
    std::string name = digits;
    for (uint32_t other = 1; names_.find_name(directory, name) != 0; other++) {
      name = digits + ("-" + std::to_string(other));
    }
    return name;
  }

  // Made if need be; the root when a file has its name or no id is left.
  uint16_t lost_and_found_id() {
    const uint16_t existing = names_.find_name(fileid_root, lost_and_found);
    if (existing != 0) {
      return names_.is_directory(existing) ? existing : fileid_root;
    }
    for (uint32_t id = fileid_first; id <= fileid_last; id++) {
      const auto fileid = static_cast<uint16_t>(id);
      if (!lost_.contains(fileid) && !with_data_.contains(fileid) &&
          names_.find(fileid) == nullptr) {
        write(made_slot(fileid_root, fileid, mode_of_lost_and_found, lost_and_found));
        return fileid;
      }
    }
    return fileid_root;
  }

  // Directories that hold each other in a circle are reached from nowhere: the one with the lowest
  // id is taken out of it.
  void connect_to_root() {
    std::multimap<uint16_t, uint16_t> below;
    std::vector<uint16_t> directories;
    for (const auto& [entry, each] : names_.all()) {
      if (is_directory_mode(each.slot.mode)) {
        below.emplace(each.slot.dir_fileid, entry);
        directories.push_back(entry);
      }
    }
    std::set<uint16_t> reached;
    reach(fileid_root, below, &reached);
    for (const uint16_t id : directories) {
      if (reached.contains(id) || names_.find(id)->on_flash == nullptr) {
        continue;
      }
      take_name(id);
      put_into_lost_and_found(id);
      reach(id, below, &reached);
    }
  }

  static void reach(uint16_t from, const std::multimap<uint16_t, uint16_t>& below,
                    std::set<uint16_t>* reached) {
    reached->insert(from);
    std::vector<uint16_t> open = {from};
    while (!open.empty()) {
      const auto [first, last] = below.equal_range(open.back());
      open.pop_back();
      for (auto each = first; each != last; ++each) {
        if (reached->insert(each->second).second) {
          open.push_back(each->second);
        }
      }
    }
  }

  const evidence& found_;
  const std::set<uint16_t>& with_data_;
  uint32_t date_;
  former_index former_;
  std::map<uint16_t, const slot_record*> begun_;  // all but their checksums, by what they name
  name_changes changes_;
  standing_names names_;
  std::vector<flashfs_dir_slot> renumbered_;
  std::map<uint16_t, uint16_t> lost_;  // have no name yet, with their modes
};

}  // namespace

std::map<uint16_t, name_evidence> read_names(const evidence& found) {
  const former_index former = index_former(found);
  std::map<uint16_t, name_evidence> names;
  for (size_t i = 0; i < found.slots.size(); i++) {
    const slot_record& each = found.slots[i];
    if (counts(found, each)) {
      name_evidence& name = names[each.slot.entry_fileid];
      name.named = true;
      name.removed = false;
      name.directory = name.directory || each.is_directory();
      name.never_written = is_followed_by_directory(each, i == 0 ? nullptr : &found.slots[i - 1]) &&
                           !has_former_twin(former, each);
    } else if (former_directory(each) != 0) {
      name_evidence& name = names[each.slot.entry_fileid];
      name.removed = !name.named;
    }
  }
  return names;
}

name_changes decide_names(const evidence& found, const std::set<uint16_t>& with_data,
                          uint32_t date) {
  return name_judge(found, with_data, date).judge();
}

uint32_t latest_date(const evidence& found) {
  uint32_t latest = 0;
  for (const slot_record& each : found.slots) {
    if (each.kind == slot_kind::good) {
      latest = std::max<uint32_t>(latest, each.slot.date);
    }
  }
  return latest;
}

}  // namespace image::rescuing
