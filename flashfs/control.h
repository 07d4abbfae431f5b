// The control codes of flashfs/control_codes.h: slots 16 and 17 of the vector.
#pragma once

#include <cstdint>

#include "flashfs/flashfs.h"

int32_t flashfs_vctr_ioctl(ppc_fsid_t fsid, const char* path, uint32_t command, void* argument);
int32_t flashfs_vctr_fioctl(int32_t fd, uint32_t command, void* argument);
