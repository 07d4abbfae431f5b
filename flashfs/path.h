// Paths: the search for names, and the making of new ones. Paths come without their device prefix
// and start at the root; empty components are skipped.
#pragma once

#include <cstddef>
#include <cstdint>

#include "flashfs/flashfs.h"

constexpr size_t path_size_max = 320;  // paths of this many bytes or more are refused

// What a search for a name or path found: the id, or 0 and why there is none: ENOENT, ENOTDIR,
// ENAMETOOLONG for a path that is too long to be looked up, EIO when the flash fails, or the error
// of a buffer that cannot be had.
struct found_name {
  uint16_t fileid;
  int error;
};
[[nodiscard]] found_name dir_find(flashfs* fs, uint16_t dir_fileid, const char* name);
[[nodiscard]] found_name path_find(flashfs* fs, const char* path);
// Whether it is an answer that nothing is there, also of a path too long to be looked up; otherwise
// the search could not tell.
bool is_absent(const found_name& search);

// The same searches with the error in errno; a path of 320 bytes or more leaves it alone.
[[nodiscard]] uint16_t dir_lookup(flashfs* fs, uint16_t dir_fileid, const char* name);
[[nodiscard]] uint16_t path_lookup(flashfs* fs, const char* path);

// The last component, or the part before it, of a path; the buffer holds the whole path.
char* path_basename(const char* path, char* work);
char* path_dirname(const char* path, char* work);

// What the two operations that place a name do differently.
struct name_rules {
  bool name_before_directory;    // which of the two is looked at first
  int missing_directory;         // the error of a directory that is not there
  int directory_without_record;  // of one that the file map does not know
};
// A place for a new name, or the first thing that is in its way.
struct name_place {
  flashfs_sctr_map* directory;  // null: there is no place
  const char* name;             // in the work buffer
  int error;                    // why there is none, or 0
};
// Looks, in this order, whether the path is taken (EEXIST; `existing` is what was found under it),
// and, in the order of the rules, whether the name is acceptable (ENAMETOOLONG after a message,
// EINVAL) and its directory is one (ENOTDIR).
[[nodiscard]] name_place find_place_for_name(flashfs* fs, const char* path,
                                             const found_name& existing,
                                             char (&work)[path_size_max], const name_rules& rules);

// Makes a file or directory with a fresh id and slot. Null with errno: ENOENT, the errors of
// find_place_for_name, EBUSY, ENOSPC, ENOMEM or EIO.
[[nodiscard]] flashfs_sctr_map* flashfs_create_entry(flashfs* fs, const char* path, uint32_t mode);
