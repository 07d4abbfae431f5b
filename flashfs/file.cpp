// File data: opening, reading, seeking and closing of files through the switch. Writing is
// write.cpp; the raw stream of the whole device, opened as "...", is raw.cpp.
#include <cerrno>
#include <cstring>
#include <new>

#include "flashfs/flashfs.h"
#include "flashfs/operations.h"

namespace {

// Room for the path that open-by-file-id rebuilds.
constexpr size_t path_by_fileid_size = 190;

// Skips leading slashes; a path of nothing but slashes keeps its last ones.
const char* without_leading_slashes(const char* path) {
  if (path[0] != '/' || path[1] == '\0') {
    return path;
  }
  path++;
  while (path[0] == '/' && path[1] != '\0') {
    path++;
  }
  return path;
}

// What an open in progress has taken; whatever `keep` is not called for is given back.
class open_attempt {
 public:
  open_attempt(ppc_fsid_t fsid, uint32_t oflags) : record_(new (std::nothrow) flashfs_open_file{}) {
    if (record_ == nullptr) {
      errno = ENOMEM;
      return;
    }
    record_->oflags = oflags;
    fd_ = ifs_fd_create(fsid, oflags, record_);
    if (fd_ >= 0 && ifs_fd_get_entry(fd_) == nullptr) {
      errno = ENFILE;
      give_back_descriptor();
    }
  }
  ~open_attempt() {
    if (claimed_ != nullptr) {
      flashfs_file_release(claimed_);
    }
    give_back_descriptor();
    delete record_;
  }
  open_attempt(const open_attempt&) = delete;
  open_attempt& operator=(const open_attempt&) = delete;

  bool has_descriptor() const {
    return fd_ >= 0;
  }
  bool claim(flashfs_sctr_map* file, uint32_t mode) {
    if (flashfs_file_acquire(file, mode) != 0) {
      return false;
    }
    claimed_ = file;
    return true;
  }
  int32_t keep(flashfs_sctr_map* file) {
    record_->file = file;
    const int32_t fd = fd_;
    record_ = nullptr;
    claimed_ = nullptr;
    fd_ = -1;
    return fd;
  }

 private:
  void give_back_descriptor() {
    if (fd_ >= 0) {
      const int error = errno;
      ifs_fd_destroy(fd_);
      errno = error;
      fd_ = -1;
    }
  }

  flashfs_open_file* record_;
  int32_t fd_ = -1;
  flashfs_sctr_map* claimed_ = nullptr;
};

// The file that a path names, claimed; made when the flags ask for that. Null with errno.
flashfs_sctr_map* open_named_file(flashfs* fs, const char* path, uint32_t oflags, ppc_mode_t mode,
                                  open_attempt& attempt, bool* created) {
  *created = false;
  errno = 0;
  const uint16_t fileid = flashfs_resolve(fs, path);
  flashfs_sctr_map* file = filemap_lookup(fs, fileid);
  if (fileid == 0 && errno != ENOENT) {
    return nullptr;
  }
  if (file != nullptr) {
    const bool for_writing = (oflags & flashfs_opened_for_writing) != 0;
    if (for_writing && is_directory_mode(file->mode)) {
      errno = EISDIR;
      return nullptr;
    }
    if (!attempt.claim(file, for_writing ? acquire_write : acquire_read)) {
      errno = EBUSY;
      return nullptr;
    }
    constexpr uint32_t must_be_new = ifs_open_create | ifs_open_exclusive;
    if ((oflags & must_be_new) == must_be_new) {
      errno = EEXIST;
      return nullptr;
    }
    return file;
  }
  if ((oflags & ifs_open_create) == 0) {
    errno = ENOENT;
    return nullptr;
  }
  file = flashfs_create_entry(fs, path, (mode & ppc_mode_permissions) | uint32_t{ppc_mode_regular});
  if (file == nullptr) {
    flashfs_finish(fs, -1);
    return nullptr;
  }
  *created = true;
  if (!attempt.claim(file, acquire_write)) {
    errno = EBUSY;
    return nullptr;
  }
  return file;
}

int32_t open_file(flashfs* fs, const char* path, uint32_t oflags, ppc_mode_t mode) {
  open_attempt attempt(fs->fsid, oflags);
  if (!attempt.has_descriptor()) {
    return -1;
  }
  bool created = false;
  flashfs_sctr_map* file = open_named_file(fs, path, oflags, mode, attempt, &created);
  if (file == nullptr) {
    return -1;
  }
  if ((oflags & ifs_open_truncate) != 0 &&
      (flashfs_truncate_entry(fs, file) != 0 || (!created && flashfs_touch(fs, file, 0) != 0))) {
    return flashfs_fail_down(fs);
  }
  return attempt.keep(file);
}

int32_t open_raw_device(flashfs* fs, uint32_t oflags) {
  open_attempt attempt(fs->fsid, oflags);
  if (!attempt.has_descriptor()) {
    return -1;
  }
  if (flashfs_raw_prepare(fs, oflags) != 0) {
    return flashfs_fail_down(fs);
  }
  return attempt.keep(&fs->raw_file_map);
}

// Delivers the part of one sector that is wanted. Returns its bytes, or -1 when the flash fails.
int32_t read_from_sector(flashfs* fs, const flashfs_sctr_list_ordered* entry, uint32_t offset,
                         uint32_t wanted, flashfs_sector* buffer, uint8_t* out) {
  process_may_suspend();
  if (entry->slot_no == slot_of_reserved_sector) {
    return 0;  // left behind by a write that was interrupted: it holds nothing yet
  }
  if (read_sector(fs, entry->sctr_ptr, buffer, whole_sector) != 0 ||
      sector_crc(buffer) != flashfs_good_crc) {
    return -1;
  }
  const uint32_t used = sector_bytes_used(buffer);
  if (used <= offset) {
    return 0;
  }
  const uint32_t taken = wanted < used - offset ? wanted : used - offset;
  memcpy(out, buffer->data + offset, taken);
  return static_cast<int32_t>(taken);
}

int32_t read_file(flashfs* fs, flashfs_open_file* open, flashfs_sector* sector, void* buffer,
                  uint32_t length) {
  if (fs->ready == 0) {
    return flashfs_fail(EINVAL);
  }
  if (!is_regular_mode(open->file->mode)) {
    return flashfs_fail(EISDIR);
  }
  if ((open->oflags & ifs_open_read) == 0) {
    return flashfs_fail(EBADF);
  }
  auto* out = static_cast<uint8_t*>(buffer);
  uint32_t total = 0;
  uint32_t offset = open->filepos % sector_data_size;
  list_place place = flashfs_find_place(open, open->filepos / sector_data_size);
  while (place.entry != nullptr && total < length) {
    const uint32_t room = sector_data_size - offset;
    const uint32_t wanted = length - total < room ? length - total : room;
    const int32_t taken = read_from_sector(fs, place.entry, offset, wanted, sector, out + total);
    if (taken < 0) {
      return flashfs_fail_down(fs);
    }
    total += static_cast<uint32_t>(taken);
    offset = 0;
    // Not one that an interrupted write has left reserved: the next write must meet it.
    if (place.entry->slot_no != slot_of_reserved_sector) {
      open->place = place;
    }
    place = {place.index + 1, place.entry->next};
  }
  if (intr_req() != 0) {
    return flashfs_fail(EINTR);
  }
  open->filepos += total;
  return static_cast<int32_t>(total);
}

}  // namespace

int32_t flashfs_pass_down(flashfs* fs, int32_t result) {
  const int error = errno;
  flashfs_mark_down(fs);
  errno = error;
  return result;
}

flashfs* flashfs_of(ppc_fsid_t fsid) {
  const int error = errno;
  const ifs_filesystem* entry = ifs_fsid_get_entry(fsid);
  errno = error;
  return entry == nullptr ? nullptr : static_cast<flashfs*>(entry->context);
}

opened_descriptor flashfs_of_descriptor(int32_t fd) {
  const ifs_descriptor* entry = ifs_fd_get_entry(fd);
  if (entry == nullptr) {
    return {};
  }
  return {flashfs_of(entry->fsid), static_cast<flashfs_open_file*>(entry->fd_context)};
}

list_place flashfs_find_place(const flashfs_open_file* open, uint32_t index) {
  list_place place = {0, open->file->sctr_list};
  if (open->place.entry != nullptr && open->place.index <= index) {
    place = open->place;
  }
  while (place.entry != nullptr && place.index < index) {
    place = {place.index + 1, place.entry->next};
  }
  return place;
}

int32_t flashfs_vctr_open(ppc_fsid_t fsid, const char* path, uint32_t oflags, ppc_mode_t mode) {
  path = without_leading_slashes(path);
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
  const bool raw = strcmp(path, flashfs_raw_name) == 0;
  if (raw && !flashfs_is_only_user(fs)) {
    return flashfs_fail(EBUSY);
  }
  const flashfs_lock_guard lock(fs);
  return raw ? open_raw_device(fs, oflags) : open_file(fs, path, oflags, mode);
}

int32_t flashfs_vctr_read(int32_t fd, void* buffer, uint32_t length) {
  const auto [fs, open] = flashfs_of_descriptor(fd);
  if (fs == nullptr) {
    return flashfs_fail(EBADF);
  }
  const flashfs_lock_guard lock(fs);
  sector_buffer sector(fs);
  if (!sector) {
    return -1;
  }
  return flashfs_is_raw(fs, open) ? flashfs_raw_read(fs, open, buffer, length)
                                  : read_file(fs, open, sector.get(), buffer, length);
}

int32_t flashfs_vctr_close(int32_t fd) {
  const auto [fs, open] = flashfs_of_descriptor(fd);
  if (fs == nullptr) {
    return flashfs_fail(EBADF);
  }
  const flashfs_lock_guard lock(fs);
  int32_t result = 0;
  if (flashfs_is_raw(fs, open)) {
    result = flashfs_raw_finish(fs, open);
  } else if (fs->ready != 0) {
    flashfs_file_release(open->file);
  }
  ifs_fd_destroy(fd);
  delete open;
  return result;
}

int32_t flashfs_vctr_lseek(int32_t fd, int32_t offset, int32_t whence) {
  const auto [fs, open] = flashfs_of_descriptor(fd);
  if (fs == nullptr) {
    return flashfs_fail(EBADF);
  }
  const flashfs_lock_guard lock(fs);
  if (flashfs_is_raw(fs, open) || fs->ready == 0) {
    return flashfs_fail(EINVAL);
  }
  int64_t start = 0;
  if (whence == ifs_seek_current) {
    start = open->filepos;
  } else if (whence == ifs_seek_end) {
    ppc_stat status;
    if (flashfs_status(fs, open->file, &status, &open->place) != 0) {
      return flashfs_pass_down(fs, -1);
    }
    start = status.size;
  } else if (whence != ifs_seek_set) {
    return flashfs_fail(EINVAL);
  }
  const int64_t position = start + offset;
  if (position < 0 || position > INT32_MAX) {
    return flashfs_fail(EINVAL);
  }
  open->filepos = static_cast<uint32_t>(position);
  return static_cast<int32_t>(position);
}

int32_t flashfs_vctr_open_by_fileid(ppc_fsid_t fsid, uint32_t /*ignored*/, uint32_t fileid,
                                    uint32_t oflags, ppc_mode_t mode) {
  flashfs* fs = flashfs_of(fsid);
  if (fs == nullptr) {
    return -1;
  }
  if (fs->ready == 0) {
    return flashfs_fail(EINVAL);
  }
  char path[path_by_fileid_size] = {};
  {
    const flashfs_lock_guard lock(fs);
    if (fileid > fileid_last) {
      return flashfs_fail(EBADF);
    }
    if (flashfs_build_path(fs, static_cast<uint16_t>(fileid), path, sizeof(path)) != 0) {
      return flashfs_finish(fs, -1);
    }
  }
  return flashfs_vctr_open(fsid, path, oflags, mode);
}
