// What a walk along the lists of the map, slot by slot on flash, finds: what the file system's
// indexes have to find as well.
#pragma once

#include <cstdint>
#include <string>

#include "flashfs/flashfs.h"

namespace test_support {

// The id that the first slot with this name in a directory's list has; 0: there is none.
uint16_t walk_to_name(flashfs* fs, uint16_t dir_fileid, const char* name);

// Compares every name, every file's slot, every number for what is new and every link of the lists
// with what a walk finds. Empty, or the first difference. It reads flash and changes nothing.
std::string difference_to_a_walk(flashfs* fs);

}  // namespace test_support
