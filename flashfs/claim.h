// Who may use what: the file system's lock, and the readers and the writer of a file.
#pragma once

#include <cstdint>

#include "flashfs/flashfs.h"

// Both complain when a sector buffer is out: an operation has leaked it.
void flashfs_lock(flashfs* fs);
void flashfs_unlock(flashfs* fs);

// Holds the file system's lock for a scope. Made before sector buffers are borrowed.
class flashfs_lock_guard {
 public:
  explicit flashfs_lock_guard(flashfs* fs) : fs_(fs) {
    flashfs_lock(fs_);
  }
  ~flashfs_lock_guard() {
    flashfs_unlock(fs_);
  }
  flashfs_lock_guard(const flashfs_lock_guard&) = delete;
  flashfs_lock_guard& operator=(const flashfs_lock_guard&) = delete;

 private:
  flashfs* fs_;
};

constexpr uint32_t acquire_read = 0;
constexpr uint32_t acquire_write = 1;
// Many readers or one writer. 0 admitted, 1 refused.
[[nodiscard]] int flashfs_file_acquire(flashfs_sctr_map* file, uint32_t mode);
void flashfs_file_release(flashfs_sctr_map* file);

// A claim on a file, released when the scope ends unless it is kept.
class file_claim {
 public:
  file_claim() = default;
  ~file_claim() {
    if (file_ != nullptr) {
      flashfs_file_release(file_);
    }
  }
  file_claim(const file_claim&) = delete;
  file_claim& operator=(const file_claim&) = delete;

  // False when the claim is refused. At most once.
  [[nodiscard]] bool take(flashfs_sctr_map* file, uint32_t mode) {
    if (flashfs_file_acquire(file, mode) != 0) {
      return false;
    }
    file_ = file;
    return true;
  }
  // Leaves it to somebody else, or to nobody when the entry is gone.
  void keep() {
    file_ = nullptr;
  }

 private:
  flashfs_sctr_map* file_ = nullptr;
};
