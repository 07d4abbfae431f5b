// What the switch and its file systems hand to one another: ids, modes, the records that the status
// operations fill, and the vector of a file system's operations.
#pragma once

#include <cstdint>

#include "ifs/runtime.h"

using ppc_fsid_t = int16_t;   // index of a registered file system
using ppc_mode_t = uint16_t;  // file type in bits 15..12, permissions in bits 8..0

// File types in ppc_mode_t.
constexpr ppc_mode_t ppc_mode_type_mask = 0xF000;
constexpr ppc_mode_t ppc_mode_directory = 0x4000;
constexpr ppc_mode_t ppc_mode_regular = 0x8000;
constexpr ppc_mode_t ppc_mode_permissions = 0x01FF;

// What stat, fstat and istat fill.
struct ppc_stat {
  ppc_fsid_t fsid;
  uint32_t link_count;
  uint32_t owner;
  uint32_t group;
  uint32_t fileid;
  ppc_mode_t mode;
  uint32_t size;  // bytes
  sys_timestamp access_date;
  sys_timestamp modification_date;
  sys_timestamp change_date;
};
static_assert(sizeof(ppc_stat) == 40);

// What statfs fills.
struct ppc_statfs {
  uint32_t version;
  uint32_t block_size;  // bytes
  uint32_t total_blocks;
  uint32_t free_blocks;
  uint32_t total_fileids;
  uint32_t free_fileids;
  uint32_t files;
  uint32_t lost_fileids;
  ppc_fsid_t fsid;
};
static_assert(sizeof(ppc_statfs) == 36);

// One directory entry as getdents gives it.
struct ppc_dirent {
  char name[64];
  uint32_t fileid;
  uint32_t next_position;
  uint16_t record_length;
};
static_assert(sizeof(ppc_dirent) == 76);

// A file system's operations; an empty slot is an operation that it does not support. Paths come
// with their prefix stripped.
struct ifs_operations {
  int32_t (*read)(int32_t fd, void* buffer, uint32_t length);
  int32_t (*write)(int32_t fd, const void* buffer, uint32_t length);
  int32_t (*open)(ppc_fsid_t fsid, const char* path, uint32_t oflags, ppc_mode_t mode);
  int32_t (*close)(int32_t fd);
  int32_t (*lseek)(int32_t fd, int32_t offset, int32_t whence);
  int32_t (*chmod)(ppc_fsid_t fsid, const char* path, ppc_mode_t mode);
  int32_t (*remove)(ppc_fsid_t fsid, const char* path);
  int32_t (*rename)(ppc_fsid_t fsid, const char* old_path, const char* new_path);
  int32_t (*mkdir)(ppc_fsid_t fsid, const char* path, ppc_mode_t mode);
  int32_t (*rmdir)(ppc_fsid_t fsid, const char* path);
  int32_t (*getdents)(int32_t fd, void* buffer, uint32_t length);
  int32_t (*stat)(ppc_fsid_t fsid, const char* path, ppc_stat* status);
  int32_t (*fstat)(int32_t fd, ppc_stat* status);
  int32_t (*istat)(ppc_fsid_t fsid, const char* path, uint32_t fileid, ppc_stat* status);
  int32_t (*statfs)(ppc_fsid_t fsid, const char* path, ppc_statfs* status);
  int32_t (*destroy)(ppc_fsid_t fsid, ppc_fsid_t same_fsid);
  int32_t (*ioctl)(ppc_fsid_t fsid, const char* path, uint32_t command, void* argument);
  int32_t (*fioctl)(int32_t fd, uint32_t command, void* argument);
  int32_t (*open_by_fileid)(ppc_fsid_t fsid, uint32_t ignored, uint32_t fileid, uint32_t oflags,
                            ppc_mode_t mode);
};
static_assert(sizeof(ifs_operations) == 19 * sizeof(void*));
