// The slots of a directory.
#include "flashfs/slots.h"

#include "flashfs/filemap.h"
#include "flashfs/io.h"

namespace {

int read_slot_into(flashfs* fs, const flashfs_sctr_list_ordered* entry, sector_buffer& buffer) {
  return read_slot(fs, entry->sctr_ptr, entry->slot_no, &buffer.get()->slots[entry->slot_no]);
}

}  // namespace

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
    failed_ = read_slot_into(fs_, entry_, buffer_) != 0;
    return !failed_;
  }
  return false;
}

found_slot filemap_find_slot_in(flashfs* fs, const flashfs_sctr_map* entry, sector_buffer& buffer) {
  const flashfs_sctr_map* parent = filemap_lookup(fs, entry->parent_fileid);
  listed_slot* name = parent == nullptr ? nullptr : filemap_known_name(fs, entry);
  if (name == nullptr) {
    return {nullptr, false};
  }
  if (read_slot_into(fs, name, buffer) != 0) {
    return {nullptr, true};
  }
  const flashfs_dir_slot& slot = buffer->slots[name->slot_no];
  if (slot.entry_fileid == entry->fileid && slot.dir_fileid == parent->fileid) {
    return {name, false};
  }
  // What is remembered is not so any more: whatever else the list names the file with may be.
  for (name = sctr_list_find_naming(parent->sctr_list, entry->fileid); name != nullptr;
       name = sctr_list_find_naming(name->next, entry->fileid)) {
    if (read_slot_into(fs, name, buffer) != 0) {
      return {nullptr, true};
    }
    if (buffer->slots[name->slot_no].entry_fileid == entry->fileid) {
      return {name, false};
    }
  }
  return {nullptr, false};
}

flashfs_sctr_list_ordered* filemap_find_slot(flashfs* fs, const flashfs_sctr_map* entry) {
  sector_buffer buffer(fs);
  return buffer ? filemap_find_slot_in(fs, entry, buffer).entry : nullptr;
}
