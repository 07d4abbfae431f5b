// The fields of a record: where each stands, what it says in words, and whether it is as it should
// be. The one place that explains records to people.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "image/records.h"

namespace image {

struct record_field {
  const char* name;
  uint32_t offset;  // bytes into the image
  uint32_t size;    // bytes
  std::string value;
  std::string meaning;
  bool is_good;
};

// Of a block's header, of a sector without its slots, of a slot. Text from flash is raw bytes.
std::vector<record_field> fields_of(const block_record& block);
std::vector<record_field> fields_of(const records& all, const sector_record& sector);
std::vector<record_field> fields_of(const records& all, const slot_record& slot);

// A record in one line, without its place.
std::string summary_of(const block_record& block);
std::string summary_of(const records& all, const sector_record& sector);
std::string summary_of(const slot_record& slot);

}  // namespace image
