// The file-system switch: up to 16 file systems registered under name prefixes, up to 128 open
// descriptors, and the dispatch of every file operation through the owning file system's
// operations vector. This is its door, for users and file systems alike.
#pragma once

// IWYU pragma: begin_exports
#include "ifs/console.h"
#include "ifs/crc.h"
#include "ifs/descriptors.h"
#include "ifs/fstab.h"
#include "ifs/helpers.h"
#include "ifs/interrupt.h"
#include "ifs/open_flags.h"
#include "ifs/operations.h"
#include "ifs/runtime.h"
#include "ifs/types.h"
// IWYU pragma: end_exports
