// The sectors of each file: which of them belong to an operation that was cut, and what stood in
// their place before it. A list that is whole and shows no sign of a cut is left alone.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <vector>

#include "image/rescue_evidence.h"
#include "image/rescue_list_change.h"

namespace image::rescuing {

// What the names tell of a file.
struct name_evidence {
  bool named = false;          // a good slot names it
  bool removed = false;        // none does, but a deleted one did
  bool never_written = false;  // its slot is still that of its creation
  bool directory = false;      // it is a directory
};

// The changes of all files that have sectors; `named` has every id that any slot names.
std::vector<list_change> decide_lists(const evidence& found,
                                      const std::map<uint16_t, name_evidence>& named,
                                      const list_options& options);

}  // namespace image::rescuing
