// Paths: a name is found by reading the slots that may have it, as the map knows them. And the
// making of new names.
#include "flashfs/path.h"

#include <cerrno>
#include <cstring>

#include "flashfs/alloc.h"
#include "flashfs/available.h"
#include "flashfs/buffer.h"
#include "flashfs/claim.h"
#include "flashfs/entry.h"
#include "flashfs/filemap.h"
#include "flashfs/io.h"
#include "flashfs/log.h"

namespace {

// Added to the mode of everything that is created.
constexpr uint32_t mode_of_new_entries = 0x0700;

constexpr const char* path_separator = "/";

constexpr name_rules rules_of_creation = {
    .name_before_directory = true,
    .missing_directory = ENOENT,
    .directory_without_record = ENOTDIR,
};

void cut_trailing_slashes(char* path) {
  size_t length = strlen(path);
  while (length > 0 && path[length - 1] == '/') {
    path[--length] = '\0';
  }
}

// Why a new name cannot stand where this search has looked; 0 when it can.
int taken_error(const found_name& existing) {
  if (existing.fileid != 0) {
    return EEXIST;
  }
  return is_absent(existing) && existing.error != ENAMETOOLONG ? 0 : existing.error;
}

// Whether a new name is acceptable: 0, or ENAMETOOLONG (after a message) or EINVAL.
int name_error(flashfs* fs, const char* name) {
  if (strlen(name) > filename_max) {
    flashfs_log(fs, "Cannot accept filenames longer than %u characters.",
                static_cast<unsigned>(filename_max));
    return ENAMETOOLONG;
  }
  return filename_illegal_char(name) != 0 ? EINVAL : 0;
}

// The directory that a path leads to, for a name; without one, why.
name_place find_directory(flashfs* fs, const char* dir_path, const name_rules& rules) {
  const found_name found = path_find(fs, dir_path);
  if (found.fileid == 0) {
    return {nullptr, nullptr, is_absent(found) ? rules.missing_directory : found.error};
  }
  flashfs_sctr_map* directory = filemap_lookup(fs, found.fileid);
  if (directory == nullptr) {
    return {nullptr, nullptr, rules.directory_without_record};
  }
  if (!is_directory_mode(directory->mode)) {
    return {nullptr, nullptr, ENOTDIR};
  }
  return {directory, nullptr, 0};
}

// Makes the entry in a directory that is claimed for writing. 0, or the error.
int create_in_directory(flashfs* fs, flashfs_sctr_map* directory, const char* name, uint32_t mode,
                        flashfs_sctr_map** entry) {
  const uint16_t fileid = flashfs_next_fileid(fs);
  flashfs_sctr_ptr pointer;
  uint8_t slot_no = 0;
  if (fileid == fileid_available || fileid == fileid_invalidated) {
    return ENOSPC;
  }
  const int failure = flashfs_alloc_slot(fs, &pointer, &slot_no, 0);
  if (failure != 0) {
    return failure == alloc_failed ? EIO : ENOSPC;
  }
  const auto entry_mode = static_cast<ppc_mode_t>(mode | mode_of_new_entries);
  *entry = filemap_insert(fs, fileid, directory->fileid, entry_mode);
  if (*entry == nullptr) {
    // The slot is still erased; should there be no memory to list it, the next check finds it.
    static_cast<void>(available_slot_push(fs, pointer, slot_no));
    return ENOMEM;
  }
  // The directory's list knows the slot before the directory is dated: that may collect garbage,
  // which must find the slot's reference when it moves it.
  const int error =
      flashfs_write_new_slot(fs, pointer, slot_no, directory, fileid, entry_mode, name);
  if (error == EIO || flashfs_touch(fs, directory, 0) != 0) {
    return EIO;
  }
  return error;
}

// 0, or the error.
int create_entry(flashfs* fs, const char* path, uint32_t mode, flashfs_sctr_map** entry) {
  const found_name existing = path == nullptr ? found_name{0, ENOENT} : path_find(fs, path);
  if (path == nullptr || *path == '\0') {
    return ENOENT;
  }
  char work[path_size_max];
  const name_place place = find_place_for_name(fs, path, existing, work, rules_of_creation);
  if (place.directory == nullptr) {
    return place.error;
  }
  file_claim claim;
  if (!claim.take(place.directory, acquire_write)) {
    return EBUSY;
  }
  return create_in_directory(fs, place.directory, place.name, mode, entry);
}

}  // namespace

bool is_absent(const found_name& search) {
  return search.error == ENOENT || search.error == ENOTDIR || search.error == ENAMETOOLONG;
}

found_name dir_find(flashfs* fs, uint16_t dir_fileid, const char* name) {
  flashfs_sctr_map* directory = filemap_lookup(fs, dir_fileid);
  sector_buffer buffer(fs);
  if (!buffer) {
    return {0, errno};
  }
  if (directory == nullptr) {
    return {0, ENOENT};
  }
  if (!is_directory_mode(directory->mode)) {
    return {0, ENOTDIR};
  }
  name_search search(directory, name);
  while (const listed_slot* listed = search.next()) {
    process_may_suspend();
    flashfs_dir_slot& slot = buffer.get()->slots[listed->slot_no];
    if (read_slot(fs, listed->sctr_ptr, listed->slot_no, &slot) != 0) {
      return {0, EIO};  // not "no such name": nobody may create the name because of it
    }
    if (dir_slot_name_equals(&slot, name)) {
      // A slot that has lost its bits since the check names nothing: id 0 is nobody's.
      const uint16_t fileid = slot.entry_fileid;
      return {fileid, fileid == 0 ? ENOENT : 0};
    }
  }
  return {0, ENOENT};
}

found_name path_find(flashfs* fs, const char* path) {
  char components[path_size_max];
  const size_t length = strlen(path);
  if (length >= sizeof(components)) {
    return {0, ENAMETOOLONG};
  }
  memcpy(components, path, length + 1);
  found_name found = {fileid_root, 0};
  for (const char* name = ifs_runtime::strtok(components, path_separator);
       name != nullptr && found.fileid != 0; name = ifs_runtime::strtok(nullptr, path_separator)) {
    found = dir_find(fs, found.fileid, name);
  }
  return found;
}

uint16_t dir_lookup(flashfs* fs, uint16_t dir_fileid, const char* name) {
  const found_name found = dir_find(fs, dir_fileid, name);
  if (found.fileid == 0) {
    errno = found.error;
  }
  return found.fileid;
}

uint16_t path_lookup(flashfs* fs, const char* path) {
  const found_name found = path_find(fs, path);
  if (found.fileid == 0 && found.error != ENAMETOOLONG) {
    errno = found.error;
  }
  return found.fileid;
}

char* path_basename(const char* path, char* work) {
  memcpy(work, path, strlen(path) + 1);
  cut_trailing_slashes(work);
  char* slash = strrchr(work, '/');
  return slash == nullptr ? work : slash + 1;
}

char* path_dirname(const char* path, char* work) {
  *path_basename(path, work) = '\0';
  cut_trailing_slashes(work);
  return work;
}

name_place find_place_for_name(flashfs* fs, const char* path, const found_name& existing,
                               char (&work)[path_size_max], const name_rules& rules) {
  int error = taken_error(existing);
  if (error == 0 && rules.name_before_directory) {
    error = name_error(fs, path_basename(path, work));
  }
  if (error != 0) {
    return {nullptr, nullptr, error};
  }
  name_place place = find_directory(fs, path_dirname(path, work), rules);
  if (place.directory == nullptr) {
    return place;
  }
  place.name = path_basename(path, work);
  if (!rules.name_before_directory) {
    error = name_error(fs, place.name);
  }
  return error == 0 ? place : name_place{nullptr, nullptr, error};
}

flashfs_sctr_map* flashfs_create_entry(flashfs* fs, const char* path, uint32_t mode) {
  flashfs_sctr_map* entry = nullptr;
  const int error = create_entry(fs, path, mode, &entry);
  if (error != 0) {
    errno = error;
    return nullptr;
  }
  return entry;
}
