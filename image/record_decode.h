// Decodes and judges the records of an image one by one: headers, sectors, slots. What they tell
// together is record_owners.h.
#pragma once

#include <string_view>

#include "image/record_types.h"

namespace image {

// Fills blocks, sectors, slots, counts and the spare; nothing is current yet.
void decode_records(records* all);

// A data sector, or a slot, by itself.
sector_verdict judge_data_sector(const flashfs_sector& sector);
slot_verdict judge_slot(const flashfs_dir_slot& slot);

// One line of words for people.
const char* verdict_text(header_verdict verdict);
const char* verdict_text(sector_verdict verdict);
const char* verdict_text(slot_verdict verdict);
const char* kind_text(sector_kind kind);
// "in use", "available"...; "unknown" for what is none.
const char* state_text(uint8_t state);

// The name of a slot up to its first zero or the end of its field: raw bytes.
std::string_view slot_name(const flashfs_dir_slot& slot);

// What of an image a byte belongs to.
struct image_place {
  const block_record* block = nullptr;    // null: none of the file system's
  const sector_record* sector = nullptr;  // null: the header, or what lies behind the last sector
  const slot_record* slot = nullptr;      // null: not in a slot
};
image_place find_place(const records& all, uint64_t offset);

}  // namespace image
