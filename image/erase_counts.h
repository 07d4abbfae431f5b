// How often the blocks of an image were erased, all together: of those whose header tells.
#pragma once

#include <cstdint>

namespace image {

class erase_counts {
 public:
  // One more block. Among equals the first is the one that is worn most.
  void add(uint32_t block, uint32_t erases);

  // Without a block all of these are 0.
  uint32_t blocks() const {
    return blocks_;
  }
  uint64_t total() const {
    return total_;
  }
  uint32_t least() const {
    return least_;
  }
  uint32_t most() const {
    return most_;
  }
  uint32_t most_worn() const {  // the block
    return most_worn_;
  }
  double mean() const;
  double deviation() const;  // standard

 private:
  uint32_t blocks_ = 0;
  uint64_t total_ = 0;
  double squares_ = 0;
  uint32_t least_ = 0;
  uint32_t most_ = 0;
  uint32_t most_worn_ = 0;
};

}  // namespace image
