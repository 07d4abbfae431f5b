// Locks, links, modes, devices, interruptions, and the command line: what surrounds an edit.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>

#include "image/commands/all_commands.h"
#include "tests/image/image_command.h"
#include "tests/support/golden.h"

namespace {

using json = nlohmann::ordered_json;
using test_support::write_whole_file;

size_t longest_line(const std::string& text) {
  size_t longest = 0;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    longest = std::max(longest, line.size());
  }
  return longest;
}

class safety : public test_support::image_command {
 protected:
  safety() {
    store("basic");
  }
  int open_and_lock(const std::string& name, int kind) const {
    const int opened = open(file(name).c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(flock(opened, kind), 0);
    return opened;
  }
};

TEST_F(safety, readers_share_an_image_and_a_writer_has_it_alone) {
  const int reader = open_and_lock("basic.img", LOCK_SH);
  EXPECT_EQ(run({"--lock-timeout", "0", "ls", "basic.img"}).status, 0);
  EXPECT_EQ(run({"--lock-timeout", "0.1", "rm", "basic.img", "/empty"}).status, 8);
  EXPECT_EQ(run({"--lock-timeout", "0", "-o", "new.img", "rm", "basic.img", "/empty"}).status, 0);
  close(reader);
  const int writer = open_and_lock("basic.img", LOCK_EX);
  const json document = document_of({"--lock-timeout", "0", "ls", "basic.img"}, 8);
  EXPECT_EQ(document["findings"][0]["text"], "is in use by another run");
  close(writer);
  EXPECT_EQ(run({"--lock-timeout", "0", "rm", "basic.img", "/empty"}).status, 0);
}

TEST_F(safety, a_lock_that_is_given_up_in_time_is_had) {
  const int writer = open_and_lock("basic.img", LOCK_EX);
  std::thread other([&] {
    usleep(300000);
    close(writer);
  });
  EXPECT_EQ(run({"ls", "basic.img"}).status, 0);
  other.join();
}

TEST_F(safety, an_image_that_was_replaced_meanwhile_is_the_one_that_is_edited) {
  store("many");
  std::filesystem::rename(file("many.img"), file("other.img"));
  const int writer = open_and_lock("basic.img", LOCK_EX);
  std::thread other([&] {
    usleep(500000);
    // As another edit does it.
    std::filesystem::copy_file(file("other.img"), file("temporary"));
    std::filesystem::rename(file("temporary"), file("basic.img"));
    close(writer);
  });
  EXPECT_EQ(run({"mkdir", "basic.img", "/made"}).status, 0);
  other.join();
  EXPECT_NE(output_of({"ls", "basic.img"}).find("made\n"), std::string::npos);
  EXPECT_EQ(output_of({"ls", "basic.img"}).find("readme.txt"),
            output_of({"ls", "other.img"}).find("readme.txt"));
}

TEST_F(safety, links_are_followed_and_the_mode_is_kept) {
  std::filesystem::create_directory(file("folder"));
  std::filesystem::rename(file("basic.img"), file("folder/real.img"));
  std::filesystem::create_symlink("folder/real.img", file("link"));
  ASSERT_EQ(chmod(file("folder/real.img").c_str(), 0604), 0);
  output_of({"rm", "link", "/empty"});
  EXPECT_TRUE(std::filesystem::is_symlink(file("link")));
  struct stat status = {};
  ASSERT_EQ(stat(file("folder/real.img").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0604U);
  EXPECT_EQ(output_of({"ls", "folder/real.img"}).find("empty"), std::string::npos);
}

TEST_F(safety, the_owner_is_kept) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can give files away";
  }
  ASSERT_EQ(chown(file("basic.img").c_str(), 12, 34), 0);
  output_of({"rm", "basic.img", "/empty"});
  struct stat status = {};
  ASSERT_EQ(stat(file("basic.img").c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, 12U);
  EXPECT_EQ(status.st_gid, 34U);
}

TEST_F(safety, only_files_are_images) {
  std::filesystem::create_directory(file("folder"));
  ASSERT_EQ(mkfifo(file("pipe").c_str(), 0600), 0);
  write_whole_file(file("nothing"), "");
  write_whole_file(file("short"), "short");
  test_support::expect_golden("image_no_image.txt", transcript({
                                                        {"ls", "gone"},
                                                        {"ls", "folder"},
                                                        {"ls", "pipe"},
                                                        {"ls", "/dev/null"},
                                                        {"rm", "/dev/null", "/x"},
                                                        {"ls", "nothing"},
                                                        {"ls", "short"},
                                                        {"rm", "-", "/x"},
                                                        {"-o", "pipe", "rm", "basic.img", "/empty"},
                                                    }));
}

TEST_F(safety, a_signal_ends_a_wait_with_a_document) {
  const int writer = open_and_lock("basic.img", LOCK_EX);
  // The shell sends the signal as soon as the program, which it becomes, waits.
  const test_support::program_result result = test_support::run_program(
      {.path = "/bin/sh",
       .arguments = {"-c", "(sleep 1; kill -INT $$) & exec " + emulator() +
                               " '" FLASHFS_IMAGE_PROGRAM "' --json ls '" + file("basic.img") +
                               "'"},
       .is_of_the_host = true});
  close(writer);
  EXPECT_EQ(result.status, 32) << result.err;
  const json document = json::parse(result.out, nullptr, false);
  ASSERT_FALSE(document.is_discarded()) << result.out;
  EXPECT_EQ(document["status"], 32);
}

TEST_F(safety, an_answer_that_cannot_be_printed_is_a_failure) {
  const test_support::program_result result = test_support::run_program(
      {.path = "/bin/sh",
       .arguments = {"-c", "exec " + emulator() + " '" FLASHFS_IMAGE_PROGRAM "' ls '" +
                               file("basic.img") + "' >/dev/full"},
       .is_of_the_host = true});
  EXPECT_EQ(result.status, 8);
  EXPECT_NE(result.err.find("standard output"), std::string::npos) << result.err;
}

TEST_F(safety, command_lines_that_are_wrong_are_told) {
  test_support::expect_golden("image_usage.txt", transcript({
                                                     {},
                                                     {"nothing"},
                                                     {"ls"},
                                                     {"ls", "--nothing", "basic.img"},
                                                     {"--color", "sometimes", "ls", "basic.img"},
                                                     {"--lock-timeout", "-1", "ls", "basic.img"},
                                                     {"tree", "-L", "many", "basic.img"},
                                                     {"--json", "ls"},
                                                     {"--lock-timeout", "x", "ls", "basic.img"},
                                                     {"check", "--quick", "--full", "basic.img"},
                                                 }));
  const json document = document_of({"nothing"}, 16);
  EXPECT_EQ(document["findings"][0]["code"], "usage");
}

TEST_F(safety, the_version_is_the_project_s) {
  EXPECT_EQ(output_of({"--version"}), "flashfs-image " ZANTROLUME_VERSION "\n");
}

TEST_F(safety, every_command_explains_itself_with_an_example) {
  const std::string help = output_of({"--help"});
  const size_t list = help.find("\nCommands:\n");
  ASSERT_NE(list, std::string::npos);
  std::istringstream lines(help.substr(list + 11));
  size_t commands = 0;
  for (std::string line; std::getline(lines, line) && !line.empty(); ++commands) {
    const std::string name = line.substr(2, line.find(' ', 2) - 2);
    const std::string page = output_of({name, "--help"});
    EXPECT_NE(page.find("Example:\n  flashfs-image"), std::string::npos) << name;
    EXPECT_LE(longest_line(page), 80U) << page;
  }
  EXPECT_EQ(commands, image::all_commands().size());
  EXPECT_LE(longest_line(help), 80U) << help;
  test_support::expect_golden("image_help.txt",
                              transcript({{"--help"}, {"get", "--help"}, {"put", "--help"}}));
}

TEST_F(safety, colours_come_when_asked_for_and_never_into_files) {
  EXPECT_EQ(output_of({"ls", "basic.img"}).find('\033'), std::string::npos);
  EXPECT_NE(output_of({"--color", "always", "ls", "basic.img"}).find("\033[1;34mconfig\033[0m\n"),
            std::string::npos);
  EXPECT_EQ(output_of({"--color", "never", "ls", "basic.img"}).find('\033'), std::string::npos);
}

}  // namespace
