// The file map: one entry for each file or directory, in ascending file-id order, and the list of
// each in ascending sequence numbers. Nothing here touches flash. Steps return 0, or 1 without
// memory or for an owner whose id is reserved.
#pragma once

#include <cstdint>

#include "flashfs/flashfs.h"

// The entry, or null.
[[nodiscard]] flashfs_sctr_map* filemap_lookup(const flashfs* fs, uint16_t fileid);
// The entry with the highest file id, or null.
flashfs_sctr_map* filemap_last(const flashfs* fs);
// A new entry, or null when the id is reserved or taken or there is no memory.
flashfs_sctr_map* filemap_insert(flashfs* fs, uint16_t fileid, uint16_t parent_fileid,
                                 ppc_mode_t mode);
// Unlinks an entry from the map, gives its list back to the pool and frees it.
void filemap_remove(flashfs* fs, flashfs_sctr_map* entry);
// Frees the whole map.
void filemap_clear(flashfs* fs);
// Discards the file map, the available lists and the block accounting; not ready
// afterwards. The entries of open files are gone with it.
void flashfs_clear_maps(flashfs* fs);

// The number for a new slot of a directory.
uint16_t flashfs_next_slot_seq_no(const flashfs_sctr_map* directory);
// The id for a new file; 0xFFFF when none is left.
uint16_t flashfs_next_fileid(const flashfs* fs);

// Enters the sector's data, or its slot `slot_no`, into its owner's list, making the owner if need
// be.
[[nodiscard]] int filemap_add_sector(flashfs* fs, flashfs_sctr_ptr pointer,
                                     const flashfs_sector* sector, uint8_t slot_no);
// Enters one slot of a directory sector; its list entry, or null.
[[nodiscard]] flashfs_sctr_list_ordered* filemap_add_slot(flashfs* fs, flashfs_sctr_ptr pointer,
                                                          uint8_t slot_no,
                                                          const flashfs_dir_slot& slot);
// Enters a data sector, or all live slots of a directory sector.
[[nodiscard]] int filemap_add_sector_all(flashfs* fs, flashfs_sctr_ptr pointer,
                                         const flashfs_sector* sector);
// The same for many sectors in any order: what they add is only in its place in the lists once
// filemap_sort_lists has run. Of equal sequence numbers the one added last comes first.
[[nodiscard]] int filemap_collect_sector_all(flashfs* fs, flashfs_sctr_ptr pointer,
                                             const flashfs_sector* sector);
void filemap_sort_lists(flashfs* fs);
flashfs_sctr_list_ordered* sctr_list_find(flashfs_sctr_list_ordered* head, int16_t block_num,
                                          uint16_t sctr_num, uint8_t slot_no);
// 0 when the sequence numbers run 0, 1, 2, ... without a gap.
[[nodiscard]] int sctr_list_is_contiguous_bad(const flashfs_sctr_list_ordered* head);
uint32_t sctr_list_length(const flashfs_sctr_list_ordered* head);
// Unlinks an entry of the file's list and gives it back to the pool.
void sctr_list_remove(flashfs* fs, flashfs_sctr_map* file, flashfs_sctr_list_ordered* entry);
// The same for the entry behind one that is known: without a walk.
void sctr_list_remove_behind(flashfs* fs, flashfs_sctr_list_ordered* entry);
// Gives all of a file's list back to the pool.
void sctr_list_clear(flashfs* fs, flashfs_sctr_map* file);

// Turns deleted slots of a directory sector into erased ones. Returns 32.
int dir_sector_clear_deleted(flashfs_sector* sector);
