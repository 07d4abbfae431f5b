// Shorthands over the operations: whole reads and writes, the common controls of a descriptor, and
// sizes.
#pragma once

#include <cstdint>

// Reads until `length` bytes have come or the file ends. Returns the bytes read, or -1.
[[nodiscard]] int32_t ifs_read_until(int32_t fd, void* buffer, uint32_t length);
// Writes all `length` bytes. Returns them, or -1 as soon as the file system takes none.
[[nodiscard]] int32_t ifs_write_until(int32_t fd, const void* buffer, uint32_t length);

// Controls over ifs_fioctl: 0 or its negative result; get_type gives the type read back.
int32_t ifs_fd_set_size(int32_t fd, uint32_t size_bytes);
int32_t ifs_fd_set_type(int32_t fd, uint32_t type);
[[nodiscard]] int32_t ifs_fd_get_type(int32_t fd);
int32_t ifs_fd_set_verbose(int32_t fd, uint32_t on);
// The file's size in bytes, or the negative result of fstat.
[[nodiscard]] int32_t ifs_fd_get_size(int32_t fd);

// The size of a file in bytes; 0 when it has none.
int32_t ifs_file_size(const char* path);
// Free bytes of the file system that holds the path, or statfs's negative result.
[[nodiscard]] int32_t ifs_get_free_bytes(const char* path);
// Free bytes of the file system that holds the path; 0 when unknown.
int32_t ifs_fs_free_space(const char* path);
