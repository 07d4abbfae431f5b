// Archives of this library, GNU tar and bsdtar read each other's.
#include "image/tar.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "image/extraction.h"
#include "tests/image/tree_text.h"
#include "tests/support/run_program.h"
#include "tests/support/stored_image.h"

namespace image_test {
namespace {

using test_support::read_whole_file;
using test_support::shell_output;
using test_support::temporary_folder;
using test_support::write_whole_file;

image::tree tree_of_tar(const std::string& path, const image::tree_options& options = {}) {
  const int fd = open(path.c_str(), O_RDONLY);
  image::tree made = image::read_tar(fd, options);
  close(fd);
  return made;
}

std::string write_tar_file(const image::tree& from, const std::string& path) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  std::string fault = image::write_tar(from, fd);
  close(fd);
  return fault;
}

class tar_archive : public testing::Test {
 protected:
  std::string sh(const std::string& command) {
    return shell_output("cd '" + folder.path() + "' && " + command);
  }
  image::tree tree_of_commands(const std::string& commands) {
    sh("mkdir -p in && cd in && " + commands);
    sh("tar -cf out.tar -C in --sort=name .");
    return tree_of_tar(folder.file("out.tar"));
  }
  temporary_folder folder;
};

TEST_F(tar_archive, is_read_as_it_was_written) {
  const image::tree from = manifold_tree();
  ASSERT_EQ(write_tar_file(from, folder.file("a.tar")), "");
  const image::tree back = tree_of_tar(folder.file("a.tar"));
  EXPECT_EQ(tree_text(back), tree_text(from));
  EXPECT_EQ(problems_text(back.errors) + problems_text(back.warnings), "");
  ASSERT_EQ(write_tar_file(back, folder.file("b.tar")), "");
  EXPECT_TRUE(read_whole_file(folder.file("a.tar")) == read_whole_file(folder.file("b.tar")));
  EXPECT_EQ(read_whole_file(folder.file("a.tar")).size() % 10240, 0U);
}

TEST_F(tar_archive, is_unpacked_by_others) {
  const image::tree from = manifold_tree();
  ASSERT_EQ(write_tar_file(from, folder.file("a.tar")), "");
  for (const std::string program : {"tar", "bsdtar"}) {
    sh("mkdir " + program + " && " + program + " -xpf a.tar -C " + program);
    EXPECT_EQ(tree_text(image::read_folder(folder.file(program), {})), tree_text(from)) << program;
  }
}

TEST_F(tar_archive, is_packed_by_others) {
  const image::tree from = manifold_tree();
  ASSERT_TRUE(image::extract_tree(from, folder.file("in"), {}).errors.empty());
  for (const std::string format : {"tar --format=gnu", "tar --format=posix", "tar --format=ustar",
                                   "bsdtar --format=pax", "tar -z", "tar -J"}) {
    sh(format + " -cf out.tar -C in .");
    const image::tree back = tree_of_tar(folder.file("out.tar"));
    EXPECT_EQ(tree_text(back), tree_text(from)) << format;
    EXPECT_EQ(problems_text(back.errors) + problems_text(back.warnings), "") << format;
    EXPECT_TRUE(back.root_mtime) << format;
  }
}

TEST_F(tar_archive, leaves_links_and_special_files_out_and_says_so) {
  const image::tree made = tree_of_commands(
      "echo x > file && chmod 644 file && ln -s file link && ln file other && mkfifo pipe && "
      "touch -d @5 file");
  EXPECT_EQ(tree_text(made), "file 644 5 [x\n]\nother 644 5 [x\n]\n");
  EXPECT_EQ(problems_text(made.warnings),
            "link: a symbolic link, left out\n"
            "pipe: a special file, left out\n");
}

TEST_F(tar_archive, takes_the_contents_of_hard_links_from_what_they_name) {
  for (const std::string program : {"tar", "bsdtar --format=pax", "tar --format=posix"}) {
    sh("rm -rf in && mkdir -p in/d && cd in && echo x > a && chmod 640 a && ln a b && ln a d/c && "
       "touch -d @5 a d . && " +
       program + " -cf ../out.tar .");
    const image::tree made = tree_of_tar(folder.file("out.tar"));
    EXPECT_EQ(tree_text(made), tree_text(image::read_folder(folder.file("in"), {}))) << program;
    EXPECT_EQ(problems_text(made.warnings) + problems_text(made.errors), "") << program;
  }
  // One that names what is not in the archive has none.
  sh("cd in && tar -cf ../out.tar a b && tar --delete -f ../out.tar a");
  const image::tree made = tree_of_tar(folder.file("out.tar"));
  EXPECT_EQ(tree_text(made), "");
  EXPECT_EQ(problems_text(made.warnings),
            "b: a hard link to a, which does not stand before it, left out\n");
  // Nor do those that would go beyond the limit.
  sh("cd in && tar -cf ../out.tar a b");
  const image::tree limited = tree_of_tar(folder.file("out.tar"), {.contents_limit = 3});
  ASSERT_EQ(limited.entries.size(), 2U);
  EXPECT_TRUE(limited.contents_left_out);
  EXPECT_EQ(limited.entries[1].size, 2U);
  EXPECT_EQ(limited.entries[1].contents, "");
}

TEST_F(tar_archive, tells_several_owners) {
  sh("mkdir in && touch in/a in/b && tar -cf out.tar -C in --owner=:1 a && "
     "tar -rf out.tar -C in --owner=:2 b");
  EXPECT_EQ(problems_text(tree_of_tar(folder.file("out.tar")).warnings),
            ": the files have several owners, which are left out\n");
}

TEST_F(tar_archive, may_not_lead_out_of_itself) {
  sh("mkdir in && cd in && echo x > a && mkdir d && "
     "tar -P -cf ../out.tar --transform='s,^a$,../a,' a && "
     "tar -P -rf ../out.tar --transform='s,^a$,/etc/a,' a && "
     "tar -P -rf ../out.tar --transform='s,^a$,d/../../a,' a && "
     "tar -rf ../out.tar --transform='s,^a$,./d/.//b,' a");
  const image::tree made = tree_of_tar(folder.file("out.tar"));
  EXPECT_EQ(problems_text(made.errors),
            "/etc/a: the name is absolute\n"
            "../a: the name stands for a folder of the host\n"
            "d/../../a: the name stands for a folder of the host\n");
  ASSERT_EQ(made.entries.size(), 2U);
  EXPECT_EQ(made.entries[0].path, "d");
  EXPECT_EQ(made.entries[1].path, "d/b");
}

TEST_F(tar_archive, takes_the_last_of_a_name_and_refuses_a_file_that_is_a_folder) {
  sh("mkdir in && cd in && echo 1 > a && chmod 600 a && tar -cf ../out.tar a && echo 2 > a && "
     "touch -d @9 a && tar -rf ../out.tar a");
  EXPECT_EQ(tree_text(tree_of_tar(folder.file("out.tar"))), "a 600 9 [2\n]\n");
  sh("cd in && rm a && mkdir a && tar -rf ../out.tar a && touch a/b && tar -rf ../out.tar a/b");
  EXPECT_EQ(problems_text(tree_of_tar(folder.file("out.tar")).errors),
            "a: comes twice, as a file and as a folder\n"
            "a/b: lies in what is a file\n");
}

TEST_F(tar_archive, implies_the_folders_that_it_does_not_name) {
  sh("mkdir -p in/d/e && touch -d @7 in/d/e/a && touch -d @8 in/d/b && chmod 600 in/d/e/a in/d/b "
     "&& tar -cf out.tar -C in d/e/a d/b");
  EXPECT_EQ(tree_text(tree_of_tar(folder.file("out.tar"))),
            "d/ 755 8\n"
            "d/b 600 8 []\n"
            "d/e/ 755 7\n"
            "d/e/a 600 7 []\n");
}

TEST_F(tar_archive, must_be_one_and_whole) {
  write_whole_file(folder.file("text"), std::string(5000, 'x'));
  EXPECT_EQ(tree_of_tar(folder.file("text")).errors.size(), 1U);
  ASSERT_EQ(write_tar_file(manifold_tree(), folder.file("a.tar")), "");
  const std::string whole = read_whole_file(folder.file("a.tar"));
  for (const size_t size : {whole.size() / 2 + 100, whole.size() / 3 + 100, size_t{700}}) {
    write_whole_file(folder.file("cut.tar"), whole.substr(0, size));
    EXPECT_FALSE(tree_of_tar(folder.file("cut.tar")).errors.empty()) << size;
  }
}

TEST_F(tar_archive, tells_the_size_of_what_is_too_much_to_read) {
  sh("truncate -s 100000 big && tar -cf out.tar big");
  const image::tree made = tree_of_tar(folder.file("out.tar"), {.contents_limit = 1000});
  EXPECT_TRUE(made.contents_left_out);
  ASSERT_EQ(made.entries.size(), 1U);
  EXPECT_EQ(made.entries[0].size, 100000U);
  EXPECT_TRUE(made.entries[0].contents.empty());
}

TEST_F(tar_archive, names_what_cannot_be_written) {
  image::tree from = tree_of({file_entry("a", std::string(100000, 'x'))});
  const int fd = open("/dev/full", O_WRONLY);
  EXPECT_NE(image::write_tar(from, fd), "");
  close(fd);
}

}  // namespace
}  // namespace image_test
