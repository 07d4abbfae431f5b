// A flash driver over bytes in memory: an erase sets a block to ones, programming clears bits. It
// counts what is done with it, which tells whether a check had anything to repair.
#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <span>
#include <vector>

#include "flashfs/flash_driver.h"
#include "image/change_list.h"
#include "image/geometry.h"

namespace image {

// Programs: clears every bit of what is held that is clear in what is wanted. Nobody is told of a
// bit that only an erase could set.
void clear_bits(uint8_t* held, const uint8_t* wanted, uint32_t length);

// A driver of these blocks, which live as long, that still needs its reads, writes and erases; the
// calls that the file system never makes are refused.
flash_driver_info driver_of_blocks(std::vector<flash_block_info>* blocks);

class memory_flash {
 public:
  // The bytes are as many as the geometry has, and live as long as this object.
  memory_flash(std::span<uint8_t> bytes, const geometry& layout);
  memory_flash(const memory_flash&) = delete;
  memory_flash& operator=(const memory_flash&) = delete;

  // Both live as long as this object.
  const flash_driver_info* driver() const {
    return &driver_;
  }
  const void* handle() const {
    return this;
  }

  std::span<uint8_t> bytes() const {
    return bytes_;
  }
  const geometry& layout() const {
    return layout_;
  }

  // Whether anything on flash has been changed; what is programmed as it was does not count.
  bool changed() const {
    return changed_;
  }
  // The blocks that were erased.
  const std::set<uint32_t>& erased_blocks() const {
    return erased_blocks_;
  }
  uint64_t bytes_read() const {
    return bytes_read_;
  }
  // Forgets all of that.
  void clear_counts();

  // The bytes are not there yet: each is had from the source when the file system first looks at it
  // or at its neighbours.
  using source = std::function<void(uint32_t offset, std::span<uint8_t> to)>;
  void fill_from(source bytes);
  // All changes go into the list, too, from now on; it must live as long.
  void keep_changes(change_list* list) {
    changes_ = list;
  }

 private:
  flash_return_code read(uint32_t offset, uint32_t length, void* buffer);
  flash_return_code write(uint32_t offset, uint32_t length, const void* buffer);
  flash_return_code erase(uint32_t offset);
  void fill(uint32_t offset, uint32_t length);
  void mark_filled(uint32_t offset, uint32_t length);
  size_t block_at(uint32_t offset) const;
  bool holds(uint32_t offset, uint32_t length) const;
  static memory_flash& flash_of(const void* handle);

  std::span<uint8_t> bytes_;
  geometry layout_;
  std::vector<flash_block_info> blocks_;
  flash_driver_info driver_;
  bool changed_ = false;
  std::set<uint32_t> erased_blocks_;
  uint64_t bytes_read_ = 0;
  source source_;             // empty: all bytes are there
  std::vector<bool> filled_;  // by granule
  change_list* changes_ = nullptr;
};

}  // namespace image
