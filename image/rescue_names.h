// The names: which slots stand, which go, and which are written for what has lost its own.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <vector>

#include "image/rescue_evidence.h"
#include "image/rescue_lists.h"
#include "image/rescue_plan.h"

namespace image::rescuing {

struct slot_place {
  sector_place at;
  uint8_t index = 0;

  auto operator<=>(const slot_place&) const = default;
};

// The writes come first, then the deletions.
struct name_changes {
  std::vector<flashfs_dir_slot> writes;
  std::vector<slot_place> deletions;
  std::vector<rescue_decision> decisions;
};

// What the slots tell of each id that they name, or that holds names.
std::map<uint16_t, name_evidence> read_names(const evidence& found);

// Decides about all slots. `with_data` are the ids of which sectors will stand, `date` is that of
// what is made.
name_changes decide_names(const evidence& found, const std::set<uint16_t>& with_data,
                          uint32_t date);

// The latest date on flash.
uint32_t latest_date(const evidence& found);

}  // namespace image::rescuing
