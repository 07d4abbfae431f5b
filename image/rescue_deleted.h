// Removed files of which the name and the sectors are still there.
#pragma once

#include <cstdint>
#include <vector>

#include "image/rescue_evidence.h"
#include "image/rescue_plan.h"

namespace image::rescuing {

// A file that comes back: first its sectors are written, then its slot. A directory, which comes
// before what is in it, has none.
struct returned_file {
  std::vector<flashfs_sector> sectors;
  flashfs_dir_slot slot = {};
  rescue_decision decision;
};

// The files that can come back on a flash that is sound otherwise, with the directories that were
// removed with them. None has the name of one that stands; where another one has its id by now, it
// gets a new one. What an empty file once held stands beside it, its name with ".old" behind it.
std::vector<returned_file> find_deleted(const evidence& found);

}  // namespace image::rescuing
