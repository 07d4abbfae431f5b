// What can be said of a file and of the whole file system: status, space, the path of an id. They
// return 0, or -1 with errno.
#pragma once

#include <cstddef>
#include <cstdint>

#include "flashfs/flashfs.h"
#include "flashfs/place.h"

// A directory's size and the positions in it count slots.
constexpr uint32_t dir_position_per_entry = sizeof(flashfs_dir_slot);

// Fills the status record of an entry. `near`, unless null, is what an open file remembers of its
// list: its end is looked for from there, and remembered there. EIO, or the error of a buffer that
// cannot be had.
[[nodiscard]] int32_t flashfs_status(flashfs* fs, flashfs_sctr_map* entry, ppc_stat* status,
                                     list_place* near);
// Fills the space report. EIO.
[[nodiscard]] int32_t flashfs_space_count(flashfs* fs, ppc_statfs* status);
// Rebuilds an entry's absolute path from its id. EBADF, ENAMETOOLONG or EIO.
[[nodiscard]] int32_t flashfs_build_path(flashfs* fs, uint16_t fileid, char* path,
                                         size_t path_size);
