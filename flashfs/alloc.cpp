// Allocation of sectors and slots, the growing of a file and the dating of an entry that are built
// on it, and the admission of readers, writers and the file system's one caller. Where space comes
// from when none is left is gc.cpp.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "flashfs/flashfs.h"

namespace {

// A sector's number in its file has 16 bits.
constexpr int64_t max_file_sectors = 65536;

// Turns a fresh sector into a directory sector; its slots become available, the last one first.
int make_directory_sector(flashfs* fs, flashfs_sctr_ptr pointer, flashfs_sector* buffer) {
  if (read_sector(fs, pointer, buffer, whole_sector) != 0) {
    return 1;
  }
  buffer->fileid = fileid_root;
  if (write_sector(fs, pointer, buffer, whole_sector) != 0) {
    return 1;
  }
  for (uint8_t k = 0; k < slots_per_sector; k++) {
    if (available_slot_push(fs, pointer, k) != 0) {
      break;
    }
  }
  return fs->available_slots == nullptr ? 1 : 0;
}

// One more sector for a file, claimed on flash by its file id alone. The list gets it behind
// `*tail`. 0, 1 without space, -1 on a write failure.
int extend_by_one(flashfs* fs, const flashfs_sctr_map* file, uint16_t seq_no,
                  flashfs_sctr_list_ordered** tail) {
  auto* entry = static_cast<flashfs_sctr_list_ordered*>(chunk_malloc(fs->sctr_ptr_chunk));
  if (entry == nullptr) {
    return 1;
  }
  if (flashfs_alloc_sector(fs, &entry->sctr_ptr, 0) != 0) {
    chunk_free(fs->sctr_ptr_chunk, entry);
    return 1;
  }
  entry->next = nullptr;
  entry->seq_no = seq_no;
  entry->slot_no = slot_of_reserved_sector;
  *tail = entry;

  flashfs_sector claim;
  claim.fileid = file->fileid;
  return write_sector(fs, entry->sctr_ptr, &claim, only_fileid) == 0 ? 0 : -1;
}

int32_t fail_with_eio() {
  errno = EIO;
  return -1;
}

}  // namespace

bool available_can_give(const flashfs_sctr_list_unordered* head, uint32_t use_reserve) {
  return head != nullptr && (use_reserve != 0 || head->next != nullptr);
}

int flashfs_alloc_sector(flashfs* fs, flashfs_sctr_ptr* pointer, uint32_t use_reserve) {
  if (!available_can_give(fs->available_sectors, use_reserve) &&
      (flashfs_collect_garbage(fs, use_reserve) != 0 ||
       !available_can_give(fs->available_sectors, use_reserve))) {
    pointer->block_num = no_block;
    return 1;
  }
  *pointer = available_sector_take(fs);
  return 0;
}

int flashfs_alloc_slot(flashfs* fs, flashfs_sctr_ptr* pointer, uint8_t* slot_no,
                       uint32_t use_reserve) {
  pointer->block_num = no_block;
  sector_buffer buffer(fs);
  if (!buffer) {
    return 1;
  }
  if (!available_can_give(fs->available_slots, use_reserve)) {
    flashfs_sctr_ptr fresh;
    const int failure = flashfs_alloc_sector(fs, &fresh, use_reserve);
    if (failure != 0) {
      return failure;
    }
    if (make_directory_sector(fs, fresh, buffer.get()) != 0) {
      return 1;
    }
  }
  *pointer = available_slot_take(fs, slot_no);
  return 0;
}

int32_t extend_sctr_list(flashfs* fs, flashfs_sctr_map* file, int32_t size) {
  return extend_sctr_list_from(fs, file, {}, size);
}

int32_t extend_sctr_list_from(flashfs* fs, flashfs_sctr_map* file, list_place place, int32_t size) {
  const int64_t needed = (static_cast<int64_t>(size) + sector_data_size - 1) / sector_data_size;
  flashfs_sctr_list_ordered** tail = &file->sctr_list;
  int64_t have = 0;
  if (place.entry != nullptr) {
    tail = &place.entry->next;
    have = int64_t{place.index} + 1;
  }
  for (; *tail != nullptr; tail = &(*tail)->next) {
    have++;
  }
  for (; have < needed && have < max_file_sectors; have++) {
    const int result = extend_by_one(fs, file, static_cast<uint16_t>(have), tail);
    if (result < 0) {
      return -1;
    }
    if (result > 0) {
      break;
    }
    tail = &(*tail)->next;
  }
  return static_cast<int32_t>(have * sector_data_size);
}

int32_t flashfs_touch(flashfs* fs, flashfs_sctr_map* entry, uint32_t time) {
  sector_buffer old_buffer(fs);
  sector_buffer new_buffer(fs);
  if (!old_buffer || !new_buffer) {
    return -1;
  }
  bool failed = false;
  flashfs_sctr_list_ordered* reference = filemap_find_slot_in(fs, entry, old_buffer, &failed);
  if (reference == nullptr) {
    flashfs_log(fs, "flashfs_touch, unable to lookup filemap for fileid %d", entry->parent_fileid);
    return fail_with_eio();
  }
  // Taken before the allocation, which may collect garbage and move the slot.
  flashfs_dir_slot dated = old_buffer->slots[reference->slot_no];
  dated.date = time != 0 ? time : flashfs_timestamp();
  dir_slot_set_checksum(&dated);

  flashfs_sctr_ptr fresh;
  uint8_t fresh_slot = 0;
  if (flashfs_alloc_slot(fs, &fresh, &fresh_slot, 1) != 0 ||
      read_sector(fs, fresh, new_buffer.get(), whole_sector) != 0) {
    return fail_with_eio();
  }
  new_buffer->slots[fresh_slot] = dated;
  // The new slot stands on flash before the old one goes: a power cut leaves at least one.
  if (write_sector(fs, fresh, new_buffer.get(), whole_sector) != 0 ||
      obsolete_on_flash(fs, reference->sctr_ptr, reference->slot_no, old_buffer.get()) != 0) {
    return fail_with_eio();
  }
  reference->sctr_ptr = fresh;
  reference->slot_no = fresh_slot;
  return 0;
}

void flashfs_lock(flashfs* fs) {
  process_lock_semaphore(fs->lock);
  if (fs->sctr_bufs_allocated != 0) {
    flashfs_log(fs, "flashfs_lock, %d sector buffers already allocated",
                static_cast<int>(fs->sctr_bufs_allocated));
  }
}

void flashfs_unlock(flashfs* fs) {
  if (fs->sctr_bufs_allocated != 0) {
    flashfs_log(fs, "flashfs_unlock, %d sector buffers still allocated",
                static_cast<int>(fs->sctr_bufs_allocated));
  }
  process_unlock_semaphore(fs->lock);
}

int flashfs_file_acquire(flashfs_sctr_map* file, uint32_t mode) {
  if (file->writer != 0) {
    return 1;
  }
  if (mode == acquire_read) {
    file->readers++;
    return 0;
  }
  if (mode == acquire_write && file->readers == 0) {
    file->writer = 1;
    return 0;
  }
  return 1;
}

void flashfs_file_release(flashfs_sctr_map* file) {
  if (file->writer != 0) {
    file->writer = 0;
  } else {
    file->readers--;
  }
}

uint16_t flashfs_next_slot_seq_no(const flashfs_sctr_map* directory) {
  uint16_t next = 0;
  for (const flashfs_sctr_list_ordered* entry = directory->sctr_list;
       entry != nullptr && entry->seq_no == next; entry = entry->next) {
    next++;
  }
  return next;
}

uint16_t flashfs_next_fileid(const flashfs* fs) {
  const flashfs_sctr_map* entry = fs->file_map;
  if (entry == nullptr) {
    return fileid_first;
  }
  while (entry->next != nullptr && entry->next->fileid == entry->fileid + 1) {
    entry = entry->next;
  }
  return static_cast<uint16_t>(entry->fileid + 1);
}

uint32_t flashfs_toggle_random(flashfs* fs) {
  fs->random = fs->random == 0 ? 1 : 0;
  return fs->random;
}

void swap_sctr_ptr(flashfs_sctr_list_unordered* entry) {
  flashfs_sctr_list_unordered* successor = entry->next;
  const flashfs_sctr_list_unordered held = *entry;
  entry->slot_no = successor->slot_no;
  entry->sctr_ptr = successor->sctr_ptr;
  successor->slot_no = held.slot_no;
  successor->sctr_ptr = held.sctr_ptr;
}
