// The operations that take a path: which slot they call, with what, and what they report when there
// is nothing to call.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <functional>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "ifs/ifs.h"
#include "tests/ifs/recording_fs.h"

namespace {

using recording_fs::calls;
using recording_fs::create;
using recording_fs::open_count;
using recording_fs::pointer;
using recording_fs::state;

class path_operations : public recording_fs::switch_fixture {};

int argument;
ppc_stat status;
ppc_statfs filesystem_status;

struct path_operation {
  std::function<int32_t(const char* path)> run;
  std::string name;
  std::string further_arguments;  // as the recorder writes them
};

// All that go through one common way. The modes have bits above the 16 that are passed on.
std::vector<path_operation> common_operations() {
  return {
      {[](const char* path) { return ifs_chmod(path, 0xABCDF1FF); }, "chmod", " 61951"},
      {[](const char* path) { return ifs_remove(path); }, "remove", ""},
      {[](const char* path) { return ifs_mkdir(path, 0x1234FFFF); }, "mkdir", " 65535"},
      {[](const char* path) { return ifs_rmdir(path); }, "rmdir", ""},
      {[](const char* path) { return ifs_stat(path, &status); }, "stat", ""},
      {[](const char* path) { return ifs_istat(path, 0xFFFFFFFF, &status); }, "istat",
       " 4294967295"},
      {[](const char* path) { return ifs_statfs(path, &filesystem_status); }, "statfs", ""},
      {[](const char* path) { return ifs_ioctl(path, 0xFFFFFFFF, &argument); }, "ioctl",
       " 4294967295 " + pointer(&argument)},
  };
}

TEST_F(path_operations, call_their_slot_with_the_fsid_and_the_stripped_path) {
  create("other");
  create("boot");
  for (const path_operation& operation : common_operations()) {
    state.calls.clear();
    EXPECT_EQ(operation.run("boot:dir/f"), 0);
    EXPECT_EQ(state.calls, calls{operation.name + " 1 dir/f" + operation.further_arguments});
  }
}

TEST_F(path_operations, return_the_slots_result_and_errno) {
  create("boot");
  state.error = ENOTDIR;
  for (const path_operation& operation : common_operations()) {
    state.results = {7, -1, -9};
    EXPECT_EQ(operation.run("boot:f"), 7) << operation.name;
    errno = 0;
    EXPECT_EQ(operation.run("boot:f"), -1) << operation.name;
    EXPECT_EQ(errno, ENOTDIR) << operation.name;
    EXPECT_EQ(operation.run("boot:f"), -9) << operation.name;
  }
}

TEST_F(path_operations, count_as_open_while_they_run) {
  const ppc_fsid_t fsid = create("boot");
  int count = 0;
  state.during = [&] { count = open_count(fsid); };
  for (const path_operation& operation : common_operations()) {
    count = 0;
    state.results = {-1};
    operation.run("boot:f");
    EXPECT_EQ(count, 1) << operation.name;
    EXPECT_EQ(open_count(fsid), 0) << operation.name;
  }
}

TEST_F(path_operations, without_a_registered_prefix_are_eacces) {
  create("boot");
  for (const path_operation& operation : common_operations()) {
    for (const char* path :
         {"flash:f", "bootf", "boot", ":f", "", static_cast<const char*>(nullptr)}) {
      errno = 0;
      EXPECT_EQ(operation.run(path), -1) << operation.name;
      EXPECT_EQ(errno, EACCES) << operation.name;
    }
  }
  EXPECT_EQ(state.calls, calls{});
}

TEST_F(path_operations, without_a_slot_are_einval) {
  const ppc_fsid_t fsid = create("boot", recording_fs::open_only_operations);
  for (const path_operation& operation : common_operations()) {
    errno = 0;
    EXPECT_EQ(operation.run("boot:f"), -1) << operation.name;
    EXPECT_EQ(errno, EINVAL) << operation.name;
    EXPECT_EQ(open_count(fsid), 0) << operation.name;
  }
}

TEST_F(path_operations, a_file_system_that_keeps_prefixes_gets_the_whole_path) {
  create("raw", recording_fs::full_operations, ifs_flag_keep_prefix);
  EXPECT_EQ(ifs_remove("raw:f"), 0);
  EXPECT_EQ(state.calls, calls{"remove 0 raw:f"});
}

TEST_F(path_operations, a_status_record_comes_back_filled) {
  create("boot");
  state.status.size = 99;
  state.filesystem_status.files = 5;
  ppc_stat by_path{};
  ppc_stat by_fileid{};
  ppc_statfs of_filesystem{};
  EXPECT_EQ(ifs_stat("boot:f", &by_path), 0);
  EXPECT_EQ(ifs_istat("boot:", 7, &by_fileid), 0);
  EXPECT_EQ(ifs_statfs("boot:", &of_filesystem), 0);
  EXPECT_EQ(by_path.size, 99u);
  EXPECT_EQ(by_fileid.size, 99u);
  EXPECT_EQ(of_filesystem.files, 5u);
}

TEST_F(path_operations, open_passes_flags_unchanged_and_the_modes_low_16_bits) {
  create("boot");
  const uint32_t oflags = 0xFFFF0000 | ifs_open_read | ifs_open_write | ifs_open_create |
                          ifs_open_truncate | ifs_open_exclusive;
  EXPECT_EQ(ifs_open("boot:dir/f", oflags, 0x123481FF), 0);
  EXPECT_EQ(state.calls, calls{"open 0 dir/f 4294903555 33279"});
}

TEST_F(path_operations, open_raises_the_open_count_until_the_close) {
  const ppc_fsid_t fsid = create("boot");
  const int32_t fd = ifs_open("boot:f", 0, 0);
  EXPECT_EQ(open_count(fsid), 1);
  EXPECT_EQ(ifs_close(fd), 0);
  EXPECT_EQ(open_count(fsid), 0);
}

TEST_F(path_operations, a_failed_open_lowers_the_open_count_again) {
  const ppc_fsid_t fsid = create("boot");
  int count = 0;
  state.during = [&] { count = open_count(fsid); };
  state.results = {-1};
  state.error = ENOENT;
  EXPECT_EQ(ifs_open("boot:f", 0, 0), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(count, 1);
  EXPECT_EQ(open_count(fsid), 0);
}

TEST_F(path_operations, every_negative_result_of_the_open_slot_is_a_failed_open) {
  const ppc_fsid_t fsid = create("boot");
  state.results = {-7};
  EXPECT_EQ(ifs_open("boot:f", 0, 0), -7);
  EXPECT_EQ(open_count(fsid), 0);
}

TEST_F(path_operations, open_without_a_registered_prefix_is_eacces) {
  create("boot");
  EXPECT_EQ(ifs_open("flash:f", 0, 0), -1);
  EXPECT_EQ(errno, EACCES);
  errno = 0;
  EXPECT_EQ(ifs_open(nullptr, 0, 0), -1);
  EXPECT_EQ(errno, EACCES);
}

// Reporting an error would hide that a file system was registered which nothing can be done with.
TEST_F(path_operations, open_does_not_test_its_slot) {
  static const ifs_operations nothing{};
  create("boot", nothing);
  EXPECT_DEATH((void)ifs_open("boot:f", 0, 0), "");
}

TEST_F(path_operations, rename_strips_both_paths) {
  create("other");
  const ppc_fsid_t fsid = create("boot");
  ASSERT_EQ(ifs_add_prefix(fsid, "b"), 0);
  EXPECT_EQ(ifs_rename("boot:dir/a", "b:c"), 0);
  EXPECT_EQ(state.calls, calls{"rename 1 dir/a c"});
}

TEST_F(path_operations, rename_returns_the_slots_result_and_counts_as_open_meanwhile) {
  const ppc_fsid_t fsid = create("boot");
  int count = 0;
  state.during = [&] { count = open_count(fsid); };
  state.results = {-1, 3};
  state.error = EEXIST;
  EXPECT_EQ(ifs_rename("boot:a", "boot:b"), -1);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(ifs_rename("boot:a", "boot:b"), 3);
  EXPECT_EQ(count, 1);
  EXPECT_EQ(open_count(fsid), 0);
}

TEST_F(path_operations, rename_with_an_unknown_prefix_on_either_side_is_enoent) {
  create("bootflash");
  const std::pair<const char*, const char*> pairs[] = {{"bootflash:a", "b"},
                                                       {"a", "bootflash:b"},
                                                       {"a", "b"},
                                                       {"bootflash:a", nullptr},
                                                       {nullptr, "bootflash:b"}};
  for (const auto& [old_path, new_path] : pairs) {
    errno = 0;
    EXPECT_EQ(ifs_rename(old_path, new_path), -1);
    EXPECT_EQ(errno, ENOENT);
  }
  EXPECT_EQ(state.calls, calls{});
}

TEST_F(path_operations, rename_across_file_systems_is_exdev) {
  create("a");
  create("b", recording_fs::open_only_operations);
  EXPECT_EQ(ifs_rename("a:x", "b:x"), -1);
  EXPECT_EQ(errno, EXDEV);
  errno = 0;
  EXPECT_EQ(ifs_rename("b:x", "a:x"), -1);
  EXPECT_EQ(errno, EXDEV);
  EXPECT_EQ(state.calls, calls{});
}

TEST_F(path_operations, rename_without_a_slot_is_einval) {
  const ppc_fsid_t fsid = create("boot", recording_fs::open_only_operations);
  EXPECT_EQ(ifs_rename("boot:a", "boot:b"), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(open_count(fsid), 0);
}

}  // namespace
