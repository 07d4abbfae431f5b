// The table of open files: creation and destruction of entries (by the file systems, in their open
// and close) and their validity.
#pragma once

#include <cstdint>

#include "ifs/types.h"

constexpr int ifs_max_descriptors = 128;

// An open file.
struct ifs_descriptor {
  int32_t fd;
  int32_t native_fd;
  ppc_fsid_t fsid;
  int32_t filepos;
  int32_t size;
  int32_t data;
  int16_t flags;  // negative: the descriptor has failed
  int16_t oflags;
  void* fd_context;  // the file system's per-file state
};

// Empties the table of file systems and the table of descriptors.
void ifs_init();

// Takes the lowest free descriptor. Returns it, or -1 with ENFILE or ENOMEM.
[[nodiscard]] int32_t ifs_fd_create(ppc_fsid_t fsid, uint32_t oflags, void* fd_context);
// Frees a valid descriptor and returns 1; else 0.
int ifs_fd_destroy(int32_t fd);
// 1, or 0 with EIO (failed descriptor) or EBADF (none).
[[nodiscard]] int ifs_fd_is_valid(int32_t fd);
// The entry of a valid descriptor, else null.
[[nodiscard]] ifs_descriptor* ifs_fd_get_entry(int32_t fd);
// The file system of a descriptor, or -1 when there is none.
[[nodiscard]] ppc_fsid_t ifs_fd_get_fsid(int32_t fd);

// Prints a descriptor's fields.
void zantrolume_display_fdent(const ifs_descriptor* entry);
