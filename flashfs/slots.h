// The slots of a directory, read in the order of its list.
#pragma once

#include "flashfs/buffer.h"
#include "flashfs/flashfs.h"

// Whether a walk offers the processor to other work before each entry of the list.
enum class slot_walk_yields : bool { no, yes };

// A walk along a directory's list that reads the slot of each entry, and nothing else, to its place
// in the caller's buffer.
//
//   slot_walk walk(fs, directory->sctr_list, buffer, slot_walk_yields::no);
//   while (walk.next()) { ... walk.slot() ... walk.entry() ... }
//   if (walk.failed()) { the flash has failed, after its message }
class slot_walk {
 public:
  // Begins with the list entry `first`, which may be null.
  slot_walk(flashfs* fs, flashfs_sctr_list_ordered* first, sector_buffer& buffer,
            slot_walk_yields yields)
      : fs_(fs), buffer_(buffer), yields_(yields), rest_(first) {}

  // To the next slot. False at the end of the list, and when the flash fails.
  [[nodiscard]] bool next();
  bool failed() const {
    return failed_;
  }
  // The slot, until the buffer is used for something else, and its list entry.
  const flashfs_dir_slot& slot() const {
    return buffer_->slots[entry_->slot_no];
  }
  flashfs_sctr_list_ordered* entry() const {
    return entry_;
  }
  // The list entry behind it, or null.
  flashfs_sctr_list_ordered* rest() const {
    return rest_;
  }

 private:
  flashfs* fs_;
  sector_buffer& buffer_;
  slot_walk_yields yields_;
  flashfs_sctr_list_ordered* entry_ = nullptr;
  flashfs_sctr_list_ordered* rest_;
  bool failed_ = false;
};

// What a search for a slot found: the list entry, or null, and then whether because the flash
// failed.
struct found_slot {
  flashfs_sctr_list_ordered* entry;
  bool failed;
};

// The entry of the parent's list that names this file. The buffer has the slot in its place then;
// nothing else is read.
[[nodiscard]] found_slot filemap_find_slot_in(flashfs* fs, const flashfs_sctr_map* entry,
                                              sector_buffer& buffer);
// The same with a buffer of its own; null for whatever reason.
[[nodiscard]] flashfs_sctr_list_ordered* filemap_find_slot(flashfs* fs,
                                                           const flashfs_sctr_map* entry);
