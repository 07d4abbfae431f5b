// The flash of an image that is being made: a driver over blocks that are all erased at first. What
// is programmed stays in a few blocks of memory, which the processor's cache holds, until another
// block wants the place; then it goes into the draft. So no image is filled with ones, or copied,
// as a whole. Headers are read all the time, to find a block, and stay here.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "flashfs/flash_driver.h"
#include "flashfs/format.h"
#include "image/geometry.h"
#include "image/image_draft.h"

namespace image {

class fresh_flash {
 public:
  // The draft has as many bytes as the geometry, and lives as long as this object.
  fresh_flash(const geometry& layout, image_draft* made);
  fresh_flash(const fresh_flash&) = delete;
  fresh_flash& operator=(const fresh_flash&) = delete;

  // Both live as long as this object.
  const flash_driver_info* driver() const {
    return &driver_;
  }
  const void* handle() const {
    return this;
  }

  // Puts all that is not in the draft yet there, also what is erased. False when that cannot be;
  // the draft tells why.
  [[nodiscard]] bool finish();

 private:
  // What stands behind a block's header.
  enum class contents : uint8_t { erased, in_memory, in_draft };
  struct block {
    contents behind_header = contents::erased;
    uint8_t held = 0;  // where, when it is in memory
    bool header_in_draft = false;
    std::array<uint8_t, sizeof(flashfs_blkheader)> header = {};
  };
  struct held_block {
    size_t number = 0;
    uint64_t used_at = 0;  // 0: it holds none
    std::vector<uint8_t> bytes;
  };
  // A piece of a range that lies in one block, and there in the header or behind it.
  struct piece {
    size_t number;
    uint32_t offset;  // in the block
    uint32_t length;
    bool in_header;
  };

  flash_return_code read(uint32_t offset, uint32_t length, uint8_t* to);
  flash_return_code write(uint32_t offset, uint32_t length, const uint8_t* from);
  flash_return_code erase(uint32_t offset);
  bool holds(uint32_t offset, uint32_t length) const;
  bool lies_in(size_t number, uint32_t offset) const;
  size_t block_at(uint32_t offset);
  piece first_piece(uint32_t offset, uint32_t length);
  bool read_behind_header(const piece& from, uint8_t* to);
  held_block* use(size_t number);
  held_block* hold(size_t number);
  bool put_into_draft(held_block* one);
  static fresh_flash& flash_of(const void* handle);

  std::vector<flash_block_info> table_;
  flash_driver_info driver_;
  image_draft* draft_;
  std::vector<block> blocks_;
  std::vector<held_block> held_;
  uint64_t uses_ = 0;
  size_t last_block_ = 0;  // that was asked for; often the next one, too
};

}  // namespace image
