// Status of files and of the file system, and paths rebuilt from file ids.
#include "flashfs/status.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "flashfs/buffer.h"
#include "flashfs/filemap.h"
#include "flashfs/io.h"
#include "flashfs/log.h"
#include "flashfs/slots.h"

namespace {

constexpr uint32_t statfs_version = 1;
constexpr uint32_t statfs_fileids = 65534;

// Bytes of a regular file: whole sectors but for the last, whose count is on flash. 1 when the
// flash fails.
int regular_size(flashfs* fs, const flashfs_sctr_map* file, list_place* near, uint32_t* size) {
  const list_place last = (near == nullptr ? list_place() : *near).find_last(file);
  if (last.entry() == nullptr) {
    *size = 0;
    return 0;
  }
  if (near != nullptr) {
    near->remember(last);
  }
  flashfs_sector sector;
  if (read_sector(fs, last.entry()->sctr_ptr, &sector, only_count) != 0) {
    return 1;
  }
  *size = last.index() * sector_data_size + sector_bytes_used(&sector);
  return 0;
}

int count_block(flashfs* fs, int16_t block_num, uint32_t* total, uint32_t* free_sectors,
                uint32_t* free_slots) {
  uint8_t state = 0;
  if (read_block_state(fs, block_num, &state) != 0) {
    return 1;
  }
  const flashfs_block& block = fs->flashfs_blocks[block_num];
  switch (state) {
    case block_in_use:
      *total += block.num_sectors;
      *free_sectors += block.invalid_sectors;
      *free_slots += block.invalid_slots;
      return 0;
    case block_available:
      *total += block.num_sectors;
      *free_sectors += block.num_sectors;
      return 0;
    default:
      return 1;
  }
}

// Puts a name in front of what stands at `*start`. 0, or -1 with ENAMETOOLONG.
int32_t prepend_name(const flashfs_dir_slot* slot, char* path, size_t* start) {
  char name[filename_buffer_size];
  dir_slot_get_name(slot, name);
  const size_t length = strlen(name);
  if (length + 1 > *start) {
    return flashfs_fail(ENAMETOOLONG);
  }
  *start -= length;
  memcpy(path + *start, name, length);
  path[--*start] = '/';
  return 0;
}

// Whether the parents of a file lead to the root. Damaged parents can form a loop: no path has more
// components than there are files.
bool leads_to_root(const flashfs* fs, uint16_t fileid) {
  for (uint32_t steps = 0; fileid != fileid_root; steps++) {
    const flashfs_sctr_map* entry = filemap_lookup(fs, fileid);
    if (entry == nullptr || steps > fs->num_files) {
      return false;
    }
    fileid = entry->parent_fileid;
  }
  return true;
}

}  // namespace

int32_t flashfs_status(flashfs* fs, flashfs_sctr_map* entry, ppc_stat* status, list_place* near) {
  *status = {};
  status->fsid = fs->fsid;
  status->fileid = entry->fileid;
  status->mode = entry->mode;
  sector_buffer buffer(fs);
  if (!buffer) {
    return -1;
  }
  const flashfs_sctr_list_ordered* reference = filemap_find_slot_in(fs, entry, buffer).entry;
  if (reference == nullptr) {
    flashfs_log(fs, "dostat, unable to lookup filemap for fileid %d", entry->parent_fileid);
    return flashfs_fail(EIO);
  }
  const uint32_t date = buffer->slots[reference->slot_no].date;
  status->access_date = date;
  status->modification_date = date;
  status->change_date = date;
  if (is_directory_mode(entry->mode)) {
    status->size = dir_position_per_entry * sctr_list_length(entry->sctr_list);
  } else if (regular_size(fs, entry, near, &status->size) != 0) {
    return flashfs_fail(EIO);
  }
  status->link_count = 1;
  return 0;
}

int32_t flashfs_space_count(flashfs* fs, ppc_statfs* status) {
  uint32_t total = 0;
  uint32_t free_sectors = fs->num_available_sectors;
  uint32_t free_slots = fs->num_available_slots;
  for (int16_t b = 0; b < fs->num_blocks; b++) {
    process_may_suspend();
    if (b != fs->available_block && count_block(fs, b, &total, &free_sectors, &free_slots) != 0) {
      return flashfs_fail(EIO);
    }
  }
  const flashfs_sctr_map* last = filemap_last(fs);
  *status = {};
  status->version = statfs_version;
  status->block_size = sector_data_size;
  status->total_blocks = total;
  // One sector is always held back.
  status->free_blocks = (free_sectors > 0 ? free_sectors - 1 : 0) + free_slots / slots_per_sector;
  status->total_fileids = statfs_fileids;
  status->free_fileids = statfs_fileids - fs->num_files;
  status->files = fs->num_files;
  status->lost_fileids = (last == nullptr ? 0U : last->fileid) - fs->num_files;
  status->fsid = fs->fsid;
  return 0;
}

int32_t flashfs_build_path(flashfs* fs, uint16_t fileid, char* path, size_t path_size) {
  if (fileid == fileid_root) {
    snprintf(path, path_size, "/");
    return 0;
  }
  if (!leads_to_root(fs, fileid)) {
    return flashfs_fail(EBADF);
  }
  sector_buffer buffer(fs);
  if (!buffer) {
    return -1;
  }
  size_t start = path_size - 1;
  path[start] = '\0';
  while (fileid != fileid_root) {
    const flashfs_sctr_map* entry = filemap_lookup(fs, fileid);
    const found_slot found = filemap_find_slot_in(fs, entry, buffer);
    if (found.entry == nullptr) {
      return flashfs_fail(found.failed ? EIO : EBADF);
    }
    if (prepend_name(&buffer->slots[found.entry->slot_no], path, &start) != 0) {
      return -1;
    }
    fileid = entry->parent_fileid;
  }
  memmove(path, path + start, path_size - start);
  return 0;
}
