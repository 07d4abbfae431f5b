// The switch's file operations: each finds the file system by the path's prefix or by the
// descriptor and calls its slot of the operations vector. What a slot does is the file system's
// affair; nothing is printed here.
#include "ifs/operations.h"

#include <cerrno>
#include <type_traits>

#include "ifs/descriptors.h"
#include "ifs/fstab.h"
#include "ifs/tables.h"

namespace {

int32_t fail(int error) {
  errno = error;
  return -1;
}

// Calls a slot that takes an fsid; while it runs, the file system counts as open and so stays.
template <typename slot_type, typename... argument_types>
int32_t call_counted(slot_type ifs_operations::*slot, ppc_fsid_t fsid,
                     argument_types... arguments) {
  const slot_type operation = ifs_fsid_get_entry(fsid)->operations->*slot;
  if (operation == nullptr) {
    return fail(EINVAL);
  }
  ifs_open_file_increment(fsid);
  const int32_t result = operation(fsid, arguments...);
  ifs_open_file_decrement(fsid);
  return result;
}

template <typename... argument_types>
using path_slot = int32_t (*ifs_operations::*)(ppc_fsid_t, const char*, argument_types...);

// Calls a slot of the file system that the path's prefix names, with the path behind the prefix.
template <typename... argument_types>
int32_t call_by_path(path_slot<argument_types...> slot, const char* path,
                     std::type_identity_t<argument_types>... arguments) {
  const int32_t fsid = ifs_lookup_prefix_and_strip(&path);
  if (fsid < 0) {
    return fail(EACCES);
  }
  return call_counted(slot, static_cast<ppc_fsid_t>(fsid), path, arguments...);
}

template <typename... argument_types>
using descriptor_slot = int32_t (*ifs_operations::*)(int32_t, argument_types...);

// Calls a slot of the file system that owns the descriptor. The open file keeps it registered.
template <typename... argument_types>
int32_t call_by_descriptor(descriptor_slot<argument_types...> slot, int32_t fd,
                           std::type_identity_t<argument_types>... arguments) {
  const ifs_descriptor* entry = ifs_fd_get_entry(fd);
  if (entry == nullptr) {
    return -1;
  }
  const ifs_filesystem* filesystem = ifs_fsid_get_entry(entry->fsid);
  if (filesystem == nullptr) {
    return -1;
  }
  const auto operation = filesystem->operations->*slot;
  if (operation == nullptr) {
    return fail(EINVAL);
  }
  return operation(fd, arguments...);
}

ppc_mode_t low_mode_bits(uint32_t mode) {
  return static_cast<ppc_mode_t>(mode);
}

}  // namespace

// The slot is not tested: a file system that cannot open anything has no place in the switch.
int32_t ifs_open(const char* path, uint32_t oflags, uint32_t mode) {
  const int32_t found = ifs_lookup_prefix_and_strip(&path);
  if (found < 0) {
    return fail(EACCES);
  }
  const auto fsid = static_cast<ppc_fsid_t>(found);
  const ifs_operations* operations = ifs_fsid_get_entry(fsid)->operations;
  ifs_open_file_increment(fsid);
  const int32_t fd = operations->open(fsid, path, oflags, low_mode_bits(mode));
  if (fd < 0) {
    ifs_open_file_decrement(fsid);
  }
  return fd;
}

// The entry is the file system's to destroy, in its close slot: a failed descriptor, for which that
// is not called, keeps its entry.
int32_t ifs_close(int32_t fd) {
  const ifs_descriptor* entry = ifs_fd_find_entry(fd);
  if (entry == nullptr) {
    return -1;
  }
  const ppc_fsid_t fsid = entry->fsid;
  const ifs_filesystem* filesystem = ifs_fsid_get_entry(fsid);
  if (filesystem == nullptr) {
    return -1;
  }
  const auto close = filesystem->operations->close;
  if (close == nullptr) {
    return fail(EBADF);
  }
  if (entry->flags >= 0) {
    const int32_t result = close(fd);
    if (result != 0) {
      return result;
    }
  }
  ifs_open_file_decrement(fsid);
  return 0;
}

int32_t ifs_read(int32_t fd, void* buffer, uint32_t length) {
  return call_by_descriptor(&ifs_operations::read, fd, buffer, length);
}

int32_t ifs_write(int32_t fd, const void* buffer, uint32_t length) {
  return call_by_descriptor(&ifs_operations::write, fd, buffer, length);
}

int32_t ifs_lseek(int32_t fd, int32_t offset, int32_t whence) {
  if (ifs_fd_is_valid(fd) == 0) {
    return fail(errno == EIO ? EINVAL : errno);
  }
  return call_by_descriptor(&ifs_operations::lseek, fd, offset, whence);
}

int32_t ifs_getdents(int32_t fd, void* buffer, uint32_t length) {
  return call_by_descriptor(&ifs_operations::getdents, fd, buffer, length);
}

int32_t ifs_chmod(const char* path, uint32_t mode) {
  return call_by_path(&ifs_operations::chmod, path, low_mode_bits(mode));
}

int32_t ifs_rename(const char* old_path, const char* new_path) {
  const int32_t old_fsid = ifs_lookup_prefix_and_strip(&old_path);
  const int32_t new_fsid = ifs_lookup_prefix_and_strip(&new_path);
  if (old_fsid < 0 || new_fsid < 0) {
    return fail(ENOENT);
  }
  if (old_fsid != new_fsid) {
    return fail(EXDEV);
  }
  return call_counted(&ifs_operations::rename, static_cast<ppc_fsid_t>(old_fsid), old_path,
                      new_path);
}

int32_t ifs_remove(const char* path) {
  return call_by_path(&ifs_operations::remove, path);
}

int32_t ifs_mkdir(const char* path, uint32_t mode) {
  return call_by_path(&ifs_operations::mkdir, path, low_mode_bits(mode));
}

int32_t ifs_rmdir(const char* path) {
  return call_by_path(&ifs_operations::rmdir, path);
}

int32_t ifs_stat(const char* path, ppc_stat* status) {
  return call_by_path(&ifs_operations::stat, path, status);
}

int32_t ifs_fstat(int32_t fd, ppc_stat* status) {
  return call_by_descriptor(&ifs_operations::fstat, fd, status);
}

int32_t ifs_istat(const char* path, uint32_t fileid, ppc_stat* status) {
  return call_by_path(&ifs_operations::istat, path, fileid, status);
}

int32_t ifs_statfs(const char* path, ppc_statfs* status) {
  return call_by_path(&ifs_operations::statfs, path, status);
}

int32_t ifs_ioctl(const char* path, uint32_t command, void* argument) {
  return call_by_path(&ifs_operations::ioctl, path, command, argument);
}

int32_t ifs_fioctl(int32_t fd, uint32_t command, void* argument) {
  return call_by_descriptor(&ifs_operations::fioctl, fd, command, argument);
}
