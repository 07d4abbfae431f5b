// Directory entries: the steps on slots and on the files behind them.
#include "flashfs/entry.h"

#include <cerrno>

#include "flashfs/alloc.h"
#include "flashfs/buffer.h"
#include "flashfs/claim.h"
#include "flashfs/filemap.h"
#include "flashfs/io.h"
#include "flashfs/log.h"
#include "flashfs/slots.h"

namespace {

constexpr ppc_mode_t mode_of_root = 0x4600;
constexpr ppc_mode_t mode_kept_bits = 0xFE00;

ppc_mode_t with_permissions(ppc_mode_t mode, ppc_mode_t permissions) {
  return static_cast<ppc_mode_t>((mode & mode_kept_bits) | (permissions & ppc_mode_permissions));
}

// A slot that has been taken for an entry, what is written there, and the list entry that still
// points at the old one.
struct fresh_slot {
  flashfs_sctr_list_ordered* reference;
  flashfs_sctr_ptr pointer;
  uint8_t slot_no;
  flashfs_dir_slot contents;
};

// The reference is of the list of the entry's parent.
void redirect_reference(flashfs* fs, const flashfs_sctr_map* entry, const fresh_slot& fresh) {
  filemap_redirect_slot(fs, filemap_lookup(fs, entry->parent_fileid), fresh.reference,
                        fresh.pointer, fresh.slot_no, fresh.contents);
}

// Writes the slot's contents to its place, which is erased, and only then makes the old slot, which
// is of this directory, obsolete. The reference is left to the caller. 0, or 1 when the flash
// fails.
int replace_slot(flashfs* fs, const fresh_slot& fresh, uint16_t old_dir_fileid) {
  if (update_slot(fs, fresh.pointer, fresh.slot_no, nullptr, &fresh.contents) != 0) {
    return 1;
  }
  return obsolete_slot(fs, fresh.reference->sctr_ptr, fresh.reference->slot_no, old_dir_fileid);
}

// Writes a fresh copy of the entry's slot, changed by `change`, and then obsoletes the old one. The
// reference is left to the caller. Returns 0, or -1 with errno.
template <typename Change>
int32_t rewrite_slot(flashfs* fs, const flashfs_sctr_map* entry, fresh_slot* fresh, Change change) {
  sector_buffer buffer(fs);
  if (!buffer) {
    return -1;
  }
  const found_slot found = filemap_find_slot_in(fs, entry, buffer);
  if (found.entry == nullptr) {
    return flashfs_fail(found.failed ? EIO : ENOENT);
  }
  // The allocation may collect garbage and move the old slot; the reference follows it.
  fresh->reference = found.entry;
  fresh->contents = buffer->slots[found.entry->slot_no];
  const uint16_t old_dir_fileid = fresh->contents.dir_fileid;
  change(fresh->contents);
  dir_slot_set_checksum(&fresh->contents);
  if (flashfs_alloc_slot(fs, &fresh->pointer, &fresh->slot_no, 1) != 0 ||
      replace_slot(fs, *fresh, old_dir_fileid) != 0) {
    return flashfs_fail(EIO);
  }
  return 0;
}

int32_t move_entry(flashfs* fs, flashfs_sctr_map* entry, flashfs_sctr_map* directory,
                   const char* new_name) {
  flashfs_sctr_map* old_directory = filemap_lookup(fs, entry->parent_fileid);
  if (old_directory == nullptr) {
    return flashfs_fail(ENOENT);
  }
  fresh_slot fresh = {};
  if (rewrite_slot(fs, entry, &fresh, [&](flashfs_dir_slot& slot) {
        dir_slot_set_name(&slot, new_name);
        slot.dir_fileid = directory->fileid;
        slot.seq_no = flashfs_next_slot_seq_no(directory);
      }) != 0) {
    return -1;
  }
  flashfs_sctr_list_ordered* added =
      filemap_add_slot(fs, fresh.pointer, fresh.slot_no, fresh.contents);
  if (added == nullptr) {
    return flashfs_fail(ENOMEM);
  }
  sctr_list_remove(fs, old_directory, fresh.reference);
  filemap_set_parent(entry, directory->fileid, added);
  return 0;
}

// Obsoletes an entry's slot and everything in its list, on flash and in memory. The slot goes
// first: that is the point at which the entry ceases to exist.
int erase_entry(flashfs* fs, flashfs_sctr_map* entry, flashfs_sctr_map* directory) {
  sector_buffer buffer(fs);
  if (!buffer) {
    return 1;
  }
  flashfs_sctr_list_ordered* reference = filemap_find_slot_in(fs, entry, buffer).entry;
  if (reference == nullptr || obsolete_slot(fs, reference->sctr_ptr, reference->slot_no,
                                            buffer->slots[reference->slot_no].dir_fileid) != 0) {
    return 1;
  }
  sctr_list_remove(fs, directory, reference);
  for (const auto* each = entry->sctr_list; each != nullptr; each = each->next) {
    process_may_suspend();
    if (obsolete_on_flash(fs, each->sctr_ptr, each->slot_no) != 0) {
      return 1;
    }
  }
  filemap_remove(fs, entry);
  return 0;
}

// Whether everything that a directory's list names has a good checksum. The first that has not, or
// cannot be read, ends it.
bool slots_are_good(flashfs* fs, const flashfs_sctr_map* directory, sector_buffer& buffer) {
  slot_walk walk(fs, directory->sctr_list, buffer, slot_walk_yields::no);
  while (walk.next()) {
    const bool good = dir_slot_crc(&walk.slot()) == flashfs_good_crc;
    process_may_suspend();
    if (!good) {
      return false;
    }
  }
  return !walk.failed();
}

bool sectors_are_good(flashfs* fs, const flashfs_sctr_map* file, sector_buffer& buffer) {
  for (const auto* each = file->sctr_list; each != nullptr; each = each->next) {
    if (read_sector(fs, each->sctr_ptr, buffer.get(), whole_sector) != 0) {
      return false;
    }
    const bool good = sector_crc(buffer.view()) == flashfs_good_crc;
    process_may_suspend();
    if (!good) {
      return false;
    }
  }
  return true;
}

}  // namespace

int flashfs_write_new_slot(flashfs* fs, flashfs_sctr_ptr pointer, uint8_t slot_no,
                           flashfs_sctr_map* directory, uint16_t entry_fileid, ppc_mode_t mode,
                           const char* name) {
  flashfs_dir_slot slot;
  ifs_runtime::memset(&slot, flash_erased_byte, sizeof(slot));
  slot.seq_no = flashfs_next_slot_seq_no(directory);
  slot.dir_fileid = directory->fileid;
  slot.entry_fileid = entry_fileid;
  slot.mode = mode;
  slot.date = flashfs_timestamp();
  dir_slot_set_name(&slot, name);
  dir_slot_set_checksum(&slot);
  if (update_slot(fs, pointer, slot_no, nullptr, &slot) != 0) {
    return EIO;
  }
  flashfs_sctr_list_ordered* added = filemap_add_slot(fs, pointer, slot_no, slot);
  if (added == nullptr) {
    return ENOMEM;
  }
  flashfs_sctr_map* entry = filemap_lookup(fs, entry_fileid);
  if (entry != nullptr) {
    filemap_set_parent(entry, directory->fileid, added);
  }
  return 0;
}

int32_t flashfs_touch(flashfs* fs, flashfs_sctr_map* entry, uint32_t time) {
  sector_buffer buffer(fs);
  if (!buffer) {
    return -1;
  }
  fresh_slot fresh = {};
  fresh.reference = filemap_find_slot_in(fs, entry, buffer).entry;
  if (fresh.reference == nullptr) {
    flashfs_log(fs, "flashfs_touch, unable to lookup filemap for fileid %d", entry->parent_fileid);
    return flashfs_fail(EIO);
  }
  // Taken before the allocation, which may collect garbage and move the slot.
  fresh.contents = buffer->slots[fresh.reference->slot_no];
  fresh.contents.date = time != 0 ? time : flashfs_timestamp();
  dir_slot_set_checksum(&fresh.contents);
  if (flashfs_alloc_slot(fs, &fresh.pointer, &fresh.slot_no, 1) != 0 ||
      replace_slot(fs, fresh, fresh.contents.dir_fileid) != 0) {
    return flashfs_fail(EIO);
  }
  redirect_reference(fs, entry, fresh);
  return 0;
}

int32_t flashfs_rename_entry(flashfs* fs, flashfs_sctr_map* entry, flashfs_sctr_map* directory,
                             const char* new_name) {
  if (entry->parent_fileid != directory->fileid) {
    return move_entry(fs, entry, directory, new_name);
  }
  fresh_slot fresh = {};
  if (rewrite_slot(fs, entry, &fresh,
                   [&](flashfs_dir_slot& slot) { dir_slot_set_name(&slot, new_name); }) != 0) {
    return -1;
  }
  redirect_reference(fs, entry, fresh);
  return 0;
}

int32_t flashfs_change_mode(flashfs* fs, flashfs_sctr_map* entry, ppc_mode_t mode) {
  fresh_slot fresh = {};
  if (rewrite_slot(fs, entry, &fresh, [&](flashfs_dir_slot& slot) {
        slot.mode = with_permissions(slot.mode, mode);
      }) != 0) {
    return -1;
  }
  redirect_reference(fs, entry, fresh);
  entry->mode = with_permissions(entry->mode, mode);
  return 0;
}

int flashfs_truncate_entry(flashfs* fs, flashfs_sctr_map* file) {
  while (file->sctr_list != nullptr) {
    process_may_suspend();
    const flashfs_sctr_list_ordered* head = file->sctr_list;
    if (obsolete_on_flash(fs, head->sctr_ptr, head->slot_no) != 0) {
      return 1;
    }
    sctr_list_remove(fs, file, file->sctr_list);
  }
  return 0;
}

int32_t flashfs_remove_entry(flashfs* fs, flashfs_sctr_map* entry) {
  file_claim entry_claim;
  if (entry->fileid == fileid_root || !entry_claim.take(entry, acquire_write)) {
    return flashfs_fail(EBUSY);
  }
  flashfs_sctr_map* directory = filemap_lookup(fs, entry->parent_fileid);
  if (directory == nullptr) {
    return flashfs_fail(EIO);
  }
  file_claim directory_claim;
  if (!directory_claim.take(directory, acquire_write)) {
    return flashfs_fail(EBUSY);
  }
  if (erase_entry(fs, entry, directory) != 0) {
    return flashfs_fail(EIO);
  }
  entry_claim.keep();  // it went with the entry
  return flashfs_touch(fs, directory, 0);
}

int32_t flashfs_verify_entry(flashfs* fs, flashfs_sctr_map* entry) {
  sector_buffer buffer(fs);
  if (!buffer) {
    return -1;
  }
  if (filemap_find_slot_in(fs, entry, buffer).entry == nullptr) {
    flashfs_log(fs, "doverify, unable to lookup filemap for fileid %d", entry->parent_fileid);
    return flashfs_fail(EIO);
  }
  const bool good = is_directory_mode(entry->mode) ? slots_are_good(fs, entry, buffer)
                                                   : sectors_are_good(fs, entry, buffer);
  return good ? 0 : flashfs_fail(EIO);
}

int flashfs_ensure_root_slot(flashfs* fs) {
  flashfs_sctr_map* root = filemap_lookup(fs, fileid_root);
  if (root == nullptr) {
    root = filemap_insert(fs, fileid_root, fileid_root, mode_of_root);
  }
  sector_buffer buffer(fs);
  if (root == nullptr || !buffer) {
    return 1;
  }
  if (root->parent_fileid != fileid_root) {
    filemap_set_parent(root, fileid_root, nullptr);
  }
  const found_slot found = filemap_find_slot_in(fs, root, buffer);
  if (found.entry != nullptr) {
    return 0;
  }
  flashfs_sctr_ptr pointer;
  uint8_t slot_no = 0;
  if (found.failed || flashfs_alloc_slot(fs, &pointer, &slot_no, 1) != 0) {
    return 1;
  }
  return flashfs_write_new_slot(fs, pointer, slot_no, root, fileid_root, root->mode, "");
}
