// What all operations share: which file system and which path they mean, and how they end.
#include "flashfs/operations.h"

#include <gtest/gtest.h>

#include "flashfs/control.h"
#include "flashfs/control_codes.h"
#include "flashfs/listing.h"
#include "flashfs/namespace.h"
#include "tests/flashfs/operations_fixture.h"

namespace {

using namespace test_support;

class every_operation : public operations_fixture {};

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
