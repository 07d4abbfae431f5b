// Opening, reading, seeking and closing of files: slots 0, 2, 3, 4 and 18 of the vector.
#pragma once

#include <cstdint>

#include "flashfs/flashfs.h"

int32_t flashfs_vctr_open(ppc_fsid_t fsid, const char* path, uint32_t oflags, ppc_mode_t mode);
int32_t flashfs_vctr_read(int32_t fd, void* buffer, uint32_t length);
int32_t flashfs_vctr_close(int32_t fd);
int32_t flashfs_vctr_lseek(int32_t fd, int32_t offset, int32_t whence);
int32_t flashfs_vctr_open_by_fileid(ppc_fsid_t fsid, uint32_t ignored, uint32_t fileid,
                                    uint32_t oflags, ppc_mode_t mode);
