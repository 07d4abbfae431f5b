// Changes of a flash in their order, as a file system made them on a copy: so they can be made
// again on the flash itself, and a power cut between two of them leaves what it would have left
// there.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace image {

class change_list {
 public:
  struct change {
    bool is_erase;
    uint32_t offset;  // of the block, or of the bytes
    uint32_t length;  // of the bytes
    size_t first;     // where they stand here
  };

  void program(uint32_t offset, std::span<const uint8_t> bytes) {
    changes_.push_back({false, offset, static_cast<uint32_t>(bytes.size()), bytes_.size()});
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
  }
  void erase(uint32_t offset) {
    changes_.push_back({true, offset, 0, bytes_.size()});
  }

  std::span<const change> changes() const {
    return changes_;
  }
  std::span<const uint8_t> bytes_of(const change& one) const {
    return std::span(bytes_).subspan(one.first, one.length);
  }

 private:
  std::vector<change> changes_;
  std::vector<uint8_t> bytes_;
};

}  // namespace image
