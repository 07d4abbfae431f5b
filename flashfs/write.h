// Writing to a file, slot 1 of the vector, and cutting it short.
#pragma once

#include <cstdint>

#include "flashfs/flashfs.h"
#include "flashfs/operations.h"

int32_t flashfs_vctr_write(int32_t fd, const void* buffer, uint32_t length);

// Cuts a file opened for writing to a length in bytes. Returns 0, or -1 with EBADF, EINVAL,
// EIO, or the error of a buffer that cannot be had; the caller ends the operation.
[[nodiscard]] int32_t flashfs_truncate_to(flashfs* fs, flashfs_open_file* open, uint32_t length);
