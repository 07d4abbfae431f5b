// Directory entries: the steps that write, rewrite, date, remove and verify slots and the files
// behind them. A slot is changed by writing a fresh one before the old one is made obsolete, so
// that a power cut leaves at least one good slot of the entry.
//
// The callers hold the lock. Steps return 0, or -1 with errno, unless they say otherwise: EIO when
// the flash fails or no slot can be had, or the error of a buffer that cannot be had.
#pragma once

#include <cstdint>

#include "flashfs/flashfs.h"

// Writes a fresh slot, taken from flashfs_alloc_slot, and inserts it into the directory's list,
// which is the parent of the entry then, if that is known: fills it from the arguments and dates it
// now. 0, EIO, or ENOMEM when the slot stands on flash and the list does not know it.
[[nodiscard]] int flashfs_write_new_slot(flashfs* fs, flashfs_sctr_ptr pointer, uint8_t slot_no,
                                         flashfs_sctr_map* directory, uint16_t entry_fileid,
                                         ppc_mode_t mode, const char* name);
// Rewrites the entry's slot with a new date (0: now).
[[nodiscard]] int32_t flashfs_touch(flashfs* fs, flashfs_sctr_map* entry, uint32_t time);
// Gives the entry a new name, in its directory or in another one. ENOENT when it has no slot,
// ENOMEM.
[[nodiscard]] int32_t flashfs_rename_entry(flashfs* fs, flashfs_sctr_map* entry,
                                           flashfs_sctr_map* directory, const char* new_name);
// Replaces the permissions. ENOENT when the entry has no slot.
[[nodiscard]] int32_t flashfs_change_mode(flashfs* fs, flashfs_sctr_map* entry, ppc_mode_t mode);
// Frees all of a file's sectors. Non-zero on a flash failure; the rest of the list then stays.
[[nodiscard]] int flashfs_truncate_entry(flashfs* fs, flashfs_sctr_map* file);
// Removes a file or directory and frees the entry. EBUSY when it or its directory is in
// use, and for the root.
[[nodiscard]] int32_t flashfs_remove_entry(flashfs* fs, flashfs_sctr_map* entry);
// Checks the checksums of a file's sectors or of a directory's slots.
[[nodiscard]] int32_t flashfs_verify_entry(flashfs* fs, flashfs_sctr_map* entry);
// Makes sure that the root has a record and a slot. Non-zero on failure.
[[nodiscard]] int flashfs_ensure_root_slot(flashfs* fs);
