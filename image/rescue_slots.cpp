#include "image/rescue_slots.h"

namespace image::rescuing {

uint16_t former_directory(const slot_record& slot) {
  const bool was = slot.kind == slot_kind::deleted || slot.kind == slot_kind::deleted_torn;
  return was ? slot.fitting : uint16_t{0};
}

bool is_newer(const slot_record& one, const slot_record& other) {
  if (one.slot.date != other.slot.date) {
    return one.slot.date > other.slot.date;
  }
  return one.at == other.at ? one.index < other.index : other.at < one.at;
}

former_index index_former(const evidence& found) {
  former_index index;
  for (const slot_record& each : found.slots) {
    if (former_directory(each) != 0) {
      index.emplace(each.slot.entry_fileid, &each);
    }
  }
  return index;
}

}  // namespace image::rescuing
