// The operations that take a descriptor: which slot they call, with what, what they report when
// there is nothing to call, and close.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "ifs/ifs.h"
#include "tests/ifs/recording_fs.h"

namespace {

using recording_fs::calls;
using recording_fs::create;
using recording_fs::no_such_descriptors;
using recording_fs::open_count;
using recording_fs::pointer;
using recording_fs::state;

class descriptor_operations : public recording_fs::switch_fixture {
 protected:
  // Opens a file of the second of two file systems; the recorder starts after that.
  int32_t open_file(const ifs_operations& operations = recording_fs::full_operations) {
    create("other");
    fsid = create("boot", operations);
    const int32_t fd = ifs_open("boot:f", 0, 0);
    state.calls.clear();
    errno = 0;
    return fd;
  }
  static void fail(int32_t fd) {
    ifs_fd_get_entry(fd)->flags = -1;
  }

  ppc_fsid_t fsid = -1;
};

unsigned char buffer[16];
ppc_stat status;
uint32_t control_word;

struct descriptor_operation {
  std::function<int32_t(int32_t fd)> run;
  std::string name;
  std::string further_arguments;  // as the recorder writes them
  int error_of_failed;            // errno on a failed descriptor
};

std::vector<descriptor_operation> common_operations() {
  return {
      {[](int32_t fd) { return ifs_read(fd, buffer, 0xFFFFFFFF); }, "read",
       " " + pointer(buffer) + " 4294967295", EIO},
      {[](int32_t fd) { return ifs_write(fd, buffer, 0xFFFFFFFF); }, "write",
       " " + pointer(buffer) + " 4294967295", EIO},
      {[](int32_t fd) { return ifs_lseek(fd, INT32_MIN, -2); }, "lseek", " -2147483648 -2", EINVAL},
      {[](int32_t fd) { return ifs_getdents(fd, buffer, 0xFFFFFFFF); }, "getdents",
       " " + pointer(buffer) + " 4294967295", EIO},
      {[](int32_t fd) { return ifs_fstat(fd, &status); }, "fstat", "", EIO},
      {[](int32_t fd) { return ifs_fioctl(fd, 0xFFFFFFFF, &control_word); }, "fioctl",
       " 4294967295", EIO},
  };
}

TEST_F(descriptor_operations, call_their_slot_and_return_its_result_and_errno) {
  const int32_t fd = open_file();
  state.error = ENOSPC;
  for (const descriptor_operation& operation : common_operations()) {
    state.calls.clear();
    state.results = {5, -1};
    EXPECT_EQ(operation.run(fd), 5);
    EXPECT_EQ(state.calls, calls{operation.name + " 0" + operation.further_arguments});
    errno = 0;
    EXPECT_EQ(operation.run(fd), -1) << operation.name;
    EXPECT_EQ(errno, ENOSPC) << operation.name;
    EXPECT_EQ(open_count(fsid), 1) << operation.name;
  }
}

TEST_F(descriptor_operations, on_a_descriptor_that_is_not_there_are_ebadf) {
  open_file();
  for (const descriptor_operation& operation : common_operations()) {
    for (const int32_t fd : no_such_descriptors) {
      errno = 0;
      EXPECT_EQ(operation.run(fd), -1) << operation.name;
      EXPECT_EQ(errno, EBADF) << operation.name << ' ' << fd;
    }
  }
  EXPECT_EQ(state.calls, calls{});
}

TEST_F(descriptor_operations, on_a_failed_descriptor_are_eio_but_lseek_is_einval) {
  const int32_t fd = open_file();
  fail(fd);
  for (const descriptor_operation& operation : common_operations()) {
    errno = 0;
    EXPECT_EQ(operation.run(fd), -1) << operation.name;
    EXPECT_EQ(errno, operation.error_of_failed) << operation.name;
  }
  EXPECT_EQ(state.calls, calls{});
}

TEST_F(descriptor_operations, lseek_leaves_the_eio_of_its_slot_alone) {
  const int32_t fd = open_file();
  state.error = EIO;
  state.results = {-1};
  EXPECT_EQ(ifs_lseek(fd, 0, 0), -1);
  EXPECT_EQ(errno, EIO);
}

TEST_F(descriptor_operations, without_a_slot_are_einval) {
  const int32_t fd = open_file(recording_fs::open_only_operations);
  for (const descriptor_operation& operation : common_operations()) {
    errno = 0;
    EXPECT_EQ(operation.run(fd), -1) << operation.name;
    EXPECT_EQ(errno, EINVAL) << operation.name;
  }
}

TEST_F(descriptor_operations, on_a_descriptor_whose_file_system_is_gone_are_ebadf) {
  create("boot");
  const int32_t fd = ifs_fd_create(9, 0, nullptr);
  const int32_t negative = ifs_fd_create(-1, 0, nullptr);
  for (const descriptor_operation& operation : common_operations()) {
    errno = 0;
    EXPECT_EQ(operation.run(fd), -1) << operation.name;
    EXPECT_EQ(errno, EBADF) << operation.name;
    errno = 0;
    EXPECT_EQ(operation.run(negative), -1) << operation.name;
    EXPECT_EQ(errno, EBADF) << operation.name;
  }
}

TEST_F(descriptor_operations, fstat_and_fioctl_hand_over_the_callers_record) {
  const int32_t fd = open_file();
  state.status.size = 321;
  state.control_answer = 654;
  control_word = 87;
  EXPECT_EQ(ifs_fstat(fd, &status), 0);
  EXPECT_EQ(ifs_fioctl(fd, ifs_fioctl_get_type, &control_word), 0);
  EXPECT_EQ(status.size, 321u);
  EXPECT_EQ(state.control_word, 87u);
  EXPECT_EQ(control_word, 654u);
}

TEST_F(descriptor_operations, close_calls_its_slot_and_lowers_the_open_count) {
  const int32_t fd = open_file();
  EXPECT_EQ(ifs_close(fd), 0);
  EXPECT_EQ(state.calls, calls{"close 0"});
  EXPECT_EQ(open_count(fsid), 0);
  EXPECT_EQ(ifs_fd_is_valid(fd), 0);
}

TEST_F(descriptor_operations, the_open_count_is_still_raised_inside_the_close_slot) {
  const int32_t fd = open_file();
  int count = 0;
  state.during = [&] { count = open_count(fsid); };
  ifs_close(fd);
  EXPECT_EQ(count, 1);
}

TEST_F(descriptor_operations, close_itself_leaves_the_entry_alone) {
  static ifs_operations operations = recording_fs::full_operations;
  operations.close = [](int32_t) { return int32_t{0}; };
  const int32_t fd = open_file(operations);
  EXPECT_EQ(ifs_close(fd), 0);
  EXPECT_EQ(ifs_fd_is_valid(fd), 1);
}

TEST_F(descriptor_operations, a_close_slot_that_fails_leaves_the_open_count_raised) {
  const int32_t fd = open_file();
  state.error = EIO;
  state.results = {-1, 2};
  EXPECT_EQ(ifs_close(fd), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(open_count(fsid), 1);
  EXPECT_EQ(ifs_close(fd), 2);
  EXPECT_EQ(open_count(fsid), 1);
  EXPECT_EQ(ifs_fd_is_valid(fd), 1);
}

TEST_F(descriptor_operations, closing_a_failed_descriptor_only_lowers_the_open_count) {
  const int32_t fd = open_file();
  fail(fd);
  EXPECT_EQ(ifs_close(fd), 0);
  EXPECT_EQ(state.calls, calls{});
  EXPECT_EQ(open_count(fsid), 0);
  EXPECT_EQ(ifs_fd_get_fsid(fd), fsid);
}

TEST_F(descriptor_operations, closing_with_a_positive_flags_word_calls_the_slot) {
  const int32_t fd = open_file();
  ifs_fd_get_entry(fd)->flags = 1;
  EXPECT_EQ(ifs_close(fd), 0);
  EXPECT_EQ(state.calls, calls{"close 0"});
}

TEST_F(descriptor_operations, closing_a_failed_descriptor_completes_a_pending_destruction) {
  const int32_t fd = open_file();
  ifs_destroy(fsid, 1);
  fail(fd);
  EXPECT_EQ(ifs_close(fd), 0);
  EXPECT_EQ(ifs_fsid_is_valid(fsid), 0);
}

TEST_F(descriptor_operations, closing_what_is_not_open_is_ebadf) {
  open_file();
  for (const int32_t fd : no_such_descriptors) {
    errno = 0;
    EXPECT_EQ(ifs_close(fd), -1);
    EXPECT_EQ(errno, EBADF) << fd;
  }
  EXPECT_EQ(state.calls, calls{});
  EXPECT_EQ(open_count(fsid), 1);
}

TEST_F(descriptor_operations, close_without_a_slot_is_ebadf_even_on_a_failed_descriptor) {
  const int32_t fd = open_file(recording_fs::open_only_operations);
  EXPECT_EQ(ifs_close(fd), -1);
  EXPECT_EQ(errno, EBADF);
  fail(fd);
  errno = 0;
  EXPECT_EQ(ifs_close(fd), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(open_count(fsid), 1);
}

TEST_F(descriptor_operations, closing_a_descriptor_whose_file_system_is_gone_is_ebadf) {
  const int32_t fd = ifs_fd_create(9, 0, nullptr);
  EXPECT_EQ(ifs_close(fd), -1);
  EXPECT_EQ(errno, EBADF);
}

}  // namespace
