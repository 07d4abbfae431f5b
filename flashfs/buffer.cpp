// Sector buffers, and the count of changes of flash.
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

void note_flash_change() {
  flash_changes++;
}

uint64_t flash_change_count() {
  return flash_changes;
}
