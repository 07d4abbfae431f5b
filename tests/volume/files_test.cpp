// Open files, listings, walks and whole files.
#include "volume/files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <memory>
#include <utility>

#include "flashfs/check_flags.h"
#include "flashfs/flash_driver.h"
#include "sim/flash.h"
#include "tests/support/ram_flash.h"
#include "tests/volume/volume_fixture.h"
#include "volume/volume.h"

namespace volume_test {
namespace {

using volume::entry;
using volume::file;

// "path" or "path!errno", in order.
std::string text_of(const std::vector<entry>& found) {
  std::string text;
  for (const entry& one : found) {
    text += (text.empty() ? "" : " ") + one.path;
    text += one.is_directory() ? "/" : "";
    text += one.error != 0 ? "!" + std::to_string(one.error) : "";
  }
  return text;
}

class volume_files : public volume_fixture {
 protected:
  void SetUp() override {
    volume_fixture::SetUp();
    mount_new();
  }
  std::string listing(const char* directory) {
    std::vector<entry> found;
    EXPECT_EQ(files().list(directory, &found), 0);
    return text_of(found);
  }
  std::string walked(const char* directory = "") {
    std::vector<entry> found;
    EXPECT_EQ(files().walk(directory, &found), 0);
    return text_of(found);
  }
  void make_tree() {
    ASSERT_EQ(files().mkdir("d"), 0);
    ASSERT_EQ(files().mkdir("d/inner"), 0);
    ASSERT_EQ(files().mkdir("e"), 0);
    ASSERT_EQ(files().write_file("a", "alpha"), 0);
    ASSERT_EQ(files().write_file("d/inner/deep", "below"), 0);
    ASSERT_EQ(files().write_file("e/last", ""), 0);
  }
};

TEST_F(volume_files, a_file_is_written_read_added_to_and_cut) {
  ASSERT_EQ(files().write_file("a", std::string(5000, 'x')), 0);
  std::string contents;
  ASSERT_EQ(files().read_file("/a", &contents), 0);
  EXPECT_EQ(contents, std::string(5000, 'x'));
  ASSERT_EQ(files().write_file("a", "tail", volume::open_at_end), 0);
  ASSERT_EQ(files().write_file("a", "YY", ifs_open_write, 2), 0);
  ASSERT_EQ(files().read_file("a", &contents), 0);
  EXPECT_EQ(contents, "xxYY" + std::string(4996, 'x') + "tail");
  ASSERT_EQ(files().truncate("a", 3), 0);
  ASSERT_EQ(files().read_file("a", &contents), 0);
  EXPECT_EQ(contents, "xxY");
  ASSERT_EQ(files().write_file("a", "anew"), 0);
  ASSERT_EQ(files().read_file("a", &contents), 0);
  EXPECT_EQ(contents, "anew");
}

TEST_F(volume_files, failures_come_with_their_errno) {
  std::string contents = "of old";
  EXPECT_EQ(files().read_file("missing", &contents), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(contents, "");
  EXPECT_EQ(files().write_file("missing", "x", ifs_open_write), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(files().truncate("missing", 0), -1);
  EXPECT_EQ(errno, ENOENT);
  ASSERT_EQ(files().mkdir("d"), 0);
  EXPECT_EQ(files().read_file("d", &contents), -1);
  EXPECT_EQ(errno, EISDIR);
  std::vector<entry> found;
  EXPECT_EQ(files().list("missing", &found), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(files().walk("missing", &found), -1);
  EXPECT_EQ(errno, ENOENT);
  ASSERT_EQ(files().write_file("a", "x"), 0);
  EXPECT_EQ(files().list("a", &found), -1);
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_TRUE(found.empty());
}

TEST_F(volume_files, a_write_that_fails_tells_its_own_errno_and_leaves_nothing_open) {
  EXPECT_EQ(files().write_file("a", std::string(40 * 2048, 'x')), -1);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(open_descriptors(), 0);
}

TEST_F(volume_files, an_open_file_is_closed_at_the_end_of_its_scope_and_moves_its_descriptor) {
  {
    file first = files().open("a", volume::open_anew);
    ASSERT_TRUE(first);
    file second = std::move(first);
    EXPECT_FALSE(first);
    EXPECT_EQ(second.write("some bytes"), 0);
    EXPECT_EQ(second.write(""), 0);
    EXPECT_EQ(open_descriptors(), 1);
    first = std::move(second);
    ppc_stat status;
    ASSERT_EQ(first.stat(&status), 0);
    EXPECT_EQ(status.size, 10U);
  }
  EXPECT_EQ(open_descriptors(), 0);
  EXPECT_FALSE(files().open("missing", ifs_open_read));
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(volume_files, closing_keeps_the_result_and_errno_of_a_step_that_failed) {
  file opened = files().open("a", volume::open_anew);
  errno = ENOSPC;
  EXPECT_EQ(opened.close(-1), -1);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_FALSE(opened);
  opened = files().open("a", ifs_open_read);
  EXPECT_EQ(opened.close(17), 0);
  EXPECT_EQ(opened.close(), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(open_descriptors(), 0);
}

TEST_F(volume_files, a_file_is_streamed_in_pieces_of_the_callers_size) {
  ASSERT_EQ(files().write_file("a", "0123456789"), 0);
  const file opened = files().open("a", ifs_open_read);
  char piece[4];
  EXPECT_EQ(opened.read(piece, sizeof piece), 4);
  EXPECT_EQ(opened.read(piece, sizeof piece), 4);
  EXPECT_EQ(opened.read(piece, sizeof piece), 2);
  EXPECT_EQ(opened.read(piece, sizeof piece), 0);
  EXPECT_EQ(opened.seek(-3, ifs_seek_end), 7);
  EXPECT_EQ(opened.read(piece, 1), 1);
  EXPECT_EQ(piece[0], '7');
  EXPECT_EQ(opened.seek(-1), -1);
}

TEST_F(volume_files, names_and_modes_change) {
  make_tree();
  EXPECT_EQ(files().rename("a", "e/b"), 0);
  EXPECT_EQ(files().chmod("e/b", 0x1A4), 0);
  ppc_stat status;
  ASSERT_EQ(files().stat("e/b", &status), 0);
  EXPECT_EQ(status.mode & ppc_mode_permissions, 0x1A4);
  EXPECT_EQ(files().remove("e/b"), 0);
  EXPECT_EQ(files().rmdir("e"), -1);
  EXPECT_EQ(files().remove("e/last"), 0);
  EXPECT_EQ(files().rmdir("e"), 0);
  EXPECT_EQ(walked(), "d/ d/inner/ d/inner/deep");
  ppc_statfs space;
  ASSERT_EQ(files().statfs(&space), 0);
  EXPECT_EQ(space.block_size, 2048U);
}

TEST_F(volume_files, a_directory_is_listed_with_the_status_of_what_it_holds) {
  make_tree();
  EXPECT_EQ(listing(""), "d/ e/ a");
  EXPECT_EQ(listing("/"), "d/ e/ a");
  EXPECT_EQ(listing("d/inner"), "deep");
  EXPECT_EQ(listing("/d/inner/"), "deep");
  std::vector<entry> found;
  ASSERT_EQ(files().list("", &found), 0);
  ASSERT_EQ(found.size(), 3U);
  EXPECT_EQ(found[2].status.size, 5U);
  EXPECT_TRUE(found[2].is_regular());
  EXPECT_TRUE(found[0].is_directory());
}

TEST_F(volume_files, a_walk_tells_a_directory_whole_before_it_enters_those_in_it) {
  make_tree();
  EXPECT_EQ(walked(), "d/ e/ a d/inner/ d/inner/deep e/last");
  EXPECT_EQ(walked("d"), "inner/ inner/deep");
  EXPECT_EQ(walked("/d/inner/"), "deep");
}

// A check would part them; between two checks the flash can be damaged like this.
TEST_F(volume_files, directories_that_hold_each_other_are_entered_once) {
  make_tree();
  ASSERT_EQ(files().mkdir("d/inner/back"), 0);
  ppc_stat outer;
  ASSERT_EQ(files().stat("d", &outer), 0);
  const std::string name = "back";
  uint8_t* end = flash().bytes() + flash().flash().size();
  uint8_t* at = std::search(flash().bytes(), end, name.begin(), name.end());
  ASSERT_NE(at, end);
  constexpr ptrdiff_t from_name_to_entry_fileid = -12;
  at[from_name_to_entry_fileid] = 0;
  at[from_name_to_entry_fileid + 1] = static_cast<uint8_t>(outer.fileid);
  EXPECT_EQ(listing("d/inner/back/inner/back"), "inner/");
  EXPECT_EQ(walked(), "d/ e/ a d/inner/ d/inner/deep d/inner/back/ e/last");
  EXPECT_EQ(walked("d"), "inner/ inner/deep inner/back/");
}

TEST_F(volume_files, an_entry_whose_status_cannot_be_had_is_listed_with_its_errno) {
  make_tree();
  flash().fail(test_support::flash_call::read, 3, flash_operation_failed);
  std::vector<entry> found;
  const int32_t result = files().list("", &found);
  flash().fail(test_support::flash_call::any, 0, flash_ok);
  // A read that fails marks the file system down: what comes after says so.
  EXPECT_EQ(result, -1);
  EXPECT_EQ(errno, EINVAL);
  ASSERT_FALSE(found.empty());
  EXPECT_EQ(found.back().error, EIO);
  EXPECT_FALSE(found.back().is_directory());
  EXPECT_NE(found.back().status.fileid, 0U);
}

TEST_F(volume_files, a_check_a_format_and_a_verification_go_by_the_prefix) {
  make_tree();
  EXPECT_EQ(files().verify("d/inner/deep"), 0);
  EXPECT_EQ(files().verify("missing"), -1);
  EXPECT_EQ(files().check(flashfs_check_full), 0);
  EXPECT_EQ(walked(), "d/ e/ a d/inner/ d/inner/deep e/last");
  EXPECT_EQ(files().format(), 0);
  EXPECT_EQ(walked(), "");
}

}  // namespace
}  // namespace volume_test
