#include "image/rescue_names.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

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

// Whether a slot once named something, and where.
uint16_t former_directory(const slot_record& slot) {
  const bool was = slot.kind == slot_kind::deleted || slot.kind == slot_kind::deleted_torn;
  return was ? slot.fitting : uint16_t{0};
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
bool has_former_twin(const evidence& found, const slot_record& slot) {
  return std::any_of(found.slots.begin(), found.slots.end(), [&](const slot_record& other) {
    return former_directory(other) == slot.slot.dir_fileid &&
           other.slot.entry_fileid == slot.slot.entry_fileid && same_name(slot, other);
  });
}

class name_judge {
 public:
  name_judge(const evidence& found, const std::set<uint16_t>& with_data, uint32_t date)
      : found_(found), with_data_(with_data), date_(date) {}

  name_changes judge() {
    collect();
    delete_second_names();
    finish_or_undo_deletions();
    place_root();
    delete_names_in_files();
    renumber();
    relink_orphans();
    connect_to_root();
    return std::move(changes_);
  }

 private:
  // A slot that is to stand: one on flash, or one to be written.
  struct standing_slot {
    flashfs_dir_slot slot;
    const slot_record* on_flash;  // null: to be written
  };

  rescue_decision& note(const char* code, certainty sure, const slot_record* about,
                        const flashfs_dir_slot& slot, const std::string& what,
                        const std::string& evidence_text) {
    rescue_decision decision = {.code = code, .sure = sure, .fileid = slot.entry_fileid};
    if (about != nullptr) {
      decision.block = about->at.block;
      decision.sector = about->at.sector;
      decision.slot = about->index;
    }
    decision.path = std::string(slot.name, strnlen(slot.name, filename_size));
    decision.what = what;
    decision.evidence = evidence_text;
    changes_.decisions.push_back(std::move(decision));
    return changes_.decisions.back();
  }

  void remove(const slot_record& record) {
    changes_.deletions.push_back({record.at, record.index});
  }

  // Everything that is neither good nor erased nor deleted goes.
  void collect() {
    for (const slot_record& each : found_.slots) {
      if (!found_.is_kept(each.at) || each.kind == slot_kind::erased ||
          each.kind == slot_kind::deleted) {
        continue;
      }
      if (each.kind == slot_kind::good) {
        standing_.push_back({each.slot, &each});
        continue;
      }
      remove(each);
      if (each.kind != slot_kind::deleted_torn) {
        note("slot-dropped", certainty::proved, &each, each.slot, "delete the slot",
             each.kind == slot_kind::half_written ? "it is half-written"
                                                  : "its checksum does not hold");
      }
    }
  }

  // Whether `one` was written after `other`: the later date, else the next place to be taken.
  static bool is_newer(const slot_record& one, const slot_record& other) {
    if (one.slot.date != other.slot.date) {
      return one.slot.date > other.slot.date;
    }
    return one.at == other.at ? one.index < other.index : other.at < one.at;
  }

  void drop_standing(size_t place) {
    if (standing_[place].on_flash != nullptr) {
      remove(*standing_[place].on_flash);
    }
    standing_.erase(standing_.begin() + static_cast<ptrdiff_t>(place));
  }

  // An id has one name. Of two the newer stands: it was written whole before the other was to go.
  void delete_second_names() {
    std::map<uint16_t, const slot_record*> best;
    for (const standing_slot& each : standing_) {
      const slot_record*& chosen = best[each.slot.entry_fileid];
      if (chosen == nullptr || is_newer(*each.on_flash, *chosen)) {
        chosen = each.on_flash;
      }
    }
    for (size_t i = standing_.size(); i-- > 0;) {
      const slot_record& record = *standing_[i].on_flash;
      if (best[record.slot.entry_fileid] != &record) {
        note("second-name", certainty::supported, &record, record.slot, "delete the slot",
             "another one names the same file, and is newer");
        drop_standing(i);
      }
    }
  }

  const standing_slot* find_entry(uint16_t entry) const {
    const auto place = std::find_if(standing_.begin(), standing_.end(), [&](const auto& each) {
      return each.slot.entry_fileid == entry;
    });
    return place == standing_.end() ? nullptr : &*place;
  }
  const standing_slot* find_name(uint16_t directory, const char* name) const {
    const auto place = std::find_if(standing_.begin(), standing_.end(), [&](const auto& each) {
      return each.slot.dir_fileid == directory && each.slot.entry_fileid != fileid_root &&
             strncmp(each.slot.name, name, filename_size) == 0;
    });
    return place == standing_.end() ? nullptr : &*place;
  }
  bool is_directory(uint16_t id) const {
    const standing_slot* slot = find_entry(id);
    return id == fileid_root || (slot != nullptr && is_directory_mode(slot->slot.mode));
  }

  // A slot whose deletion was cut: the newer name stands, or nothing did but the removal.
  void finish_or_undo_deletions() {
    for (const slot_record& each : found_.slots) {
      if (each.kind != slot_kind::deleted_torn || !found_.is_kept(each.at)) {
        continue;
      }
      if (find_entry(each.slot.entry_fileid) != nullptr || !can_return(each)) {
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
    char name[filename_buffer_size];
    dir_slot_get_name(&record.slot, name);
    return is_directory(directory) && find_name(directory, name) == nullptr &&
           (!with_data_.contains(record.slot.entry_fileid) || !record.is_directory());
  }

  void bring_back(const slot_record& record) {
    flashfs_dir_slot slot = record.slot;
    slot.dir_fileid = former_directory(record);
    write(slot);
  }

  void write(flashfs_dir_slot slot) {
    if (is_taken(slot.dir_fileid, slot.seq_no)) {
      slot.seq_no = next_number(slot.dir_fileid);
    }
    dir_slot_set_checksum(&slot);
    changes_.writes.push_back(slot);
    standing_.push_back({slot, nullptr});
  }

  bool is_taken(uint16_t directory, uint16_t number) const {
    return std::any_of(standing_.begin(), standing_.end(), [&](const auto& each) {
      return each.slot.dir_fileid == directory && each.slot.seq_no == number;
    });
  }
  uint16_t next_number(uint16_t directory) const {
    std::set<uint16_t> taken;
    for (const standing_slot& each : standing_) {
      if (each.slot.dir_fileid == directory) {
        taken.insert(each.slot.seq_no);
      }
    }
    uint16_t number = 0;
    for (const uint16_t each : taken) {
      number = static_cast<uint16_t>(number + (each == number ? 1 : 0));
    }
    return number;
  }

  void place_root() {
    if (find_entry(fileid_root) != nullptr) {
      return;
    }
    const slot_record* former = newest_former(fileid_root);
    if (former != nullptr) {
      note("root-restored", certainty::supported, former, former->slot,
           "write the root's slot anew", "no slot of the root stands, and this one was its last");
      bring_back(*former);
      return;
    }
    flashfs_dir_slot slot = made_slot(fileid_root, fileid_root, mode_of_root, "");
    note("root-made", certainty::proved, nullptr, slot, "make a slot for the root",
         "no slot of the root stands");
    write(slot);
  }

  flashfs_dir_slot made_slot(uint16_t directory, uint16_t entry, uint16_t mode,
                             const char* name) const {
    flashfs_dir_slot slot;
    memset(&slot, flash_erased_byte, sizeof(slot));
    slot.seq_no = next_number(directory);
    slot.dir_fileid = directory;
    slot.entry_fileid = entry;
    slot.mode = mode;
    slot.date = date_;
    dir_slot_set_name(&slot, name);
    return slot;
  }

  const slot_record* newest_former(uint16_t entry) const {
    const slot_record* newest = nullptr;
    for (const slot_record& each : found_.slots) {
      if (each.slot.entry_fileid == entry && former_directory(each) != 0 && can_return(each) &&
          (newest == nullptr || is_newer(each, *newest))) {
        newest = &each;
      }
    }
    return newest;
  }

  // A slot in what is a file, or of the root elsewhere, names nothing.
  void delete_names_in_files() {
    for (size_t i = standing_.size(); i-- > 0;) {
      const flashfs_dir_slot slot = standing_[i].slot;
      const standing_slot* holder = find_entry(slot.dir_fileid);
      const bool in_file = holder != nullptr && is_regular_mode(holder->slot.mode);
      if (in_file && standing_[i].on_flash != nullptr) {
        note("name-in-file", certainty::proved, standing_[i].on_flash, slot, "delete the slot",
             "what holds it is a file");
        drop_standing(i);
        lost_.insert(slot.entry_fileid);
        modes_[slot.entry_fileid] = slot.mode;
      }
    }
  }

  // Two entries with one number, or one name, in a directory.
  void renumber() {
    std::set<std::pair<uint16_t, uint16_t>> numbers;
    std::set<std::pair<uint16_t, std::string>> names;
    for (size_t i = 0; i < standing_.size(); i++) {
      const standing_slot each = standing_[i];
      const uint16_t directory = each.slot.dir_fileid;
      const std::string name(each.slot.name, strnlen(each.slot.name, filename_size));
      const bool new_name = name.empty() || names.insert({directory, name}).second;
      if (new_name && numbers.insert({directory, each.slot.seq_no}).second) {
        continue;
      }
      if (each.on_flash == nullptr) {
        continue;
      }
      note(new_name ? "slot-renumbered" : "name-taken", certainty::proved, each.on_flash, each.slot,
           new_name ? "write the slot anew with another number" : "delete the slot",
           new_name ? "another one in the directory has its number"
                    : "another one in the directory has its name");
      remove(*each.on_flash);
      if (new_name) {
        standing_[i].slot.seq_no = next_number(directory);
        dir_slot_set_checksum(&standing_[i].slot);
        standing_[i].on_flash = nullptr;
        numbers.insert({directory, standing_[i].slot.seq_no});
        changes_.writes.push_back(standing_[i].slot);
      } else {
        lost_.insert(each.slot.entry_fileid);
        modes_[each.slot.entry_fileid] = each.slot.mode;
        standing_.erase(standing_.begin() + static_cast<ptrdiff_t>(i));
        i--;
      }
    }
  }

  // What has sectors or entries but no name, the lowest id first.
  void relink_orphans() {
    for (const uint16_t id : with_data_) {
      if (find_entry(id) == nullptr) {
        lost_.insert(id);
        modes_.try_emplace(id, mode_of_file);
      }
    }
    for (const standing_slot& each : standing_) {
      const uint16_t directory = each.slot.dir_fileid;
      if (directory != fileid_root && find_entry(directory) == nullptr) {
        lost_.insert(directory);
        modes_[directory] = mode_of_directory;
      }
    }
    const std::set<uint16_t> lost = lost_;
    for (const uint16_t id : lost) {
      if (find_entry(id) == nullptr) {
        relink(id);
      }
    }
  }

  void relink(uint16_t id) {
    const slot_record* former = newest_former(id);
    if (former != nullptr &&
        is_directory_mode(former->slot.mode) == is_directory_mode(modes_[id])) {
      note("orphan-named", certainty::supported, former, former->slot, "write the slot anew",
           "something has its id and no name, and this one was the last to name it")
          .alternatives = "give up what it names: it was removed";
      bring_back(*former);
      return;
    }
    put_into_lost_and_found(id);
  }

  void put_into_lost_and_found(uint16_t id) {
    const uint16_t directory = lost_and_found_id();
    char name[sizeof("65535")];
    snprintf(name, sizeof(name), "%05u", static_cast<unsigned>(id));
    if (directory == 0 || find_name(directory, name) != nullptr) {
      return;
    }
    const flashfs_dir_slot slot = made_slot(directory, id, modes_[id], name);
    note("orphan-relinked", certainty::proved, nullptr, slot, "name it in /lost+found",
         "nothing that is left names it");
    write(slot);
  }

  // Made if need be; 0 when a file has its name or no id is left.
  uint16_t lost_and_found_id() {
    const standing_slot* existing = find_name(fileid_root, lost_and_found);
    if (existing != nullptr) {
      const bool usable = is_directory_mode(existing->slot.mode);
      return usable ? existing->slot.entry_fileid : uint16_t{0};
    }
    std::set<uint16_t> used(lost_.begin(), lost_.end());
    used.insert(with_data_.begin(), with_data_.end());
    for (const standing_slot& each : standing_) {
      used.insert(each.slot.entry_fileid);
      used.insert(each.slot.dir_fileid);
    }
    for (uint32_t id = fileid_first; id <= fileid_last; id++) {
      if (!used.contains(static_cast<uint16_t>(id))) {
        write(made_slot(fileid_root, static_cast<uint16_t>(id), mode_of_lost_and_found,
                        lost_and_found));
        return static_cast<uint16_t>(id);
      }
    }
    return 0;
  }

  // Directories that hold each other in a circle are reached from nowhere: the one with the lowest
  // id is taken out of it.
  void connect_to_root() {
    for (size_t rounds = standing_.size(); rounds-- > 0;) {
      const std::set<uint16_t> reached = reached_from_root();
      uint16_t lowest = 0;
      for (const standing_slot& each : standing_) {
        const uint16_t id = each.slot.entry_fileid;
        if (is_directory_mode(each.slot.mode) && !reached.contains(id) &&
            (lowest == 0 || id < lowest)) {
          lowest = id;
        }
      }
      if (lowest == 0) {
        return;
      }
      for (size_t i = standing_.size(); i-- > 0;) {
        if (standing_[i].slot.entry_fileid == lowest && standing_[i].on_flash != nullptr) {
          modes_[lowest] = standing_[i].slot.mode;
          drop_standing(i);
        }
      }
      if (find_entry(lowest) != nullptr) {
        return;
      }
      put_into_lost_and_found(lowest);
    }
  }

  std::set<uint16_t> reached_from_root() const {
    std::multimap<uint16_t, uint16_t> below;
    for (const standing_slot& each : standing_) {
      if (is_directory_mode(each.slot.mode)) {
        below.emplace(each.slot.dir_fileid, each.slot.entry_fileid);
      }
    }
    std::set<uint16_t> reached = {fileid_root};
    std::vector<uint16_t> open = {fileid_root};
    while (!open.empty()) {
      const auto [first, last] = below.equal_range(open.back());
      open.pop_back();
      for (auto each = first; each != last; ++each) {
        if (reached.insert(each->second).second) {
          open.push_back(each->second);
        }
      }
    }
    return reached;
  }

  const evidence& found_;
  const std::set<uint16_t>& with_data_;
  uint32_t date_;
  name_changes changes_;
  std::vector<standing_slot> standing_;
  std::set<uint16_t> lost_;             // have no name yet
  std::map<uint16_t, uint16_t> modes_;  // of these
};

}  // namespace

std::map<uint16_t, name_evidence> read_names(const evidence& found) {
  std::map<uint16_t, name_evidence> names;
  for (size_t i = 0; i < found.slots.size(); i++) {
    const slot_record& each = found.slots[i];
    if (counts(found, each)) {
      name_evidence& name = names[each.slot.entry_fileid];
      name.named = true;
      name.removed = false;
      name.directory = name.directory || each.is_directory();
      name.never_written = is_followed_by_directory(each, i == 0 ? nullptr : &found.slots[i - 1]) &&
                           !has_former_twin(found, each);
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
