// What lies on flash: the validation of a sector, and the free space of a block. Steps return 0, or
// 1 when the flash fails or there is no memory.
#pragma once

#include <cstdint>

#include "flashfs/flashfs.h"

// Validates the sector in the buffer; what is bad in it is invalidated, also on flash.
[[nodiscard]] int flashfs_check_sector(flashfs* fs, flashfs_sctr_ptr pointer,
                                       flashfs_sector* sector);
// Whether nothing has been programmed of a directory sector's free slots.
bool flashfs_free_slots_are_erased(const flashfs_sector* sector);
// Puts what is free in a sector that has been read, itself or its slots, on the available lists. Of
// a sector that holds data, and of one that is obsolete, that is nothing. Fails also, after a
// message, at a free slot that is not erased.
[[nodiscard]] int flashfs_list_free(flashfs* fs, flashfs_sctr_ptr pointer,
                                    const flashfs_sector* sector);
// Puts a block's erased sectors and slots, none of which is listed yet, on the available lists.
// Fails as flashfs_list_free.
[[nodiscard]] int flashfs_scan_block_available(flashfs* fs, int16_t block_num);
