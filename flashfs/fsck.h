// The check: rebuilds the in-memory state from flash and repairs what a power cut or an interrupted
// operation left.
#pragma once

#include <cstdint>

#include "flashfs/flashfs.h"

// The arguments are the two flags of flashfs/check_flags.h, zero or not. 0, or 1 after a message:
// the state in memory is then in parts, for the caller to discard.
[[nodiscard]] int flashfs_fsck(flashfs* fs, uint32_t quick, uint32_t reclaim_all);
// Leaves one pointer for each sequence number of a file's list. 1 when the flash fails or a
// buffer cannot be had.
[[nodiscard]] int fsck_resolve_duplicates(flashfs* fs, flashfs_sctr_map* file);
