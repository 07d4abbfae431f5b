// The slots of a directory.
#include "flashfs/slots.h"

#include "flashfs/filemap.h"
#include "flashfs/io.h"

bool slot_walk::next() {
  while (rest_ != nullptr) {
    entry_ = rest_;
    rest_ = entry_->next;
    if (yields_ == slot_walk_yields::yes) {
      process_may_suspend();
    }
    // An index above 31 is no slot's: on damaged flash a data sector whose owner reads as the
    // directory's id has come into its list. Such a stray names nothing.
    if (!is_slot_index(entry_->slot_no)) {
      continue;
    }
    failed_ = read_sector_once(fs_, entry_->sctr_ptr, buffer_) != 0;
    return !failed_;
  }
  return false;
}

found_slot filemap_find_slot_in(flashfs* fs, const flashfs_sctr_map* entry, sector_buffer& buffer) {
  const flashfs_sctr_map* parent = filemap_lookup(fs, entry->parent_fileid);
  if (parent == nullptr) {
    return {nullptr, false};
  }
  slot_walk walk(fs, parent->sctr_list, buffer, slot_walk_yields::no);
  while (walk.next()) {
    if (walk.slot().entry_fileid == entry->fileid) {
      return {walk.entry(), false};
    }
  }
  return {nullptr, walk.failed()};
}

flashfs_sctr_list_ordered* filemap_find_slot(flashfs* fs, const flashfs_sctr_map* entry) {
  sector_buffer buffer(fs);
  return buffer ? filemap_find_slot_in(fs, entry, buffer).entry : nullptr;
}
