// Sector buffers: borrowed from the pool for the length of an operation, and given back whatever
// happens; and the count of changes that tells how long what was read is so.
#pragma once

#include <cstdint>

#include "flashfs/flashfs.h"

// Null with EINVAL or ENOMEM after a message.
[[nodiscard]] flashfs_sector* sector_buffer_alloc(flashfs* fs);
void sector_buffer_free(flashfs* fs, flashfs_sector* buffer);

// Whatever changes flash notes it, and a check that begins.
void note_flash_change();
// How often that was, in all file systems: while the number stays, so does what was read.
uint64_t flash_change_count();

// A borrowed sector buffer, given back when the scope ends.
class sector_buffer {
 public:
  explicit sector_buffer(flashfs* fs) : fs_(fs), sector_(sector_buffer_alloc(fs)) {}
  ~sector_buffer() {
    if (sector_ != nullptr) {
      sector_buffer_free(fs_, sector_);
    }
  }
  sector_buffer(const sector_buffer&) = delete;
  sector_buffer& operator=(const sector_buffer&) = delete;

  // Whether there is one.
  explicit operator bool() const {
    return sector_ != nullptr;
  }
  // To look at.
  const flashfs_sector* view() const {
    return sector_;
  }
  const flashfs_sector* operator->() const {
    return sector_;
  }
  // To read into or to change.
  flashfs_sector* get() {
    return sector_;
  }

 private:
  flashfs* fs_;
  flashfs_sector* sector_;
};
