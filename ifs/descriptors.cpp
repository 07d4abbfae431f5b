// The table of open files: creation and destruction of entries (by the file systems, in their open
// and close) and their validity.
#include "ifs/descriptors.h"

#include <cerrno>
#include <new>

#include "ifs/console.h"
#include "ifs/tables.h"

namespace {

// Index: descriptor. Null: free.
ifs_descriptor* ifs_fdtab[ifs_max_descriptors];

uint32_t low_address_bits(const void* pointer) {
  return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(pointer));
}

}  // namespace

void ifs_init() {
  ifs_clear_filesystems();
  for (ifs_descriptor*& entry : ifs_fdtab) {
    delete entry;
    entry = nullptr;
  }
}

ifs_descriptor* ifs_fd_find_entry(int32_t fd) {
  const auto index = static_cast<uint32_t>(fd);
  if (index >= ifs_max_descriptors || ifs_fdtab[index] == nullptr) {
    errno = EBADF;
    return nullptr;
  }
  return ifs_fdtab[index];
}

int32_t ifs_fd_create(ppc_fsid_t fsid, uint32_t oflags, void* fd_context) {
  int32_t fd = 0;
  while (fd < ifs_max_descriptors && ifs_fdtab[fd] != nullptr) {
    ++fd;
  }
  if (fd == ifs_max_descriptors) {
    errno = ENFILE;
    return -1;
  }
  auto* entry = new (std::nothrow) ifs_descriptor{};
  if (entry == nullptr) {
    errno = ENOMEM;
    return -1;
  }
  entry->fd = fd;
  entry->fsid = fsid;
  entry->oflags = static_cast<int16_t>(oflags);
  entry->fd_context = fd_context;
  ifs_fdtab[fd] = entry;
  return fd;
}

int ifs_fd_destroy(int32_t fd) {
  if (ifs_fd_is_valid(fd) == 0) {
    return 0;
  }
  delete ifs_fdtab[fd];
  ifs_fdtab[fd] = nullptr;
  return 1;
}

int ifs_fd_is_valid(int32_t fd) {
  const ifs_descriptor* entry = ifs_fd_find_entry(fd);
  if (entry == nullptr) {
    return 0;
  }
  if (entry->flags < 0) {
    errno = EIO;
    return 0;
  }
  return 1;
}

ifs_descriptor* ifs_fd_get_entry(int32_t fd) {
  return ifs_fd_is_valid(fd) != 0 ? ifs_fdtab[fd] : nullptr;
}

ppc_fsid_t ifs_fd_get_fsid(int32_t fd) {
  const ifs_descriptor* entry = ifs_fd_find_entry(fd);
  return entry != nullptr ? entry->fsid : ppc_fsid_t{-1};
}

void zantrolume_display_fdent(const ifs_descriptor* entry) {
  console_print("fdent at 0x%x\n", low_address_bits(entry));
  console_print("fd         = 0x%x\n", static_cast<uint32_t>(entry->fd));
  console_print("native_fd  = 0x%x\n", static_cast<uint32_t>(entry->native_fd));
  console_print("fsid       = 0x%x\n", static_cast<uint32_t>(entry->fsid));
  console_print("filepos    = 0x%x\n", static_cast<uint32_t>(entry->filepos));
  console_print("size       = 0x%x\n", static_cast<uint32_t>(entry->size));
  console_print("data       = 0x%x\n", static_cast<uint32_t>(entry->data));
  console_print("flags      = 0x%x\n", static_cast<uint32_t>(entry->flags));
  console_print("oflags     = 0x%x\n", static_cast<uint32_t>(entry->oflags));
  console_print("fd_context = 0x%x\n", low_address_bits(entry->fd_context));
}
