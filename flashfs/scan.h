// What lies on flash: the validation of a sector, and the free space of a block. Steps return 0, or
// 1 when the flash fails or there is no memory.
#pragma once

#include <cstdint>

#include "flashfs/flashfs.h"

// Validates the sector in the buffer; what is bad in it is invalidated, also on flash.
[[nodiscard]] int flashfs_check_sector(flashfs* fs, flashfs_sctr_ptr pointer,
                                       flashfs_sector* sector);
// Puts a block's erased sectors and slots, none of which is listed yet, on the available lists.
// Fails also, after a message, when a slot that should be erased is not.
[[nodiscard]] int flashfs_scan_block_available(flashfs* fs, int16_t block_num);
