// The slots of a rescue: those that stand, by what they name, and those that once did.
#pragma once

#include <cstdint>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "image/rescue_evidence.h"

namespace image::rescuing {

// The directory in which a deleted slot once named something; 0 when that cannot be told.
uint16_t former_directory(const slot_record& slot);

// Whether `one` was written after `other`: the later date, else the next place to be taken.
bool is_newer(const slot_record& one, const slot_record& other);

// The slots that once named something, by what they named.
using former_index = std::multimap<uint16_t, const slot_record*>;
former_index index_former(const evidence& found);

// The slots that are to stand, on flash or to be written: one for each entry.
class standing_names {
 public:
  struct standing_slot {
    flashfs_dir_slot slot;
    const slot_record* on_flash;  // null: to be written
  };
  using by_entry = std::map<uint16_t, standing_slot>;

  const by_entry& all() const {
    return slots_;
  }
  const standing_slot* find(uint16_t entry) const {
    const auto place = slots_.find(entry);
    return place == slots_.end() ? nullptr : &place->second;
  }
  bool is_directory(uint16_t id) const {
    const standing_slot* slot = find(id);
    return id == fileid_root || (slot != nullptr && is_directory_mode(slot->slot.mode));
  }
  // The entry with a name; 0: none.
  uint16_t find_name(uint16_t directory, const std::string& name) const {
    const auto place = names_.find({directory, name});
    return place == names_.end() ? uint16_t{0} : place->second;
  }
  bool is_taken(uint16_t directory, uint16_t number) const {
    return numbers_.contains({directory, number});
  }
  uint16_t next_number(uint16_t directory) {
    uint16_t& next = next_[directory];
    while (numbers_.contains({directory, next})) {
      next++;
    }
    return next;
  }

  void add(const flashfs_dir_slot& slot, const slot_record* on_flash) {
    slots_[slot.entry_fileid] = {slot, on_flash};
    names_.try_emplace({slot.dir_fileid, name_of(slot)}, slot.entry_fileid);
    numbers_.insert({slot.dir_fileid, slot.seq_no});
  }
  // Its number stays taken: on flash the slot goes only after all others are written.
  void remove(uint16_t entry) {
    const standing_slot* slot = find(entry);
    const auto name = names_.find({slot->slot.dir_fileid, name_of(slot->slot)});
    if (name != names_.end() && name->second == entry) {
      names_.erase(name);
    }
    slots_.erase(entry);
  }

  static std::string name_of(const flashfs_dir_slot& slot) {
    return {slot.name, strnlen(slot.name, filename_size)};
  }

 private:
  by_entry slots_;
  std::map<std::pair<uint16_t, std::string>, uint16_t> names_;
  std::set<std::pair<uint16_t, uint16_t>> numbers_;
  std::map<uint16_t, uint16_t> next_;  // below it every number is taken
};

}  // namespace image::rescuing
