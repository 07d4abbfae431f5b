// Binds the flash file system to the PowerPC flash behind the CPLD.
#pragma once

#include <cstdint>

// Describes the flash and registers the file system as "bootflash". Returns 1; 0 when registration
// failed, 2 when the block table could not be allocated.
uint32_t zantrolume_flashfs_initialize();
// 1 for the blocks that the file system may use.
int32_t zantrolume_block_usable(int32_t block);
