// The sector in which a reader stands, kept so that one who takes a file in small pieces reads and
// verifies each sector once.
#pragma once

#include <cstdint>
#include <memory>

#include "flashfs/flashfs.h"

// At most one sector, known by its entry of the file's list, in memory of its own. It is only there
// as long as nothing has changed on flash, and no check has begun, since it was kept.
class kept_sector {
 public:
  // The sector that a list entry stands for, when it is the one that is kept; otherwise null.
  const flashfs_sector* find(const flashfs_sctr_list_ordered* entry) const;
  // Keeps a copy of a good sector instead of what was kept. Without memory nothing is kept.
  void keep(const flashfs_sctr_list_ordered* entry, const flashfs_sector& sector);

 private:
  std::unique_ptr<flashfs_sector> sector_;
  const flashfs_sctr_list_ordered* entry_ = nullptr;
  uint64_t kept_since_ = 0;  // the number of changes of flash when it was read
};
