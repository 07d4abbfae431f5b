// The shorthands over the operations: loops over partial transfers, the controls of a descriptor,
// sizes and free bytes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "ifs/ifs.h"
#include "tests/ifs/recording_fs.h"

namespace {

using recording_fs::calls;
using recording_fs::create;
using recording_fs::pointer;
using recording_fs::state;

class switch_helpers : public recording_fs::switch_fixture {
 protected:
  // Opens a file; the recorder starts after that.
  static int32_t open_file() {
    create("boot");
    const int32_t fd = ifs_open("boot:f", 0, 0);
    state.calls.clear();
    errno = 0;
    return fd;
  }
};

unsigned char buffer[16];

TEST_F(switch_helpers, read_until_reads_on_after_short_reads) {
  const int32_t fd = open_file();
  state.results = {3, 6, 1};
  EXPECT_EQ(ifs_read_until(fd, buffer, 10), 10);
  EXPECT_EQ(state.calls,
            (calls{"read 0 " + pointer(buffer) + " 10", "read 0 " + pointer(buffer + 3) + " 7",
                   "read 0 " + pointer(buffer + 9) + " 1"}));
}

TEST_F(switch_helpers, read_until_returns_the_partial_count_at_the_end_of_the_file) {
  const int32_t fd = open_file();
  state.results = {4, 0};
  EXPECT_EQ(ifs_read_until(fd, buffer, 10), 4);
  state.results = {0};
  EXPECT_EQ(ifs_read_until(fd, buffer, 10), 0);
}

TEST_F(switch_helpers, read_until_gives_up_on_an_error) {
  const int32_t fd = open_file();
  state.error = EINTR;
  state.results = {4, -5};
  EXPECT_EQ(ifs_read_until(fd, buffer, 10), -1);
  EXPECT_EQ(errno, EINTR);
  EXPECT_EQ(state.calls.size(), 2u);
}

TEST_F(switch_helpers, write_until_writes_on_after_short_writes) {
  const int32_t fd = open_file();
  state.results = {3, 6, 1};
  EXPECT_EQ(ifs_write_until(fd, buffer, 10), 10);
  EXPECT_EQ(state.calls,
            (calls{"write 0 " + pointer(buffer) + " 10", "write 0 " + pointer(buffer + 3) + " 7",
                   "write 0 " + pointer(buffer + 9) + " 1"}));
}

TEST_F(switch_helpers, write_until_fails_when_the_file_system_takes_nothing) {
  const int32_t fd = open_file();
  state.results = {4, 0};
  EXPECT_EQ(ifs_write_until(fd, buffer, 10), -1);
  EXPECT_EQ(state.calls.size(), 2u);
}

TEST_F(switch_helpers, write_until_gives_up_on_an_error) {
  const int32_t fd = open_file();
  state.error = ENOSPC;
  state.results = {4, -5};
  EXPECT_EQ(ifs_write_until(fd, buffer, 10), -1);
  EXPECT_EQ(errno, ENOSPC);
}

TEST_F(switch_helpers, the_loops_end_when_a_slot_claims_more_than_it_was_given) {
  const int32_t fd = open_file();
  state.results = {4, 100};
  EXPECT_EQ(ifs_read_until(fd, buffer, 10), 10);
  state.results = {100};
  EXPECT_EQ(ifs_write_until(fd, buffer, 10), 10);
  EXPECT_EQ(state.calls.size(), 3u);
}

TEST_F(switch_helpers, the_loops_do_nothing_for_length_0) {
  const int32_t fd = open_file();
  EXPECT_EQ(ifs_read_until(fd, nullptr, 0), 0);
  EXPECT_EQ(ifs_write_until(fd, nullptr, 0), 0);
  EXPECT_EQ(ifs_read_until(-1, nullptr, 0), 0);
  EXPECT_EQ(ifs_write_until(-1, nullptr, 0), 0);
  EXPECT_EQ(state.calls, calls{});
}

TEST_F(switch_helpers, the_loops_on_a_bad_descriptor_fail) {
  EXPECT_EQ(ifs_read_until(0, buffer, 1), -1);
  EXPECT_EQ(errno, EBADF);
  errno = 0;
  EXPECT_EQ(ifs_write_until(128, buffer, 1), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(switch_helpers, the_controls_pass_the_address_of_a_word) {
  create("a");
  const int32_t fd = ifs_open("a:f", 0, 0);
  state.calls.clear();
  EXPECT_EQ(ifs_fd_set_size(fd, 0x80000001), 0);
  EXPECT_EQ(state.control_word, 0x80000001u);
  EXPECT_EQ(ifs_fd_set_type(fd, 22), 0);
  EXPECT_EQ(state.control_word, 22u);
  EXPECT_EQ(ifs_fd_set_verbose(fd, 1), 0);
  EXPECT_EQ(state.control_word, 1u);
  EXPECT_EQ(state.calls, (calls{"fioctl 0 1", "fioctl 0 2", "fioctl 0 5"}));
}

TEST_F(switch_helpers, the_setting_controls_return_the_slots_result) {
  create("a");
  const int32_t fd = ifs_open("a:f", 0, 0);
  state.error = EINVAL;
  state.results = {-1, -3, 5};
  EXPECT_EQ(ifs_fd_set_size(fd, 1), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(ifs_fd_set_type(fd, 1), -3);
  EXPECT_EQ(ifs_fd_set_verbose(fd, 1), 5);
}

TEST_F(switch_helpers, the_type_is_the_word_read_back_or_the_negative_result) {
  create("a");
  const int32_t fd = ifs_open("a:f", 0, 0);
  state.calls.clear();
  state.control_answer = 42;
  state.results = {1, -2};
  EXPECT_EQ(ifs_fd_get_type(fd), 42);
  EXPECT_EQ(ifs_fd_get_type(fd), -2);
  EXPECT_EQ(state.calls, (calls{"fioctl 0 3", "fioctl 0 3"}));
}

TEST_F(switch_helpers, the_size_is_that_of_the_status_record_or_the_negative_result) {
  create("a");
  const int32_t fd = ifs_open("a:f", 0, 0);
  state.calls.clear();
  state.status.size = 4711;
  state.error = EIO;
  state.results = {0, 1, -2};
  EXPECT_EQ(ifs_fd_get_size(fd), 4711);
  EXPECT_EQ(ifs_fd_get_size(fd), 4711);
  EXPECT_EQ(ifs_fd_get_size(fd), -2);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(state.calls, (calls{"fstat 0", "fstat 0", "fstat 0"}));
}

TEST_F(switch_helpers, the_size_of_a_failed_one_is_eio) {
  create("a");
  const int32_t fd = ifs_open("a:f", 0, 0);
  ifs_fd_get_entry(fd)->flags = -1;
  errno = 0;
  EXPECT_EQ(ifs_fd_get_size(fd), -1);
  EXPECT_EQ(errno, EIO);
}

TEST_F(switch_helpers, free_bytes_are_block_size_times_free_blocks) {
  create("boot");
  state.filesystem_status = {1, 2048, 100000, 300, 5, 6, 7, 8, 0};
  EXPECT_EQ(ifs_get_free_bytes("boot:"), 614400);
  EXPECT_EQ(ifs_fs_free_space("boot:"), 614400);
  EXPECT_EQ(state.calls, (calls{"statfs 0 ", "statfs 0 "}));
}

TEST_F(switch_helpers, free_bytes_are_cut_to_32_bits) {
  create("boot");
  state.filesystem_status.block_size = 0x20000;
  state.filesystem_status.free_blocks = 0x8001;
  EXPECT_EQ(ifs_get_free_bytes("boot:"), 0x20000);
  state.filesystem_status.free_blocks = 0x7FFF;
  EXPECT_EQ(ifs_get_free_bytes("boot:"), -0x20000);
  EXPECT_EQ(ifs_fs_free_space("boot:"), -0x20000);
}

TEST_F(switch_helpers, free_bytes_of_a_failed_statfs_are_its_result_and_free_space_is_0) {
  create("boot");
  state.filesystem_status = {1, 2048, 100000, 300, 5, 6, 7, 8, 0};
  state.results = {-2, -2};
  EXPECT_EQ(ifs_get_free_bytes("boot:"), -2);
  EXPECT_EQ(ifs_fs_free_space("boot:"), 0);
  EXPECT_EQ(ifs_get_free_bytes("flash:"), -1);
  EXPECT_EQ(errno, EACCES);
  EXPECT_EQ(ifs_fs_free_space("flash:"), 0);
}

TEST_F(switch_helpers, free_bytes_and_sizes_come_with_positive_results_too) {
  create("boot");
  state.filesystem_status = {1, 2048, 100000, 300, 5, 6, 7, 8, 0};
  state.status.size = 1234;
  state.results = {1, 1, 1};
  EXPECT_EQ(ifs_get_free_bytes("boot:"), 614400);
  EXPECT_EQ(ifs_fs_free_space("boot:"), 614400);
  EXPECT_EQ(ifs_file_size("boot:f"), 1234);
}

TEST_F(switch_helpers, a_files_size_is_that_of_its_status_record) {
  create("boot");
  state.status.size = 1234;
  EXPECT_EQ(ifs_file_size("boot:f"), 1234);
  EXPECT_EQ(state.calls, calls{"stat 0 f"});
}

TEST_F(switch_helpers, a_size_that_is_not_positive_or_not_known_is_0) {
  create("boot");
  EXPECT_EQ(ifs_file_size("boot:f"), 0);
  state.status.size = 0x80000000;
  EXPECT_EQ(ifs_file_size("boot:f"), 0);
  state.status.size = 1234;
  state.results = {-1, -2};
  EXPECT_EQ(ifs_file_size("boot:f"), 0);
  EXPECT_EQ(ifs_file_size("boot:f"), 0);
  EXPECT_EQ(ifs_file_size("flash:f"), 0);
}

}  // namespace
