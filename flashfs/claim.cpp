// The file system's lock, and the admission of readers and writers.
#include "flashfs/claim.h"

#include "flashfs/log.h"

void flashfs_lock(flashfs* fs) {
  process_lock_semaphore(fs->lock);
  if (fs->sctr_bufs_allocated != 0) {
    flashfs_log(fs, "flashfs_lock, %d sector buffers already allocated",
                static_cast<int>(fs->sctr_bufs_allocated));
  }
}

void flashfs_unlock(flashfs* fs) {
  if (fs->sctr_bufs_allocated != 0) {
    flashfs_log(fs, "flashfs_unlock, %d sector buffers still allocated",
                static_cast<int>(fs->sctr_bufs_allocated));
  }
  process_unlock_semaphore(fs->lock);
}

int flashfs_file_acquire(flashfs_sctr_map* file, uint32_t mode) {
  if (file->writer != 0) {
    return 1;
  }
  if (mode == acquire_read) {
    file->readers++;
    return 0;
  }
  if (mode == acquire_write && file->readers == 0) {
    file->writer = 1;
    return 0;
  }
  return 1;
}

void flashfs_file_release(flashfs_sctr_map* file) {
  if (file->writer != 0) {
    file->writer = 0;
  } else {
    file->readers--;
  }
}
