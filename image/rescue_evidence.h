// What a flash holds, record by record, for the rescue: each sector and slot with what it is or
// what a cut has made of it. Nothing is decided here but what a record tells by itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "flashfs/flash_driver.h"
#include "flashfs/format.h"

namespace image::rescuing {

struct sector_place {
  uint16_t block = 0;  // among the usable ones
  uint16_t sector = 0;

  auto operator<=>(const sector_place&) const = default;  // NOLINT(modernize-use-nullptr)
};

enum class sector_kind : uint8_t {
  erased,
  dirty,          // the owner of an erased one, but not erased
  obsolete,       // owner 0
  directory,      // slots
  data,           // of a file, with a good checksum
  claimed,        // an owner, and nothing behind it
  unfinished,     // written from the front and not to its end
  obsolete_torn,  // its checksum would hold for an owner that has bits which the one it has lacks
  damaged,        // anything else
};

struct sector_record {
  sector_place at;
  sector_kind kind = sector_kind::erased;
  uint16_t owner = 0;    // as it reads
  uint16_t fitting = 0;  // of what is obsolete, or torn so: the owner for which the checksum holds
  uint16_t number = 0;
  uint16_t count = 0;
};

enum class slot_kind : uint8_t {
  erased,
  deleted,
  good,
  half_written,  // no checksum yet, or only a part of it; or not erased under the number of a free
                 // one
  deleted_torn,  // as obsolete_torn, of its directory
  damaged,
};

struct slot_record {
  sector_place at;
  uint8_t index = 0;
  slot_kind kind = slot_kind::erased;
  uint16_t fitting =
      0;  // of what is deleted, or torn so: the directory for which the checksum holds
  flashfs_dir_slot slot = {};

  bool is_directory() const {
    return is_directory_mode(slot.mode);
  }
  std::string name() const;
};

// What becomes of a block.
enum class block_fate : uint8_t {
  fresh,      // erased, with a good header
  kept,       // its records count
  condemned,  // erased once nothing in it is needed any more
};

struct block_record {
  uint32_t offset = 0;  // bytes
  uint32_t size = 0;
  uint16_t sectors = 0;
  bool header_good = false;
  uint8_t state = 0;
  block_fate fate = block_fate::fresh;
  // Of its records.
  size_t first_sector = 0;
  size_t first_slot = 0;
  size_t end_slot = 0;
};

struct evidence {
  std::span<const uint8_t> bytes;
  std::vector<block_record> blocks;
  std::vector<sector_record> sectors;  // by place
  std::vector<slot_record> slots;      // of directory sectors, and of obsolete ones; by place

  const sector_record& at(sector_place place) const {
    return sectors[blocks[place.block].first_sector + place.sector];
  }
  bool is_kept(sector_place place) const {
    return blocks[place.block].fate == block_fate::kept;
  }
  uint32_t offset_of(sector_place place) const;
  const flashfs_sector* sector(sector_place place) const;
  std::span<const slot_record> slots_of(uint16_t block) const;
};

uint32_t offset_in_flash(const block_record& block, uint16_t sector);

// Reads all records. The fate of a block is `fresh` or `kept` by its header alone.
evidence read_evidence(std::span<const uint8_t> bytes, std::span<const flash_block_info> blocks);

// Whether a slot whose checksum is good, or would be, can stand: type, name, ids.
bool is_sound_slot(const flashfs_dir_slot& slot, uint16_t directory);

}  // namespace image::rescuing
