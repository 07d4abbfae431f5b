// Allocation of sectors and slots, and the growing of a file.
#include "flashfs/alloc.h"

#include "flashfs/available.h"
#include "flashfs/gc.h"
#include "flashfs/io.h"

namespace {

// A sector's number in its file has 16 bits.
constexpr int64_t max_file_sectors = 65536;

// What has come from a list of erased sectors or slots. A check believes what a few bytes tell it;
// a torn erase or a lost bit shows only here, where the whole is looked at.
enum class taken { erased, dirty, failed };

// A dirty sector is invalidated.
taken look_at_sector(flashfs* fs, flashfs_sctr_ptr pointer) {
  flashfs_sector sector;
  if (read_sector(fs, pointer, &sector, whole_sector) != 0) {
    return taken::failed;
  }
  if (is_erased(&sector, sizeof(sector))) {
    return taken::erased;
  }
  return obsolete_sector(fs, pointer, sector.fileid) == 0 ? taken::dirty : taken::failed;
}

// A dirty slot is deleted.
taken look_at_slot(flashfs* fs, flashfs_sctr_ptr pointer, uint8_t slot_no) {
  flashfs_dir_slot slot;
  if (read_slot(fs, pointer, slot_no, &slot) != 0) {
    return taken::failed;
  }
  if (is_erased(&slot, sizeof(slot))) {
    return taken::erased;
  }
  return obsolete_slot(fs, pointer, slot_no, slot.dir_fileid) == 0 ? taken::dirty : taken::failed;
}

// Whether another one is tried behind so many dirty ones: no more than all sectors hold,
// `per_sector` each. Flash that does not erase any more would get them back from garbage collection
// for ever.
bool may_try(const flashfs* fs, uint32_t dirty, uint32_t per_sector) {
  if (dirty == 0) {
    return true;
  }
  uint32_t all = 0;
  for (int16_t b = 0; b < fs->num_blocks; b++) {
    all += fs->flashfs_blocks[b].num_sectors * per_sector;
  }
  return dirty < all;
}

// The head of the list of sectors, after collecting garbage when the list cannot give it. False
// without one.
bool take_sector(flashfs* fs, flashfs_sctr_ptr* pointer, uint32_t use_reserve) {
  if (!available_can_give(fs->available_sectors, use_reserve) &&
      (flashfs_collect_garbage(fs, use_reserve) != 0 ||
       !available_can_give(fs->available_sectors, use_reserve))) {
    return false;
  }
  *pointer = available_sector_take(fs);
  return true;
}

// Turns an erased sector into a directory sector; its slots become available, the last one first.
int make_directory_sector(flashfs* fs, flashfs_sctr_ptr pointer) {
  flashfs_sector sector;
  ifs_runtime::memset(&sector, flash_erased_byte, sizeof(sector));
  sector.fileid = fileid_root;
  if (update_sector(fs, pointer, nullptr, &sector) != 0) {
    return 1;
  }
  for (uint8_t k = 0; k < slots_per_sector; k++) {
    if (available_slot_push(fs, pointer, k) != 0) {
      break;
    }
  }
  return fs->available_slots == nullptr ? 1 : 0;
}

// The head of the list of slots, after making a directory sector when the list cannot give it. As
// flashfs_alloc_slot.
int take_slot(flashfs* fs, flashfs_sctr_ptr* pointer, uint8_t* slot_no, uint32_t use_reserve) {
  if (!available_can_give(fs->available_slots, use_reserve)) {
    flashfs_sctr_ptr fresh;
    const int failure = flashfs_alloc_sector(fs, &fresh, use_reserve);
    if (failure != 0) {
      return failure;
    }
    if (make_directory_sector(fs, fresh) != 0) {
      return alloc_without_space;
    }
  }
  *pointer = available_slot_take(fs, slot_no);
  return 0;
}

// One more sector for a file, claimed on flash by its file id alone. The list gets it behind
// `*tail`. 0, 1 without space, -1 on a write failure.
int extend_by_one(flashfs* fs, const flashfs_sctr_map* file, uint16_t seq_no,
                  flashfs_sctr_list_ordered** tail) {
  auto* entry = static_cast<flashfs_sctr_list_ordered*>(chunk_malloc(fs->sctr_ptr_chunk));
  if (entry == nullptr) {
    return 1;
  }
  const int failure = flashfs_alloc_sector(fs, &entry->sctr_ptr, 0);
  if (failure != 0) {
    chunk_free(fs->sctr_ptr_chunk, entry);
    return failure == alloc_failed ? -1 : 1;
  }
  entry->next = nullptr;
  entry->seq_no = seq_no;
  entry->slot_no = slot_of_reserved_sector;
  *tail = entry;

  flashfs_sector claim;
  claim.fileid = file->fileid;
  return write_sector(fs, entry->sctr_ptr, &claim, only_fileid) == 0 ? 0 : -1;
}

// What an allocation returns for what it took last.
int allocated(taken result, flashfs_sctr_ptr* pointer) {
  if (result == taken::erased) {
    return 0;
  }
  pointer->block_num = no_block;
  return result == taken::failed ? alloc_failed : alloc_without_space;
}

}  // namespace

int flashfs_alloc_sector(flashfs* fs, flashfs_sctr_ptr* pointer, uint32_t use_reserve) {
  taken result = taken::dirty;
  for (uint32_t tried = 0; result == taken::dirty && may_try(fs, tried, 1); tried++) {
    if (!take_sector(fs, pointer, use_reserve)) {
      break;
    }
    result = look_at_sector(fs, *pointer);
  }
  return allocated(result, pointer);
}

int flashfs_alloc_slot(flashfs* fs, flashfs_sctr_ptr* pointer, uint8_t* slot_no,
                       uint32_t use_reserve) {
  pointer->block_num = no_block;
  taken result = taken::dirty;
  for (uint32_t tried = 0; result == taken::dirty && may_try(fs, tried, slots_per_sector);
       tried++) {
    const int failure = take_slot(fs, pointer, slot_no, use_reserve);
    if (failure != 0) {
      pointer->block_num = no_block;
      return failure;
    }
    result = look_at_slot(fs, *pointer, *slot_no);
  }
  return allocated(result, pointer);
}

int32_t extend_sctr_list(flashfs* fs, flashfs_sctr_map* file, int32_t size) {
  return extend_sctr_list_from(fs, file, {}, size);
}

int32_t extend_sctr_list_from(flashfs* fs, flashfs_sctr_map* file, const list_place& near,
                              int32_t size) {
  const int64_t needed = (static_cast<int64_t>(size) + sector_data_size - 1) / sector_data_size;
  const list_place last = near.find_last(file);
  flashfs_sctr_list_ordered** tail =
      last.entry() == nullptr ? &file->sctr_list : &last.entry()->next;
  int64_t have = last.entry() == nullptr ? 0 : int64_t{last.index()} + 1;
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
