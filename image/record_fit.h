// The owner that a checksum remembers. An invalidated sector and a deleted slot have lost one word,
// their owner or directory, to zeros; the checksum covers it, and exactly one value fits. It fits
// noise as well: alone it proves nothing.
#pragma once

#include <cstdint>

#include "flashfs/format.h"

namespace image {

// The owner with which the sector would pass its checksum, whatever owner it has.
uint16_t fitting_owner(const flashfs_sector& sector);
// The directory with which the slot would.
uint16_t fitting_directory(const flashfs_dir_slot& slot);

}  // namespace image
