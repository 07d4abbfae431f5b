// The completions that the build has made: bash completes with its own, the others name all that
// there is.
#include <gtest/gtest.h>

#include <algorithm>
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

// Completes the last of the words in a bash that has read the script; the words as readline takes
// them apart.
class bash_completion : public testing::Test {
 protected:
  std::vector<std::string> complete(const std::vector<std::string>& words) const {
    std::string line = "source " + script + " && COMP_WORDS=(flashfs-image";
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
    std::vector<std::string> found;
    std::istringstream lines(ran.out);
    for (std::string one; std::getline(lines, one);) {
      if (!one.empty()) {
        found.push_back(one);
      }
    }
    std::sort(found.begin(), found.end());
    return found;
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
