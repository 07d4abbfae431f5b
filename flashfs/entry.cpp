// Directory entries: the steps that write, rewrite, remove and verify directory slots and the files
// behind them. A slot is changed by writing a fresh one before the old one is marked obsolete, so
// that a power cut leaves at least one valid slot for the entry. The callers hold the lock and mark
// the file system down on EIO.
#include <cerrno>
#include <cstring>

#include "flashfs/flashfs.h"

namespace {

constexpr ppc_mode_t mode_of_root = 0x4600;
constexpr ppc_mode_t mode_kept_bits = 0xFE00;

int32_t fail_with(int error) {
  errno = error;
  return -1;
}

ppc_mode_t with_permissions(ppc_mode_t mode, ppc_mode_t permissions) {
  return static_cast<ppc_mode_t>((mode & mode_kept_bits) | (permissions & ppc_mode_permissions));
}

// Where a rewritten slot lies now, and the list entry that still points at the old one.
struct rewritten_slot {
  flashfs_sctr_list_ordered* reference;
  flashfs_sctr_ptr pointer;
  uint8_t slot_no;
};

// Writes a fresh copy of the entry's slot, changed by `change`, and then obsoletes the old one. The
// reference is left to the caller. Returns 0, or -1 with errno.
template <typename Change>
int32_t rewrite_slot(flashfs* fs, const flashfs_sctr_map* entry, rewritten_slot* result,
                     Change change) {
  sector_buffer old_buffer(fs);
  sector_buffer new_buffer(fs);
  if (!old_buffer || !new_buffer) {
    return -1;
  }
  bool failed = false;
  result->reference = filemap_find_slot_in(fs, entry, old_buffer, &failed);
  if (result->reference == nullptr) {
    return fail_with(failed ? EIO : ENOENT);
  }
  // The allocation may collect garbage and move the old slot; the reference follows it.
  const flashfs_sctr_list_ordered& old = *result->reference;
  if (flashfs_alloc_slot(fs, &result->pointer, &result->slot_no, 1) != 0 ||
      read_sector(fs, old.sctr_ptr, old_buffer.get(), whole_sector) != 0 ||
      read_sector(fs, result->pointer, new_buffer.get(), whole_sector) != 0) {
    return fail_with(EIO);
  }
  flashfs_dir_slot& fresh = new_buffer->slots[result->slot_no];
  fresh = old_buffer->slots[old.slot_no];
  change(fresh);
  dir_slot_set_checksum(&fresh);
  if (write_sector(fs, result->pointer, new_buffer.get(), whole_sector) != 0 ||
      obsolete_on_flash(fs, old.sctr_ptr, old.slot_no, old_buffer.get()) != 0) {
    return fail_with(EIO);
  }
  return 0;
}

void redirect_reference(const rewritten_slot& rewritten) {
  rewritten.reference->sctr_ptr = rewritten.pointer;
  rewritten.reference->slot_no = rewritten.slot_no;
}

int32_t move_entry(flashfs* fs, flashfs_sctr_map* entry, flashfs_sctr_map* directory,
                   const char* new_name) {
  flashfs_sctr_map* old_directory = filemap_lookup(fs, entry->parent_fileid);
  if (old_directory == nullptr) {
    return fail_with(ENOENT);
  }
  rewritten_slot rewritten;
  if (rewrite_slot(fs, entry, &rewritten, [&](flashfs_dir_slot& slot) {
        dir_slot_set_name(&slot, new_name);
        slot.dir_fileid = directory->fileid;
        slot.seq_no = flashfs_next_slot_seq_no(directory);
      }) != 0) {
    return -1;
  }
  sector_buffer buffer(fs);
  if (!buffer) {
    return -1;
  }
  if (read_sector(fs, rewritten.pointer, buffer.get(), whole_sector) != 0) {
    return fail_with(EIO);
  }
  if (filemap_add_sector(fs, rewritten.pointer, buffer.get(), rewritten.slot_no) != 0) {
    return fail_with(ENOMEM);
  }
  sctr_list_remove(fs, old_directory, rewritten.reference);
  entry->parent_fileid = directory->fileid;
  return 0;
}

// Obsoletes an entry's slot and everything in its list, on flash and in memory. The slot goes
// first: that is the point at which the entry ceases to exist.
int erase_entry(flashfs* fs, flashfs_sctr_map* entry, flashfs_sctr_map* directory) {
  sector_buffer buffer(fs);
  if (!buffer) {
    return 1;
  }
  bool failed = false;
  flashfs_sctr_list_ordered* reference = filemap_find_slot_in(fs, entry, buffer, &failed);
  buffer.forget();
  if (reference == nullptr ||
      obsolete_on_flash(fs, reference->sctr_ptr, reference->slot_no, buffer.get()) != 0) {
    return 1;
  }
  sctr_list_remove(fs, directory, reference);
  for (const auto* each = entry->sctr_list; each != nullptr; each = each->next) {
    process_may_suspend();
    if (obsolete_on_flash(fs, each->sctr_ptr, each->slot_no, buffer.get()) != 0) {
      return 1;
    }
  }
  filemap_remove(fs, entry);
  return 0;
}

int verify_reference(flashfs* fs, const flashfs_sctr_list_ordered* reference, bool in_directory,
                     sector_buffer& buffer) {
  if (in_directory && !is_slot_index(reference->slot_no)) {
    return 0;
  }
  if (read_sector_once(fs, reference->sctr_ptr, buffer) != 0) {
    return 1;
  }
  const uint32_t crc =
      in_directory ? dir_slot_crc(&buffer->slots[reference->slot_no]) : sector_crc(buffer.get());
  process_may_suspend();
  return crc == flashfs_good_crc ? 0 : 1;
}

}  // namespace

int flashfs_write_new_slot(flashfs* fs, flashfs_sctr_ptr pointer, uint8_t slot_no,
                           flashfs_sctr_map* directory, uint16_t entry_fileid, ppc_mode_t mode,
                           const char* name, flashfs_sector* buffer) {
  if (read_sector(fs, pointer, buffer, whole_sector) != 0) {
    return EIO;
  }
  flashfs_dir_slot& slot = buffer->slots[slot_no];
  slot.seq_no = flashfs_next_slot_seq_no(directory);
  slot.dir_fileid = directory->fileid;
  slot.entry_fileid = entry_fileid;
  slot.mode = mode;
  slot.date = flashfs_timestamp();
  dir_slot_set_name(&slot, name);
  dir_slot_set_checksum(&slot);
  if (write_sector(fs, pointer, buffer, whole_sector) != 0) {
    return EIO;
  }
  return filemap_add_sector(fs, pointer, buffer, slot_no) == 0 ? 0 : ENOMEM;
}

int32_t flashfs_rename_entry(flashfs* fs, flashfs_sctr_map* entry, flashfs_sctr_map* directory,
                             const char* new_name) {
  if (entry->parent_fileid != directory->fileid) {
    return move_entry(fs, entry, directory, new_name);
  }
  rewritten_slot rewritten;
  if (rewrite_slot(fs, entry, &rewritten,
                   [&](flashfs_dir_slot& slot) { dir_slot_set_name(&slot, new_name); }) != 0) {
    return -1;
  }
  redirect_reference(rewritten);
  return 0;
}

int32_t flashfs_change_mode(flashfs* fs, flashfs_sctr_map* entry, ppc_mode_t mode) {
  rewritten_slot rewritten;
  if (rewrite_slot(fs, entry, &rewritten, [&](flashfs_dir_slot& slot) {
        slot.mode = with_permissions(slot.mode, mode);
      }) != 0) {
    return -1;
  }
  redirect_reference(rewritten);
  entry->mode = with_permissions(entry->mode, mode);
  return 0;
}

int flashfs_truncate_entry(flashfs* fs, flashfs_sctr_map* file) {
  sector_buffer buffer(fs);
  if (!buffer) {
    return 1;
  }
  while (file->sctr_list != nullptr) {
    process_may_suspend();
    const flashfs_sctr_list_ordered* head = file->sctr_list;
    if (obsolete_on_flash(fs, head->sctr_ptr, head->slot_no, buffer.get()) != 0) {
      return 1;
    }
    sctr_list_remove(fs, file, file->sctr_list);
  }
  return 0;
}

int32_t flashfs_remove_entry(flashfs* fs, flashfs_sctr_map* entry) {
  if (entry->fileid == fileid_root || flashfs_file_acquire(entry, acquire_write) != 0) {
    return fail_with(EBUSY);
  }
  flashfs_sctr_map* directory = filemap_lookup(fs, entry->parent_fileid);
  if (directory != nullptr && flashfs_file_acquire(directory, acquire_write) != 0) {
    flashfs_file_release(entry);
    return fail_with(EBUSY);
  }
  if (directory == nullptr || erase_entry(fs, entry, directory) != 0) {
    flashfs_file_release(entry);
    if (directory != nullptr) {
      flashfs_file_release(directory);
    }
    return fail_with(EIO);
  }
  const int32_t result = flashfs_touch(fs, directory, 0);
  flashfs_file_release(directory);
  return result;
}

int32_t flashfs_verify_entry(flashfs* fs, flashfs_sctr_map* entry) {
  sector_buffer buffer(fs);
  if (!buffer) {
    return -1;
  }
  bool failed = false;
  if (filemap_find_slot_in(fs, entry, buffer, &failed) == nullptr) {
    flashfs_log(fs, "doverify, unable to lookup filemap for fileid %d", entry->parent_fileid);
    return fail_with(EIO);
  }
  const bool in_directory = is_directory_mode(entry->mode);
  for (const auto* each = entry->sctr_list; each != nullptr; each = each->next) {
    if (verify_reference(fs, each, in_directory, buffer) != 0) {
      return fail_with(EIO);
    }
  }
  return 0;
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
  root->parent_fileid = fileid_root;
  bool failed = false;
  if (filemap_find_slot_in(fs, root, buffer, &failed) != nullptr) {
    return 0;
  }
  buffer.forget();
  flashfs_sctr_ptr pointer;
  uint8_t slot_no = 0;
  if (failed || flashfs_alloc_slot(fs, &pointer, &slot_no, 1) != 0) {
    return 1;
  }
  return flashfs_write_new_slot(fs, pointer, slot_no, root, fileid_root, root->mode, "",
                                buffer.get());
}
