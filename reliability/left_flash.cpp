// Reads the records of a flash as they stand.
#include "reliability/left_flash.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <vector>

#include "flashfs/big_endian.h"
#include "flashfs/flash_driver.h"
#include "flashfs/format.h"

namespace reliability {

namespace {

constexpr uint64_t hash_start = 0xcbf29ce484222325U;
constexpr uint64_t hash_factor = 0x9E3779B97F4A7C15U;
constexpr uint64_t hash_step = 29;

uint64_t mixed(uint64_t hash, uint64_t word) {
  hash = (hash ^ word) * hash_factor;
  return hash ^ (hash >> hash_step);
}

struct block_view {
  const flashfs_blkheader* header;
  const flashfs_sector* sectors;
  size_t count;
  bool good;  // the header: its number and checksum

  uint8_t state() const {
    return blkheader_state(header);
  }
  bool is(block_state wanted) const {
    return good && state() == wanted;
  }
};

std::vector<block_view> blocks_of(test_support::ram_flash& device) {
  std::vector<block_view> views;
  for (const flash_block_info& block : device.blocks()) {
    const uint8_t* bytes = device.bytes() + block.offset;
    const auto* header = reinterpret_cast<const flashfs_blkheader*>(bytes);
    views.push_back(
        {header, reinterpret_cast<const flashfs_sector*>(bytes + sizeof(*header)),
         (block.size - sizeof(*header)) / sizeof(flashfs_sector),
         header->block_num == views.size() && blkheader_crc(header) == flashfs_good_crc});
  }
  return views;
}

bool same_bytes(const flashfs_sector& one, const flashfs_sector& other) {
  return memcmp(&one, &other, sizeof(one)) == 0;
}

// Directory sectors are copied without their deleted slots.
bool is_copy(const flashfs_sector& copy, const flashfs_sector& original) {
  if (original.fileid != fileid_root) {
    return same_bytes(copy, original);
  }
  bool live = false;
  bool same = true;
  for (uint32_t k = 0; k < slots_per_sector; k++) {
    const flashfs_dir_slot& slot = original.slots[k];
    if (slot.dir_fileid != fileid_invalidated && slot.dir_fileid != fileid_available) {
      live = true;
      same = same && memcmp(&copy.slots[k], &slot, sizeof(slot)) == 0;
    }
  }
  return !live || (copy.fileid == fileid_root && same);
}

bool holds_anything(const block_view& block) {
  return std::any_of(block.sectors, block.sectors + block.count,
                     [](const flashfs_sector& each) { return is_live(each.fileid); });
}

// The victim is the block in use that has a live sector of the copy in the same place.
bool is_victim_of(const block_view& block, const block_view& copy) {
  for (size_t s = 0; s < std::min(block.count, copy.count); s++) {
    if (is_live(block.sectors[s].fileid) && is_live(copy.sectors[s].fileid) &&
        is_copy(copy.sectors[s], block.sectors[s])) {
      return true;
    }
  }
  return false;
}

bool holds_all_of(const block_view& copy, const block_view& victim) {
  for (size_t s = 0; s < std::min(copy.count, victim.count); s++) {
    if (is_live(victim.sectors[s].fileid) && !is_copy(copy.sectors[s], victim.sectors[s])) {
      return false;
    }
  }
  return true;
}

// The id of the entry with this name in the directory, by a good slot; 0 when there is none.
uint16_t find_entry(const std::vector<block_view>& blocks, uint16_t directory,
                    const std::string& name) {
  for (const block_view& block : blocks) {
    for (size_t s = 0; block.is(block_in_use) && s < block.count; s++) {
      if (block.sectors[s].fileid != fileid_root) {
        continue;
      }
      for (const flashfs_dir_slot& slot : block.sectors[s].slots) {
        if (slot.dir_fileid == directory && dir_slot_name_equals(&slot, name.c_str()) &&
            dir_slot_crc(&slot) == flashfs_good_crc) {
          return slot.entry_fileid;
        }
      }
    }
  }
  return 0;
}

bool has_piece(const std::vector<block_view>& blocks, uint16_t fileid, uint16_t seq_no,
               const std::string& piece) {
  return std::any_of(blocks.begin(), blocks.end(), [&](const block_view& block) {
    return block.is(block_in_use) &&
           std::any_of(block.sectors, block.sectors + block.count,
                       [&](const flashfs_sector& sector) {
                         return sector.fileid == fileid && sector.seq_no == seq_no &&
                                sector.count == piece.size() &&
                                memcmp(sector.data, piece.data(), piece.size()) == 0 &&
                                sector_crc(&sector) == flashfs_good_crc;
                       });
  });
}

uint64_t meaning_of_slots(uint64_t hash, const flashfs_sector& sector) {
  hash = mixed(hash, hash_of(&sector.seq_no, sizeof(sector.seq_no) + sizeof(sector.checksum)));
  hash = mixed(hash, sector.count);
  for (const flashfs_dir_slot& slot : sector.slots) {
    hash = mixed(hash, slot.dir_fileid == fileid_invalidated ? 0 : hash_of(&slot, sizeof(slot)));
  }
  return hash;
}

// The contents of a block in any other state, and behind a bad header, are erased unread.
bool is_read(const block_view& block) {
  return block.is(block_available) || block.is(block_committed) || block.is(block_in_use);
}

}  // namespace

bool has_unfinished_sector(test_support::ram_flash& device) {
  for (const block_view& block : blocks_of(device)) {
    for (size_t s = 0; block.state() == block_in_use && s < block.count; s++) {
      if (is_file_sector(block.sectors[s].fileid) && block.sectors[s].checksum == 0xFFFF) {
        return true;
      }
    }
  }
  return false;
}

bool has_unfinished_slot(test_support::ram_flash& device) {
  for (const block_view& block : blocks_of(device)) {
    for (size_t s = 0; block.state() == block_in_use && s < block.count; s++) {
      const flashfs_sector& sector = block.sectors[s];
      if (sector.fileid == fileid_root &&
          std::any_of(std::begin(sector.slots), std::end(sector.slots), [](const auto& slot) {
            return is_live(slot.dir_fileid) && slot.checksum == 0xFFFF;
          })) {
        return true;
      }
    }
  }
  return false;
}

bool has_only_committed_copy(test_support::ram_flash& device) {
  const std::vector<block_view> blocks = blocks_of(device);
  size_t largest = 0;
  const block_view* copy = nullptr;
  for (const block_view& block : blocks) {
    largest = std::max(largest, block.count);
    copy = block.is(block_committed) ? &block : copy;
  }
  if (copy == nullptr || !holds_anything(*copy)) {
    return false;
  }
  return std::none_of(blocks.begin(), blocks.end(), [&](const block_view& block) {
    const bool spare = block.is(block_available) && block.count == largest;
    return spare ||
           (block.is(block_in_use) && is_victim_of(block, *copy) && !holds_all_of(*copy, block));
  });
}

bool stands_whole(test_support::ram_flash& device, const std::string& path,
                  const std::string& content) {
  const std::vector<block_view> blocks = blocks_of(device);
  uint16_t fileid = fileid_root;
  for (size_t start = 0; fileid != 0 && start <= path.size();) {
    const size_t end = std::min(path.find('/', start), path.size());
    fileid = find_entry(blocks, fileid, path.substr(start, end - start));
    start = end + 1;
  }
  if (fileid == 0) {
    return false;
  }
  for (size_t start = 0, seq_no = 0; start < content.size(); start += sector_data_size, seq_no++) {
    if (!has_piece(blocks, fileid, static_cast<uint16_t>(seq_no),
                   content.substr(start, sector_data_size))) {
      return false;
    }
  }
  return true;
}

uint64_t meaning_of(test_support::ram_flash& device) {
  uint64_t hash = hash_start;
  for (const block_view& block : blocks_of(device)) {
    const size_t counted = offsetof(flashfs_blkheader, timestamp);
    hash = mixed(hash, hash_of(&block.header->timestamp, sizeof(*block.header) - counted));
    for (size_t s = 0; is_read(block) && s < block.count; s++) {
      const flashfs_sector& sector = block.sectors[s];
      hash = mixed(hash, sector.fileid);
      if (sector.fileid == fileid_root) {
        hash = meaning_of_slots(hash, sector);
      } else if (sector.fileid != fileid_invalidated) {
        hash = mixed(hash, hash_of(&sector, sizeof(sector)));
      }
    }
  }
  return hash;
}

uint64_t hash_of(const void* bytes, size_t length) {
  constexpr size_t lanes = 4;  // independent of each other, so that they are worked at side by side
  uint64_t hashes[lanes] = {hash_start, hash_start + 1, hash_start + 2, hash_start + 3};
  const auto* at = static_cast<const uint8_t*>(bytes);
  for (; length >= sizeof(hashes); at += sizeof(hashes), length -= sizeof(hashes)) {
    uint64_t words[lanes];
    memcpy(words, at, sizeof(words));
    for (size_t lane = 0; lane < lanes; lane++) {
      hashes[lane] = mixed(hashes[lane], words[lane]);
    }
  }
  uint64_t hash = length;
  for (const uint64_t each : hashes) {
    hash = mixed(hash, each);
  }
  for (; length > 0; at++, length--) {
    hash = mixed(hash, *at);
  }
  return hash;
}

}  // namespace reliability
