// The file map: one entry for each file or directory, in ascending file-id order, and the list of
// each in ascending sequence numbers. Nothing here touches flash. Steps return 0, or 1 without
// memory or for an owner whose id is reserved.
//
// What is looked for is found without a walk: a name through its directory's index, the slot that
// names a file and the next free number through what was found last. All that is memory of the map
// beside the lists: it follows their changes, and where there is no memory for it they are walked.
#pragma once

#include <cstdint>
#include <memory>

#include "flashfs/flashfs.h"
#include "flashfs/name_index.h"

// Every entry of the map is one of these.
struct filemap_record : flashfs_sctr_map {
  // The first entry of the parent's list that names it; null: not looked for yet, or there is none.
  mutable listed_slot* name = nullptr;
  // A list entry up to which the sequence numbers run 0, 1, 2, ...; null: not looked for yet.
  mutable flashfs_sctr_list_ordered* run = nullptr;
  // Of a directory whose list is long, once a name was looked for.
  std::unique_ptr<name_index> names;
};

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
// Discards the file map, the available lists and the block accounting; not ready afterwards. The
// entries of open files are gone with it.
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
// Lets an entry of a directory's list stand for another place, where its slot has these contents
// (which may say something else of the directory: flash can lose bits). Its own place in the list
// stays.
void filemap_redirect_slot(flashfs* fs, flashfs_sctr_map* directory,
                           flashfs_sctr_list_ordered* entry, flashfs_sctr_ptr pointer,
                           uint8_t slot_no, const flashfs_dir_slot& contents);
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
// Unlinks an entry of the file's list and gives it back to the pool. Slots need no walk for it.
void sctr_list_remove(flashfs* fs, flashfs_sctr_map* file, flashfs_sctr_list_ordered* entry);
// The same for the entry behind one that is known (null: for the head), without a walk.
void sctr_list_remove_behind(flashfs* fs, flashfs_sctr_map* file, flashfs_sctr_list_ordered* entry);
// Gives all of a file's list back to the pool.
void sctr_list_clear(flashfs* fs, flashfs_sctr_map* file);

// --- names, and the files that they name ---

// The entries of a directory's list that may have a name, in the order of the list: only their
// slots tell. Nothing may be entered or taken out meanwhile.
class name_search {
 public:
  name_search(flashfs_sctr_map* directory, const char* name);
  // Null when there are no more.
  const listed_slot* next();

 private:
  uint32_t hash_;
  const name_index* index_;
  flashfs_sctr_list_ordered* rest_;  // without an index; with one, a chain's entry
};

// The entry of the parent's list that names a file, as memory has it; null: there is none. That it
// still does is only sure when its slot has been read.
[[nodiscard]] listed_slot* filemap_known_name(const flashfs* fs, const flashfs_sctr_map* file);
// The first slot from a list entry on that names a file, as memory has it, by a walk; or null.
[[nodiscard]] listed_slot* sctr_list_find_naming(flashfs_sctr_list_ordered* head, uint16_t fileid);
// Makes the directory the file's parent, in whose list this entry (null: not known which) names it.
void filemap_set_parent(flashfs_sctr_map* file, uint16_t parent_fileid,
                        flashfs_sctr_list_ordered* name);
// The first entry of a slot's directory with the slot's sequence number, or null: while a slot is
// listed, its entry.
[[nodiscard]] listed_slot* filemap_find_listed(const flashfs* fs, const flashfs_dir_slot& slot);

// Turns deleted slots of a directory sector into erased ones. Returns 32.
int dir_sector_clear_deleted(flashfs_sector* sector);
