// Shorthands over the operations.
#include "ifs/helpers.h"

#include <algorithm>
#include <cstddef>

#include "ifs/operations.h"
#include "ifs/tables.h"
#include "ifs/types.h"

namespace {

// The fields that the switch itself reads stand where every file system puts them.
static_assert(offsetof(ppc_stat, size) == 6 * sizeof(uint32_t));
static_assert(offsetof(ppc_statfs, block_size) == 1 * sizeof(uint32_t));
static_assert(offsetof(ppc_statfs, free_blocks) == 3 * sizeof(uint32_t));

// The position behind `count` further bytes, never behind `length`, whatever a file system claims
// to have transferred.
uint32_t advance(uint32_t done, int32_t count, uint32_t length) {
  return done + std::min(static_cast<uint32_t>(count), length - done);
}

// The free bytes that a file system reports, cut to 32 bits.
int32_t free_bytes_of(const ppc_statfs& status) {
  return static_cast<int32_t>(status.block_size * status.free_blocks);
}

int32_t set_word(int32_t fd, uint32_t command, uint32_t value) {
  return ifs_fioctl(fd, command, &value);
}

}  // namespace

int32_t ifs_read_until(int32_t fd, void* buffer, uint32_t length) {
  auto* to = static_cast<unsigned char*>(buffer);
  uint32_t done = 0;
  while (done < length) {
    const int32_t count = ifs_read(fd, to + done, length - done);
    if (count < 0) {
      return -1;
    }
    if (count == 0) {
      break;
    }
    done = advance(done, count, length);
  }
  return static_cast<int32_t>(done);
}

// A write that takes nothing would be tried for ever, so it is a failure, unlike the end of a file.
int32_t ifs_write_until(int32_t fd, const void* buffer, uint32_t length) {
  const auto* from = static_cast<const unsigned char*>(buffer);
  uint32_t done = 0;
  while (done < length) {
    const int32_t count = ifs_write(fd, from + done, length - done);
    if (count < 1) {
      return -1;
    }
    done = advance(done, count, length);
  }
  return static_cast<int32_t>(done);
}

int32_t ifs_fd_set_size(int32_t fd, uint32_t size_bytes) {
  return set_word(fd, ifs_fioctl_set_size, size_bytes);
}

int32_t ifs_fd_set_type(int32_t fd, uint32_t type) {
  return set_word(fd, ifs_fioctl_set_type, type);
}

int32_t ifs_fd_get_type(int32_t fd) {
  uint32_t type = 0;
  const int32_t result = ifs_fioctl(fd, ifs_fioctl_get_type, &type);
  return result < 0 ? result : static_cast<int32_t>(type);
}

int32_t ifs_fd_set_verbose(int32_t fd, uint32_t on) {
  return set_word(fd, ifs_fioctl_set_verbose, on);
}

int32_t ifs_fd_get_size(int32_t fd) {
  if (ifs_fd_find_entry(fd) == nullptr) {
    return -1;
  }
  ppc_stat status{};
  const int32_t result = ifs_fstat(fd, &status);
  return result < 0 ? result : static_cast<int32_t>(status.size);
}

int32_t ifs_file_size(const char* path) {
  ppc_stat status{};
  if (ifs_stat(path, &status) < 0) {
    return 0;
  }
  const auto size = static_cast<int32_t>(status.size);
  return size > 0 ? size : 0;
}

int32_t ifs_get_free_bytes(const char* path) {
  ppc_statfs status{};
  const int32_t result = ifs_statfs(path, &status);
  return result < 0 ? result : free_bytes_of(status);
}

int32_t ifs_fs_free_space(const char* path) {
  ppc_statfs status{};
  return ifs_statfs(path, &status) < 0 ? 0 : free_bytes_of(status);
}
