// put, rm, mkdir, mv, chmod, truncate and format, as people run them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "tests/image/image_command.h"
#include "tests/support/golden.h"
#include "tests/support/image_builder.h"

namespace {

using json = nlohmann::ordered_json;
using test_support::read_whole_file;
using test_support::write_whole_file;

class editing_commands : public test_support::image_command {
 protected:
  editing_commands() {
    store("basic");
  }
  std::string listing() const {
    return output_of({"--strict", "--full", "ls", "-lRa", "basic.img"});
  }
  // Runs a command that must fail with this status and leave the image and the folder alone.
  void expect_refused(const std::vector<std::string>& words, int status) const {
    const std::string before = contents("basic.img");
    const std::vector<std::string> there = names();
    EXPECT_EQ(run(words).status, status) << testing::PrintToString(words);
    EXPECT_TRUE(contents("basic.img") == before) << testing::PrintToString(words);
    EXPECT_EQ(names(), there);
  }
};

TEST_F(editing_commands, edit_files) {
  write_whole_file(file("new.txt"), "new contents\n");
  test_support::expect_golden("image_edit.txt",
                              transcript({
                                  {"put", "basic.img", "new.txt", "/config"},
                                  {"put", "-m", "640", "basic.img", "new.txt", "/readme.txt"},
                                  {"cat", "basic.img", "/readme.txt", "/config/new.txt"},
                                  {"mkdir", "basic.img", "/a", "/a/b"},
                                  {"mkdir", "-p", "basic.img", "/a/c/d", "/a"},
                                  {"mv", "basic.img", "/config/startup.cfg", "/a/c"},
                                  {"mv", "basic.img", "/config", "/a/c/d/config"},
                                  {"mv", "-f", "basic.img", "/readme.txt", "/empty"},
                                  {"chmod", "basic.img", "751", "/empty", "/a"},
                                  {"truncate", "basic.img", "-s", "5", "/over2049"},
                                  {"truncate", "basic.img", "-s", "4000", "/nul.bin"},
                                  {"rm", "basic.img", "/exact2048"},
                                  {"rm", "-rf", "basic.img", "/a/b", "/gone", "/a/c/d/config/deep"},
                                  {"ls", "-lRa", "basic.img"},
                                  {"cat", "basic.img", "/empty"},
                              }));
  EXPECT_EQ(run({"--full", "--strict", "ls", "basic.img"}).status, 0);
  EXPECT_EQ(names(), (std::vector<std::string>{"basic.img", "new.txt"}));
}

TEST_F(editing_commands, what_cannot_be_done_is_told_and_nothing_is_changed) {
  write_whole_file(file("new.txt"), "new contents\n");
  std::filesystem::create_directory(file("folder"));
  const std::string before = contents("basic.img");
  const std::string long_name(46, 'n');
  test_support::expect_golden("image_edit_failures.txt",
                              transcript({
                                  {"put", "basic.img", "gone.txt", "new.txt", "/config"},
                                  {"put", "basic.img", "new.txt", "/gone/new.txt"},
                                  {"put", "basic.img", "new.txt", "/a:b", "--quiet"},
                                  {"put", "basic.img", "new.txt", "/" + long_name},
                                  {"put", "basic.img", "folder", "/"},
                                  {"put", "-r", "basic.img", "folder", "/readme.txt"},
                                  {"put", "basic.img", "new.txt", "new.txt", "/readme.txt"},
                                  {"put", "basic.img", "new.txt", "new.txt", "/config"},
                                  {"put", "basic.img", "-", "/config"},
                                  {"put", "-m", "8", "basic.img", "new.txt", "/x"},
                                  {"put", "basic.img", "new.txt"},
                                  {"mkdir", "basic.img", "/config", "/x/y", "/"},
                                  {"mkdir", "-p", "basic.img", "/readme.txt/x"},
                                  {"mv", "basic.img", "/gone", "/x"},
                                  {"mv", "basic.img", "/readme.txt", "/empty"},
                                  {"mv", "-f", "basic.img", "/config", "/empty"},
                                  {"mv", "basic.img", "/config", "/config/deep"},
                                  {"mv", "basic.img", "/readme.txt", "/gone/x"},
                                  {"mv", "basic.img", "/", "/x"},
                                  {"chmod", "basic.img", "rwx", "/readme.txt"},
                                  {"chmod", "basic.img", "644", "/gone", "/"},
                                  {"truncate", "basic.img", "/readme.txt"},
                                  {"truncate", "basic.img", "-s", "1", "/config"},
                                  {"truncate", "basic.img", "-s", "1", "/gone"},
                                  {"truncate", "basic.img", "-s", "99999999", "/readme.txt"},
                                  {"rm", "basic.img", "/readme.txt", "/config", "/gone", "/"},
                                  {"format", "basic.img"},
                              }));
  EXPECT_TRUE(contents("basic.img") == before);
  EXPECT_EQ(names(), (std::vector<std::string>{"basic.img", "folder", "new.txt"}));
}

TEST_F(editing_commands, every_name_that_cannot_be_is_told) {
  std::filesystem::create_directories(file("folder/good"));
  write_whole_file(file("folder/with space"), "");
  write_whole_file(file("folder/good/" + std::string(46, 'n')), "");
  write_whole_file(file("folder/good/semi;colon"), "");
  const json document = document_of({"put", "-r", "basic.img", "folder", "/"}, 8);
  EXPECT_EQ(document["findings"].size(), 3U) << document;
  expect_refused({"put", "-r", "basic.img", "folder", "/"}, 8);
}

TEST_F(editing_commands, a_folder_goes_in_with_its_dates_and_comes_out_again) {
  std::filesystem::create_directories(file("folder/sub"));
  write_whole_file(file("folder/one"), std::string(5000, '1'));
  write_whole_file(file("folder/sub/two"), "2");
  for (const char* name : {"folder/one", "folder/sub/two", "folder/sub", "folder"}) {
    const timespec times[2] = {{1600000000, 0}, {1600000000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, file(name).c_str(), times, 0), 0);
    ASSERT_EQ(chmod(file(name).c_str(), 0750), 0);
  }
  output_of({"put", "-rp", "basic.img", "folder", "/new"});
  EXPECT_EQ(output_of({"ls", "-lR", "basic.img", "/new"}),
            "-rwx 0750      5000 2020-09-13 12:26:40 /new/one\n"
            "drwx 0750        64 2020-09-13 12:26:40 /new/sub\n"
            "-rwx 0750         1 2020-09-13 12:26:40 /new/sub/two\n");
  EXPECT_EQ(
      output_of({"ls", "-l", "basic.img"}).find("drwx 0750       128 2020-09-13 12:26:40 new"),
      output_of({"ls", "-l", "basic.img"}).find("drwx 0750"));
  output_of({"get", "-r", "basic.img", "/new", "back"});
  EXPECT_EQ(contents("back/one"), contents("folder/one"));
  EXPECT_EQ(contents("back/sub/two"), "2");
}

TEST_F(editing_commands, what_has_no_place_in_an_image_is_left_out_or_refused) {
  std::filesystem::create_directories(file("folder"));
  std::filesystem::create_symlink("nowhere", file("folder/link"));
  write_whole_file(file("folder/kept"), "kept");
  expect_refused({"--strict", "put", "-r", "basic.img", "folder", "/new"}, 4);
  const test_support::program_result result = run({"put", "-r", "basic.img", "folder", "/new"});
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.err.find("folder/link"), std::string::npos) << result.err;
  EXPECT_EQ(output_of({"ls", "basic.img", "/new"}), "kept\n");
}

TEST_F(editing_commands, more_than_fits_is_told_with_the_figures) {
  write_whole_file(file("large"), std::string(28 << 20, 'x'));
  const test_support::program_result result = run({"put", "basic.img", "large", "/large"});
  EXPECT_EQ(result.status, 8);
  EXPECT_NE(result.err.find("14336 sectors of 2048 bytes are needed, 13"), std::string::npos)
      << result.err;
  expect_refused({"put", "basic.img", "large", "/large"}, 8);
}

TEST_F(editing_commands, a_full_image_takes_a_file_in_place_of_another) {
  write_whole_file(file("large"), std::string(26 << 20, 'x'));
  write_whole_file(file("other"), std::string(26 << 20, 'y'));
  output_of({"put", "basic.img", "large", "/large"});
  output_of({"put", "basic.img", "other", "/large"});
  EXPECT_TRUE(output_of({"cat", "basic.img", "/large"}) == contents("other"));
  EXPECT_EQ(run({"--full", "--strict", "ls", "basic.img"}).status, 0);
}

TEST_F(editing_commands, the_same_edit_gives_the_same_bytes) {
  write_whole_file(file("new.txt"), "new contents\n");
  output_of({"-o", "first.img", "put", "basic.img", "new.txt", "/new.txt"});
  output_of({"-o", "second.img", "put", "basic.img", "new.txt", "/new.txt"});
  EXPECT_TRUE(contents("first.img") == contents("second.img"));
}

TEST_F(editing_commands, a_dry_run_has_the_status_of_the_real_one_and_writes_nothing) {
  expect_refused({"-n", "rm", "basic.img", "/readme.txt"}, 0);
  expect_refused({"-n", "rm", "basic.img", "/gone"}, 8);
  expect_refused({"-n", "-o", "new.img", "rm", "basic.img", "/readme.txt"}, 0);
}

TEST_F(editing_commands, an_edit_goes_into_a_new_image_when_asked) {
  const std::string before = contents("basic.img");
  output_of({"-o", "new.img", "rm", "basic.img", "/readme.txt"});
  EXPECT_TRUE(contents("basic.img") == before);
  EXPECT_EQ(output_of({"ls", "new.img"}).find("readme.txt"), std::string::npos);
  expect_refused({"-o", "new.img", "rm", "basic.img", "/empty"}, 8);
  EXPECT_TRUE(output_of({"-o", "-", "rm", "basic.img", "/readme.txt"}) == contents("new.img"));
  expect_refused({"--json", "-o", "-", "rm", "basic.img", "/readme.txt"}, 16);
}

TEST_F(editing_commands, as_a_document) {
  const json made = document_of({"mkdir", "basic.img", "/made"}, 0);
  EXPECT_EQ(made["result"], json({{"written", "basic.img"}}));
  EXPECT_TRUE(made["findings"].empty());
  EXPECT_EQ(document_of({"-n", "mkdir", "basic.img", "/more"}, 0)["result"]["written"], nullptr);
  const json refused = document_of({"mkdir", "basic.img", "/made"}, 8);
  EXPECT_EQ(refused["findings"][0]["path"], "/made");
  EXPECT_EQ(refused["result"], json::object());
}

TEST_F(editing_commands, an_image_with_faults_is_edited_by_force_alone) {
  const std::string image = store("orphans");
  const std::string before = contents(image);
  EXPECT_EQ(run({"rm", image, "/readme.txt"}).status, 4);
  EXPECT_TRUE(contents(image) == before);
  EXPECT_EQ(run({"rm", "--force", "-n", image, "/readme.txt"}).status, 1);
  EXPECT_TRUE(contents(image) == before);
  EXPECT_EQ(run({"rm", "--force", image, "/readme.txt"}).status, 1);
  const std::string listed = output_of({"--full", "--strict", "ls", image});
  EXPECT_NE(listed.find("lost+found"), std::string::npos);
  EXPECT_EQ(listed.find("readme.txt"), std::string::npos);
}

TEST_F(editing_commands, an_image_that_cannot_be_mounted_is_not_edited) {
  const std::string image = store("no_spare");
  const std::string before = contents(image);
  EXPECT_EQ(run({"rm", "--force", image, "/readme.txt"}).status, 4);
  EXPECT_TRUE(contents(image) == before);
}

TEST_F(editing_commands, formatting_keeps_erase_counts_unless_told_otherwise) {
  const std::string before = contents("basic.img");
  const auto count_of = [](const std::string& bytes, size_t block) {
    return static_cast<uint8_t>(bytes[block * 131072 + 3]);
  };
  output_of({"format", "--force", "basic.img"});
  EXPECT_EQ(listing(), "");
  EXPECT_EQ(count_of(contents("basic.img"), 1), count_of(before, 1) + 1);
  output_of({"format", "--force", "--reset-wear", "basic.img"});
  EXPECT_EQ(listing(), "");
  EXPECT_EQ(count_of(contents("basic.img"), 1), 0);
  EXPECT_TRUE(contents("basic.img").substr(216 * 131072) == before.substr(216 * 131072));
}

TEST_F(editing_commands, formatting_needs_no_sound_image) {
  for (const char* name : {"no_spare", "blank"}) {
    const std::string image = store(name);
    output_of({"format", "--force", image});
    EXPECT_EQ(run({"--full", "--strict", "ls", image}).status, 0) << name;
  }
}

TEST_F(editing_commands, an_image_of_another_geometry_is_edited_as_well) {
  write_whole_file(file("small.img"), std::string(8 * 32768, '\xFF'));
  EXPECT_EQ(run({"ls", "small.img"}).status, 8);
  EXPECT_EQ(run({"--geometry", "8x32768", "format", "--force", "small.img"}).status, 0);
  write_whole_file(file("new.txt"), "new contents\n");
  output_of({"put", "small.img", "new.txt", "/new.txt"});
  EXPECT_EQ(output_of({"cat", "small.img", "/new.txt"}), "new contents\n");
  EXPECT_EQ(run({"--geometry", "8x32767", "ls", "small.img"}).status, 16);
  EXPECT_EQ(run({"--geometry", "8x16384", "ls", "small.img"}).status, 8);
}

}  // namespace
