// Sector buffers, and when what they hold is not what the flash has.
#include "flashfs/buffer.h"

#include <cerrno>

#include "flashfs/log.h"

namespace {

// Changes of flash and checks begun so far, by any file system.
uint64_t flash_changes;

}  // namespace

flashfs_sector* sector_buffer_alloc(flashfs* fs) {
  if (fs->sctr_buf_chunk == nullptr) {
    flashfs_log(fs, "unable to allocate sector buffer -- chunk not initialized");
    errno = EINVAL;
    return nullptr;
  }
  auto* buffer = static_cast<flashfs_sector*>(chunk_malloc(fs->sctr_buf_chunk));
  if (buffer == nullptr) {
    flashfs_log(fs, "unable to allocate sector buffer");
    errno = ENOMEM;
    return nullptr;
  }
  fs->sctr_bufs_allocated++;
  return buffer;
}

void sector_buffer_free(flashfs* fs, flashfs_sector* buffer) {
  if (fs->sctr_buf_chunk == nullptr) {
    flashfs_log(fs, "unable to free sector buffer -- chunk not initialized");
    return;
  }
  if (buffer == nullptr) {
    return;
  }
  chunk_free(fs->sctr_buf_chunk, buffer);
  fs->sctr_bufs_allocated--;
}

void sector_buffers_forget() {
  flash_changes++;
}

uint64_t flash_change_count() {
  return flash_changes;
}

bool sector_buffer::holds(flashfs_sctr_ptr pointer) const {
  return held_.block_num != no_block && held_ == pointer && held_since_ == flash_changes;
}

void sector_buffer::set_held(flashfs_sctr_ptr pointer) {
  held_ = pointer;
  held_since_ = flash_changes;
}
