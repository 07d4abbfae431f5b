// Allocation of sectors and slots, and the growing of a file.
#include "flashfs/alloc.h"

#include "flashfs/available.h"
#include "flashfs/buffer.h"
#include "flashfs/gc.h"
#include "flashfs/io.h"

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

}  // namespace

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
