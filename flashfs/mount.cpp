// The mounted file system's state: its making from the devices' driver records, its registration
// with the switch, the validation and collection of what lies on flash, and its teardown. The maps
// themselves are built by the check.
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <new>

#include "flashfs/flashfs.h"

const char* const flashfs_log_prefix = "";
const char* const flashfs_log_suffix = "\n";

namespace {

// What the switch is told of the file system.
constexpr uint16_t filesystem_type = 1;
constexpr uint32_t filesystem_flags = 131;
constexpr uint16_t filesystem_feature = 1734;

constexpr uint32_t sector_buffers_per_chunk = 8;

// The flash chips known by manufacturer and device code; none are listed.
struct mfg_dev_code {
  int16_t code;
  int32_t chip_code;
  const char* description;
};
constexpr int mfg_dev_codes = 16;
const mfg_dev_code flashfs_mfg_dev_code[mfg_dev_codes] = {};

void log_line(const flashfs* fs, const char* format, va_list arguments, const char* suffix) {
  printf("%sflashfs[%d]: ", flashfs_log_prefix, fs->fsid);
  vprintf(format, arguments);
  printf("%s", suffix);
}

bool driver_is_usable(const flash_driver_info* record) {
  return record != nullptr && record->read != nullptr && record->write != nullptr &&
         record->erase != nullptr && (record->block_count == 0 || record->blocks != nullptr);
}

bool drivers_are_usable(const flash_driver_info* const records[], int32_t num_devices) {
  for (int32_t i = 0; i < num_devices; i++) {
    if (!driver_is_usable(records[i])) {
      return false;
    }
  }
  return true;
}

int32_t count_usable_blocks(const flash_driver_info* const records[], int32_t num_devices) {
  int32_t count = 0;
  for (int32_t i = 0; i < num_devices; i++) {
    for (uint32_t b = 0; b < records[i]->block_count; b++) {
      count += records[i]->blocks[b].skip == 0 ? 1 : 0;
    }
  }
  return count;
}

void fill_blocks(flashfs* fs) {
  flashfs_block* block = fs->flashfs_blocks;
  for (int32_t i = 0; i < fs->num_devices; i++) {
    for (uint32_t b = 0; b < fs->fdi[i].block_count; b++) {
      const flash_block_info& info = fs->fdi[i].blocks[b];
      if (info.skip != 0) {
        continue;
      }
      block->offset = info.offset;
      block->num_sectors = block_sector_count(info.size);
      block->spare_bytes = static_cast<uint16_t>(block_spare_bytes(info.size));
      block->device = static_cast<uint8_t>(i);
      if (block->num_sectors > fs->largest_block_size) {
        fs->largest_block_size = block->num_sectors;
      }
      block++;
    }
  }
}

void free_state(flashfs* fs) {
  delete[] fs->flashfs_blocks;
  delete_watched_semaphore(&fs->lock);
  chunk_destroy(fs->sctr_buf_chunk);
  delete fs;
}

// The state of a file system that is not registered and not ready; null when there is no memory.
flashfs* create_state(const void* const handles[], const flash_driver_info* const records[],
                      int32_t num_devices) {
  auto* fs = new (std::nothrow) flashfs{};
  if (fs == nullptr) {
    return nullptr;
  }
  fs->magic = flashfs_initialize;
  fs->available_block = no_block;
  fs->raw_file_map.fileid = fileid_available;
  fs->num_devices = num_devices;
  for (int32_t i = 0; i < num_devices; i++) {
    fs->fdi[i] = *records[i];
    fs->handle[i] = handles[i];
  }
  fs->num_blocks = static_cast<int16_t>(count_usable_blocks(records, num_devices));
  fs->lock = create_watched_semaphore("flashfs");
  fs->flashfs_blocks = new (std::nothrow) flashfs_block[static_cast<size_t>(fs->num_blocks)]{};
  if (fs->lock == nullptr || fs->flashfs_blocks == nullptr) {
    free_state(fs);
    return nullptr;
  }
  fill_blocks(fs);
  fs->sctr_buf_chunk = chunk_create(sizeof(flashfs_sector), sector_buffers_per_chunk);
  if (fs->sctr_buf_chunk == nullptr) {
    flashfs_log(fs, "unable to allocate chunk of memory.");
    free_state(fs);
    return nullptr;
  }
  return fs;
}

// The row of the chip table for a ready file system, or null. The rows are searched for the
// file system's id.
const mfg_dev_code* find_chip(const char* prefix) {
  const flashfs* fs = flashfs_get_fsp(prefix);
  if (fs == nullptr || fs->ready == 0) {
    errno = EINVAL;
    return nullptr;
  }
  for (int32_t i = 0; i < fs->num_devices; i++) {
    if (flashfs_mfg_dev_code[i].code == fs->fsid) {
      return &flashfs_mfg_dev_code[i];
    }
  }
  return nullptr;
}

// What is wrong with a slot, after its message; false when it is good.
bool slot_is_bad(const flashfs* fs, flashfs_sctr_ptr pointer, const flashfs_dir_slot* slot,
                 uint32_t slot_no) {
  if (slot->dir_fileid == fileid_invalidated) {
    return false;
  }
  if (slot->dir_fileid == fileid_available) {
    if (is_erased(slot, sizeof(*slot))) {
      return false;
    }
    flashfs_log(fs, "bad available_slot.");
    return true;
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
  bool deleted = false;
  for (uint32_t k = 0; k < slots_per_sector; k++) {
    if (!slot_is_bad(fs, pointer, &sector->slots[k], k)) {
      continue;
    }
    delete_slot_buf(fs, pointer, sector, k);
    deleted = true;
    if (sector->fileid == fileid_invalidated) {
      break;
    }
  }
  return deleted ? write_sector(fs, pointer, sector, whole_sector) : 0;
}

int push_available_slots(flashfs* fs, flashfs_sctr_ptr pointer, flashfs_sector* buffer) {
  if (read_sector(fs, pointer, buffer, whole_sector) != 0) {
    return 1;
  }
  for (uint8_t k = 0; k < slots_per_sector; k++) {
    const flashfs_dir_slot& slot = buffer->slots[k];
    if (slot.dir_fileid != fileid_available) {
      continue;
    }
    if (!is_erased(&slot, sizeof(slot))) {
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

void flashfs_log(const flashfs* fs, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  log_line(fs, format, arguments, flashfs_log_suffix);
  va_end(arguments);
}

void flashfs_log_open(const flashfs* fs, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  log_line(fs, format, arguments, "");
  va_end(arguments);
}

int32_t flashfs_initialize(const void* const handles[], const flash_driver_info* const records[],
                           int32_t num_devices, const char* prefix) {
  if (num_devices > flashfs_max_devices || records == nullptr || prefix == nullptr ||
      handles == nullptr || !drivers_are_usable(records, num_devices) ||
      count_usable_blocks(records, num_devices) > INT16_MAX) {
    return -1;
  }
  flashfs* fs = create_state(handles, records, num_devices);
  if (fs == nullptr) {
    printf("%sflashfs: out of memory.%s", flashfs_log_prefix, flashfs_log_suffix);
    return -1;
  }
  fs->fsid = static_cast<ppc_fsid_t>(ifs_create(prefix, &flashfs_operations, filesystem_type,
                                                filesystem_flags, filesystem_feature, fs));
  if (ifs_fsid_is_valid(fs->fsid) == 0) {
    printf("%sflashfs: Unable to register with IFS.%s", flashfs_log_prefix, flashfs_log_suffix);
    return -1;
  }
  return fs->fsid;
}

void flashfs_release(flashfs* fs) {
  for (int32_t fd = 0; fd < ifs_max_descriptors; fd++) {
    if (ifs_fd_get_fsid(fd) == fs->fsid) {
      ifs_close(fd);
    }
  }
  flashfs_clear_maps(fs);
  if (ifs_filesystem* entry = ifs_fsid_get_entry(fs->fsid); entry != nullptr) {
    entry->open_count = 0;  // whatever was counted for descriptors that have failed
    ifs_destroy(fs->fsid, 1);
  }
  free_state(fs);
}

flashfs* flashfs_get_fsp(const char* prefix) {
  const int32_t fsid = ifs_lookup_prefix(prefix);
  if (fsid < 0) {
    errno = ENODEV;
    return nullptr;
  }
  const ifs_filesystem* entry = ifs_fsid_get_entry(static_cast<ppc_fsid_t>(fsid));
  return entry == nullptr ? nullptr : static_cast<flashfs*>(entry->context);
}

int32_t flashfs_get_chip_code(const char* prefix) {
  const mfg_dev_code* chip = find_chip(prefix);
  return chip == nullptr ? 0 : chip->chip_code;
}

const char* flashfs_get_chip_desc(const char* prefix) {
  const mfg_dev_code* chip = find_chip(prefix);
  return chip == nullptr ? nullptr : chip->description;
}

void flashfs_clear_maps(flashfs* fs) {
  for (int16_t b = 0; b < fs->num_blocks; b++) {
    fs->flashfs_blocks[b].invalid_sectors = 0;
    fs->flashfs_blocks[b].invalid_slots = 0;
  }
  if (fs->sctr_ptr_chunk != nullptr) {
    filemap_clear(fs);
    available_clear(fs);
    chunk_destroy(fs->sctr_ptr_chunk);
    fs->sctr_ptr_chunk = nullptr;
  }
  fs->ready = 0;
}

void flashfs_mark_down(flashfs* fs) {
  flashfs_log(fs, "filesystem marked down.  Use \"fsck\" to recover.");
  fs->ready = 0;
}

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
  invalidate_sector_buf(fs, pointer, sector);
  return write_sector(fs, pointer, sector, whole_sector);
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
    const uint16_t fileid = buffer->fileid;
    if (fileid == fileid_available && available_sector_push(fs, pointer) != 0) {
      return 1;
    }
    if (fileid == fileid_root && push_available_slots(fs, pointer, buffer.get()) != 0) {
      return 1;
    }
  }
  return 0;
}
