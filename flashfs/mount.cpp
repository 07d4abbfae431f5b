// Making a file system of the devices' driver records, registering it with the switch, and giving
// it back. The maps are built by the check.
#include <cerrno>
#include <cstdint>
#include <new>

#include "flashfs/filemap.h"
#include "flashfs/flashfs.h"
#include "flashfs/io.h"
#include "flashfs/log.h"
#include "flashfs/vector.h"

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

}  // namespace

int32_t flashfs_initialize(const void* const handles[], const flash_driver_info* const records[],
                           int32_t num_devices, const char* prefix) {
  if (num_devices > flashfs_max_devices || records == nullptr || prefix == nullptr ||
      handles == nullptr || !drivers_are_usable(records, num_devices) ||
      count_usable_blocks(records, num_devices) > INT16_MAX) {
    return -1;
  }
  flashfs* fs = create_state(handles, records, num_devices);
  if (fs == nullptr) {
    console_print("%sflashfs: out of memory.%s", flashfs_log_prefix, flashfs_log_suffix);
    return -1;
  }
  fs->fsid = static_cast<ppc_fsid_t>(ifs_create(prefix, &flashfs_operations, filesystem_type,
                                                filesystem_flags, filesystem_feature, fs));
  if (ifs_fsid_is_valid(fs->fsid) == 0) {
    console_print("%sflashfs: Unable to register with IFS.%s", flashfs_log_prefix,
                  flashfs_log_suffix);
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
