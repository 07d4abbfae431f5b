#include "image/erase_counts.h"

#include <algorithm>
#include <cmath>

namespace image {

void erase_counts::add(uint32_t block, uint32_t erases) {
  if (blocks_ == 0 || erases > most_) {
    most_ = erases;
    most_worn_ = block;
  }
  least_ = blocks_ == 0 ? erases : std::min(least_, erases);
  blocks_++;
  total_ += erases;
  squares_ += static_cast<double>(erases) * erases;
}

double erase_counts::mean() const {
  return blocks_ == 0 ? 0.0 : static_cast<double>(total_) / blocks_;
}

double erase_counts::deviation() const {
  return blocks_ == 0 ? 0.0 : std::sqrt(std::max(0.0, squares_ / blocks_ - mean() * mean()));
}

}  // namespace image
