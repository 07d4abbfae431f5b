// Records that are whole but for one bit. The checksum tells which: no two single bits of a record
// change it alike. A record of which more is wrong may look so by chance: one sector in four, one
// slot in 128. So it counts only where something else speaks for it.
#pragma once

#include <optional>

#include "flashfs/format.h"

namespace image::rescuing {

// The slot with the one bit changed that makes it good, or with the type of a file where that alone
// is wrong.
std::optional<flashfs_dir_slot> mended_slot(const flashfs_dir_slot& slot);

// The sector with an owner and with the one bit changed that makes it good then; the owner and the
// number are not changed.
std::optional<flashfs_sector> mended_sector(const flashfs_sector& sector, uint16_t owner);

}  // namespace image::rescuing
