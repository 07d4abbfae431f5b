// The index of a directory's names: a hash table whose chains run through the directory's list
// entries. It says which entries may have a name; that one has it is sure when its slot has been
// read. So names that share a hash cost a slot's read each and nothing else: by accident one more
// in 65,536 names of a directory, and as many as the flash holds where somebody has made them so,
// which is what a walk would cost.
#pragma once

#include <cstdint>
#include <memory>

#include "flashfs/flashfs.h"

// The list entry of a slot: what the list needs, and what the slot says that a search asks for. A
// directory's list can hold strays, too: entries of sectors, without all this.
struct listed_slot : flashfs_sctr_list_ordered {
  flashfs_sctr_list_ordered* before;  // in the list once that is sorted; null: it is the head
  listed_slot* chained;               // the next in its chain of the name index, if there is one
  uint32_t name_hash;
  uint16_t entry_fileid;
  ppc_mode_t mode;  // as it was when the slot was entered; a change of mode is not followed
};
static_assert(sizeof(void*) != 4 || sizeof(listed_slot) == 28);

// The entry as that of a slot; null for a stray, and for null.
inline listed_slot* as_listed_slot(flashfs_sctr_list_ordered* entry) {
  return entry != nullptr && is_slot_index(entry->slot_no) ? static_cast<listed_slot*>(entry)
                                                           : nullptr;
}

// The hash of a name, and of the one in a slot.
uint32_t name_hash(const char* name);
uint32_t slot_name_hash(const flashfs_dir_slot& slot);

class name_index {
 public:
  // Shorter lists are as quickly walked.
  static constexpr uint32_t worthwhile_entries = 16;

  // Of all slots of a sorted list; null without memory.
  [[nodiscard]] static std::unique_ptr<name_index> make(flashfs_sctr_list_ordered* list);

  // The entry is in the list already, or still.
  void add(listed_slot* slot);
  void remove(const listed_slot* slot);
  // Whether its chains have become so long that a new one should be made.
  bool is_crowded() const;

  // The first entry with this hash, or the next one behind another; null at the end. Those of equal
  // hash come in the order of the list.
  listed_slot* first(uint32_t hash) const;
  static listed_slot* next(const listed_slot* slot);

 private:
  name_index() = default;
  listed_slot** link_of(uint32_t hash) const {
    return &chains_[hash & (num_chains_ - 1)];
  }
  void reverse_chains();

  std::unique_ptr<listed_slot*[]> chains_;
  uint32_t num_chains_ = 0;  // a power of two
  uint32_t num_slots_ = 0;
};
