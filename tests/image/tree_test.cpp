// The order of trees, what the flash asks of names and dates, and folders of the host.
#include "image/tree.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "image/paths.h"
#include "tests/image/tree_text.h"
#include "tests/support/run_program.h"

namespace image_test {
namespace {

using image::tree_entry;
using test_support::temporary_folder;
using test_support::write_whole_file;

TEST(tree_order, is_that_of_the_bytes_of_each_name_with_folders_kept_together) {
  std::vector<std::string> paths = {"b", "a.b", "a/b/c", "a", "a!", "a/b", "\xff", "a/~", "B"};
  std::sort(paths.begin(), paths.end(), image::path_is_before);
  EXPECT_EQ(paths,
            (std::vector<std::string>{"B", "a", "a/b", "a/b/c", "a/~", "a!", "a.b", "b", "\xff"}));
  EXPECT_FALSE(image::path_is_before("a", "a"));
}

TEST(tree_path, falls_apart_into_folder_and_name) {
  EXPECT_EQ(image::name_of_path("a/b/c"), "c");
  EXPECT_EQ(image::folder_of_path("a/b/c"), "a/b");
  EXPECT_EQ(image::name_of_path("a"), "a");
  EXPECT_EQ(image::folder_of_path("a"), "");
}

TEST(tree_name, may_have_45_bytes_that_are_all_allowed) {
  for (int value = 1; value < 256; ++value) {
    const char character = static_cast<char>(value);
    const bool illegal = value < 0x21 || value > 0x7E ||
                         std::string("\"'`\\/:;").find(character) != std::string::npos;
    EXPECT_EQ(image::name_fault(std::string("a") + character).empty(), !illegal) << value;
  }
  EXPECT_EQ(image::name_fault(std::string(45, 'n')), "");
  EXPECT_EQ(image::name_fault(std::string(46, 'n')),
            "the name has 46 bytes, at most 45 are possible");
  EXPECT_EQ(image::name_fault("a b"), "the name holds the byte 0x20");
  EXPECT_EQ(image::name_fault("\xc3\xa4"), "the name holds the byte 0xc3");
  EXPECT_EQ(image::name_fault("a:b"), "the name holds the character :");
  EXPECT_EQ(image::name_fault(""), "an empty name");
  for (const char* name : {".", ".."}) {
    EXPECT_EQ(image::name_fault(name),
              "the name stands for a folder of the host, where nobody could take it out");
  }
  EXPECT_EQ(image::name_fault("..a"), "");
  EXPECT_EQ(image::name_fault(std::string("a\0b", 3)), "the name holds a zero byte");
}

TEST(tree_path, is_judged_name_by_name_and_by_its_length) {
  EXPECT_EQ(image::path_fault("a/b"), "");
  EXPECT_EQ(image::path_fault("a/b c/d"), "the name holds the byte 0x20");
  EXPECT_EQ(image::path_fault("a//d"), "an empty name");
  EXPECT_EQ(image::path_fault("..."), "this name stands for the whole device");
  EXPECT_EQ(image::path_fault("a/..."), "");
  std::string deep = "n";
  while (deep.size() < image::tree_path_max) {
    deep += deep.size() % 2 == 1 ? "/" : "n";
  }
  deep.back() = 'n';
  EXPECT_EQ(image::path_fault(deep), "");
  EXPECT_EQ(image::path_fault(deep + "n"), "the path has 319 bytes, at most 318 are possible");
}

TEST(tree_finished, names_every_entry_that_cannot_be) {
  image::tree made;
  made.entries = {{"z", false, 0644, 1, "", 0},
                  {"bad name", true, 0755, 1, "", 0},
                  {"bad name/inner", false, 0644, 1, "", 0},
                  {"a:b", false, 0644, 1, "", 0}};
  image::finish_tree(&made);
  ASSERT_EQ(made.entries.size(), 4U);
  EXPECT_EQ(made.entries[0].path, "a:b");
  EXPECT_EQ(problems_text(made.errors),
            "a:b: the name holds the character :\n"
            "bad name: the name holds the byte 0x20\n");
}

TEST(tree_of_a_folder, has_files_and_folders_with_contents_modes_and_dates) {
  const temporary_folder folder;
  ASSERT_EQ(mkdir(folder.file("d").c_str(), 0755), 0);
  write_whole_file(folder.file("d/file"), "contents");
  write_whole_file(folder.file("empty"), "");
  ASSERT_EQ(chmod(folder.file("d/file").c_str(), 0640), 0);
  ASSERT_EQ(chmod(folder.file("empty").c_str(), 0444), 0);
  set_date(folder.file("d/file"), 1600000001);
  set_date(folder.file("empty"), 0);
  set_date(folder.file("d"), 1600000003);
  set_date(folder.path(), 1600000004);

  image::tree made = image::read_folder(folder.path(), {});
  EXPECT_EQ(tree_text(made),
            "d/ 755 1600000003\n"
            "d/file 640 1600000001 [contents]\n"
            "empty 444 1 []\n");
  EXPECT_EQ(made.root_mtime, 1600000004U);
  EXPECT_TRUE(made.warnings.empty() && made.errors.empty());

  ASSERT_EQ(setenv("SOURCE_DATE_EPOCH", "1600000002", 1), 0);
  made = image::read_folder(folder.path(), {});
  ASSERT_EQ(unsetenv("SOURCE_DATE_EPOCH"), 0);
  EXPECT_EQ(tree_text(made),
            "d/ 755 1600000002\n"
            "d/file 640 1600000001 [contents]\n"
            "empty 444 1 []\n");
}

TEST(tree_of_a_folder, leaves_links_and_special_files_out_and_says_so) {
  const temporary_folder folder;
  write_whole_file(folder.file("file"), "x");
  ASSERT_EQ(symlink("file", folder.file("link").c_str()), 0);
  ASSERT_EQ(symlink("/", folder.file("link-out").c_str()), 0);
  ASSERT_EQ(mkfifo(folder.file("pipe").c_str(), 0600), 0);
  ASSERT_EQ(chmod(folder.file("file").c_str(), 04755), 0);
  set_date(folder.file("file"), 5);

  const image::tree made = image::read_folder(folder.path(), {});
  EXPECT_EQ(tree_text(made), "file 755 5 [x]\n");
  EXPECT_EQ(problems_text(made.warnings),
            "file: set-id and sticky bits, left out\n"
            "link: a symbolic link, left out\n"
            "link-out: a symbolic link, left out\n"
            "pipe: a pipe, left out\n");
  EXPECT_TRUE(made.errors.empty());
}

TEST(tree_of_a_folder, is_an_error_where_there_is_none_and_where_it_is_too_deep) {
  const temporary_folder folder;
  EXPECT_EQ(problems_text(image::read_folder(folder.file("none"), {}).errors),
            folder.file("none") + ": No such file or directory\n");

  const int start = open(".", O_RDONLY | O_DIRECTORY);
  ASSERT_EQ(chdir(folder.path().c_str()), 0);
  for (int i = 0; i < 10; ++i) {
    ASSERT_EQ(mkdir(std::string(45, 'n').c_str(), 0755), 0);
    ASSERT_EQ(chdir(std::string(45, 'n').c_str()), 0);
  }
  ASSERT_EQ(fchdir(start), 0);
  close(start);
  const image::tree made = image::read_folder(folder.path(), {});
  EXPECT_EQ(made.entries.size(), 7U);
  ASSERT_EQ(made.errors.size(), 1U);
  EXPECT_EQ(made.errors[0].text, "the path has 321 bytes, at most 318 are possible");
}

TEST(tree_of_a_folder, tells_the_size_of_what_is_too_much_to_read) {
  const temporary_folder folder;
  write_whole_file(folder.file("a"), "12345");
  const int fd = open(folder.file("huge").c_str(), O_CREAT | O_WRONLY, 0644);
  ASSERT_EQ(ftruncate(fd, off_t{1} << 40), 0);
  close(fd);
  const image::tree made = image::read_folder(folder.path(), {.contents_limit = 1000});
  EXPECT_TRUE(made.contents_left_out);
  ASSERT_EQ(made.entries.size(), 2U);
  EXPECT_EQ(made.entries[0].size, 5U);
  EXPECT_EQ(made.entries[1].size, uint64_t{1} << 40);
  EXPECT_TRUE(made.entries[1].contents.empty());
}

TEST(tree_of_a_folder, reads_large_files_later_where_they_still_are) {
  const temporary_folder folder;
  const std::string large(20000, 'l');
  std::filesystem::create_directories(folder.file("a/b"));
  write_whole_file(folder.file("a/b/large"), large);
  write_whole_file(folder.file("small"), "small");
  const image::tree made = image::read_folder(folder.path(), {.large_files_later = true});
  ASSERT_EQ(made.entries.size(), 4U);
  const image::tree_entry& later = made.entries[2];
  EXPECT_EQ(later.path, "a/b/large");
  EXPECT_EQ(later.size, large.size());
  EXPECT_EQ(later.contents, "");
  EXPECT_EQ(made.entries[3].contents, "small");

  std::string held;
  std::string_view contents;
  EXPECT_EQ(contents_of(made, made.entries[3], &held, &contents), "");
  EXPECT_EQ(contents, "small");
  EXPECT_EQ(contents_of(made, later, &held, &contents), "");
  EXPECT_EQ(contents, large);

  // What others do meanwhile is noticed, or told as what it is.
  write_whole_file(folder.file("a/b/large"), large + "r");
  EXPECT_EQ(contents_of(made, later, &held, &contents), "has changed its size meanwhile");
  std::filesystem::remove(folder.file("a/b/large"));
  EXPECT_EQ(contents_of(made, later, &held, &contents), "No such file or directory");
  std::filesystem::create_directory(folder.file("a/b/large"));
  EXPECT_EQ(contents_of(made, later, &held, &contents), "Device or resource busy");
  std::filesystem::rename(folder.file("a/b"), folder.file("elsewhere"));
  std::filesystem::create_directory_symlink("../elsewhere", folder.file("a/b"));
  EXPECT_EQ(contents_of(made, later, &held, &contents), "Not a directory");
}

TEST(owners, are_told_once_when_there_are_several) {
  image::tree made;
  image::owner_watch owners;
  owners.see(1, 2);
  owners.see(1, 2);
  owners.warn(&made);
  EXPECT_TRUE(made.warnings.empty());
  owners.see(1, 3);
  owners.see(1, 3);
  owners.warn(&made);
  EXPECT_EQ(problems_text(made.warnings), ": the files have several owners, which are left out\n");
}

}  // namespace
}  // namespace image_test
