// Trees written into folders of the host; hostile ones stay inside.
#include "image/extraction.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "tests/image/tree_text.h"
#include "tests/support/run_program.h"

namespace image_test {
namespace {

using image::extract_tree;
using image::extraction;
using test_support::read_whole_file;
using test_support::temporary_folder;
using test_support::write_whole_file;

bool is_there(const std::string& path) {
  struct stat status = {};
  return lstat(path.c_str(), &status) == 0;
}

TEST(extraction, gives_the_tree_back) {
  const temporary_folder folder;
  const image::tree from = manifold_tree();
  const extraction done = extract_tree(from, folder.file("out"), {});
  EXPECT_EQ(problems_text(done.errors), "");
  EXPECT_EQ(problems_text(done.warnings), "");
  EXPECT_EQ(done.files + done.folders, from.entries.size());
  EXPECT_EQ(tree_text(image::read_folder(folder.file("out"), {})), tree_text(from));
}

TEST(extraction, gives_files_of_the_board_the_usual_permissions) {
  // What is stored comes back, and never more than that; but the owner gets to it.
  for (uint32_t mode = 1; mode <= 0777; ++mode) {
    EXPECT_EQ(image::host_permissions(0x8600 | mode, false), mode);
    EXPECT_EQ(image::host_permissions(0x4600 | mode, true), mode == 0400 ? 0700 : mode);
  }
  EXPECT_EQ(image::host_permissions(0x4600, true), 0700U);
  EXPECT_EQ(image::host_permissions(0x87A4, false), 0644U);
  EXPECT_EQ(image::host_permissions(0x8600, false), 0400U);
}

TEST(extraction, refuses_a_folder_that_is_not_empty) {
  const temporary_folder folder;
  write_whole_file(folder.file("there"), "old");
  const image::tree from = tree_of({file_entry("new", "x"), file_entry("there", "new")});
  const extraction refused = extract_tree(from, folder.path(), {});
  EXPECT_TRUE(refused.refused);
  EXPECT_EQ(problems_text(refused.errors),
            folder.path() + ": the folder is not empty; --force writes into it\n");
  EXPECT_FALSE(is_there(folder.file("new")));

  const extraction forced = extract_tree(from, folder.path(), {.force = true});
  EXPECT_EQ(problems_text(forced.errors), "");
  EXPECT_EQ(read_whole_file(folder.file("there")), "new");
  EXPECT_EQ(read_whole_file(folder.file("new")), "x");
}

TEST(extraction, refuses_a_file_and_a_missing_place_as_its_target) {
  const temporary_folder folder;
  write_whole_file(folder.file("file"), "x");
  EXPECT_EQ(problems_text(extract_tree(tree_of({}), folder.file("file"), {}).errors),
            folder.file("file") + ": Not a directory\n");
  EXPECT_EQ(problems_text(extract_tree(tree_of({}), folder.file("no/where"), {}).errors),
            folder.file("no/where") + ": No such file or directory\n");
}

TEST(extraction, judges_all_names_before_it_writes_any) {
  const temporary_folder folder;
  image::tree from;
  from.entries = {file_entry("..", "x"), folder_entry("."), file_entry("./a", "x"),
                  file_entry("good", "x")};
  const extraction refused = extract_tree(from, folder.file("out"), {});
  EXPECT_TRUE(refused.refused);
  EXPECT_EQ(problems_text(refused.errors),
            "..: the name stands for a folder of the host\n"
            ".: the name stands for a folder of the host\n");
  EXPECT_FALSE(is_there(folder.file("out")));

  const extraction partly = extract_tree(from, folder.file("out"), {.keep_going = true});
  EXPECT_EQ(partly.files, 1U);
  EXPECT_EQ(partly.errors.size(), 2U);
  EXPECT_TRUE(is_there(folder.file("out/good")));
  EXPECT_FALSE(is_there(folder.file("out/a")));
}

TEST(extraction, follows_no_link_that_stands_in_its_way) {
  const temporary_folder folder;
  ASSERT_EQ(mkdir(folder.file("outside").c_str(), 0755), 0);
  ASSERT_EQ(mkdir(folder.file("out").c_str(), 0755), 0);
  write_whole_file(folder.file("victim"), "untouched");
  ASSERT_EQ(symlink("../outside", folder.file("out/d").c_str()), 0);
  ASSERT_EQ(symlink("../victim", folder.file("out/f").c_str()), 0);

  const image::tree from =
      tree_of({folder_entry("d"), file_entry("d/inner", "x"), file_entry("f", "replaced")});
  const extraction done =
      extract_tree(from, folder.file("out"), {.force = true, .keep_going = true});
  EXPECT_EQ(problems_text(done.errors), "d: a link is in the way, which is not followed\n");
  EXPECT_FALSE(is_there(folder.file("outside/inner")));
  EXPECT_EQ(read_whole_file(folder.file("victim")), "untouched");
  EXPECT_EQ(read_whole_file(folder.file("out/f")), "replaced");
  struct stat status = {};
  ASSERT_EQ(lstat(folder.file("out/f").c_str(), &status), 0);
  EXPECT_TRUE(S_ISREG(status.st_mode));
}

TEST(extraction, ends_with_the_first_error_unless_it_is_to_keep_going) {
  const temporary_folder folder;
  ASSERT_EQ(mkdir(folder.file("out").c_str(), 0755), 0);
  ASSERT_EQ(mkdir(folder.file("out/a").c_str(), 0755), 0);
  const image::tree from = tree_of({file_entry("a", "x"), file_entry("b", "x")});
  const extraction ended = extract_tree(from, folder.file("out"), {.force = true});
  EXPECT_EQ(ended.errors.size(), 1U);
  EXPECT_FALSE(ended.refused);
  EXPECT_FALSE(is_there(folder.file("out/b")));
  const extraction went_on =
      extract_tree(from, folder.file("out"), {.force = true, .keep_going = true});
  EXPECT_EQ(went_on.errors.size(), 1U);
  EXPECT_TRUE(is_there(folder.file("out/b")));
}

TEST(extraction, tells_control_characters_in_names) {
  const temporary_folder folder;
  const image::tree from = tree_of({file_entry("a\x1b[2J", "x"), file_entry("b\x7f", "x")});
  const extraction done = extract_tree(from, folder.file("out"), {});
  EXPECT_EQ(done.files, 2U);
  EXPECT_EQ(done.warnings.size(), 2U);
}

TEST(extraction, wants_the_folder_of_each_entry) {
  const temporary_folder folder;
  const image::tree from = tree_of({file_entry("no/folder", "x")});
  EXPECT_EQ(problems_text(extract_tree(from, folder.file("out"), {}).errors),
            "no/folder: the folder that holds it is missing\n");
}

}  // namespace
}  // namespace image_test
