// What is known of an image's records: one struct for each header, sector and slot, one for each
// id, and all of them together. How they come about: records.h.
//
// A record is never copied: it is the image's own bytes, which must live as long as what is read
// here. Nothing that an image says bounds a loop or an allocation; only its size does.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <vector>

#include "flashfs/format.h"
#include "image/finding.h"
#include "image/geometry.h"

namespace image {

// Index into one of the lists of `records`.
using record_index = uint32_t;

enum class header_verdict {
  good,
  erased,        // all ones
  bad_number,    // of another block
  bad_checksum,  // the timestamp does not fit
  missing,       // the image ends before it
};

enum class sector_kind {
  free,        // no owner, all of it erased
  not_erased,  // no owner, but something stands in it
  obsolete,
  directory,
  data,
};

enum class sector_verdict {
  good,        // also: free, obsolete, and directories, whose slots are judged one by one
  unfinished,  // data: claimed, but number or checksum were not written
  bad_checksum,
  not_erased,
};

enum class slot_verdict {
  free,        // erased
  deleted,     // its directory is 0
  good,        // a full check believes it
  not_erased,  // no directory, but something stands in it
  unfinished,  // the checksum was not written
  bad_checksum,
  bad_type,
  bad_name,
};

// How many of what a block holds, in whatever state it is.
struct record_counts {
  uint32_t free_sectors = 0;
  uint32_t obsolete_sectors = 0;
  uint32_t data_sectors = 0;       // that pass their checksum
  uint32_t directory_sectors = 0;  // of any slots
  uint32_t bad_sectors = 0;
  uint32_t free_slots = 0;
  uint32_t deleted_slots = 0;
  uint32_t good_slots = 0;
  uint32_t bad_slots = 0;
  uint32_t current = 0;  // sectors of data and slots that count, see below

  // Records that pass a checksum of their own.
  uint32_t good_records() const {
    return data_sectors + good_slots;
  }
  record_counts& operator+=(const record_counts& other);
};

struct block_record {
  uint32_t number;  // as the file system counts
  uint32_t offset;  // bytes into the image
  uint32_t size;
  const flashfs_blkheader* header;  // null when the image ends before it
  header_verdict verdict;
  uint8_t state;              // as read, whatever the verdict
  bool is_read;               // its sectors are taken: good, and in use or committed
  record_index first_sector;  // its sectors stand together in `sectors`
  uint32_t sector_count;      // those that the image holds whole
  bool is_erased;             // all of it, header included
  bool tail_is_erased;        // what lies behind the last sector
  record_counts counts;

  // As its header tells, though it be damaged; nothing when there is none.
  std::optional<uint32_t> erase_count() const {
    return header == nullptr || verdict == header_verdict::erased
               ? std::nullopt
               : std::optional<uint32_t>(header->erase_count);
  }
};

struct sector_record {
  uint32_t block;
  uint32_t sector;
  uint32_t offset;
  const flashfs_sector* bytes;
  sector_kind kind;
  sector_verdict verdict;
  // Of data: it is its file's sector of this number, and the file has no gap.
  bool is_current;
  record_index first_slot;  // of a directory: its 32 slots stand together in `slots`
};

struct slot_record {
  uint32_t block;
  uint32_t sector;
  uint32_t slot;
  uint32_t offset;
  const flashfs_dir_slot* bytes;
  slot_verdict verdict;
  bool is_current;  // it is its directory's slot of this number
  bool is_name;     // current, and what it names has its name from it
};

// An id that owns sectors or slots, or that a slot which counts names.
struct entry_record {
  uint16_t id;
  bool is_directory;
  bool has_gap;                             // its sectors do not count
  bool is_reached;                          // the tree from the root leads to it
  bool is_orphan;                           // a check would relink it
  uint16_t parent;                          // 0 when no directory names it
  std::optional<record_index> name;         // the slot that does; the root: its own
  std::vector<record_index> sectors;        // that count, by number
  std::vector<record_index> slots;          // of this directory, that count, by number
  std::vector<record_index> other_sectors;  // good, but duplicates, or with a gap
  std::vector<record_index> other_slots;    // good, but duplicates

  uint64_t size = 0;  // bytes, as a listing tells it
};

struct records {
  std::span<const uint8_t> image;
  geometry layout;
  std::vector<block_record> blocks;    // the file system's
  std::vector<sector_record> sectors;  // all of these blocks', whatever their state
  std::vector<slot_record> slots;      // of all directory sectors among them
  std::map<uint16_t, entry_record> entries;
  record_counts total;            // of all blocks
  std::optional<uint32_t> spare;  // the block that a mount takes as the spare
  std::vector<finding> findings;  // the image, then blocks, sectors, slots by place, then ids

  const block_record& block_of(const sector_record& sector) const {
    return blocks[sector.block];
  }
  std::span<const sector_record> sectors_of(const block_record& block) const {
    return std::span(sectors).subspan(block.first_sector, block.sector_count);
  }
  // None of any sector but a directory's.
  std::span<const slot_record> slots_of(const sector_record& sector) const {
    return sector.kind == sector_kind::directory
               ? std::span(slots).subspan(sector.first_slot, slots_per_sector)
               : std::span<const slot_record>();
  }
  // The entry of an id; null when nothing knows it.
  const entry_record* find_entry(uint16_t id) const {
    const auto found = entries.find(id);
    return found == entries.end() ? nullptr : &found->second;
  }
};

}  // namespace image
