// What the operations of the vector share: finding the state behind an fsid or a descriptor,
// failing, and remembered places in a file's list.
#pragma once

#include <cerrno>

#include "flashfs/flashfs.h"

// The flags that make an open one for writing.
constexpr uint32_t flashfs_opened_for_writing = ifs_open_write | ifs_open_truncate;

// The reserved name of the whole device.
constexpr const char* flashfs_raw_name = "...";

// Set errno and return -1; flashfs_fail_down also marks the file system down, with EIO.
inline int32_t flashfs_fail(int error) {
  errno = error;
  return -1;
}
inline int32_t flashfs_fail_down(flashfs* fs) {
  flashfs_mark_down(fs);
  return flashfs_fail(EIO);
}
// Marks down whatever errno is and passes a step's result on.
int32_t flashfs_pass_down(flashfs* fs, int32_t result);
// Marks down when errno is EIO and passes a step's negative result on.
int32_t flashfs_finish(flashfs* fs, int32_t result);

// The state of a file system, or null with errno untouched.
flashfs* flashfs_of(ppc_fsid_t fsid);

struct opened_descriptor {
  flashfs* fs = nullptr;
  flashfs_open_file* open = nullptr;
};
// What a descriptor stands for; nulls when there is none.
opened_descriptor flashfs_of_descriptor(int32_t fd);

// Whether the operation in progress is the only use of the file system.
bool flashfs_is_only_user(const flashfs* fs);

// The file's list entry with this index, from the remembered place when that helps. The entry is
// null, and the index the list's length, when the list is shorter.
list_place flashfs_find_place(const flashfs_open_file* open, uint32_t index);

// --- the raw device (raw.cpp) ---

bool flashfs_is_raw(const flashfs* fs, const flashfs_open_file* open);
// Erases the device for writing, or closes the file system to all others for reading. 1 on failure.
int flashfs_raw_prepare(flashfs* fs, uint32_t oflags);
int32_t flashfs_raw_read(flashfs* fs, flashfs_open_file* open, void* buffer, uint32_t length);
int32_t flashfs_raw_write(flashfs* fs, flashfs_open_file* open, const void* buffer,
                          uint32_t length);
// Brings the file system back. 0, or -1 with EIO.
int32_t flashfs_raw_finish(flashfs* fs, const flashfs_open_file* open);
