// What all operations share: which file system and which path they mean, and how they end.
#include "flashfs/operations.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <initializer_list>
#include <string>

#include "flashfs/control.h"
#include "flashfs/control_codes.h"
#include "flashfs/listing.h"
#include "flashfs/namespace.h"
#include "tests/flashfs/operations_fixture.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"

namespace {

using namespace test_support;

class every_operation : public operations_fixture {};
class states : public operations_fixture {};
class resolving : public operations_fixture {
 protected:
  void SetUp() override {
    make_small_tree(3);
    mount_recipe();
  }
  // What a path stands for: its id, or "errno n".
  std::string resolved(const std::string& path) {
    found_name found = {};
    said([&] { found = flashfs_resolve(fs(), path.c_str()); });
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
    EXPECT_EQ(found.fileid == 0, found.error != 0);
    return found.fileid != 0 ? std::to_string(found.fileid)
                             : "errno " + std::to_string(found.error);
  }
  static std::string error_text(int error) {
    return "errno " + std::to_string(error);
  }
};
class finishing : public operations_fixture {
 protected:
  void SetUp() override {
    make();
  }
  // Ends an operation. Whether that has marked down; the result and errno pass through.
  bool marks(int32_t result, int error, marks_down when = marks_down::when_flash_failed) {
    fs()->ready = 1;
    int32_t passed_on = 0;
    said([&] {
      errno = error;
      passed_on = flashfs_finish(fs(), result, when);
    });
    EXPECT_EQ(passed_on, result);
    EXPECT_EQ(errno, error);
    EXPECT_EQ(output(), fs()->ready != 0 ? "" : down_line);
    return fs()->ready == 0;
  }
};

}  // namespace

// --- what every operation asks first ---

TEST_F(every_operation, an_unknown_fsid_fails_with_errno_untouched) {
  make();
  ppc_stat status;
  ppc_statfs space;
  uint32_t word = 0;
  for (const ppc_fsid_t fsid : {ppc_fsid_t{-1}, ppc_fsid_t{1}, ppc_fsid_t{15}, ppc_fsid_t{16}}) {
    errno = ERANGE;
    EXPECT_EQ(flashfs_vctr_chmod(fsid, "a", 0), -1);
    EXPECT_EQ(flashfs_vctr_remove(fsid, "a"), -1);
    EXPECT_EQ(flashfs_vctr_rename(fsid, "a", "b"), -1);
    EXPECT_EQ(flashfs_vctr_mkdir(fsid, "a", 0), -1);
    EXPECT_EQ(flashfs_vctr_rmdir(fsid, "a"), -1);
    EXPECT_EQ(flashfs_vctr_stat(fsid, "a", &status), -1);
    EXPECT_EQ(flashfs_vctr_istat(fsid, "a", 1, &status), -1);
    EXPECT_EQ(flashfs_vctr_statfs(fsid, "a", &space), -1);
    EXPECT_EQ(flashfs_vctr_ioctl(fsid, "a", flashfs_ioctl_check, &word), -1);
    EXPECT_EQ(errno, ERANGE) << fsid;
  }
}

TEST_F(every_operation, a_file_system_that_is_not_ready_is_invalid_before_all_else) {
  make();
  put("a", "text");
  const int32_t fd = open("a");
  const int32_t directory = open("/");
  fs()->ready = 0;
  ppc_stat status;
  ppc_statfs space;
  uint8_t records[76];
  for (const char* name : {"", "a", "missing"}) {
    EXPECT_EQ(error_of(chmod(name, 0)), EINVAL);
    EXPECT_EQ(error_of(remove(name)), EINVAL);
    EXPECT_EQ(error_of(rename(name, "b")), EINVAL);
    EXPECT_EQ(error_of(mkdir(name)), EINVAL);
    EXPECT_EQ(error_of(rmdir(name)), EINVAL);
    EXPECT_EQ(error_of(istat(name, 1, &status)), EINVAL);
    EXPECT_EQ(output(), "");
    EXPECT_EQ(error_of(stat(name, &status)), EINVAL);
    EXPECT_EQ(output(), "fsp not ready\n");
  }
  EXPECT_EQ(error_of(statfs(&space)), EINVAL);
  EXPECT_EQ(error_of(fstat(fd, &status)), EINVAL);
  EXPECT_EQ(error_of(getdents(directory, records, sizeof records)), EINVAL);
  EXPECT_EQ(output(), "");
  fs()->ready = 1;
  EXPECT_EQ(close(fd), 0);
  EXPECT_EQ(close(directory), 0);
}

TEST_F(every_operation, paths_through_a_file_and_paths_of_320_bytes_do_not_exist) {
  make();
  put("f", "text");
  ppc_stat status;
  for (const std::string& name : {std::string("f/x"), std::string(320, 'n'), std::string("x")}) {
    EXPECT_EQ(error_of(chmod(name, 0)), ENOENT);
    EXPECT_EQ(error_of(remove(name)), ENOENT);
    EXPECT_EQ(error_of(rename(name, "y")), ENOENT);
    EXPECT_EQ(error_of(rmdir(name)), ENOENT);
    EXPECT_EQ(error_of(stat(name, &status)), ENOENT);
    EXPECT_EQ(error_of(ioctl(name, flashfs_ioctl_verify, nullptr)), ENOENT);
  }
  EXPECT_EQ(fs()->ready, 1U);
}

TEST_F(every_operation, empty_paths_do_not_exist) {
  make();
  ppc_stat status;
  EXPECT_EQ(error_of(chmod("", 0)), ENOENT);
  EXPECT_EQ(error_of(remove("")), ENOENT);
  EXPECT_EQ(error_of(mkdir("")), ENOENT);
  EXPECT_EQ(error_of(rmdir("")), ENOENT);
  EXPECT_EQ(error_of(stat("", &status)), ENOENT);
  EXPECT_EQ(error_of(istat("", 1, &status)), ENOENT);
  EXPECT_EQ(error_of(rename("", "a")), ENOENT);
  EXPECT_EQ(error_of(rename("missing", "")), ENOENT);
}

// --- the state behind an id or a descriptor ---

TEST_F(states, are_found_by_their_id_whether_they_are_ready_or_not) {
  make();
  EXPECT_EQ(flashfs_of(0), fs());
  fs()->ready = 0;
  EXPECT_EQ(flashfs_of(0), fs());
}

TEST_F(states, that_are_ready_are_given_and_others_are_invalid) {
  make();
  errno = ERANGE;
  EXPECT_EQ(flashfs_of_ready(0), fs());
  EXPECT_EQ(errno, ERANGE);
  fs()->ready = 0;
  EXPECT_EQ(flashfs_of_ready(0), nullptr);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(states, of_unknown_ids_are_null_with_errno_untouched) {
  make();
  for (const ppc_fsid_t fsid : {ppc_fsid_t{-1}, ppc_fsid_t{1}, ppc_fsid_t{16}}) {
    errno = ERANGE;
    EXPECT_EQ(flashfs_of(fsid), nullptr);
    EXPECT_EQ(flashfs_of_ready(fsid), nullptr);
    EXPECT_EQ(errno, ERANGE) << fsid;
  }
}

TEST_F(states, are_found_by_a_descriptor_with_what_is_open) {
  make();
  put("a", "text");
  const int32_t fd = open("a");
  const opened_descriptor found = flashfs_of_descriptor(fd);
  EXPECT_EQ(found.fs, fs());
  ASSERT_NE(found.open, nullptr);
  EXPECT_EQ(found.open->file, entry(2));
  EXPECT_EQ(close(fd), 0);
  for (const int32_t none : {fd, -1, ifs_max_descriptors}) {
    EXPECT_EQ(flashfs_of_descriptor(none).fs, nullptr);
    EXPECT_EQ(flashfs_of_descriptor(none).open, nullptr);
  }
}

TEST_F(states, have_an_only_user_while_nothing_but_one_operation_is_counted_and_nothing_is_open) {
  make();
  put("a", "text");
  EXPECT_FALSE(flashfs_is_only_user(fs())) << "nobody";
  ifs_open_file_increment(fs()->fsid);  // an operation in progress
  EXPECT_TRUE(flashfs_is_only_user(fs()));
  ifs_open_file_increment(fs()->fsid);
  EXPECT_FALSE(flashfs_is_only_user(fs()));
  ifs_open_file_decrement(fs()->fsid);
  ifs_open_file_decrement(fs()->fsid);
  const int32_t fd = open("a");
  EXPECT_FALSE(flashfs_is_only_user(fs()));
  errno = 0;
  EXPECT_FALSE(flashfs_is_only_user(fs()));
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(close(fd), 0);
}

// --- paths ---

TEST_F(resolving, gives_the_id_of_what_is_there) {
  EXPECT_EQ(resolved("/"), "1");
  EXPECT_EQ(resolved("f"), "2");
  EXPECT_EQ(resolved("/d/"), "3");
  EXPECT_EQ(resolved("d//x"), "4");
}

TEST_F(resolving, has_one_error_for_all_that_is_not_there) {
  for (const std::string& path :
       {std::string(), std::string("missing"), std::string("missing/x"), std::string("f/x"),
        std::string(46, 'n'), std::string(320, 'n'), std::string(320, '/')}) {
    EXPECT_EQ(resolved(path), error_text(ENOENT)) << path;
  }
}

TEST_F(resolving, tells_what_could_not_be_looked_up) {
  device().fail(flash_call::read, 2, flash_operation_failed);
  EXPECT_EQ(resolved("d/x"), error_text(EIO));
  device().fail(flash_call::any, 0, flash_ok);
  chunk_pool* pool = fs()->sctr_buf_chunk;
  fs()->sctr_buf_chunk = nullptr;
  EXPECT_EQ(resolved("d/x"), error_text(EINVAL));
  EXPECT_EQ(resolved(""), error_text(ENOENT)) << "for which no buffer is needed";
  fs()->sctr_buf_chunk = pool;
  EXPECT_EQ(fs()->ready, 1U) << "the end of the operation marks down";
}

// --- how operations end ---

TEST_F(finishing, with_a_failed_flash_marks_down) {
  EXPECT_TRUE(marks(-1, EIO));
}

TEST_F(finishing, with_any_other_error_does_not) {
  for (const int error : {0, ENOENT, EINVAL, ENOSPC, ENOMEM, EINTR, EBADF, EBUSY, EEXIST}) {
    EXPECT_FALSE(marks(-1, error)) << error;
  }
}

TEST_F(finishing, with_any_error_does_when_the_operation_says_so) {
  for (const int error : {0, ENOENT, EINVAL, ENOSPC, EIO}) {
    EXPECT_TRUE(marks(-1, error, marks_down::always)) << error;
  }
}

TEST_F(finishing, well_never_does_whatever_an_earlier_error_was) {
  for (const int32_t result : {0, 1, INT32_MAX}) {
    EXPECT_FALSE(marks(result, EIO)) << result;
    EXPECT_FALSE(marks(result, EIO, marks_down::always)) << result;
  }
}
