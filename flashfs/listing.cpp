// The listing of a directory, and the status operations.
#include "flashfs/listing.h"

#include <cerrno>
#include <cstring>

#include "flashfs/buffer.h"
#include "flashfs/claim.h"
#include "flashfs/filemap.h"
#include "flashfs/log.h"
#include "flashfs/operations.h"
#include "flashfs/path.h"
#include "flashfs/place.h"
#include "flashfs/raw.h"
#include "flashfs/slots.h"
#include "flashfs/status.h"

namespace {

// 0, or the error of a listing that cannot be.
int refusal_of_getdents(const flashfs* fs, const flashfs_open_file* open, uint32_t wanted) {
  if (wanted == 0 || !flashfs_is_usable(fs, open)) {
    return EINVAL;
  }
  if (!is_directory_mode(open->file->mode)) {
    return ENOTDIR;
  }
  if (open->filepos % dir_position_per_entry != 0) {
    return ENOENT;
  }
  return (open->oflags & ifs_open_read) == 0 ? EBADF : 0;
}

// Goes to the entry at the descriptor's position, from where the last listing ended if that is it;
// past the end of the list there is none. 1 when the flash fails.
int skip_entries(flashfs* fs, const flashfs_open_file* open, sector_buffer& buffer,
                 list_place* found) {
  const uint32_t index = open->filepos / dir_position_per_entry;
  if (open->place.entry() != nullptr && open->place.index() == index) {
    *found = open->place;
    return 0;
  }
  slot_walk walk(fs, open->file->sctr_list, buffer, slot_walk_yields::yes);
  uint32_t passed = 0;
  while (passed < index && walk.next()) {
    if (walk.slot().entry_fileid != fileid_root) {
      passed++;
    }
  }
  *found = list_place(walk.rest(), passed);
  return walk.failed() ? 1 : 0;
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
  list_place place;
  if (skip_entries(fs, open, buffer, &place) != 0) {
    return flashfs_fail(EIO);
  }
  slot_walk walk(fs, place.entry(), buffer, slot_walk_yields::yes);
  uint32_t produced = 0;
  while (produced < wanted && walk.next()) {
    const flashfs_dir_slot& slot = walk.slot();
    if (slot.entry_fileid == slot.dir_fileid) {
      continue;
    }
    open->filepos += dir_position_per_entry;
    fill_record(&slot, open->filepos, out + produced * sizeof(ppc_dirent));
    produced++;
  }
  if (walk.failed()) {
    return flashfs_fail(EIO);
  }
  open->place.remember(list_place(walk.rest(), place.index() + produced));
  return static_cast<int32_t>(produced * sizeof(ppc_dirent));
}

int32_t status_of_named(flashfs* fs, const char* path, ppc_stat* status) {
  const found_name found = flashfs_resolve(fs, path);
  if (found.fileid == 0) {
    return flashfs_fail(found.error);
  }
  flashfs_sctr_map* entry = filemap_lookup(fs, found.fileid);
  return entry == nullptr ? flashfs_fail(EIO) : flashfs_status(fs, entry, status, nullptr);
}

}  // namespace

int32_t flashfs_vctr_getdents(int32_t fd, void* buffer, uint32_t length) {
  const auto [fs, open] = flashfs_of_descriptor(fd);
  if (fs == nullptr) {
    return flashfs_fail(EBADF);
  }
  const flashfs_lock_guard lock(fs);
  const auto wanted = static_cast<uint32_t>(length / sizeof(ppc_dirent));
  const int refusal = refusal_of_getdents(fs, open, wanted);
  if (refusal != 0) {
    return flashfs_fail(refusal);
  }
  return flashfs_finish(fs, list_directory(fs, open, static_cast<uint8_t*>(buffer), wanted));
}

int32_t flashfs_vctr_stat(ppc_fsid_t fsid, const char* path, ppc_stat* status) {
  flashfs* fs = flashfs_of_ready(fsid);
  if (fs == nullptr) {
    if (flashfs_of(fsid) == nullptr) {
      return -1;
    }
    console_print("fsp not ready\n");
    return flashfs_fail(EINVAL);
  }
  if (*path == '\0') {
    return flashfs_fail(ENOENT);
  }
  const flashfs_lock_guard lock(fs);
  return flashfs_finish(fs, status_of_named(fs, path, status));
}

int32_t flashfs_vctr_fstat(int32_t fd, ppc_stat* status) {
  const auto [fs, open] = flashfs_of_descriptor(fd);
  if (fs == nullptr) {
    return flashfs_fail(EBADF);
  }
  if (!flashfs_is_usable(fs, open)) {
    return flashfs_fail(EINVAL);
  }
  const flashfs_lock_guard lock(fs);
  return flashfs_finish(fs, flashfs_status(fs, open->file, status, nullptr));
}

int32_t flashfs_vctr_istat(ppc_fsid_t fsid, const char* path, uint32_t fileid, ppc_stat* status) {
  flashfs* fs = flashfs_of_ready(fsid);
  if (fs == nullptr) {
    return -1;
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
  flashfs* fs = flashfs_of_ready(fsid);
  if (fs == nullptr) {
    return -1;
  }
  const flashfs_lock_guard lock(fs);
  return flashfs_finish(fs, flashfs_space_count(fs, status));
}
