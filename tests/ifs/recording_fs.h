// A file system that does nothing but note how each slot of its operations vector is called, and
// answers what the test has asked for. Its open and close make and destroy real descriptors.
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <deque>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "ifs/ifs.h"

namespace recording_fs {

struct recorder {
  std::vector<std::string> calls;  // name and arguments, separated by blanks
  std::deque<int32_t> results;     // of the next calls; 0 when empty
  int error = 0;                   // errno of a negative result
  std::function<void()> during;    // runs inside each call
  ppc_stat status{};               // what stat, fstat and istat fill
  ppc_statfs filesystem_status{};  // what statfs fills
  uint32_t control_word = 0;       // what fioctl was given
  uint32_t control_answer = 0;     // what fioctl leaves
  int32_t last_context = 0;        // fd_context of the descriptors that open makes
};

inline recorder state;

template <typename... argument_types>
int32_t answer(const argument_types&... arguments) {
  std::ostringstream text;
  const char* separator = "";
  ((text << separator << arguments, separator = " "), ...);
  state.calls.push_back(text.str());
  if (state.during) {
    state.during();
  }
  int32_t result = 0;
  if (!state.results.empty()) {
    result = state.results.front();
    state.results.pop_front();
  }
  if (result < 0) {
    errno = state.error;
  }
  return result;
}

inline int32_t read(int32_t fd, void* buffer, uint32_t length) {
  return answer("read", fd, buffer, length);
}
inline int32_t write(int32_t fd, const void* buffer, uint32_t length) {
  return answer("write", fd, buffer, length);
}
inline int32_t open(ppc_fsid_t fsid, const char* path, uint32_t oflags, ppc_mode_t mode) {
  const int32_t result = answer("open", fsid, path, oflags, mode);
  return result < 0 ? result : ifs_fd_create(fsid, oflags, &state.last_context);
}
inline int32_t close(int32_t fd) {
  const int32_t result = answer("close", fd);
  if (result == 0) {
    ifs_fd_destroy(fd);
  }
  return result;
}
inline int32_t lseek(int32_t fd, int32_t offset, int32_t whence) {
  return answer("lseek", fd, offset, whence);
}
inline int32_t chmod(ppc_fsid_t fsid, const char* path, ppc_mode_t mode) {
  return answer("chmod", fsid, path, mode);
}
inline int32_t remove(ppc_fsid_t fsid, const char* path) {
  return answer("remove", fsid, path);
}
inline int32_t rename(ppc_fsid_t fsid, const char* old_path, const char* new_path) {
  return answer("rename", fsid, old_path, new_path);
}
inline int32_t mkdir(ppc_fsid_t fsid, const char* path, ppc_mode_t mode) {
  return answer("mkdir", fsid, path, mode);
}
inline int32_t rmdir(ppc_fsid_t fsid, const char* path) {
  return answer("rmdir", fsid, path);
}
inline int32_t getdents(int32_t fd, void* buffer, uint32_t length) {
  return answer("getdents", fd, buffer, length);
}
inline int32_t stat(ppc_fsid_t fsid, const char* path, ppc_stat* status) {
  *status = state.status;
  return answer("stat", fsid, path);
}
inline int32_t fstat(int32_t fd, ppc_stat* status) {
  *status = state.status;
  return answer("fstat", fd);
}
inline int32_t istat(ppc_fsid_t fsid, const char* path, uint32_t fileid, ppc_stat* status) {
  *status = state.status;
  return answer("istat", fsid, path, fileid);
}
inline int32_t statfs(ppc_fsid_t fsid, const char* path, ppc_statfs* status) {
  *status = state.filesystem_status;
  return answer("statfs", fsid, path);
}
inline int32_t destroy(ppc_fsid_t fsid, ppc_fsid_t same_fsid) {
  return answer("destroy", fsid, same_fsid);
}
inline int32_t ioctl(ppc_fsid_t fsid, const char* path, uint32_t command, void* argument) {
  return answer("ioctl", fsid, path, command, argument);
}
inline int32_t fioctl(int32_t fd, uint32_t command, void* argument) {
  if (argument != nullptr) {
    auto* word = static_cast<uint32_t*>(argument);
    state.control_word = *word;
    *word = state.control_answer;
  }
  return answer("fioctl", fd, command);
}
inline int32_t open_by_fileid(ppc_fsid_t fsid, uint32_t ignored, uint32_t fileid, uint32_t oflags,
                              ppc_mode_t mode) {
  return answer("open_by_fileid", fsid, ignored, fileid, oflags, mode);
}

// Every slot but destroy.
constexpr ifs_operations full_operations = {
    read,     write, open,  close, lseek,  chmod,   remove, rename, mkdir,         rmdir,
    getdents, stat,  fstat, istat, statfs, nullptr, ioctl,  fioctl, open_by_fileid};

// Nothing but open, which the switch takes for granted.
constexpr ifs_operations open_only_operations = [] {
  ifs_operations operations{};
  operations.open = open;
  return operations;
}();

constexpr ifs_operations operations_with_destroy = [] {
  ifs_operations operations = full_operations;
  operations.destroy = destroy;
  return operations;
}();

using calls = std::vector<std::string>;

// Registers a file system whose other fields do not matter.
inline ppc_fsid_t create(const char* prefix, const ifs_operations& operations = full_operations,
                         uint32_t flags = 0) {
  return static_cast<ppc_fsid_t>(ifs_create(prefix, &operations, 0, flags, 0, nullptr));
}

inline int open_count(ppc_fsid_t fsid) {
  return ifs_fsid_get_entry(fsid)->open_count;
}

// None of these is open while descriptor 0 is the only one.
constexpr int32_t no_such_descriptors[] = {1, 127, 128, 129, -1, INT32_MAX, INT32_MIN};

// How the recorder writes a pointer.
inline std::string pointer(const void* address) {
  std::ostringstream text;
  text << address;
  return text.str();
}

// An empty switch and a fresh recorder, before and after.
class switch_fixture : public testing::Test {
 protected:
  switch_fixture() {
    reset();
  }
  ~switch_fixture() override {
    reset();
  }
  static void reset() {
    ifs_init();
    state = recorder{};
    errno = 0;
  }
};

}  // namespace recording_fs
