// Opening, reading, seeking and closing of files.
#include "flashfs/file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "flashfs/buffer.h"
#include "flashfs/claim.h"
#include "flashfs/entry.h"
#include "flashfs/filemap.h"
#include "flashfs/io.h"
#include "flashfs/log.h"
#include "flashfs/operations.h"
#include "flashfs/path.h"
#include "flashfs/place.h"
#include "flashfs/raw.h"
#include "flashfs/status.h"

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
    give_back_descriptor();
    delete record_;
  }
  open_attempt(const open_attempt&) = delete;
  open_attempt& operator=(const open_attempt&) = delete;

  bool has_descriptor() const {
    return fd_ >= 0;
  }
  [[nodiscard]] bool claim(flashfs_sctr_map* file, uint32_t mode) {
    return claim_.take(file, mode);
  }
  int32_t keep(flashfs_sctr_map* file) {
    record_->file = file;
    const int32_t fd = fd_;
    record_ = nullptr;
    claim_.keep();
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
  file_claim claim_;
};

bool is_for_writing(uint32_t oflags) {
  return (oflags & flashfs_opened_for_writing) != 0;
}

// Claims a file that is there. 0, or the error.
int claim_existing(flashfs_sctr_map* file, uint32_t oflags, open_attempt& attempt) {
  if (is_for_writing(oflags) && is_directory_mode(file->mode)) {
    return EISDIR;
  }
  if (!attempt.claim(file, is_for_writing(oflags) ? acquire_write : acquire_read)) {
    return EBUSY;
  }
  constexpr uint32_t must_be_new = ifs_open_create | ifs_open_exclusive;
  return (oflags & must_be_new) == must_be_new ? EEXIST : 0;
}

// Makes a file that is not there, if the flags ask for that, and claims it. 0, or the error.
int create_and_claim(flashfs* fs, const char* path, uint32_t oflags, ppc_mode_t mode,
                     open_attempt& attempt, flashfs_sctr_map** file) {
  if ((oflags & ifs_open_create) == 0) {
    return ENOENT;
  }
  *file =
      flashfs_create_entry(fs, path, (mode & ppc_mode_permissions) | uint32_t{ppc_mode_regular});
  if (*file == nullptr) {
    return errno;
  }
  return attempt.claim(*file, acquire_write) ? 0 : EBUSY;
}

int32_t open_file(flashfs* fs, const char* path, uint32_t oflags, ppc_mode_t mode) {
  open_attempt attempt(fs->fsid, oflags);
  if (!attempt.has_descriptor()) {
    return -1;
  }
  const found_name found = flashfs_resolve(fs, path);
  if (found.fileid == 0 && found.error != ENOENT) {
    return flashfs_fail(found.error);
  }
  flashfs_sctr_map* file = filemap_lookup(fs, found.fileid);
  const bool existed = file != nullptr;
  const int error = existed ? claim_existing(file, oflags, attempt)
                            : create_and_claim(fs, path, oflags, mode, attempt, &file);
  if (error != 0) {
    return flashfs_fail(error);
  }
  if ((oflags & ifs_open_truncate) != 0 &&
      (flashfs_truncate_entry(fs, file) != 0 || (existed && flashfs_touch(fs, file, 0) != 0))) {
    return flashfs_fail(EIO);
  }
  return attempt.keep(file);
}

int32_t open_raw_device(flashfs* fs, uint32_t oflags) {
  open_attempt attempt(fs->fsid, oflags);
  if (!attempt.has_descriptor()) {
    return -1;
  }
  if (flashfs_raw_prepare(fs, oflags) != 0) {
    return flashfs_fail(EIO);
  }
  return attempt.keep(&fs->raw_file_map);
}

// The sector of a list entry, whole and good: what the reader has kept of it, or read into the
// buffer. Null when the flash fails.
const flashfs_sector* good_sector(flashfs* fs, const flashfs_open_file* open,
                                  const flashfs_sctr_list_ordered* entry, flashfs_sector* buffer) {
  const flashfs_sector* kept = open->kept.find(entry);
  if (kept != nullptr) {
    return kept;
  }
  return read_sector(fs, entry->sctr_ptr, buffer, whole_sector) == 0 &&
                 sector_crc(buffer) == flashfs_good_crc
             ? buffer
             : nullptr;
}

// Delivers the part of one sector that is wanted. Returns its bytes, or -1 when the flash fails.
int32_t read_from_sector(flashfs* fs, flashfs_open_file* open,
                         const flashfs_sctr_list_ordered* entry, uint32_t offset, uint32_t wanted,
                         flashfs_sector* buffer, uint8_t* out) {
  process_may_suspend();
  if (entry->slot_no == slot_of_reserved_sector) {
    return 0;  // left behind by a write that was interrupted: it holds nothing yet
  }
  const flashfs_sector* sector = good_sector(fs, open, entry, buffer);
  if (sector == nullptr) {
    return -1;
  }
  const uint32_t used = sector_bytes_used(sector);
  if (used <= offset) {
    return 0;
  }
  const uint32_t taken = std::min(wanted, used - offset);
  memcpy(out, sector->data + offset, taken);
  if (sector == buffer && offset + taken < used) {
    open->kept.keep(entry, *sector);
  }
  return static_cast<int32_t>(taken);
}

int32_t read_file(flashfs* fs, flashfs_open_file* open, flashfs_sector* sector, void* buffer,
                  uint32_t length) {
  if (!flashfs_is_usable(fs, open)) {
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
  list_place place = open->place.find(open->file, open->filepos / sector_data_size);
  for (; place.entry() != nullptr && total < length; place.advance()) {
    const uint32_t wanted = std::min(length - total, sector_data_size - offset);
    const int32_t taken =
        read_from_sector(fs, open, place.entry(), offset, wanted, sector, out + total);
    if (taken < 0) {
      return flashfs_fail(EIO);
    }
    total += static_cast<uint32_t>(taken);
    offset = 0;
    open->place.remember(place);
  }
  if (intr_req() != 0) {
    return flashfs_fail(EINTR);
  }
  open->filepos += total;
  return static_cast<int32_t>(total);
}

// Where a seek counts from. 0, or -1 with errno.
int32_t seek_start(flashfs* fs, flashfs_open_file* open, int32_t whence, int64_t* start) {
  switch (whence) {
    case ifs_seek_set:
      *start = 0;
      return 0;
    case ifs_seek_current:
      *start = open->filepos;
      return 0;
    case ifs_seek_end: {
      ppc_stat status;
      const int32_t result = flashfs_status(fs, open->file, &status, &open->place);
      *start = status.size;
      return flashfs_finish(fs, result, marks_down::always);
    }
    default:
      return flashfs_fail(EINVAL);
  }
}

}  // namespace

int32_t flashfs_vctr_open(ppc_fsid_t fsid, const char* path, uint32_t oflags, ppc_mode_t mode) {
  path = without_leading_slashes(path);
  flashfs* fs = flashfs_of_ready(fsid);
  if (fs == nullptr) {
    return -1;
  }
  if (*path == '\0') {
    return flashfs_fail(ENOENT);
  }
  const bool raw = strcmp(path, flashfs_raw_name) == 0;
  if (raw && !flashfs_is_only_user(fs)) {
    return flashfs_fail(EBUSY);
  }
  const flashfs_lock_guard lock(fs);
  return flashfs_finish(fs, raw ? open_raw_device(fs, oflags) : open_file(fs, path, oflags, mode));
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
  return flashfs_finish(fs, flashfs_is_raw(fs, open)
                                ? flashfs_raw_read(fs, open, buffer, length)
                                : read_file(fs, open, sector.get(), buffer, length));
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
  if (!flashfs_is_usable(fs, open)) {
    return flashfs_fail(EINVAL);
  }
  int64_t start = 0;
  if (seek_start(fs, open, whence, &start) != 0) {
    return -1;
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
  flashfs* fs = flashfs_of_ready(fsid);
  if (fs == nullptr) {
    return -1;
  }
  char path[path_by_fileid_size] = {};
  {
    const flashfs_lock_guard lock(fs);
    if (fileid > fileid_last) {
      return flashfs_fail(EBADF);
    }
    const int32_t result =
        flashfs_build_path(fs, static_cast<uint16_t>(fileid), path, sizeof(path));
    if (flashfs_finish(fs, result) != 0) {
      return -1;
    }
  }
  return flashfs_vctr_open(fsid, path, oflags, mode);
}
