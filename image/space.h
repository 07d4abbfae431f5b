// Whether a tree fits onto a flash: sectors and slots, counted before anything is written.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "image/tree.h"

namespace image {

// What a tree takes.
struct space_needed {
  uint64_t data_sectors = 0;
  uint64_t slots = 0;  // names, the root's own included
  uint64_t slot_sectors = 0;
  uint64_t reserve_sectors = 0;  // of which files never take the last
  uint64_t sectors() const {
    return data_sectors + slot_sectors + reserve_sectors;
  }
};

// How many sectors so many bytes of a file take.
[[nodiscard]] uint64_t sectors_of_file(uint64_t size);

[[nodiscard]] space_needed space_for(const tree& planned);

// How many sectors blocks of these sizes (bytes) have to give: all but those of the largest block,
// since one of that size always stays erased as the spare.
[[nodiscard]] uint64_t sectors_of_blocks(std::span<const uint32_t> block_sizes);

// Empty when the tree fits; else the figures, and each file that no flash could take.
[[nodiscard]] std::string space_fault(const tree& planned, std::span<const uint32_t> block_sizes);

}  // namespace image
