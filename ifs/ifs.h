// The file-system switch: up to 16 file systems registered under name prefixes, up to 128 open
// descriptors, and the dispatch of every file operation through the owning file system's
// operations vector. Operations return 0, a count or a descriptor, or -1 with errno.
#pragma once

#include <cstdint>

#include "ifs/open_flags.h"
#include "ifs/runtime.h"

using ppc_fsid_t = int16_t;   // index of a registered file system
using ppc_mode_t = uint16_t;  // file type in bits 15..12, permissions in bits 8..0

constexpr int ifs_max_filesystems = 16;
constexpr int ifs_max_descriptors = 128;
constexpr uint32_t ifs_prefix_size = 32;  // bytes of a stored prefix, terminator included

constexpr int32_t ifs_seek_set = 0;
constexpr int32_t ifs_seek_current = 1;
constexpr int32_t ifs_seek_end = 2;

// File types in ppc_mode_t.
constexpr ppc_mode_t ppc_mode_type_mask = 0xF000;
constexpr ppc_mode_t ppc_mode_directory = 0x4000;
constexpr ppc_mode_t ppc_mode_regular = 0x8000;
constexpr ppc_mode_t ppc_mode_permissions = 0x01FF;

// Flags of a file system.
constexpr uint32_t ifs_flag_access_mask = 0x3;  // 1 read-only, 2 write-only, 3 read-write
constexpr uint32_t ifs_flag_keep_prefix = 0x10;
constexpr uint32_t ifs_flag_hidden = 0x20000000;
constexpr uint32_t ifs_flag_destroy = 0x40000000;

// Descriptor controls (ifs_fioctl) whose meaning the file system gives.
constexpr uint32_t ifs_fioctl_set_size = 1;
constexpr uint32_t ifs_fioctl_set_type = 2;
constexpr uint32_t ifs_fioctl_get_type = 3;
constexpr uint32_t ifs_fioctl_set_verbose = 5;

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

// --- file systems and prefixes (fstab.cpp) ---

// Empties the table of file systems and the table of descriptors.
void ifs_init();

// Registers a file system under a prefix of at most 31 characters. Returns its fsid, or -1 when the
// prefix is taken or too long, the table is full or there is no memory.
int32_t ifs_create(const char* prefix, const ifs_operations* operations, uint16_t type,
                   uint32_t flags, uint16_t feature, void* context);

// Registers a further prefix, cut to 31 characters. Returns 0 or -1.
int32_t ifs_add_prefix(ppc_fsid_t fsid, const char* prefix);

// Marks a file system for destruction; it goes with its last open file. Without `force` an open one
// is refused with -1.
int32_t ifs_destroy(ppc_fsid_t fsid, int force);

// Finds the file system whose prefix is the whole name (`exact`) or begins it, the longest one
// winning. `need_colon`: a ':' must follow the prefix. Stores the matching record in `*record`
// unless that is null. Returns the fsid or -1.
int32_t ifs_lookup_prefix_internal(const char* name, const ifs_prefix** record, int exact,
                                   int need_colon);
int32_t ifs_lookup_prefix(const char* name);

// As ifs_lookup_prefix; moves `*name` behind the prefix and its colon.
int32_t ifs_lookup_prefix_and_strip(const char** name);

void ifs_open_file_increment(ppc_fsid_t fsid);
// May complete a pending destruction.
void ifs_open_file_decrement(ppc_fsid_t fsid);

// 1, or 0 with errno EBADF.
int ifs_fsid_is_valid(ppc_fsid_t fsid);
// The entry, or null.
ifs_filesystem* ifs_fsid_get_entry(ppc_fsid_t fsid);
// These give the entry's field, or 0.
void* ifs_fsid_get_fs_context(ppc_fsid_t fsid);
uint16_t ifs_fsid_get_type(ppc_fsid_t fsid);
uint32_t ifs_fsid_get_flags(ppc_fsid_t fsid);
uint16_t ifs_fsid_get_feature(ppc_fsid_t fsid);
// Replaces the flags word of a valid file system.
void ifs_fsid_set_flags(ppc_fsid_t fsid, uint32_t flags);
// The prefix added last, or null.
const char* ifs_fsid_get_prefix(ppc_fsid_t fsid);

// Free bytes of the file system that holds the path, or statfs's negative result.
int32_t ifs_get_free_bytes(const char* path);

// --- descriptors (descriptors.cpp) ---

// Takes the lowest free descriptor. Returns it, or -1 with ENFILE or ENOMEM.
int32_t ifs_fd_create(ppc_fsid_t fsid, uint32_t oflags, void* fd_context);
// Frees a valid descriptor and returns 1; else 0.
int ifs_fd_destroy(int32_t fd);
// 1, or 0 with EIO (failed descriptor) or EBADF (none).
int ifs_fd_is_valid(int32_t fd);
// The entry of a valid descriptor, else null.
ifs_descriptor* ifs_fd_get_entry(int32_t fd);
// The file system of a descriptor, or -1 when there is none.
ppc_fsid_t ifs_fd_get_fsid(int32_t fd);

// Controls over ifs_fioctl: 0 or its negative result; get_type gives the type read back.
int32_t ifs_fd_set_size(int32_t fd, uint32_t size_bytes);
int32_t ifs_fd_set_type(int32_t fd, uint32_t type);
int32_t ifs_fd_get_type(int32_t fd);
int32_t ifs_fd_set_verbose(int32_t fd, uint32_t on);
// The file's size in bytes, or the negative result of fstat.
int32_t ifs_fd_get_size(int32_t fd);

// Prints a descriptor's fields.
void zantrolume_display_fdent(const ifs_descriptor* entry);

// --- operations (operations.cpp) ---

int32_t ifs_open(const char* path, uint32_t oflags, uint32_t mode);
int32_t ifs_close(int32_t fd);
int32_t ifs_read(int32_t fd, void* buffer, uint32_t length);
int32_t ifs_write(int32_t fd, const void* buffer, uint32_t length);
int32_t ifs_lseek(int32_t fd, int32_t offset, int32_t whence);
int32_t ifs_getdents(int32_t fd, void* buffer, uint32_t length);
int32_t ifs_chmod(const char* path, uint32_t mode);
int32_t ifs_rename(const char* old_path, const char* new_path);
int32_t ifs_remove(const char* path);
int32_t ifs_mkdir(const char* path, uint32_t mode);
int32_t ifs_rmdir(const char* path);
int32_t ifs_stat(const char* path, ppc_stat* status);
int32_t ifs_fstat(int32_t fd, ppc_stat* status);
int32_t ifs_istat(const char* path, uint32_t fileid, ppc_stat* status);
int32_t ifs_statfs(const char* path, ppc_statfs* status);
int32_t ifs_ioctl(const char* path, uint32_t command, void* argument);
int32_t ifs_fioctl(int32_t fd, uint32_t command, void* argument);

// Reads until `length` bytes have come or the file ends. Returns the bytes read, or -1.
int32_t ifs_read_until(int32_t fd, void* buffer, uint32_t length);
// Writes all `length` bytes. Returns them, or -1 as soon as the file system takes none.
int32_t ifs_write_until(int32_t fd, const void* buffer, uint32_t length);
// The size of a file in bytes; 0 when it has none.
int32_t ifs_file_size(const char* path);
// Free bytes of the file system that holds the path; 0 when unknown.
int32_t ifs_fs_free_space(const char* path);
