// The validation of a sector, and the collection of a block's free space.
#include "flashfs/scan.h"

#include <algorithm>
#include <iterator>

#include "flashfs/available.h"
#include "flashfs/buffer.h"
#include "flashfs/io.h"
#include "flashfs/log.h"

namespace {

// A free slot of which something has been programmed.
bool is_dirty_free_slot(const flashfs_dir_slot& slot) {
  return slot.dir_fileid == fileid_available && !is_erased(&slot, sizeof(slot));
}

// What is wrong with a slot, after its message; false when it is good.
bool slot_is_bad(const flashfs* fs, flashfs_sctr_ptr pointer, const flashfs_dir_slot* slot,
                 uint32_t slot_no) {
  if (slot->dir_fileid == fileid_invalidated) {
    return false;
  }
  if (slot->dir_fileid == fileid_available) {
    const bool dirty = is_dirty_free_slot(*slot);
    if (dirty) {
      flashfs_log(fs, "bad available_slot.");
    }
    return dirty;
  }
  const uint32_t crc = dir_slot_crc(slot);
  if (crc != flashfs_good_crc) {
    flashfs_log(fs, "Dir slot %ld, sector %d, block %d, checksum (0x%x != 0x%x)",
                static_cast<long>(slot_no), pointer.sctr_num, pointer.block_num,
                static_cast<unsigned>(crc), static_cast<unsigned>(flashfs_good_crc));
    return true;
  }
  if (!is_directory_mode(slot->mode) && !is_regular_mode(slot->mode)) {
    flashfs_log(fs, "Dir slot %ld, sector %d, block %d, bad file type in mode: 0x%x",
                static_cast<long>(slot_no), pointer.sctr_num, pointer.block_num,
                static_cast<unsigned>(slot->mode & ppc_mode_type_mask));
    return true;
  }
  char name[filename_buffer_size];
  dir_slot_get_name(slot, name);
  const int illegal = filename_illegal_char(name);
  if (illegal != 0) {
    flashfs_log(fs, "Illegal character 0x%x in filename: \"%s\"", static_cast<unsigned>(illegal),
                name);
    return true;
  }
  return false;
}

int check_directory_sector(flashfs* fs, flashfs_sctr_ptr pointer, flashfs_sector* sector) {
  const flashfs_sector held = *sector;
  for (uint32_t k = 0; k < slots_per_sector && sector->fileid != fileid_invalidated; k++) {
    if (slot_is_bad(fs, pointer, &sector->slots[k], k)) {
      delete_slot_buf(fs, pointer, sector, k);
    }
  }
  return update_sector(fs, pointer, &held, sector);
}

int list_free_slots(flashfs* fs, flashfs_sctr_ptr pointer, const flashfs_sector* sector) {
  for (uint8_t k = 0; k < slots_per_sector; k++) {
    const flashfs_dir_slot& slot = sector->slots[k];
    if (slot.dir_fileid != fileid_available) {
      continue;
    }
    if (is_dirty_free_slot(slot)) {
      flashfs_log(fs, "Inconsistency found in directory slot %d in sector %d in block %d", k,
                  pointer.sctr_num, pointer.block_num);
      return 1;
    }
    if (available_slot_push(fs, pointer, k) != 0) {
      return 1;
    }
  }
  return 0;
}

}  // namespace

int flashfs_check_sector(flashfs* fs, flashfs_sctr_ptr pointer, flashfs_sector* sector) {
  switch (static_cast<uint16_t>(sector->fileid)) {
    case fileid_invalidated:
      return 0;
    case fileid_root:
      return check_directory_sector(fs, pointer, sector);
    case fileid_available:
      if (is_erased(sector, sizeof(*sector))) {
        return 0;
      }
      break;
    default: {
      const uint32_t crc = sector_crc(sector);
      if (crc == flashfs_good_crc) {
        return 0;
      }
      flashfs_log(fs, "sector %d, block %d checksum (0x%x != 0x%x)", pointer.sctr_num,
                  pointer.block_num, static_cast<unsigned>(crc),
                  static_cast<unsigned>(flashfs_good_crc));
    }
  }
  const uint16_t held = sector->fileid;
  sector->fileid = fileid_invalidated;
  return obsolete_sector(fs, pointer, held);
}

bool flashfs_free_slots_are_erased(const flashfs_sector* sector) {
  return std::none_of(std::begin(sector->slots), std::end(sector->slots), is_dirty_free_slot);
}

int flashfs_list_free(flashfs* fs, flashfs_sctr_ptr pointer, const flashfs_sector* sector) {
  switch (static_cast<uint16_t>(sector->fileid)) {
    case fileid_available:
      return available_sector_push(fs, pointer);
    case fileid_root:
      return list_free_slots(fs, pointer, sector);
    default:
      return 0;
  }
}

int flashfs_scan_block_available(flashfs* fs, int16_t block_num) {
  sector_buffer buffer(fs);
  if (!buffer) {
    return 1;
  }
  for (uint16_t s = fs->flashfs_blocks[block_num].num_sectors; s-- > 0;) {
    const flashfs_sctr_ptr pointer = {block_num, s};
    process_may_suspend();
    if (read_sector(fs, pointer, buffer.get(), only_fileid) != 0) {
      return 1;
    }
    if (buffer->fileid == fileid_root &&
        read_sector(fs, pointer, buffer.get(), all_but_fileid) != 0) {
      return 1;
    }
    if (flashfs_list_free(fs, pointer, buffer.view()) != 0) {
      return 1;
    }
  }
  return 0;
}
