// The lists of available sectors and slots: pushed and taken at the head.
#pragma once

#include <cstdint>

#include "flashfs/flashfs.h"

// 0, or 1 when there is no memory.
[[nodiscard]] int available_sector_push(flashfs* fs, flashfs_sctr_ptr pointer);
[[nodiscard]] int available_slot_push(flashfs* fs, flashfs_sctr_ptr pointer, uint8_t slot_no);

// Whether a list can give its head: the last entry is given only with `use_reserve`.
bool available_can_give(const flashfs_sctr_list_unordered* head, uint32_t use_reserve);

// Unlink the head of a list that has one, give it back to the pool and return what it held.
flashfs_sctr_ptr available_sector_take(flashfs* fs);
flashfs_sctr_ptr available_slot_take(flashfs* fs, uint8_t* slot_no);

// Unlink and give back every entry that lies in a block.
void available_drop_block(flashfs* fs, int16_t block_num);
// Empties both lists.
void available_clear(flashfs* fs);

// Orders both lists, of which entries of later blocks and sectors have been pushed later, as if
// each block's sectors had been pushed the last one first.
void available_sort(flashfs* fs);
// Orders the slots by block and sector; those of one sector keep their order.
void available_sort_slots(flashfs* fs);
// Exchanges the address and slot index of an entry and its successor.
void swap_sctr_ptr(flashfs_sctr_list_unordered* entry);
