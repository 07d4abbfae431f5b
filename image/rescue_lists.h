// The sectors of each file: which of them belong to an operation that was cut, and what stood in
// their place before it. A list that is whole and shows no sign of a cut is left alone.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <vector>

#include "image/rescue_evidence.h"
#include "image/rescue_plan.h"

namespace image::rescuing {

// What becomes of one file's sectors. The writes come first, then the drops in their order.
struct list_change {
  uint16_t fileid = 0;
  std::vector<flashfs_sector> writes;
  std::vector<sector_place> drops;
  std::vector<rescue_decision> decisions;
};

// What the names tell of a file.
struct name_evidence {
  bool named = false;          // a good slot names it
  bool removed = false;        // none does, but a deleted one did
  bool never_written = false;  // its slot is still that of its creation
  bool directory = false;      // it is a directory
};

struct list_options {
  bool may_write = true;  // false: there is no room, so that nothing can be brought back
  // Removed files come back afterwards: what an earlier run has begun of one, gives way to that.
  bool deleted = false;
};

// The changes of all files that have sectors; `named` has every id that any slot names.
std::vector<list_change> decide_lists(const evidence& found,
                                      const std::map<uint16_t, name_evidence>& named,
                                      const list_options& options);

}  // namespace image::rescuing
