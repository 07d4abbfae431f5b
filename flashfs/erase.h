// Erasing a block with its history, and the destructive test of a block. Steps return 0, or 1 after
// a message.
#pragma once

#include <cstdint>

#include "flashfs/flashfs.h"

// Erases a block, optionally with the destructive test, optionally carrying the erase count over
// into a new header.
[[nodiscard]] int erase_block(flashfs* fs, int16_t block_num, bool keep_header, bool test);
// Tests an erased block; adds its own erases to the count unless that is null.
[[nodiscard]] int test_block(flashfs* fs, int16_t block_num, uint32_t* erase_count);
