// A mounted file system on small blocks and short words for the operations on it, for the tests of
// the operations vector. All go through the switch; what they print is caught.
#pragma once

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "flashfs/file.h"
#include "flashfs/operations.h"
#include "tests/flashfs/flashfs_recipe.h"
#include "tests/support/output_capture.h"

namespace test_support {

inline const std::string down_line =
    "flashfs[0]: filesystem marked down.  Use \"fsck\" to recover.\n";

constexpr uint32_t open_rw = ifs_open_read | ifs_open_write;
constexpr uint32_t open_new = open_rw | ifs_open_create;

inline std::string on_bootflash(const std::string& name) {
  return "bootflash:" + name;
}

// The errno of an operation that gave -1; 0 for one that did not.
inline int error_of(int32_t result) {
  const int error = errno;
  errno = 0;
  if (result < -1) {
    return result;
  }
  return result == -1 ? error : 0;
}

// Text that is different at every place.
inline std::string pattern(size_t length, uint32_t seed = 0) {
  std::string text(length, '\0');
  for (size_t i = 0; i < length; i++) {
    text[i] = static_cast<char>('A' + (i + seed + (i >> 6) * 7) % 26);
  }
  return text;
}

class operations_fixture : public recipe_fixture {
 protected:
  // A new file system on erased blocks with so many sectors each.
  void make(const std::vector<int>& sectors = {8, 8, 8, 8}) {
    make_blocks(sectors);
    mount();
  }

  int32_t open(const std::string& name, uint32_t oflags = ifs_open_read, uint32_t mode = 0) {
    int32_t fd = -1;
    said([&] { fd = ifs_open(on_bootflash(name).c_str(), oflags, mode); });
    return fd;
  }
  int32_t read(int32_t fd, void* buffer, uint32_t length) {
    int32_t result = -1;
    said([&] { result = ifs_read(fd, buffer, length); });
    return result;
  }
  // What a read gives, as text; "<errno n>" when it fails.
  std::string read_text(int32_t fd, uint32_t length) {
    std::string text(length, '#');
    const int32_t result = read(fd, text.data(), length);
    return result < 0 ? "<errno " + std::to_string(errno) + ">"
                      : text.substr(0, static_cast<size_t>(result));
  }
  int32_t write(int32_t fd, const std::string& text) {
    int32_t result = -1;
    said([&] { result = ifs_write(fd, text.data(), static_cast<uint32_t>(text.size())); });
    return result;
  }
  int32_t close(int32_t fd) {
    int32_t result = -1;
    said([&] { result = ifs_close(fd); });
    return result;
  }
  int32_t seek(int32_t fd, int32_t offset, int32_t whence = ifs_seek_set) {
    int32_t result = -1;
    said([&] { result = ifs_lseek(fd, offset, whence); });
    return result;
  }
  int32_t chmod(const std::string& name, uint32_t mode) {
    int32_t result = -1;
    said([&] { result = ifs_chmod(on_bootflash(name).c_str(), mode); });
    return result;
  }
  int32_t remove(const std::string& name) {
    int32_t result = -1;
    said([&] { result = ifs_remove(on_bootflash(name).c_str()); });
    return result;
  }
  int32_t rename(const std::string& old_name, const std::string& new_name) {
    int32_t result = -1;
    said([&] {
      result = ifs_rename(on_bootflash(old_name).c_str(), on_bootflash(new_name).c_str());
    });
    return result;
  }
  int32_t mkdir(const std::string& name, uint32_t mode = 0) {
    int32_t result = -1;
    said([&] { result = ifs_mkdir(on_bootflash(name).c_str(), mode); });
    return result;
  }
  int32_t rmdir(const std::string& name) {
    int32_t result = -1;
    said([&] { result = ifs_rmdir(on_bootflash(name).c_str()); });
    return result;
  }
  int32_t getdents(int32_t fd, void* buffer, uint32_t length) {
    int32_t result = -1;
    said([&] { result = ifs_getdents(fd, buffer, length); });
    return result;
  }
  int32_t stat(const std::string& name, ppc_stat* status) {
    int32_t result = -1;
    said([&] { result = ifs_stat(on_bootflash(name).c_str(), status); });
    return result;
  }
  int32_t istat(const std::string& name, uint32_t fileid, ppc_stat* status) {
    int32_t result = -1;
    said([&] { result = ifs_istat(on_bootflash(name).c_str(), fileid, status); });
    return result;
  }
  int32_t fstat(int32_t fd, ppc_stat* status) {
    int32_t result = -1;
    said([&] { result = ifs_fstat(fd, status); });
    return result;
  }
  int32_t statfs(ppc_statfs* status) {
    int32_t result = -1;
    said([&] { result = ifs_statfs("bootflash:", status); });
    return result;
  }
  int32_t ioctl(const std::string& name, uint32_t command, void* argument) {
    int32_t result = -1;
    said([&] { result = ifs_ioctl(on_bootflash(name).c_str(), command, argument); });
    return result;
  }
  int32_t fioctl(int32_t fd, uint32_t command, void* argument) {
    int32_t result = -1;
    said([&] { result = ifs_fioctl(fd, command, argument); });
    return result;
  }
  // Slot 18, counted as the switch counts an open.
  int32_t open_by_fileid(uint32_t fileid, uint32_t oflags = ifs_open_read) {
    int32_t fd = -1;
    ifs_open_file_increment(fs()->fsid);
    said([&] { fd = flashfs_vctr_open_by_fileid(fs()->fsid, 0, fileid, oflags, 0); });
    if (fd < 0) {
      const int error = errno;
      ifs_open_file_decrement(fs()->fsid);
      errno = error;
    }
    return fd;
  }
  // Moves the clock that stands still.
  void set_clock(int64_t seconds) {
    later_.clock_hold(seconds);
    sim::install_chassis(&later_);
  }
  // What the operation before this printed.
  const std::string& output() const {
    return output_;
  }

  // A new file with this text, closed again.
  void put(const std::string& name, const std::string& text) {
    int result = -1;
    said([&] { result = write_file(name, text); });
    ASSERT_EQ(result, 0) << name << ": " << std::strerror(errno);
  }
  std::string get(const std::string& name) {
    std::string text;
    said([&] { text = read_file(name); });
    return text;
  }
  uint32_t size_of(const std::string& name) {
    ppc_stat status{};
    EXPECT_EQ(stat(name, &status), 0) << name << ": " << std::strerror(errno);
    return status.size;
  }
  uint16_t fileid_of(const std::string& name) {
    ppc_stat status{};
    EXPECT_EQ(stat(name, &status), 0) << name << ": " << std::strerror(errno);
    return static_cast<uint16_t>(status.fileid);
  }
  // The names in a directory, in the order of its list.
  std::string names_in(const std::string& directory) {
    std::vector<std::string> names;
    const int32_t fd = open(directory);
    ppc_dirent record;
    while (getdents(fd, &record, sizeof record) > 0) {
      names.push_back(record.name);
    }
    EXPECT_EQ(close(fd), 0);
    return joined(names);
  }
  // Descriptors in use.
  static int open_descriptors() {
    int count = 0;
    for (int32_t fd = 0; fd < ifs_max_descriptors; fd++) {
      count += ifs_fd_is_valid(fd);
    }
    errno = 0;
    return count;
  }
  // Claims held on any file.
  uint32_t claims() {
    uint32_t count = 0;
    for (const auto* each = fs()->file_map; each != nullptr; each = each->next) {
      count += each->readers + each->writer;
    }
    return count;
  }
  int open_count() {
    return ifs_fsid_get_entry(fs()->fsid)->open_count;
  }

  // Runs an operation on a flash prepared anew as often as it makes flash calls, another one
  // failing each time. It must fail with EIO, mark the file system down once and leave no buffer
  // out.
  void expect_that_flash_failures_mark_down(const std::function<void()>& prepare,
                                            const std::function<int32_t()>& operation) {
    uint64_t n = 1;
    for (;; n++) {
      SCOPED_TRACE("flash call " + std::to_string(n));
      prepare();
      if (HasFatalFailure()) {
        return;
      }
      const int descriptors = open_descriptors();
      device().fail(flash_call::any, n, flash_operation_failed);
      std::string printed;
      int32_t result = 0;
      int error = 0;
      printed = output_of([&] {
        result = operation();
        error = errno;
      });
      const bool failed = device().calls_since_fail() >= n;
      device().fail(flash_call::any, 0, flash_ok);
      if (!failed) {
        EXPECT_GE(result, 0);
        break;
      }
      ASSERT_EQ(result, -1);
      EXPECT_EQ(error, EIO);
      EXPECT_EQ(fs()->ready, 0U);
      const size_t at = printed.find(down_line);
      EXPECT_NE(at, std::string::npos) << printed;
      EXPECT_EQ(printed.find(down_line, at + 1), std::string::npos) << printed;
      EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
      EXPECT_EQ(open_descriptors(), descriptors);
    }
    EXPECT_GT(n, 1U);
  }

  template <typename callable>
  void said(callable&& call) {
    int error = 0;
    output_ = output_of([&] {
      call();
      error = errno;
    });
    errno = error;
  }

 private:
  sim::chassis later_;
  std::string output_;
};

}  // namespace test_support
