// Status of files and of the file system, directory listings, and paths rebuilt from file ids.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "flashfs/flashfs.h"
#include "flashfs/operations.h"

namespace {

// A directory's position and size count slots.
constexpr uint32_t position_per_entry = sizeof(flashfs_dir_slot);

constexpr uint32_t sector_head = offsetof(flashfs_sector, data);
constexpr uint32_t statfs_version = 1;
constexpr uint32_t statfs_fileids = 65534;

// Bytes of a regular file: whole sectors but for the last, whose count is on flash. 1 when the
// flash fails.
int regular_size(flashfs* fs, const flashfs_sctr_map* file, list_place* near, uint32_t* size) {
  list_place last = {0, file->sctr_list};
  if (near != nullptr && near->entry != nullptr) {
    last = *near;
  }
  if (last.entry == nullptr) {
    *size = 0;
    return 0;
  }
  while (last.entry->next != nullptr) {
    last = {last.index + 1, last.entry->next};
  }
  // A remembered place never passes sectors that an interrupted write has left reserved: the next
  // write must meet them.
  if (near != nullptr && last.entry->slot_no != slot_of_reserved_sector) {
    *near = last;
  }
  flashfs_sector sector;
  if (read_sector(fs, last.entry->sctr_ptr, &sector, sector_head) != 0) {
    return 1;
  }
  *size = last.index * sector_data_size + sector_bytes_used(&sector);
  return 0;
}

int32_t count_block(flashfs* fs, int16_t block_num, uint32_t* total, uint32_t* free_sectors,
                    uint32_t* free_slots) {
  flashfs_blkheader header;
  if (read_blkheader(fs, block_num, &header) != 0) {
    return flashfs_fail(EIO);
  }
  const flashfs_block& block = fs->flashfs_blocks[block_num];
  switch (blkheader_state(&header)) {
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
      return flashfs_fail(EIO);
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

int32_t refuse_getdents(const flashfs* fs, const flashfs_open_file* open, uint32_t wanted) {
  if (wanted == 0 || flashfs_is_raw(fs, open) || fs->ready == 0) {
    return EINVAL;
  }
  if (!is_directory_mode(open->file->mode)) {
    return ENOTDIR;
  }
  if (open->filepos % position_per_entry != 0) {
    return ENOENT;
  }
  return (open->oflags & ifs_open_read) == 0 ? EBADF : 0;
}

// Goes to the entry at the descriptor's position, from where the last listing ended if that is it.
// 1 when the flash fails; a null entry past the end.
int skip_entries(flashfs* fs, const flashfs_open_file* open, sector_buffer& buffer,
                 list_place* found) {
  const uint32_t index = open->filepos / position_per_entry;
  if (open->place.entry != nullptr && open->place.index == index) {
    *found = open->place;
    return 0;
  }
  list_place place = {0, open->file->sctr_list};
  for (; place.entry != nullptr && place.index < index; place.entry = place.entry->next) {
    process_may_suspend();
    if (!is_slot_index(place.entry->slot_no)) {
      continue;
    }
    if (read_sector_once(fs, place.entry->sctr_ptr, buffer) != 0) {
      return 1;
    }
    if (buffer->slots[place.entry->slot_no].entry_fileid != fileid_root) {
      place.index++;
    }
  }
  *found = place;
  return 0;
}

void fill_record(const flashfs_dir_slot* slot, uint32_t next_position, uint8_t* out) {
  ppc_dirent record = {};
  char name[filename_buffer_size];
  dir_slot_get_name(slot, name);
  memcpy(record.name, name, sizeof(name));
  record.fileid = slot->entry_fileid;
  record.next_position = next_position;
  record.record_length = sizeof(ppc_dirent);
  memcpy(out, &record, sizeof(record));
}

int32_t list_directory(flashfs* fs, flashfs_open_file* open, uint8_t* out, uint32_t wanted) {
  sector_buffer buffer(fs);
  if (!buffer) {
    return -1;
  }
  list_place place = {};
  if (skip_entries(fs, open, buffer, &place) != 0) {
    return flashfs_fail_down(fs);
  }
  uint32_t produced = 0;
  for (; place.entry != nullptr && produced < wanted; place.entry = place.entry->next) {
    process_may_suspend();
    if (!is_slot_index(place.entry->slot_no)) {
      continue;
    }
    if (read_sector_once(fs, place.entry->sctr_ptr, buffer) != 0) {
      return flashfs_fail_down(fs);
    }
    const flashfs_dir_slot& slot = buffer->slots[place.entry->slot_no];
    if (slot.entry_fileid == slot.dir_fileid) {
      continue;
    }
    open->filepos += position_per_entry;
    place.index++;
    fill_record(&slot, open->filepos, out + produced * sizeof(ppc_dirent));
    produced++;
  }
  open->place = place;
  return static_cast<int32_t>(produced * sizeof(ppc_dirent));
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
  bool failed = false;
  const flashfs_sctr_list_ordered* reference = filemap_find_slot_in(fs, entry, buffer, &failed);
  if (reference == nullptr) {
    flashfs_log(fs, "dostat, unable to lookup filemap for fileid %d", entry->parent_fileid);
    return flashfs_fail(EIO);
  }
  const uint32_t date = buffer->slots[reference->slot_no].date;
  status->access_date = date;
  status->modification_date = date;
  status->change_date = date;
  if (is_directory_mode(entry->mode)) {
    status->size = position_per_entry * sctr_list_length(entry->sctr_list);
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
      return -1;
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
    bool failed = false;
    const flashfs_sctr_list_ordered* reference = filemap_find_slot_in(fs, entry, buffer, &failed);
    if (reference == nullptr) {
      return flashfs_fail(failed ? EIO : EBADF);
    }
    if (prepend_name(&buffer->slots[reference->slot_no], path, &start) != 0) {
      return -1;
    }
    fileid = entry->parent_fileid;
  }
  memmove(path, path + start, path_size - start);
  return 0;
}

int32_t flashfs_vctr_getdents(int32_t fd, void* buffer, uint32_t length) {
  const auto [fs, open] = flashfs_of_descriptor(fd);
  if (fs == nullptr) {
    return flashfs_fail(EBADF);
  }
  const flashfs_lock_guard lock(fs);
  const auto wanted = static_cast<uint32_t>(length / sizeof(ppc_dirent));
  const int32_t refusal = refuse_getdents(fs, open, wanted);
  if (refusal != 0) {
    return flashfs_fail(refusal);
  }
  return list_directory(fs, open, static_cast<uint8_t*>(buffer), wanted);
}

int32_t flashfs_vctr_stat(ppc_fsid_t fsid, const char* path, ppc_stat* status) {
  flashfs* fs = flashfs_of(fsid);
  if (fs == nullptr) {
    return -1;
  }
  if (fs->ready == 0) {
    puts("fsp not ready");
    return flashfs_fail(EINVAL);
  }
  if (*path == '\0') {
    return flashfs_fail(ENOENT);
  }
  const flashfs_lock_guard lock(fs);
  const uint16_t fileid = flashfs_resolve(fs, path);
  if (fileid == 0) {
    return -1;
  }
  flashfs_sctr_map* entry = filemap_lookup(fs, fileid);
  if (entry == nullptr) {
    return flashfs_fail_down(fs);
  }
  return flashfs_finish(fs, flashfs_status(fs, entry, status, nullptr));
}

int32_t flashfs_vctr_fstat(int32_t fd, ppc_stat* status) {
  const auto [fs, open] = flashfs_of_descriptor(fd);
  if (fs == nullptr) {
    return flashfs_fail(EBADF);
  }
  if (fs->ready == 0 || flashfs_is_raw(fs, open)) {
    return flashfs_fail(EINVAL);
  }
  const flashfs_lock_guard lock(fs);
  return flashfs_finish(fs, flashfs_status(fs, open->file, status, nullptr));
}

int32_t flashfs_vctr_istat(ppc_fsid_t fsid, const char* path, uint32_t fileid, ppc_stat* status) {
  flashfs* fs = flashfs_of(fsid);
  if (fs == nullptr) {
    return -1;
  }
  if (fs->ready == 0) {
    return flashfs_fail(EINVAL);
  }
  if (*path == '\0') {
    return flashfs_fail(ENOENT);
  }
  const flashfs_lock_guard lock(fs);
  flashfs_sctr_map* entry =
      fileid > fileid_last ? nullptr : filemap_lookup(fs, static_cast<uint16_t>(fileid));
  if (entry == nullptr) {
    return flashfs_fail(EIO);  // the caller's mistake, not the flash's
  }
  return flashfs_finish(fs, flashfs_status(fs, entry, status, nullptr));
}

int32_t flashfs_vctr_statfs(ppc_fsid_t fsid, const char* /*path*/, ppc_statfs* status) {
  flashfs* fs = flashfs_of(fsid);
  if (fs == nullptr) {
    return -1;
  }
  if (fs->ready == 0) {
    return flashfs_fail(EINVAL);
  }
  const flashfs_lock_guard lock(fs);
  return flashfs_finish(fs, flashfs_space_count(fs, status));
}
