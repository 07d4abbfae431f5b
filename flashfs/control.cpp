// The control codes: format, verify, check, truncation, names and paths.
#include "flashfs/control.h"

#include <cerrno>
#include <cstring>

#include "flashfs/buffer.h"
#include "flashfs/check_flags.h"
#include "flashfs/claim.h"
#include "flashfs/control_codes.h"
#include "flashfs/entry.h"
#include "flashfs/erase.h"
#include "flashfs/filemap.h"
#include "flashfs/fsck.h"
#include "flashfs/fsck_blocks.h"
#include "flashfs/io.h"
#include "flashfs/log.h"
#include "flashfs/operations.h"
#include "flashfs/path.h"
#include "flashfs/raw.h"
#include "flashfs/slots.h"
#include "flashfs/status.h"
#include "flashfs/write.h"

namespace {

int format_block(flashfs* fs, int16_t block_num) {
  uint8_t state = 0;
  if (read_block_state(fs, block_num, &state) != 0) {
    return 1;
  }
  return state == block_available ? fsck_scrub_block(fs, block_num)
                                  : erase_block(fs, block_num, true, false);
}

// The check, after which a failure leaves nothing in memory. 0, or -1 with EIO.
int32_t check_or_discard(flashfs* fs, uint32_t flags) {
  if (flashfs_fsck(fs, flags & flashfs_check_quick, flags & flashfs_check_reclaim_all) != 0) {
    flashfs_clear_maps(fs);
    return flashfs_fail(EIO);
  }
  return 0;
}

int32_t erase_all_blocks(flashfs* fs) {
  for (int16_t b = 0; b < fs->num_blocks; b++) {
    if (format_block(fs, b) != 0) {
      return flashfs_fail(EIO);
    }
    process_suspend();
  }
  return 0;
}

int32_t format(flashfs* fs) {
  flashfs_clear_maps(fs);
  return flashfs_finish(fs, erase_all_blocks(fs)) == 0 ? check_or_discard(fs, flashfs_check_full)
                                                       : -1;
}

int32_t verify_path(flashfs* fs, const char* path) {
  found_name found = {fileid_root, 0};
  if (path != nullptr && *path != '\0') {
    found = flashfs_resolve(fs, path);
  }
  if (found.fileid == 0) {
    return flashfs_fail(found.error);
  }
  flashfs_sctr_map* entry = filemap_lookup(fs, found.fileid);
  return entry == nullptr ? flashfs_fail(EIO) : flashfs_verify_entry(fs, entry);
}

int32_t highest_fileid(const flashfs* fs, uint32_t* fileid) {
  const flashfs_sctr_map* last = filemap_last(fs);
  if (last == nullptr) {
    return flashfs_fail(EINVAL);
  }
  *fileid = last->fileid;
  return 0;
}

int32_t get_name(flashfs* fs, const flashfs_open_file* open, flashfs_file_name* record) {
  sector_buffer buffer(fs);
  if (!buffer) {
    return -1;
  }
  const auto* reference = filemap_find_slot_in(fs, open->file, buffer).entry;
  if (reference == nullptr) {
    return flashfs_fail(EIO);
  }
  char name[filename_buffer_size];
  dir_slot_get_name(&buffer->slots[reference->slot_no], name);
  strcpy(record->name, name);
  return 0;
}

int32_t get_path_and_size(flashfs* fs, const flashfs_open_file* open, flashfs_file_info* record) {
  ppc_stat status;
  if (flashfs_build_path(fs, open->file->fileid, record->path, sizeof(record->path)) != 0 ||
      flashfs_status(fs, open->file, &status, nullptr) != 0) {
    return -1;
  }
  record->size = status.size;
  record->reserved = 0;
  return 0;
}

int32_t control_open_file(flashfs* fs, flashfs_open_file* open, uint32_t command, void* argument) {
  switch (command) {
    case flashfs_fioctl_truncate:
      return flashfs_truncate_to(fs, open, *static_cast<const uint32_t*>(argument));
    case flashfs_fioctl_verify:
      return flashfs_verify_entry(fs, open->file);
    case flashfs_fioctl_name:
      return get_name(fs, open, static_cast<flashfs_file_name*>(argument));
    case flashfs_fioctl_path_and_size:
      return get_path_and_size(fs, open, static_cast<flashfs_file_info*>(argument));
    default:
      return flashfs_fail(EINVAL);
  }
}

}  // namespace

int32_t flashfs_vctr_ioctl(ppc_fsid_t fsid, const char* path, uint32_t command, void* argument) {
  flashfs* fs = flashfs_of(fsid);
  if (fs == nullptr) {
    return -1;
  }
  const bool makes_ready = command == flashfs_ioctl_format || command == flashfs_ioctl_format_too ||
                           command == flashfs_ioctl_check;
  const bool needs_argument =
      command == flashfs_ioctl_check || command == flashfs_ioctl_highest_fileid;
  if ((fs->ready == 0 && !makes_ready) || (needs_argument && argument == nullptr)) {
    return flashfs_fail(EINVAL);
  }
  const flashfs_lock_guard lock(fs);
  if (makes_ready && !flashfs_is_only_user(fs)) {
    return flashfs_fail(EBUSY);
  }
  switch (command) {
    case flashfs_ioctl_format:
    case flashfs_ioctl_format_too:
      return format(fs);
    case flashfs_ioctl_check:
      flashfs_clear_maps(fs);
      return check_or_discard(fs, *static_cast<const uint32_t*>(argument));
    case flashfs_ioctl_verify:
      return flashfs_finish(fs, verify_path(fs, path));
    case flashfs_ioctl_highest_fileid:
      return highest_fileid(fs, static_cast<uint32_t*>(argument));
    default:
      return flashfs_fail(EINVAL);
  }
}

int32_t flashfs_vctr_fioctl(int32_t fd, uint32_t command, void* argument) {
  const auto [fs, open] = flashfs_of_descriptor(fd);
  if (fs == nullptr) {
    return flashfs_fail(EBADF);
  }
  if (!flashfs_is_usable(fs, open) || (argument == nullptr && command != flashfs_fioctl_verify)) {
    return flashfs_fail(EINVAL);
  }
  const flashfs_lock_guard lock(fs);
  return flashfs_finish(fs, control_open_file(fs, open, command, argument));
}
