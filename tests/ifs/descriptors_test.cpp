// The table of descriptors: creation, validity, and the dump of an entry.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "ifs/ifs.h"
#include "tests/ifs/recording_fs.h"

namespace {

using recording_fs::calls;
using recording_fs::create;
using recording_fs::no_such_descriptors;
using recording_fs::state;

class descriptors : public recording_fs::switch_fixture {};

constexpr int16_t some_oflags =
    ifs_open_read | ifs_open_write | ifs_open_create | ifs_open_truncate | ifs_open_exclusive;
static_assert(some_oflags == 0x703);

TEST_F(descriptors, creation_fills_the_entry) {
  int context = 0;
  ASSERT_EQ(ifs_fd_create(0, 0, nullptr), 0);
  ASSERT_EQ(ifs_fd_create(5, some_oflags, &context), 1);
  const ifs_descriptor* entry = ifs_fd_get_entry(1);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->fd, 1);
  EXPECT_EQ(entry->native_fd, 0);
  EXPECT_EQ(entry->fsid, 5);
  EXPECT_EQ(entry->filepos, 0);
  EXPECT_EQ(entry->size, 0);
  EXPECT_EQ(entry->data, 0);
  EXPECT_EQ(entry->flags, 0);
  EXPECT_EQ(entry->oflags, some_oflags);
  EXPECT_EQ(entry->fd_context, &context);
}

TEST_F(descriptors, the_open_flags_are_kept_in_16_bits) {
  ASSERT_EQ(ifs_fd_create(0, 0x1FEDC, nullptr), 0);
  EXPECT_EQ(static_cast<uint16_t>(ifs_fd_get_entry(0)->oflags), 0xFEDC);
}

TEST_F(descriptors, there_are_128_and_one_more_is_enfile) {
  for (int32_t fd = 0; fd < 128; ++fd) {
    ASSERT_EQ(ifs_fd_create(0, 0, nullptr), fd);
  }
  errno = 0;
  EXPECT_EQ(ifs_fd_create(0, 0, nullptr), -1);
  EXPECT_EQ(errno, ENFILE);
  EXPECT_EQ(ifs_fd_is_valid(127), 1);
}

TEST_F(descriptors, the_129th_open_fails_with_enfile_and_is_not_counted) {
  const ppc_fsid_t fsid = create("a");
  for (int32_t fd = 0; fd < 128; ++fd) {
    ASSERT_EQ(ifs_open("a:f", 0, 0), fd);
  }
  EXPECT_EQ(ifs_open("a:f", 0, 0), -1);
  EXPECT_EQ(errno, ENFILE);
  EXPECT_EQ(recording_fs::open_count(fsid), 128);
}

TEST_F(descriptors, the_lowest_free_one_is_reused_first) {
  create("a");
  for (int i = 0; i < 6; ++i) {
    ASSERT_GE(ifs_open("a:f", 0, 0), 0);
  }
  ifs_close(4);
  ifs_close(1);
  EXPECT_EQ(ifs_open("a:f", 0, 0), 1);
  EXPECT_EQ(ifs_open("a:f", 0, 0), 4);
  EXPECT_EQ(ifs_open("a:f", 0, 0), 6);
}

TEST_F(descriptors, a_destroyed_one_is_gone) {
  const int32_t fd = ifs_fd_create(0, 0, nullptr);
  EXPECT_EQ(ifs_fd_destroy(fd), 1);
  EXPECT_EQ(ifs_fd_get_entry(fd), nullptr);
  EXPECT_EQ(ifs_fd_destroy(fd), 0);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(descriptors, one_that_is_not_there_is_ebadf_for_every_function) {
  create("a");
  ASSERT_EQ(ifs_open("a:f", 0, 0), 0);
  state.calls.clear();
  for (const int32_t fd : no_such_descriptors) {
    errno = 0;
    EXPECT_EQ(ifs_fd_is_valid(fd), 0);
    EXPECT_EQ(errno, EBADF) << fd;
    errno = 0;
    EXPECT_EQ(ifs_fd_get_entry(fd), nullptr);
    EXPECT_EQ(errno, EBADF) << fd;
    errno = 0;
    EXPECT_EQ(ifs_fd_destroy(fd), 0);
    EXPECT_EQ(errno, EBADF) << fd;
    errno = 0;
    EXPECT_EQ(ifs_fd_get_fsid(fd), -1);
    EXPECT_EQ(errno, EBADF) << fd;
    errno = 0;
    EXPECT_EQ(ifs_fd_get_size(fd), -1);
    EXPECT_EQ(errno, EBADF) << fd;
    errno = 0;
    EXPECT_EQ(ifs_fd_set_size(fd, 1), -1);
    EXPECT_EQ(errno, EBADF) << fd;
    errno = 0;
    EXPECT_EQ(ifs_fd_get_type(fd), -1);
    EXPECT_EQ(errno, EBADF) << fd;
  }
  EXPECT_EQ(state.calls, calls{});
}

TEST_F(descriptors, a_negative_flags_word_makes_one_fail_with_eio) {
  const int32_t fd = ifs_fd_create(3, 0, nullptr);
  ifs_fd_get_entry(fd)->flags = 1;
  EXPECT_EQ(ifs_fd_is_valid(fd), 1);
  ifs_fd_get_entry(fd)->flags = -1;
  errno = 0;
  EXPECT_EQ(ifs_fd_is_valid(fd), 0);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(ifs_fd_get_entry(fd), nullptr);
  EXPECT_EQ(ifs_fd_destroy(fd), 0);
  EXPECT_EQ(ifs_fd_create(3, 0, nullptr), fd + 1);
}

TEST_F(descriptors, a_failed_one_still_tells_its_file_system) {
  const int32_t fd = ifs_fd_create(3, 0, nullptr);
  ifs_fd_get_entry(fd)->flags = -32768;
  EXPECT_EQ(ifs_fd_is_valid(fd), 0);
  EXPECT_EQ(ifs_fd_get_fsid(fd), 3);
}

std::string address_text(const void* pointer) {
  char text[16];
  snprintf(text, sizeof(text), "0x%x", static_cast<unsigned>(reinterpret_cast<uintptr_t>(pointer)));
  return text;
}

std::string dump_of(const ifs_descriptor& entry) {
  testing::internal::CaptureStdout();
  zantrolume_display_fdent(&entry);
  return testing::internal::GetCapturedStdout();
}

TEST_F(descriptors, the_dump_prints_every_field_in_hexadecimal) {
  int context = 0;
  const ifs_descriptor entry = {18, 2, 3, 0x1000, 0x7FFFFFFF, 11, 0, some_oflags, &context};
  EXPECT_EQ(dump_of(entry), "fdent at " + address_text(&entry) +
                                "\n"
                                "fd         = 0x12\n"
                                "native_fd  = 0x2\n"
                                "fsid       = 0x3\n"
                                "filepos    = 0x1000\n"
                                "size       = 0x7fffffff\n"
                                "data       = 0xb\n"
                                "flags      = 0x0\n"
                                "oflags     = 0x703\n"
                                "fd_context = " +
                                address_text(&context) + "\n");
}

TEST_F(descriptors, the_dump_widens_negative_fields_to_32_bits) {
  const ifs_descriptor entry = {-1, -1, -1, -2, -3, -4, -32768, -1, nullptr};
  EXPECT_EQ(dump_of(entry), "fdent at " + address_text(&entry) +
                                "\n"
                                "fd         = 0xffffffff\n"
                                "native_fd  = 0xffffffff\n"
                                "fsid       = 0xffffffff\n"
                                "filepos    = 0xfffffffe\n"
                                "size       = 0xfffffffd\n"
                                "data       = 0xfffffffc\n"
                                "flags      = 0xffff8000\n"
                                "oflags     = 0xffffffff\n"
                                "fd_context = 0x0\n");
}

}  // namespace
