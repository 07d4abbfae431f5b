// The driver's operations over memory.
#include "image/memory_flash.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "flashfs/format.h"

namespace image {

namespace {

// What is had from a source at once: a header, half a slot.
constexpr uint32_t granule = 32;

// Calls that the file system never makes.
flash_return_code not_supported() {
  return flash_illegal_operation;
}

// Many bytes at a time, which compilers do not find out for themselves: making an image is little
// else.
struct chunk {
  uint64_t words[4];
};

}  // namespace

void clear_bits(uint8_t* held, const uint8_t* wanted, uint32_t length) {
  uint32_t i = 0;
  for (; length - i >= sizeof(chunk); i += sizeof(chunk)) {
    chunk before;
    chunk mask;
    std::memcpy(&before, held + i, sizeof(before));
    std::memcpy(&mask, wanted + i, sizeof(mask));
    before.words[0] &= mask.words[0];
    before.words[1] &= mask.words[1];
    before.words[2] &= mask.words[2];
    before.words[3] &= mask.words[3];
    std::memcpy(held + i, &before, sizeof(before));
  }
  for (; i < length; ++i) {
    held[i] = static_cast<uint8_t>(held[i] & wanted[i]);
  }
}

flash_driver_info driver_of_blocks(std::vector<flash_block_info>* blocks) {
  flash_driver_info driver = {};
  driver.uninit = not_supported;
  driver.lock = not_supported;
  driver.unlock = not_supported;
  driver.lock_master = not_supported;
  driver.block_count = static_cast<uint16_t>(blocks->size());
  driver.blocks = blocks->data();
  return driver;
}

memory_flash::memory_flash(std::span<uint8_t> bytes, const geometry& layout)
    : bytes_(bytes),
      layout_(layout),
      blocks_(block_table(layout)),
      driver_(driver_of_blocks(&blocks_)) {
  driver_.read = [](const void* handle, uint32_t offset, uint32_t length, void* buffer) {
    return flash_of(handle).read(offset, length, buffer);
  };
  driver_.write = [](const void* handle, uint32_t offset, uint32_t length, const void* buffer) {
    return flash_of(handle).write(offset, length, buffer);
  };
  driver_.erase = [](const void* handle, uint32_t offset) {
    return flash_of(handle).erase(offset);
  };
}

memory_flash& memory_flash::flash_of(const void* handle) {
  return *const_cast<memory_flash*>(static_cast<const memory_flash*>(handle));
}

void memory_flash::clear_counts() {
  changed_ = false;
  erased_blocks_.clear();
  bytes_read_ = 0;
}

void memory_flash::fill_from(source bytes) {
  source_ = std::move(bytes);
  filled_.assign((bytes_.size() + granule - 1) / granule, false);
}

// The missing granules around a range, neighbours together.
void memory_flash::fill(uint32_t offset, uint32_t length) {
  if (!source_ || length == 0) {
    return;
  }
  const size_t end = (size_t{offset} + length + granule - 1) / granule;
  for (size_t first = offset / granule; first < end; ++first) {
    size_t last = first;
    while (last < end && !filled_[last]) {
      filled_[last++] = true;
    }
    if (last > first) {
      const size_t from = first * granule;
      source_(static_cast<uint32_t>(from),
              bytes_.subspan(from, std::min(last * granule, bytes_.size()) - from));
      first = last;
    }
  }
}

// What is erased need not be had, but for what its granules share with its neighbours.
void memory_flash::mark_filled(uint32_t offset, uint32_t length) {
  if (!source_) {
    return;
  }
  const uint32_t end = offset + length;
  if (offset % granule != 0) {
    fill(offset, 1);
  }
  if (end % granule != 0) {
    fill(end - 1, 1);
  }
  std::fill(filled_.begin() + offset / granule, filled_.begin() + (end - 1) / granule + 1, true);
}

bool memory_flash::holds(uint32_t offset, uint32_t length) const {
  return offset <= bytes_.size() && length <= bytes_.size() - offset;
}

flash_return_code memory_flash::read(uint32_t offset, uint32_t length, void* buffer) {
  if (!holds(offset, length)) {
    return flash_illegal_operation;
  }
  bytes_read_ += length;
  fill(offset, length);
  std::memcpy(buffer, bytes_.data() + offset, length);
  return flash_ok;
}

flash_return_code memory_flash::write(uint32_t offset, uint32_t length, const void* buffer) {
  if (!holds(offset, length)) {
    return flash_illegal_operation;
  }
  fill(offset, length);
  uint8_t* held = bytes_.data() + offset;
  const auto* wanted = static_cast<const uint8_t*>(buffer);
  if (std::memcmp(held, wanted, length) == 0) {
    return flash_ok;
  }
  // As the device does it: a bit that only an erase could set stays as it is, and nobody is told.
  clear_bits(held, wanted, length);
  changed_ = true;
  if (changes_ != nullptr) {
    changes_->program(offset, {wanted, length});
  }
  return flash_ok;
}

// The block in which an offset lies.
size_t memory_flash::block_at(uint32_t offset) const {
  const auto behind =
      std::upper_bound(blocks_.begin(), blocks_.end(), offset,
                       [](uint32_t at, const flash_block_info& one) { return at < one.offset; });
  return static_cast<size_t>(behind - blocks_.begin()) - 1;
}

flash_return_code memory_flash::erase(uint32_t offset) {
  if (!holds(offset, 1)) {
    return flash_illegal_operation;
  }
  const size_t number = block_at(offset);
  const flash_block_info& block = blocks_[number];
  if (block.offset != offset) {
    return flash_illegal_operation;
  }
  mark_filled(offset, block.size);
  if (changes_ != nullptr) {
    changes_->erase(offset);
  }
  std::memset(bytes_.data() + offset, flash_erased_byte, block.size);
  erased_blocks_.insert(static_cast<uint32_t>(number));
  changed_ = true;
  return flash_ok;
}

}  // namespace image
