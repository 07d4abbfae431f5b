// A place in a file's list.
#include "flashfs/place.h"

void list_place::advance() {
  passed_reserved_ = passed_reserved_ || entry_->slot_no == slot_of_reserved_sector;
  entry_ = entry_->next;
  index_++;
}

list_place list_place::start(const flashfs_sctr_map* file, uint32_t index) const {
  return entry_ != nullptr && index_ <= index ? *this : list_place(file->sctr_list);
}

list_place list_place::find(const flashfs_sctr_map* file, uint32_t index) const {
  list_place place = start(file, index);
  while (place.entry_ != nullptr && place.index_ < index) {
    place.advance();
  }
  return place;
}

list_place list_place::find_last(const flashfs_sctr_map* file) const {
  list_place place = entry_ != nullptr ? *this : list_place(file->sctr_list);
  while (place.entry_ != nullptr && place.entry_->next != nullptr) {
    place.advance();
  }
  return place;
}

void list_place::remember(const list_place& walk) {
  const bool at_reserved =
      walk.entry_ != nullptr && walk.entry_->slot_no == slot_of_reserved_sector;
  if (!walk.passed_reserved_ && !at_reserved) {
    *this = walk;
  }
}

void list_place::forget() {
  *this = {};
}
