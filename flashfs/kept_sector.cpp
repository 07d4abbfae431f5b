// The sector in which a reader stands.
#include "flashfs/kept_sector.h"

#include <new>

#include "flashfs/buffer.h"

const flashfs_sector* kept_sector::find(const flashfs_sctr_list_ordered* entry) const {
  return entry_ == entry && kept_since_ == flash_change_count() ? sector_.get() : nullptr;
}

void kept_sector::keep(const flashfs_sctr_list_ordered* entry, const flashfs_sector& sector) {
  if (sector_ == nullptr) {
    sector_.reset(new (std::nothrow) flashfs_sector);
  }
  if (sector_ != nullptr) {
    *sector_ = sector;
    entry_ = entry;
    kept_since_ = flash_change_count();
  }
}
