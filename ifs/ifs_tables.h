// The switch's two tables, shared by the sources of this folder and by nobody else: what lies
// outside goes through the functions of ifs/ifs.h, which check their indices.
#pragma once

#include "ifs/ifs.h"

// Index: fsid. Null: free.
extern ifs_filesystem* ifs_fstab[ifs_max_filesystems];

// Index: descriptor. Null: free.
extern ifs_descriptor* ifs_fdtab[ifs_max_descriptors];

// The entry in a slot of ifs_fdtab, failed or not; null with errno EBADF when the slot is empty or
// there is no such slot.
ifs_descriptor* ifs_fd_find_entry(int32_t fd);
