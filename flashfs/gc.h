// Garbage collection: how erased space comes about when none is left.
#pragma once

#include <cstdint>

#include "flashfs/flashfs.h"

// Collects garbage until a sector can be given or nothing is left to collect. 1 when
// the flash fails, memory runs out, or what is found contradicts the maps.
[[nodiscard]] int flashfs_collect_garbage(flashfs* fs, uint32_t use_reserve);
// Copies a block's live contents through the spare and erases it; `verify` tests the erased block.
// 1 on a flash failure.
[[nodiscard]] int flashfs_reclaim_block(flashfs* fs, int16_t victim, uint32_t verify);
// Flips the bit that decides between equal blocks and returns it.
uint32_t flashfs_toggle_random(flashfs* fs);
