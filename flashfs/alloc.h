// Allocation of sectors and slots, and the reservation of sectors for a file that grows. Where
// space comes from when none is left is gc.
#pragma once

#include <cstdint>

#include "flashfs/flashfs.h"
#include "flashfs/place.h"

// Why there is no sector or slot: none is left, or none could be made free, for whatever reason; or
// the flash failed when one was looked at.
constexpr int alloc_without_space = 1;
constexpr int alloc_failed = 2;

// One erased sector or slot, known to be all ones: what is not is made obsolete as it is taken, and
// the next one taken. Garbage is collected when needed. Without `use_reserve` the last one stays.
// 0, or the failure; the address's block is no_block then.
[[nodiscard]] int flashfs_alloc_sector(flashfs* fs, flashfs_sctr_ptr* pointer,
                                       uint32_t use_reserve);
[[nodiscard]] int flashfs_alloc_slot(flashfs* fs, flashfs_sctr_ptr* pointer, uint8_t* slot_no,
                                     uint32_t use_reserve);

// Reserves sectors for a file of `size` bytes. Returns the capacity now held in bytes, which may be
// less, or -1 on a write failure.
[[nodiscard]] int32_t extend_sctr_list(flashfs* fs, flashfs_sctr_map* file, int32_t size);
// The same, counting from what an open file remembers of its list.
[[nodiscard]] int32_t extend_sctr_list_from(flashfs* fs, flashfs_sctr_map* file,
                                            const list_place& near, int32_t size);
