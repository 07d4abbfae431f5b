// The operations on names: they check, resolve the name and hand the change to the steps of
// entry.cpp.
#include "flashfs/namespace.h"

#include <cerrno>

#include "flashfs/claim.h"
#include "flashfs/entry.h"
#include "flashfs/filemap.h"
#include "flashfs/log.h"
#include "flashfs/operations.h"
#include "flashfs/path.h"

namespace {

// A missing directory is answered like an existing name.
constexpr name_rules rules_of_renaming = {
    .name_before_directory = false,
    .missing_directory = EEXIST,
    .directory_without_record = EIO,
};

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

int32_t move_between_directories(flashfs* fs, flashfs_sctr_map* entry,
                                 flashfs_sctr_map* old_directory, const name_place& target) {
  if (is_directory_mode(entry->mode) && target.directory->fileid != fileid_root &&
      is_below(fs, target.directory, entry->fileid)) {
    return flashfs_fail(EINVAL);
  }
  file_claim new_claim;
  file_claim old_claim;
  if (!new_claim.take(target.directory, acquire_write) ||
      !old_claim.take(old_directory, acquire_write)) {
    return flashfs_fail(EBUSY);
  }
  return flashfs_rename_entry(fs, entry, target.directory, target.name);
}

int32_t rename_named(flashfs* fs, const char* old_path, const char* new_path) {
  if (*old_path == '\0' || *new_path == '\0') {
    return flashfs_fail(ENOENT);
  }
  const found_name found = flashfs_resolve(fs, old_path);
  if (found.fileid == 0) {
    return flashfs_fail(found.error);
  }
  if (found.fileid == fileid_root) {
    return flashfs_fail(EINVAL);
  }
  flashfs_sctr_map* entry = filemap_lookup(fs, found.fileid);
  flashfs_sctr_map* old_directory =
      entry == nullptr ? nullptr : filemap_lookup(fs, entry->parent_fileid);
  if (old_directory == nullptr) {
    return flashfs_fail(ENOENT);
  }
  char work[path_size_max];
  const name_place target =
      find_place_for_name(fs, new_path, path_find(fs, new_path), work, rules_of_renaming);
  if (target.directory == nullptr) {
    return flashfs_fail(target.error);
  }
  return target.directory == old_directory
             ? flashfs_rename_entry(fs, entry, old_directory, target.name)
             : move_between_directories(fs, entry, old_directory, target);
}

int32_t change_mode_of_named(flashfs* fs, const char* path, ppc_mode_t mode) {
  const found_name found = flashfs_resolve(fs, path);
  if (found.fileid == 0) {
    return flashfs_fail(found.error);
  }
  if (found.fileid == fileid_root) {
    return flashfs_fail(EINVAL);
  }
  flashfs_sctr_map* entry = filemap_lookup(fs, found.fileid);
  return entry == nullptr ? flashfs_fail(ENOENT) : flashfs_change_mode(fs, entry, mode);
}

int32_t date_named(flashfs* fs, const char* path, uint32_t date) {
  const found_name found = flashfs_resolve(fs, path);
  if (found.fileid == 0) {
    return flashfs_fail(found.error);
  }
  flashfs_sctr_map* entry = filemap_lookup(fs, found.fileid);
  return entry == nullptr ? flashfs_fail(ENOENT) : flashfs_touch(fs, entry, date);
}

int32_t remove_named_file(flashfs* fs, const char* path) {
  const found_name found = flashfs_resolve(fs, path);
  if (found.fileid == 0) {
    return flashfs_fail(found.error);
  }
  flashfs_sctr_map* entry = filemap_lookup(fs, found.fileid);
  if (entry == nullptr) {
    return flashfs_fail(EIO);
  }
  return is_directory_mode(entry->mode) ? flashfs_fail(EISDIR) : flashfs_remove_entry(fs, entry);
}

bool has_entries(const flashfs_sctr_map* directory) {
  for (const auto* entry = directory->sctr_list; entry != nullptr; entry = entry->next) {
    if (is_slot_index(entry->slot_no)) {
      return true;
    }
  }
  return false;
}

int32_t remove_named_directory(flashfs* fs, const char* path) {
  const found_name found = flashfs_resolve(fs, path);
  if (found.fileid == 0) {
    return flashfs_fail(found.error);
  }
  flashfs_sctr_map* entry = filemap_lookup(fs, found.fileid);
  if (entry == nullptr) {
    return flashfs_fail(ENOENT);
  }
  if (!is_directory_mode(entry->mode)) {
    return flashfs_fail(ENOTDIR);
  }
  return has_entries(entry) ? flashfs_fail(ENOTEMPTY) : flashfs_remove_entry(fs, entry);
}

}  // namespace

int32_t flashfs_vctr_chmod(ppc_fsid_t fsid, const char* path, ppc_mode_t mode) {
  flashfs* fs = flashfs_of_ready(fsid);
  if (fs == nullptr) {
    return -1;
  }
  const flashfs_lock_guard lock(fs);
  return flashfs_finish(fs, change_mode_of_named(fs, path, mode));
}

int32_t flashfs_set_date(flashfs* fs, const char* path, uint32_t date) {
  if (fs->ready == 0 || date == 0) {
    return flashfs_fail(EINVAL);
  }
  const flashfs_lock_guard lock(fs);
  return flashfs_finish(fs, date_named(fs, path, date));
}

int32_t flashfs_vctr_remove(ppc_fsid_t fsid, const char* path) {
  flashfs* fs = flashfs_of_ready(fsid);
  if (fs == nullptr) {
    return -1;
  }
  const flashfs_lock_guard lock(fs);
  return flashfs_finish(fs, remove_named_file(fs, path));
}

int32_t flashfs_vctr_rename(ppc_fsid_t fsid, const char* old_path, const char* new_path) {
  flashfs* fs = flashfs_of_ready(fsid);
  if (fs == nullptr) {
    return -1;
  }
  const flashfs_lock_guard lock(fs);
  return flashfs_finish(fs, rename_named(fs, old_path, new_path));
}

int32_t flashfs_vctr_mkdir(ppc_fsid_t fsid, const char* path, ppc_mode_t mode) {
  flashfs* fs = flashfs_of_ready(fsid);
  if (fs == nullptr) {
    return -1;
  }
  const flashfs_lock_guard lock(fs);
  const flashfs_sctr_map* entry =
      flashfs_create_entry(fs, path, (mode & ppc_mode_permissions) | uint32_t{ppc_mode_directory});
  return flashfs_finish(fs, entry == nullptr ? -1 : 0);
}

int32_t flashfs_vctr_rmdir(ppc_fsid_t fsid, const char* path) {
  flashfs* fs = flashfs_of_ready(fsid);
  if (fs == nullptr) {
    return -1;
  }
  const flashfs_lock_guard lock(fs);
  return flashfs_finish(fs, remove_named_directory(fs, path));
}
