// The raw device handle, opened as "...": the whole device as one stream of erase blocks, for
// reading and writing images. While it is open no other operation is served. Operations return a
// count or 0, or -1 with errno; their callers end them with flashfs_finish.
#pragma once

#include <cstdint>

#include "flashfs/flashfs.h"
#include "flashfs/operations.h"

bool flashfs_is_raw(const flashfs* fs, const flashfs_open_file* open);
// Whether a descriptor can be used as a file's or directory's now: it is not the raw device's, and
// the file system is ready.
bool flashfs_is_usable(const flashfs* fs, const flashfs_open_file* open);
// Erases the device for writing, or closes the file system to all others for reading. 1 on failure.
[[nodiscard]] int flashfs_raw_prepare(flashfs* fs, uint32_t oflags);
[[nodiscard]] int32_t flashfs_raw_read(flashfs* fs, flashfs_open_file* open, void* buffer,
                                       uint32_t length);
[[nodiscard]] int32_t flashfs_raw_write(flashfs* fs, flashfs_open_file* open, const void* buffer,
                                        uint32_t length);
// Brings the file system back. 0, or -1 with EIO, which does not mark it down: nothing is left of
// it.
[[nodiscard]] int32_t flashfs_raw_finish(flashfs* fs, const flashfs_open_file* open);
