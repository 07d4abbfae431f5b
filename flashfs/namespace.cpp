// Operations on names: changing modes, removing, renaming, making directories. They check, resolve
// the name and hand the change to the steps of entry.cpp. Status and listing are
// status.cpp.
#include <cerrno>
#include <cstring>

#include "flashfs/flashfs.h"
#include "flashfs/operations.h"

namespace {

// The ready state behind an fsid; null with EINVAL, or with errno untouched when there is none.
flashfs* ready_flashfs(ppc_fsid_t fsid) {
  flashfs* fs = flashfs_of(fsid);
  if (fs != nullptr && fs->ready == 0) {
    errno = EINVAL;
    return nullptr;
  }
  return fs;
}

// The id that a path leads to; 0 with ENOENT also for an empty path.
uint16_t resolve_named(flashfs* fs, const char* path) {
  if (*path == '\0') {
    errno = ENOENT;
    return 0;
  }
  return flashfs_resolve(fs, path);
}

// Whether `ancestor` is the directory itself or stands above it. Damaged parents can form a loop,
// which the number of files bounds.
bool is_below(const flashfs* fs, const flashfs_sctr_map* directory, uint16_t ancestor) {
  for (uint32_t steps = 0; directory != nullptr && steps <= fs->num_files; steps++) {
    if (directory->fileid == ancestor) {
      return true;
    }
    if (directory->fileid == fileid_root) {
      return false;
    }
    directory = filemap_lookup(fs, directory->parent_fileid);
  }
  return false;
}

struct rename_request {
  flashfs_sctr_map* entry;
  flashfs_sctr_map* old_directory;
  flashfs_sctr_map* new_directory;
  const char* name;
};

// What is to be renamed. 0, or -1 with errno.
int32_t find_renamed(flashfs* fs, const char* old_path, rename_request* request) {
  const uint16_t fileid = flashfs_resolve(fs, old_path);
  if (fileid == 0) {
    return -1;
  }
  if (fileid == fileid_root) {
    return flashfs_fail(EINVAL);
  }
  request->entry = filemap_lookup(fs, fileid);
  request->old_directory =
      request->entry == nullptr ? nullptr : filemap_lookup(fs, request->entry->parent_fileid);
  return request->old_directory == nullptr ? flashfs_fail(ENOENT) : 0;
}

// Where it goes. `work` holds the name afterwards. 0, or -1 with errno.
int32_t find_target(flashfs* fs, const char* new_path, char (&work)[path_size_max],
                    rename_request* request) {
  const uint16_t existing = flashfs_resolve(fs, new_path);
  if (existing != 0) {
    return flashfs_fail(EEXIST);
  }
  if (errno != ENOENT) {
    return -1;
  }
  if (strlen(new_path) >= path_size_max) {
    return flashfs_fail(ENAMETOOLONG);
  }
  const uint16_t dir_fileid = flashfs_resolve(fs, path_dirname(new_path, work));
  if (dir_fileid == 0) {
    // A missing directory is answered like an existing name.
    return errno == ENOENT ? flashfs_fail(EEXIST) : -1;
  }
  request->new_directory = filemap_lookup(fs, dir_fileid);
  if (request->new_directory == nullptr) {
    return flashfs_fail_down(fs);
  }
  if (!is_directory_mode(request->new_directory->mode)) {
    return flashfs_fail(ENOTDIR);
  }
  request->name = path_basename(new_path, work);
  const int name_error = new_name_error(fs, request->name);
  return name_error == 0 ? 0 : flashfs_fail(name_error);
}

int32_t move_between_directories(flashfs* fs, const rename_request& request) {
  if (is_directory_mode(request.entry->mode) && request.new_directory->fileid != fileid_root &&
      is_below(fs, request.new_directory, request.entry->fileid)) {
    return flashfs_fail(EINVAL);
  }
  if (flashfs_file_acquire(request.new_directory, acquire_write) != 0) {
    return flashfs_fail(EBUSY);
  }
  if (flashfs_file_acquire(request.old_directory, acquire_write) != 0) {
    flashfs_file_release(request.new_directory);
    return flashfs_fail(EBUSY);
  }
  const int32_t result =
      flashfs_rename_entry(fs, request.entry, request.new_directory, request.name);
  flashfs_file_release(request.old_directory);
  flashfs_file_release(request.new_directory);
  return flashfs_finish(fs, result);
}

bool has_entries(const flashfs_sctr_map* directory) {
  for (const auto* entry = directory->sctr_list; entry != nullptr; entry = entry->next) {
    if (is_slot_index(entry->slot_no)) {
      return true;
    }
  }
  return false;
}

}  // namespace

int32_t flashfs_finish(flashfs* fs, int32_t result) {
  if (result < 0 && errno == EIO) {
    flashfs_mark_down(fs);
    errno = EIO;
  }
  return result;
}

bool flashfs_is_only_user(const flashfs* fs) {
  const ifs_filesystem* entry = ifs_fsid_get_entry(fs->fsid);
  return entry != nullptr && entry->open_count == 1;
}

uint16_t flashfs_resolve(flashfs* fs, const char* path) {
  errno = 0;
  const uint16_t fileid = path_lookup(fs, path);
  if (fileid != 0) {
    return fileid;
  }
  if (errno == EIO) {
    flashfs_mark_down(fs);
    errno = EIO;
  } else if (errno != ENOMEM && errno != EINVAL) {
    // Also for a component on the way that is a file, and for a path too long to be looked up.
    errno = ENOENT;
  }
  return 0;
}

int32_t flashfs_vctr_chmod(ppc_fsid_t fsid, const char* path, ppc_mode_t mode) {
  flashfs* fs = ready_flashfs(fsid);
  if (fs == nullptr) {
    return -1;
  }
  const flashfs_lock_guard lock(fs);
  const uint16_t fileid = resolve_named(fs, path);
  if (fileid == 0) {
    return -1;
  }
  if (fileid == fileid_root) {
    return flashfs_fail(EINVAL);
  }
  flashfs_sctr_map* entry = filemap_lookup(fs, fileid);
  if (entry == nullptr) {
    return flashfs_fail(ENOENT);
  }
  return flashfs_finish(fs, flashfs_change_mode(fs, entry, mode));
}

int32_t flashfs_vctr_remove(ppc_fsid_t fsid, const char* path) {
  flashfs* fs = ready_flashfs(fsid);
  if (fs == nullptr) {
    return -1;
  }
  const flashfs_lock_guard lock(fs);
  const uint16_t fileid = resolve_named(fs, path);
  if (fileid == 0) {
    return -1;
  }
  flashfs_sctr_map* entry = filemap_lookup(fs, fileid);
  if (entry == nullptr) {
    return flashfs_fail_down(fs);
  }
  if (is_directory_mode(entry->mode)) {
    return flashfs_fail(EISDIR);
  }
  return flashfs_finish(fs, flashfs_remove_entry(fs, entry));
}

int32_t flashfs_vctr_rename(ppc_fsid_t fsid, const char* old_path, const char* new_path) {
  flashfs* fs = ready_flashfs(fsid);
  if (fs == nullptr) {
    return -1;
  }
  const flashfs_lock_guard lock(fs);
  if (*old_path == '\0' || *new_path == '\0') {
    return flashfs_fail(ENOENT);
  }
  rename_request request = {};
  char work[path_size_max];
  if (find_renamed(fs, old_path, &request) != 0 || find_target(fs, new_path, work, &request) != 0) {
    return -1;
  }
  if (request.new_directory != request.old_directory) {
    return move_between_directories(fs, request);
  }
  return flashfs_finish(
      fs, flashfs_rename_entry(fs, request.entry, request.new_directory, request.name));
}

int32_t flashfs_vctr_mkdir(ppc_fsid_t fsid, const char* path, ppc_mode_t mode) {
  flashfs* fs = ready_flashfs(fsid);
  if (fs == nullptr) {
    return -1;
  }
  const flashfs_lock_guard lock(fs);
  const flashfs_sctr_map* entry =
      flashfs_create_entry(fs, path, (mode & ppc_mode_permissions) | uint32_t{ppc_mode_directory});
  return flashfs_finish(fs, entry == nullptr ? -1 : 0);
}

int32_t flashfs_vctr_rmdir(ppc_fsid_t fsid, const char* path) {
  flashfs* fs = ready_flashfs(fsid);
  if (fs == nullptr) {
    return -1;
  }
  const flashfs_lock_guard lock(fs);
  const uint16_t fileid = resolve_named(fs, path);
  if (fileid == 0) {
    return -1;
  }
  flashfs_sctr_map* entry = filemap_lookup(fs, fileid);
  if (entry == nullptr) {
    return flashfs_fail(ENOENT);
  }
  if (!is_directory_mode(entry->mode)) {
    return flashfs_fail(ENOTDIR);
  }
  if (has_entries(entry)) {
    return flashfs_fail(ENOTEMPTY);
  }
  return flashfs_finish(fs, flashfs_remove_entry(fs, entry));
}
