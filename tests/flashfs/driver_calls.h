// The calls that a file system makes of its driver, as they are: what is read and what is handed
// over to be programmed, where and how long. (flash_recorder of flashfs_recipe.h tells the
// records.)
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "flashfs/flashfs.h"

namespace test_support {

struct driver_call {
  bool is_write;
  uint32_t offset;
  uint32_t length;
};

// Notes the reads and writes of one file system while it lives. One at a time.
class driver_calls {
 public:
  explicit driver_calls(flashfs* fs) : fs_(fs), read_(fs->fdi[0].read), write_(fs->fdi[0].write) {
    active_ = this;
    for (flash_driver_info& driver : fs->fdi) {
      driver.read = note_read;
      driver.write = note_write;
    }
  }
  ~driver_calls() {
    for (flash_driver_info& driver : fs_->fdi) {
      driver.read = read_;
      driver.write = write_;
    }
    active_ = nullptr;
  }
  driver_calls(const driver_calls&) = delete;
  driver_calls& operator=(const driver_calls&) = delete;

  // "r4-6" for the bytes 4 and 5 read, "w4-6" for them written, counted from `start` on.
  std::string text(uint32_t start = 0) const {
    std::string text;
    for (const driver_call& call : calls_) {
      const uint32_t first = call.offset - start;
      text += (text.empty() ? "" : " ") + std::string(call.is_write ? "w" : "r") +
              std::to_string(first) + "-" + std::to_string(first + call.length);
    }
    return text;
  }
  // How often each of these bytes was read.
  std::vector<uint32_t> reads_of_bytes(uint32_t offset, uint32_t length) const {
    std::vector<uint32_t> counts(length, 0);
    for (const driver_call& call : calls_) {
      const uint32_t from = std::max(call.offset, offset);
      const uint32_t to = std::min(call.offset + call.length, offset + length);
      for (uint32_t i = from; !call.is_write && i < to; i++) {
        counts[i - offset]++;
      }
    }
    return counts;
  }

 private:
  static flash_return_code note_read(const void* handle, uint32_t offset, uint32_t length,
                                     void* buffer) {
    active_->calls_.push_back({false, offset, length});
    return active_->read_(handle, offset, length, buffer);
  }
  static flash_return_code note_write(const void* handle, uint32_t offset, uint32_t length,
                                      const void* buffer) {
    active_->calls_.push_back({true, offset, length});
    return active_->write_(handle, offset, length, buffer);
  }

  static inline driver_calls* active_ = nullptr;
  flashfs* fs_;
  flash_return_code (*read_)(const void*, uint32_t, uint32_t, void*);
  flash_return_code (*write_)(const void*, uint32_t, uint32_t, const void*);
  std::vector<driver_call> calls_;
};

}  // namespace test_support
