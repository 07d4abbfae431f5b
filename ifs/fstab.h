// The table of registered file systems: prefixes and their look-up, registration, destruction that
// waits for the last user, and the accessors by fsid.
#pragma once

#include <cstdint>

#include "ifs/types.h"

constexpr int ifs_max_filesystems = 16;
constexpr uint32_t ifs_prefix_size = 32;  // bytes of a stored prefix, terminator included

// Flags of a file system.
constexpr uint32_t ifs_flag_access_mask = 0x3;  // 1 read-only, 2 write-only, 3 read-write
constexpr uint32_t ifs_flag_keep_prefix = 0x10;
constexpr uint32_t ifs_flag_hidden = 0x20000000;
constexpr uint32_t ifs_flag_destroy = 0x40000000;

struct ifs_prefix {
  ifs_prefix* next;
  uint32_t length;  // of the name, without its terminator
  char name[ifs_prefix_size];
};

// A registered file system.
struct ifs_filesystem {
  ifs_prefix* prefixes;
  const ifs_operations* operations;
  uint32_t flags;
  uint16_t type;
  uint16_t feature;
  int16_t open_count;  // open files plus operations in progress
  void* context;       // the file system's own state
};

// Registers a file system under a prefix of at most 31 characters. Returns its fsid, or -1 when the
// prefix is taken or too long, the table is full or there is no memory.
[[nodiscard]] int32_t ifs_create(const char* prefix, const ifs_operations* operations,
                                 uint16_t type, uint32_t flags, uint16_t feature, void* context);

// Registers a further prefix, cut to 31 characters. Returns 0 or -1.
[[nodiscard]] int32_t ifs_add_prefix(ppc_fsid_t fsid, const char* prefix);

// Marks a file system for destruction; it goes with its last open file. Without `force` an open one
// is refused with -1.
int32_t ifs_destroy(ppc_fsid_t fsid, int force);

// Finds the file system whose prefix is the whole name (`exact`) or begins it, the longest one
// winning. `need_colon`: a ':' must follow the prefix. Stores the matching record in `*record`
// unless that is null. Returns the fsid or -1.
[[nodiscard]] int32_t ifs_lookup_prefix_internal(const char* name, const ifs_prefix** record,
                                                 int exact, int need_colon);
[[nodiscard]] int32_t ifs_lookup_prefix(const char* name);

// As ifs_lookup_prefix; moves `*name` behind the prefix and its colon.
[[nodiscard]] int32_t ifs_lookup_prefix_and_strip(const char** name);

void ifs_open_file_increment(ppc_fsid_t fsid);
// May complete a pending destruction.
void ifs_open_file_decrement(ppc_fsid_t fsid);

// 1, or 0 with errno EBADF.
[[nodiscard]] int ifs_fsid_is_valid(ppc_fsid_t fsid);
// The entry, or null.
[[nodiscard]] ifs_filesystem* ifs_fsid_get_entry(ppc_fsid_t fsid);
// These give the entry's field, or 0.
void* ifs_fsid_get_fs_context(ppc_fsid_t fsid);
uint16_t ifs_fsid_get_type(ppc_fsid_t fsid);
uint32_t ifs_fsid_get_flags(ppc_fsid_t fsid);
uint16_t ifs_fsid_get_feature(ppc_fsid_t fsid);
// Replaces the flags word of a valid file system.
void ifs_fsid_set_flags(ppc_fsid_t fsid, uint32_t flags);
// The prefix added last, or null.
const char* ifs_fsid_get_prefix(ppc_fsid_t fsid);
