// What the operations of the vector share.
#include "flashfs/operations.h"

#include <cerrno>

#include "flashfs/log.h"

flashfs* flashfs_of(ppc_fsid_t fsid) {
  const int error = errno;
  const ifs_filesystem* entry = ifs_fsid_get_entry(fsid);
  errno = error;
  return entry == nullptr ? nullptr : static_cast<flashfs*>(entry->context);
}

flashfs* flashfs_of_ready(ppc_fsid_t fsid) {
  flashfs* fs = flashfs_of(fsid);
  if (fs != nullptr && fs->ready == 0) {
    errno = EINVAL;
    return nullptr;
  }
  return fs;
}

opened_descriptor flashfs_of_descriptor(int32_t fd) {
  const ifs_descriptor* entry = ifs_fd_get_entry(fd);
  if (entry == nullptr) {
    return {};
  }
  return {flashfs_of(entry->fsid), static_cast<flashfs_open_file*>(entry->fd_context)};
}

bool flashfs_is_only_user(const flashfs* fs) {
  const ifs_filesystem* entry = ifs_fsid_get_entry(fs->fsid);
  if (entry == nullptr || entry->open_count != 1) {
    return false;
  }
  // A failed descriptor that is closed twice lowers the count below what is open.
  const int error = errno;
  bool stands = false;
  for (int32_t fd = 0; fd < ifs_max_descriptors && !stands; fd++) {
    stands = ifs_fd_get_fsid(fd) == fs->fsid;
  }
  errno = error;
  return !stands;
}

found_name flashfs_resolve(flashfs* fs, const char* path) {
  if (*path == '\0') {
    return {0, ENOENT};
  }
  const found_name found = path_find(fs, path);
  return found.fileid == 0 && is_absent(found) ? found_name{0, ENOENT} : found;
}

int32_t flashfs_finish(flashfs* fs, int32_t result, marks_down when) {
  if (result < 0 && (errno == EIO || when == marks_down::always)) {
    const int error = errno;
    flashfs_mark_down(fs);
    errno = error;
  }
  return result;
}
