// The files under one prefix of the switch as C++ objects: open files that close themselves,
// listings, walks, whole files. Paths come without the prefix, from the root, with or without a
// leading slash. Steps return what the switch returns: 0, a count, or -1 with errno. Who registered
// the file system does not matter here; volume.h has one that is owned.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "ifs/ifs.h"

namespace volume {

// An open file or directory, closed at the end of its scope unless it was before.
class file {
 public:
  explicit file(int32_t fd = -1) : fd_(fd) {}
  ~file();
  file(file&& other) noexcept;
  file& operator=(file&& other) noexcept;

  // Whether it is open; false after an open that failed, which has set errno.
  explicit operator bool() const {
    return fd_ >= 0;
  }
  int32_t fd() const {
    return fd_;
  }
  // Up to `length` bytes from the position on. Returns their number, 0 at the end, or -1.
  [[nodiscard]] int32_t read(void* buffer, uint32_t length) const;
  // The next record of an open directory: more than 0; 0 at the end, or -1.
  [[nodiscard]] int32_t read(ppc_dirent* record) const;
  // All bytes, at most 2^31 - 1: 0 or -1.
  [[nodiscard]] int32_t write(std::string_view bytes) const;
  // The new position in bytes, or -1.
  [[nodiscard]] int32_t seek(int32_t offset, int32_t whence = ifs_seek_set) const;
  [[nodiscard]] int32_t truncate(uint32_t length) const;
  [[nodiscard]] int32_t stat(ppc_stat* status) const;
  // Closes it after a step with this result. -1 with the step's errno when that was below 0; else
  // what the closing gives. The descriptor is given up in any case.
  [[nodiscard]] int32_t close(int32_t result = 0);

 private:
  int32_t fd_;
};

// Something that a directory holds.
struct entry {
  std::string path;  // from the directory that was listed or walked on
  ppc_stat status;   // only the file id where there is an error
  int error;         // errno with which the status could not be had; 0: here it is

  bool is_directory() const {
    return error == 0 && (status.mode & ppc_mode_type_mask) == ppc_mode_directory;
  }
  bool is_regular() const {
    return error == 0 && (status.mode & ppc_mode_type_mask) == ppc_mode_regular;
  }
};

// Flags of an open that makes a file anew, and of one that adds to its end.
constexpr uint32_t open_anew = ifs_open_write | ifs_open_create | ifs_open_truncate;
constexpr uint32_t open_at_end = ifs_open_write | ifs_open_create | ifs_open_append;

class files {
 public:
  explicit files(std::string_view prefix) : start_(std::string(prefix) + ":") {}

  // The path as the switch wants it: behind the prefix and its colon.
  std::string full_path(std::string_view path) const;

  // Mounts what is on flash now, with flags of flashfs/check_flags.h. Needs everything closed.
  [[nodiscard]] int32_t check(uint32_t flags) const;
  [[nodiscard]] int32_t format() const;
  // Reads and checks the whole file or directory.
  [[nodiscard]] int32_t verify(std::string_view path) const;

  [[nodiscard]] file open(std::string_view path, uint32_t oflags, uint32_t mode = 0) const;
  [[nodiscard]] int32_t stat(std::string_view path, ppc_stat* status) const;
  [[nodiscard]] int32_t statfs(ppc_statfs* space) const;
  [[nodiscard]] int32_t rename(std::string_view old_path, std::string_view new_path) const;
  [[nodiscard]] int32_t remove(std::string_view path) const;
  [[nodiscard]] int32_t mkdir(std::string_view path, uint32_t mode = 0) const;
  [[nodiscard]] int32_t rmdir(std::string_view path) const;
  [[nodiscard]] int32_t chmod(std::string_view path, uint32_t mode) const;
  [[nodiscard]] int32_t truncate(std::string_view path, uint32_t length) const;
  // Dates what the path names, and nothing else: seconds since 1970, not 0.
  [[nodiscard]] int32_t set_date(std::string_view path, uint32_t date) const;

  // What a directory holds, in the order of its list. On a failure -1, and `*found` has what came
  // before it; an entry without a status is not a failure.
  [[nodiscard]] int32_t list(std::string_view directory, std::vector<entry>* found) const;
  // All that lies below a directory: what a directory holds, then its directories one after the
  // other. None is entered twice, though damaged ones can contain each other. A directory that
  // cannot be listed is passed over; then the result is -1 with the first such errno.
  [[nodiscard]] int32_t walk(std::string_view directory, std::vector<entry>* found) const;

  // All of a file, 0 or -1; `*contents` has what could be read before a failure.
  [[nodiscard]] int32_t read_file(std::string_view path, std::string* contents) const;
  // Opens, goes to the position unless that is 0, writes, closes. 0 or -1.
  [[nodiscard]] int32_t write_file(std::string_view path, std::string_view contents,
                                   uint32_t oflags = open_anew, int32_t position = 0) const;

 private:
  std::string start_;
};

}  // namespace volume
