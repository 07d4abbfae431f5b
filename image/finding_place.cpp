#include "image/finding_place.h"

#include <utility>

#include "image/record_owners.h"

namespace image {

finding make_finding_at(const block_record& block, std::string_view code, std::string text) {
  finding made = make_finding(code, std::move(text));
  made.offset = block.offset;
  made.block = block.number;
  return made;
}

finding make_finding_at(const sector_record& sector, std::string_view code, std::string text) {
  finding made = make_finding(code, std::move(text));
  made.offset = sector.offset;
  made.block = sector.block;
  made.sector = sector.sector;
  return made;
}

finding make_finding_at(const records& all, const slot_record& slot, std::string_view code,
                        std::string text) {
  finding made = make_finding(code, std::move(text));
  made.offset = slot.offset;
  made.block = slot.block;
  made.sector = slot.sector;
  made.slot = slot.slot;
  if (slot.verdict == slot_verdict::good) {
    made.path = path_of(all, slot);
  }
  return made;
}

}  // namespace image
