#include "image/rescue_flash.h"

#include <algorithm>

namespace image::rescuing {

bool flash_copy::can_program(uint32_t offset, std::span<const uint8_t> wanted) const {
  for (size_t i = 0; i < wanted.size(); i++) {
    if ((wanted[i] & ~bytes_[offset + i]) != 0) {
      return false;
    }
  }
  return true;
}

bool flash_copy::program(uint32_t offset, std::span<const uint8_t> wanted) {
  if (!can_program(offset, wanted)) {
    return false;
  }
  size_t first = 0;
  while (first < wanted.size() && wanted[first] == bytes_[offset + first]) {
    first++;
  }
  if (first == wanted.size()) {
    return true;
  }
  size_t end = wanted.size();
  while (wanted[end - 1] == bytes_[offset + end - 1]) {
    end--;
  }
  first &= ~size_t{1};
  end = (end + 1) & ~size_t{1};
  rescue_step step = {.offset = static_cast<uint32_t>(offset + first)};
  step.bytes.assign(wanted.begin() + static_cast<ptrdiff_t>(first),
                    wanted.begin() + static_cast<ptrdiff_t>(end));
  std::copy(step.bytes.begin(), step.bytes.end(), bytes_.begin() + step.offset);
  steps_.push_back(std::move(step));
  return true;
}

void flash_copy::erase(const block_record& block) {
  rescue_step step = {.is_erase = true, .offset = block.offset, .bytes = {}};
  std::fill_n(bytes_.begin() + block.offset, block.size, flash_erased_byte);
  steps_.push_back(std::move(step));
}

}  // namespace image::rescuing
