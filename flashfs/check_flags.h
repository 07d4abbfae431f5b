// The flags of a check (flashfs_ioctl_check).
#pragma once

#include <cstdint>

constexpr uint32_t flashfs_check_full = 0;   // every sector is read whole and validated
constexpr uint32_t flashfs_check_quick = 1;  // sectors are believed
// Every block is copied through the spare afterwards, and every erase is tested.
constexpr uint32_t flashfs_check_reclaim_all = 2;
