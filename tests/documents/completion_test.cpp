// The completions that the build has made: bash completes with its own, fish, where it is there,
// with its own, and all name what there is.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "image/commands/all_commands.h"
#include "image/completions.h"
#include "image/options.h"
#include "tests/support/run_program.h"

namespace {

using test_support::run_program;
using test_support::temporary_folder;

const std::string script = BUILD_FOLDER "/completions/flashfs-image.bash";

std::vector<std::string> sorted_lines(const std::string& text) {
  std::vector<std::string> found;
  std::istringstream lines(text);
  for (std::string one; std::getline(lines, one);) {
    if (!one.empty()) {
      found.push_back(one);
    }
  }
  std::sort(found.begin(), found.end());
  return found;
}

// Makes "boot one.img" with a directory and two files in it, and beside it a file and a folder of
// the host that are called alike.
void make_image(const temporary_folder& folder) {
  for (const char* made : {"from", "from/config", "config"}) {
    std::filesystem::create_directory(folder.file(made));
  }
  for (const char* made : {"from/config/startup.cfg", "from/config.old", "config.host"}) {
    test_support::write_whole_file(folder.file(made), "");
  }
  const auto ran =
      run_program({.path = FLASHFS_IMAGE_PROGRAM,
                   .arguments = {"create", "boot one.img", "--geometry", "6x16K", "--from", "from"},
                   .folder = folder.path()});
  ASSERT_EQ(ran.status, 0) << ran.err;
}

// Completes the last of the words in a bash that has read the script; the words as readline takes
// them apart.
class bash_completion : public testing::Test {
 protected:
  std::vector<std::string> complete(const std::vector<std::string>& words) const {
    std::string line = "source " + script + " && COMP_WORDS=(" FLASHFS_IMAGE_PROGRAM;
    for (const std::string& word : words) {
      line += " '" + word + "'";
    }
    line += ") && COMP_CWORD=" + std::to_string(words.size()) +
            " && $(complete -p flashfs-image | cut -d ' ' -f 3) && printf '%s\\n' "
            "\"${COMPREPLY[@]}\"";
    const auto ran =
        run_program({.path = "/bin/bash", .arguments = {"-uc", line}, .folder = folder_.path()});
    EXPECT_EQ(ran.status, 0) << ran.err;
    EXPECT_EQ(ran.err, "");
    return sorted_lines(ran.out);
  }

  temporary_folder folder_;
};

using names = std::vector<std::string>;

TEST_F(bash_completion, completes_commands) {
  EXPECT_EQ(complete({"ch"}), (names{"check", "chmod"}));
  EXPECT_EQ(complete({"--json", "ve"}), (names{"verify"}));
  EXPECT_EQ(complete({""}).size(), image::all_commands().size());
  // The value of an option is no command.
  EXPECT_EQ(complete({"-o", "ls", "ve"}), (names{"verify"}));
  EXPECT_EQ(complete({"--lock-timeout", "=", "3", "ve"}), (names{"verify"}));
}

TEST_F(bash_completion, completes_options_of_all_and_of_the_command) {
  EXPECT_EQ(complete({"--js"}), (names{"--json"}));
  EXPECT_EQ(complete({"check", "--re"}), (names{"--repair"}));
  EXPECT_EQ(complete({"check", "boot.img", "--js"}), (names{"--json"}));
  EXPECT_EQ(complete({"ls", "--re"}), (names{}));
}

TEST_F(bash_completion, completes_values) {
  EXPECT_EQ(complete({"--color", "a"}), (names{"always", "auto"}));
  EXPECT_EQ(complete({"--color", "="}), (names{"always", "auto", "never"}));
  EXPECT_EQ(complete({"--color", "=", "n"}), (names{"never"}));
  EXPECT_EQ(complete({"--ppc", ""}), (names{"3", "4", "5", "6", "7", "8"}));
  EXPECT_EQ(complete({"explain", "block-check"}), (names{"block-checksum"}));
  EXPECT_EQ(complete({"dump", "--block", ""}), (names{}));
}

TEST_F(bash_completion, completes_files_and_folders) {
  test_support::write_whole_file(folder_.file("boot one.img"), "");
  test_support::write_whole_file(folder_.file("other"), "");
  run_program({.path = "/bin/mkdir", .arguments = {folder_.file("box")}});
  EXPECT_EQ(complete({"ls", "bo"}), (names{"boot one.img", "box"}));
  EXPECT_EQ(complete({"-o", "ot"}), (names{"other"}));
  EXPECT_EQ(complete({"extract", "boot one.img", "-C", ""}), (names{"box"}));
}

TEST_F(bash_completion, completes_paths_in_the_image_and_nothing_of_the_host_for_them) {
  make_image(folder_);
  const std::string image = R"(boot\ one.img)";
  EXPECT_EQ(complete({"cat", image, ""}), (names{"config.old", "config/"}));
  EXPECT_EQ(complete({"cat", image, "/config"}), (names{"/config.old", "/config/"}));
  EXPECT_EQ(complete({"ls", "-l", image, "/config/"}), (names{"/config/startup.cfg"}));
  EXPECT_EQ(complete({"rm", "\"boot one.img\"", "/config.old", "/config/st"}),
            (names{"/config/startup.cfg"}));
  EXPECT_EQ(complete({"chmod", image, "644", "config."}), (names{"config.old"}));
  EXPECT_EQ(complete({"mv", image, "/config.old", "/config/"}), (names{"/config/startup.cfg"}));
  EXPECT_EQ(complete({"dump", image, "--path", "/config."}), (names{"/config.old"}));
  EXPECT_EQ(complete({"chmod", image, ""}), (names{}));
  EXPECT_EQ(complete({"info", image, ""}), (names{}));
}

TEST_F(bash_completion, completes_what_is_of_the_host_or_of_the_image_to_both) {
  make_image(folder_);
  const std::string image = R"(boot\ one.img)";
  EXPECT_EQ(complete({"get", image, "config."}), (names{"config.old"}));
  EXPECT_EQ(complete({"get", image, "/config.old", "config."}),
            (names{"config.host", "config.old"}));
  EXPECT_EQ(complete({"put", image, "config."}), (names{"config.host"}));
  EXPECT_EQ(complete({"put", image, "-", "config."}), (names{"config.host", "config.old"}));
  EXPECT_EQ(complete({"put", image, "config.host", "/config/"}), (names{"/config/startup.cfg"}));
  EXPECT_EQ(complete({"diff", image, "boot"}), (names{"boot one.img"}));
}

TEST_F(bash_completion, completes_no_paths_without_an_image) {
  make_image(folder_);
  EXPECT_EQ(complete({"cat", "gone.img", ""}), (names{}));
  EXPECT_EQ(complete({"cat", "-", ""}), (names{}));
  EXPECT_EQ(complete({"cat", "config", "/"}), (names{}));
  EXPECT_EQ(complete({"cat", "config.host", "/"}), (names{}));
  // A complex is not asked for its files.
  EXPECT_EQ(complete({"--ppc", "4", "cat", ""}), (names{}));
  EXPECT_EQ(complete({"--ppc", "4", "put", "config."}), (names{"config.host"}));
}

TEST(fish_completion, completes_paths_in_the_image_and_nothing_of_the_host_for_them) {
  if (!std::filesystem::exists("/usr/bin/fish")) {
    GTEST_SKIP() << "there is no fish";
  }
  const temporary_folder folder;
  make_image(folder);
  const auto complete = [&](const std::string& line) {
    const std::string program = FLASHFS_IMAGE_PROGRAM;
    const std::string folder_of_program = program.substr(0, program.rfind('/'));
    const auto ran =
        run_program({.path = "/usr/bin/fish",
                     .arguments = {"--no-config", "-c",
                                   "set -x PATH " + folder_of_program +
                                       " $PATH; source " BUILD_FOLDER
                                       "/completions/flashfs-image.fish; complete -C '" +
                                       line + "'"},
                     .folder = folder.path()});
    EXPECT_EQ(ran.err, "");
    return sorted_lines(ran.out);
  };
  EXPECT_EQ(complete("flashfs-image ls boo"), (names{"boot one.img"}));
  EXPECT_EQ(complete("flashfs-image cat \"boot one.img\" "), (names{"config.old", "config/"}));
  EXPECT_EQ(complete("flashfs-image cat \"boot one.img\" /config/"),
            (names{"/config/startup.cfg"}));
  EXPECT_EQ(complete("flashfs-image get \"boot one.img\" /x config."),
            (names{"config.host", "config.old"}));
  EXPECT_EQ(complete("flashfs-image cat gone.img "), (names{}));
  EXPECT_EQ(complete("flashfs-image --ppc 4 cat "), (names{}));
}

TEST(completions, name_every_command_and_option) {
  const std::vector<image::command> commands = image::all_commands();
  const image::option_tree tree = image::describe_command_line(commands);
  ASSERT_EQ(tree.commands.size(), commands.size());
  for (const std::string shell : {"bash", "zsh", "fish"}) {
    const std::string text =
        test_support::read_whole_file(BUILD_FOLDER "/completions/flashfs-image." + shell);
    EXPECT_EQ(text, image::completion_script(tree, shell));
    for (const image::described_command& command : tree.commands) {
      EXPECT_NE(text.find(command.name), std::string::npos) << shell << ": " << command.name;
      for (const image::described_option& option : command.options) {
        const std::string name = shell == "fish" ? option.help : option.names.back();
        EXPECT_NE(text.find(name.substr(0, name.find('\''))), std::string::npos) << shell << name;
      }
    }
  }
}

TEST(completions, of_another_shell_are_refused) {
  const auto ran =
      run_program({.path = FLASHFS_IMAGE_PROGRAM, .arguments = {"--completions", "other"}});
  EXPECT_EQ(ran.status, 16);
  EXPECT_EQ(ran.out, "");
  EXPECT_NE(ran.err.find("bash, zsh or fish"), std::string::npos) << ran.err;
}

}  // namespace
