// The check's work on blocks: their headers, erased blocks that are not, and the spare. Steps
// return 0 or 1; what failed has been said, but for a spare that cannot be had.
#pragma once

#include <cstdint>

#include "flashfs/flashfs.h"

// Judges a header that has been read (all_but_erase_count). A bad one is erased with its block when
// `fix` is set, and read again; otherwise it is a failure.
[[nodiscard]] int fsck_check_header(flashfs* fs, int16_t block_num, flashfs_blkheader* header,
                                    bool fix);
// Erases the block unless all of its sectors are erased.
[[nodiscard]] int fsck_scrub_block(flashfs* fs, int16_t block_num);
// Finds the spare, or makes one.
[[nodiscard]] int fsck_establish_spare(flashfs* fs);
