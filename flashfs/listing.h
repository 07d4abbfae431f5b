// What a listing asks for: the entries of a directory and the status operations, slots 10 to 14 of
// the vector.
#pragma once

#include <cstdint>

#include "flashfs/flashfs.h"

int32_t flashfs_vctr_getdents(int32_t fd, void* buffer, uint32_t length);
int32_t flashfs_vctr_stat(ppc_fsid_t fsid, const char* path, ppc_stat* status);
int32_t flashfs_vctr_fstat(int32_t fd, ppc_stat* status);
int32_t flashfs_vctr_istat(ppc_fsid_t fsid, const char* path, uint32_t fileid, ppc_stat* status);
int32_t flashfs_vctr_statfs(ppc_fsid_t fsid, const char* path, ppc_statfs* status);
