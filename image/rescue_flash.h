// The private copy of a flash that a rescue mends, by the rules of flash: words are programmed,
// which clears bits only, and whole blocks are erased. Every step is noted, to be taken on the
// flash itself.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "image/rescue_evidence.h"
#include "image/rescue_plan.h"

namespace image::rescuing {

class flash_copy {
 public:
  explicit flash_copy(std::span<const uint8_t> bytes) : bytes_(bytes.begin(), bytes.end()) {}

  std::span<const uint8_t> bytes() const {
    return bytes_;
  }
  const std::vector<rescue_step>& steps() const {
    return steps_;
  }
  std::vector<uint8_t> take_bytes() {
    return std::move(bytes_);
  }
  std::vector<rescue_step> take_steps() {
    return std::move(steps_);
  }

  // Whether programming can make these bytes of what is there.
  bool can_program(uint32_t offset, std::span<const uint8_t> wanted) const;
  // Programs bytes at an even offset, an even number of them. False, and nothing is done, when that
  // would set bits.
  [[nodiscard]] bool program(uint32_t offset, std::span<const uint8_t> wanted);
  void erase(const block_record& block);

  const flashfs_sector* sector(const block_record& block, uint16_t number) const {
    return reinterpret_cast<const flashfs_sector*>(bytes_.data() + offset_in_flash(block, number));
  }
  const flashfs_blkheader* header(const block_record& block) const {
    return reinterpret_cast<const flashfs_blkheader*>(bytes_.data() + block.offset);
  }

 private:
  std::vector<uint8_t> bytes_;
  std::vector<rescue_step> steps_;
};

}  // namespace image::rescuing
