// Paths: a directory is only a list of slots, so a name is found by reading the slots one after
// another. And the making of new names. Paths come without their device prefix and start at the
// root.
#include <cerrno>
#include <cstring>

#include "flashfs/flashfs.h"

namespace {

// Added to the mode of everything that is created.
constexpr uint32_t mode_of_new_entries = 0x0700;

constexpr const char* path_separator = "/";

void cut_trailing_slashes(char* path) {
  size_t length = strlen(path);
  while (length > 0 && path[length - 1] == '/') {
    path[--length] = '\0';
  }
}

flashfs_sctr_map* fail_with(int error) {
  errno = error;
  return nullptr;
}

// The error of a look-up that could not tell whether the name exists; 0 when it could.
int lookup_failure(int error) {
  return error == ENOENT || error == ENOTDIR ? 0 : error;
}

// Makes the entry in a directory that is claimed for writing.
flashfs_sctr_map* create_in_directory(flashfs* fs, flashfs_sctr_map* directory, const char* name,
                                      uint32_t mode, flashfs_sector* buffer) {
  const uint16_t fileid = flashfs_next_fileid(fs);
  flashfs_sctr_ptr pointer;
  uint8_t slot_no = 0;
  if (fileid == fileid_available || fileid == fileid_invalidated ||
      flashfs_alloc_slot(fs, &pointer, &slot_no, 0) != 0) {
    return fail_with(ENOSPC);
  }
  const auto entry_mode = static_cast<ppc_mode_t>(mode | mode_of_new_entries);
  flashfs_sctr_map* entry = filemap_insert(fs, fileid, directory->fileid, entry_mode);
  if (entry == nullptr) {
    available_slot_push(fs, pointer, slot_no);
    return fail_with(ENOMEM);
  }
  // The directory's list knows the slot before the directory is dated: that may collect garbage,
  // which must find the slot's reference when it moves it.
  const int error =
      flashfs_write_new_slot(fs, pointer, slot_no, directory, fileid, entry_mode, name, buffer);
  if (error == EIO || flashfs_touch(fs, directory, 0) != 0) {
    return fail_with(EIO);
  }
  return error == 0 ? entry : fail_with(error);
}

}  // namespace

uint16_t dir_lookup(flashfs* fs, uint16_t dir_fileid, const char* name) {
  const flashfs_sctr_map* directory = filemap_lookup(fs, dir_fileid);
  sector_buffer buffer(fs);
  if (!buffer) {
    return 0;
  }
  if (directory == nullptr) {
    errno = ENOENT;
    return 0;
  }
  if (!is_directory_mode(directory->mode)) {
    errno = ENOTDIR;
    return 0;
  }
  for (const auto* entry = directory->sctr_list; entry != nullptr; entry = entry->next) {
    process_may_suspend();
    if (!is_slot_index(entry->slot_no)) {
      continue;
    }
    if (read_sector_once(fs, entry->sctr_ptr, buffer) != 0) {
      // Not "no such name": nobody may create the name because of it.
      errno = EIO;
      return 0;
    }
    const flashfs_dir_slot& slot = buffer->slots[entry->slot_no];
    if (dir_slot_name_equals(&slot, name)) {
      return slot.entry_fileid;
    }
  }
  errno = ENOENT;
  return 0;
}

uint16_t path_lookup(flashfs* fs, const char* path) {
  char components[path_size_max];
  const size_t length = strlen(path);
  if (length >= sizeof(components)) {
    return 0;
  }
  memcpy(components, path, length + 1);
  uint16_t fileid = fileid_root;
  for (const char* name = ifs_runtime::strtok(components, path_separator);
       name != nullptr && fileid != 0; name = ifs_runtime::strtok(nullptr, path_separator)) {
    fileid = dir_lookup(fs, fileid, name);
  }
  return fileid;
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

int new_name_error(flashfs* fs, const char* name) {
  if (strlen(name) > filename_max) {
    flashfs_log(fs, "Cannot accept filenames longer than %u characters.",
                static_cast<unsigned>(filename_max));
    return ENAMETOOLONG;
  }
  return filename_illegal_char(name) != 0 ? EINVAL : 0;
}

flashfs_sctr_map* flashfs_create_entry(flashfs* fs, const char* path, uint32_t mode) {
  errno = 0;
  const uint16_t existing = path == nullptr ? uint16_t{0} : path_lookup(fs, path);
  const int unknown = existing == 0 ? lookup_failure(errno) : 0;
  sector_buffer buffer(fs);
  if (!buffer) {
    return nullptr;
  }
  if (path == nullptr || *path == '\0') {
    return fail_with(ENOENT);
  }
  if (existing != 0) {
    return fail_with(EEXIST);
  }
  if (unknown != 0) {
    return fail_with(unknown);
  }
  // Too long for the look-up to have told whether it exists.
  if (strlen(path) >= path_size_max) {
    return fail_with(ENAMETOOLONG);
  }
  char name_work[path_size_max];
  const char* name = path_basename(path, name_work);
  const int name_error = new_name_error(fs, name);
  if (name_error != 0) {
    return fail_with(name_error);
  }
  char directory_work[path_size_max];
  const uint16_t dir_fileid = path_lookup(fs, path_dirname(path, directory_work));
  if (dir_fileid == 0) {
    const int failure = lookup_failure(errno);
    return fail_with(failure != 0 ? failure : ENOENT);
  }
  flashfs_sctr_map* directory = filemap_lookup(fs, dir_fileid);
  if (directory == nullptr || !is_directory_mode(directory->mode)) {
    return fail_with(ENOTDIR);
  }
  if (flashfs_file_acquire(directory, acquire_write) != 0) {
    return fail_with(EBUSY);
  }
  flashfs_sctr_map* entry = create_in_directory(fs, directory, name, mode, buffer.get());
  flashfs_file_release(directory);
  return entry;
}
