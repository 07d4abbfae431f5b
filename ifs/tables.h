// The switch's two tables and what its sources share, for the sources of this folder and nobody
// else: what lies outside goes through the functions of ifs/ifs.h, which check their indices.
#pragma once

#include <cstddef>

#include "ifs/ifs.h"

// Index: fsid. Null: free.
extern ifs_filesystem* ifs_fstab[ifs_max_filesystems];

// Index: descriptor. Null: free.
extern ifs_descriptor* ifs_fdtab[ifs_max_descriptors];

// The entry in a slot of ifs_fdtab, failed or not; null with errno EBADF when the slot is empty or
// there is no such slot.
ifs_descriptor* ifs_fd_find_entry(int32_t fd);

// The fields that the switch itself reads stand where every file system puts them.
static_assert(offsetof(ppc_stat, size) == 6 * sizeof(uint32_t));
static_assert(offsetof(ppc_statfs, block_size) == 1 * sizeof(uint32_t));
static_assert(offsetof(ppc_statfs, free_blocks) == 3 * sizeof(uint32_t));

// The free bytes that a file system reports, cut to 32 bits.
inline int32_t ifs_statfs_free_bytes(const ppc_statfs& status) {
  return static_cast<int32_t>(status.block_size * status.free_blocks);
}
