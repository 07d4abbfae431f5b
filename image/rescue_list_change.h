// What becomes of the sectors of one file, and under which conditions that is decided.
#pragma once

#include <cstdint>
#include <vector>

#include "image/rescue_evidence.h"
#include "image/rescue_plan.h"

namespace image::rescuing {

// The writes come first, then the drops in their order.
struct list_change {
  uint16_t fileid = 0;
  std::vector<flashfs_sector> writes;
  std::vector<sector_place> drops;
  std::vector<rescue_decision> decisions;
};

struct list_options {
  bool may_write = true;  // false: there is no room, so that nothing can be brought back
};

}  // namespace image::rescuing
