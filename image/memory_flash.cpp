// The driver's operations over memory.
#include "image/memory_flash.h"

#include <algorithm>
#include <cstring>

#include "flashfs/format.h"

namespace image {

namespace {

// Calls that the file system never makes.
flash_return_code not_supported() {
  return flash_illegal_operation;
}

}  // namespace

memory_flash::memory_flash(std::span<uint8_t> bytes, const geometry& layout)
    : bytes_(bytes), layout_(layout), blocks_(block_table(layout)), driver_() {
  driver_.read = [](const void* handle, uint32_t offset, uint32_t length, void* buffer) {
    return flash_of(handle).read(offset, length, buffer);
  };
  driver_.write = [](const void* handle, uint32_t offset, uint32_t length, const void* buffer) {
    return flash_of(handle).write(offset, length, buffer);
  };
  driver_.erase = [](const void* handle, uint32_t offset) {
    return flash_of(handle).erase(offset);
  };
  driver_.uninit = not_supported;
  driver_.lock = not_supported;
  driver_.unlock = not_supported;
  driver_.lock_master = not_supported;
  driver_.block_count = static_cast<uint16_t>(blocks_.size());
  driver_.blocks = blocks_.data();
}

memory_flash& memory_flash::flash_of(const void* handle) {
  return *const_cast<memory_flash*>(static_cast<const memory_flash*>(handle));
}

void memory_flash::clear_counts() {
  changed_ = false;
  erased_blocks_.clear();
  bytes_read_ = 0;
}

bool memory_flash::holds(uint32_t offset, uint32_t length) const {
  return offset <= bytes_.size() && length <= bytes_.size() - offset;
}

flash_return_code memory_flash::read(uint32_t offset, uint32_t length, void* buffer) {
  if (!holds(offset, length)) {
    return flash_illegal_operation;
  }
  bytes_read_ += length;
  std::memcpy(buffer, bytes_.data() + offset, length);
  return flash_ok;
}

flash_return_code memory_flash::write(uint32_t offset, uint32_t length, const void* buffer) {
  if (!holds(offset, length)) {
    return flash_illegal_operation;
  }
  uint8_t* held = bytes_.data() + offset;
  const auto* wanted = static_cast<const uint8_t*>(buffer);
  if (std::memcmp(held, wanted, length) == 0) {
    return flash_ok;
  }
  // As the device does it: a bit that only an erase could set stays as it is, and nobody is told.
  for (uint32_t i = 0; i < length; ++i) {
    held[i] = static_cast<uint8_t>(held[i] & wanted[i]);
  }
  changed_ = true;
  return flash_ok;
}

flash_return_code memory_flash::erase(uint32_t offset) {
  const auto block =
      std::lower_bound(blocks_.begin(), blocks_.end(), offset,
                       [](const flash_block_info& one, uint32_t at) { return one.offset < at; });
  if (block == blocks_.end() || block->offset != offset) {
    return flash_illegal_operation;
  }
  std::memset(bytes_.data() + offset, flash_erased_byte, block->size);
  erased_blocks_.insert(static_cast<uint32_t>(block - blocks_.begin()));
  changed_ = true;
  return flash_ok;
}

}  // namespace image
