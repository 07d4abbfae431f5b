// Sector buffers: borrowed from the pool for the length of an operation, and given back whatever
// happens.
#pragma once

#include <cstdint>

#include "flashfs/flashfs.h"

// Null with EINVAL or ENOMEM after a message.
[[nodiscard]] flashfs_sector* sector_buffer_alloc(flashfs* fs);
void sector_buffer_free(flashfs* fs, flashfs_sector* buffer);

// Makes everybody forget what is remembered of the flash's contents. Whatever changes flash calls
// it, and a check that begins.
void sector_buffers_forget();
// How often that was: while the number stays, so does what was read.
uint64_t flash_change_count();

// A borrowed sector buffer, given back when the scope ends. It knows which sector it holds as the
// flash has it (read_sector_once), and stops knowing as soon as the flash is changed or the buffer
// is given to somebody who may change it: so what it says is never stale.
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
  // To read into or to change; it holds no sector afterwards.
  flashfs_sector* get() {
    held_ = {no_block, 0};
    return sector_;
  }

  // Whether it holds this sector as the flash has it, and saying that it does.
  bool holds(flashfs_sctr_ptr pointer) const;
  void set_held(flashfs_sctr_ptr pointer);

 private:
  flashfs* fs_;
  flashfs_sector* sector_;
  flashfs_sctr_ptr held_ = {no_block, 0};
  uint64_t held_since_ = 0;  // the number of changes of flash when it was read
};
