// What the operations of the vector share: the state behind an fsid or a descriptor, what an open
// file is, and how an operation fails.
#pragma once

#include <cstdint>

#include "flashfs/flashfs.h"
#include "flashfs/kept_sector.h"
#include "flashfs/path.h"
#include "flashfs/place.h"

// One descriptor's state.
struct flashfs_open_file {
  uint32_t filepos;  // bytes
  flashfs_sctr_map* file;
  uint32_t oflags;
  // In the file's list, or, for a directory, the entry behind the last listing and its position.
  list_place place;
  kept_sector kept;  // of a file, where its last read ended
};

// The flags that make an open one for writing.
constexpr uint32_t flashfs_opened_for_writing = ifs_open_write | ifs_open_truncate;

// The reserved name of the whole device.
constexpr const char* flashfs_raw_name = "...";

// The state of a file system, or null with errno untouched.
[[nodiscard]] flashfs* flashfs_of(ppc_fsid_t fsid);
// The same when it is ready; null with EINVAL when it is not.
[[nodiscard]] flashfs* flashfs_of_ready(ppc_fsid_t fsid);

struct opened_descriptor {
  flashfs* fs = nullptr;
  flashfs_open_file* open = nullptr;
};
// What a descriptor stands for; nulls when there is none.
[[nodiscard]] opened_descriptor flashfs_of_descriptor(int32_t fd);

// Whether the operation in progress is the only use of the file system: nothing else is counted,
// and no descriptor of it stands.
bool flashfs_is_only_user(const flashfs* fs);

// As path_find; everything that is not there, for whatever reason, is ENOENT, also an empty path.
[[nodiscard]] found_name flashfs_resolve(flashfs* fs, const char* path);

// When a failure marks the file system down.
enum class marks_down { when_flash_failed, always };
// Ends an operation: passes its result on, and marks the file system down when it is negative and
// the flash has failed (errno is EIO). The only place that does so.
[[nodiscard]] int32_t flashfs_finish(flashfs* fs, int32_t result,
                                     marks_down when = marks_down::when_flash_failed);
