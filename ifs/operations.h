// The switch's file operations. One with a path goes to the file system that the path's prefix
// names, one with a descriptor to its owner. They return what that gives: 0, a count of bytes, a
// position or a descriptor, or a negative value with errno. The switch itself refuses with -1 and
// EACCES when no file system has the prefix (a renaming: ENOENT), EXDEV when a renaming would leave
// the file system, EBADF when there is no such descriptor, EIO when it has failed (lseek: EINVAL),
// EINVAL when the file system lacks the operation (close: EBADF).
#pragma once

#include <cstdint>

#include "ifs/types.h"

constexpr int32_t ifs_seek_set = 0;
constexpr int32_t ifs_seek_current = 1;
constexpr int32_t ifs_seek_end = 2;

// Descriptor controls (ifs_fioctl) whose meaning the file system gives.
constexpr uint32_t ifs_fioctl_set_size = 1;
constexpr uint32_t ifs_fioctl_set_type = 2;
constexpr uint32_t ifs_fioctl_get_type = 3;
constexpr uint32_t ifs_fioctl_set_verbose = 5;

// Opens with flags of open_flags.h; returns the descriptor. `mode` is cut to ppc_mode_t.
[[nodiscard]] int32_t ifs_open(const char* path, uint32_t oflags, uint32_t mode);
// A failed descriptor is closed without asking the file system, and its entry stays.
int32_t ifs_close(int32_t fd);
// At most `length` bytes; how many a call transfers is the file system's choice.
[[nodiscard]] int32_t ifs_read(int32_t fd, void* buffer, uint32_t length);
[[nodiscard]] int32_t ifs_write(int32_t fd, const void* buffer, uint32_t length);
// Moves by `offset` bytes from ifs_seek_set, ifs_seek_current or ifs_seek_end.
[[nodiscard]] int32_t ifs_lseek(int32_t fd, int32_t offset, int32_t whence);
// Fills ppc_dirent records, at most `length` bytes of them; 0: no more entries.
[[nodiscard]] int32_t ifs_getdents(int32_t fd, void* buffer, uint32_t length);

[[nodiscard]] int32_t ifs_chmod(const char* path, uint32_t mode);
[[nodiscard]] int32_t ifs_rename(const char* old_path, const char* new_path);
[[nodiscard]] int32_t ifs_remove(const char* path);
[[nodiscard]] int32_t ifs_mkdir(const char* path, uint32_t mode);
[[nodiscard]] int32_t ifs_rmdir(const char* path);

[[nodiscard]] int32_t ifs_stat(const char* path, ppc_stat* status);
[[nodiscard]] int32_t ifs_fstat(int32_t fd, ppc_stat* status);
// Of the file with an id, on the file system of the path.
[[nodiscard]] int32_t ifs_istat(const char* path, uint32_t fileid, ppc_stat* status);
[[nodiscard]] int32_t ifs_statfs(const char* path, ppc_statfs* status);

// Controls: what a command means, and what its argument points to, is the file system's affair.
[[nodiscard]] int32_t ifs_ioctl(const char* path, uint32_t command, void* argument);
[[nodiscard]] int32_t ifs_fioctl(int32_t fd, uint32_t command, void* argument);
