// The operations on names: slots 5 to 9 of the vector.
#pragma once

#include <cstdint>

#include "flashfs/flashfs.h"

int32_t flashfs_vctr_chmod(ppc_fsid_t fsid, const char* path, ppc_mode_t mode);
int32_t flashfs_vctr_remove(ppc_fsid_t fsid, const char* path);
int32_t flashfs_vctr_rename(ppc_fsid_t fsid, const char* old_path, const char* new_path);
int32_t flashfs_vctr_mkdir(ppc_fsid_t fsid, const char* path, ppc_mode_t mode);
int32_t flashfs_vctr_rmdir(ppc_fsid_t fsid, const char* path);
