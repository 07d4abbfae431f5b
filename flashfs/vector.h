// The operations with which the file system is registered.
#pragma once

#include "ifs/ifs.h"

extern const ifs_operations flashfs_operations;
