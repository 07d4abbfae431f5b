// Counting sectors and slots. The figures are those of flashfs/alloc.cpp and flashfs/available.cpp:
// 2048 bytes of data to a sector, 32 names to a directory sector, and the last free sector goes
// only to a step that gives one back.
#include "image/space.h"

#include <algorithm>

#include "flashfs/format.h"

namespace image {

namespace {

constexpr uint64_t max_file_sectors = 65536;    // 16 bits number them
constexpr uint64_t max_file_size = 0x7FFFFFFF;  // bytes: positions are signed
constexpr uint64_t max_entries = fileid_last - fileid_first + 1;

constexpr uint64_t parts_of(uint64_t whole, uint64_t part) {
  return whole / part + (whole % part != 0 ? 1 : 0);
}

}  // namespace

uint64_t sectors_of_file(uint64_t size) {
  return parts_of(size, sector_data_size);
}

space_needed space_for(const tree& planned) {
  space_needed needed;
  for (const tree_entry& entry : planned.entries) {
    needed.data_sectors += entry.directory ? 0 : sectors_of_file(entry.size);
  }
  needed.slots = planned.entries.size() + 1;
  needed.slot_sectors = parts_of(needed.slots, slots_per_sector);
  needed.reserve_sectors = 1;
  return needed;
}

uint64_t sectors_of_blocks(std::span<const uint32_t> block_sizes) {
  uint64_t sum = 0;
  uint64_t largest = 0;
  for (const uint32_t size : block_sizes) {
    const uint64_t sectors = size < sizeof(flashfs_blkheader)
                                 ? 0
                                 : (size - sizeof(flashfs_blkheader)) / sizeof(flashfs_sector);
    sum += sectors;
    largest = std::max(largest, sectors);
  }
  return sum - largest;
}

std::string space_fault(const tree& planned, std::span<const uint32_t> block_sizes) {
  for (const tree_entry& entry : planned.entries) {
    if (entry.size > max_file_size || sectors_of_file(entry.size) > max_file_sectors) {
      return entry.path + " has " + std::to_string(entry.size) +
             " bytes, more than a file can have";
    }
  }
  if (planned.entries.size() > max_entries) {
    return std::to_string(planned.entries.size()) + " files and folders, at most " +
           std::to_string(max_entries) + " are possible";
  }
  const space_needed needed = space_for(planned);
  const uint64_t there = sectors_of_blocks(block_sizes);
  if (needed.sectors() <= there) {
    return "";
  }
  return "it takes " + std::to_string(needed.sectors()) + " sectors of 2048 bytes (" +
         std::to_string(needed.data_sectors) + " for data, " + std::to_string(needed.slot_sectors) +
         " for names, " + std::to_string(needed.reserve_sectors) + " in reserve), but there are " +
         std::to_string(there);
}

}  // namespace image
