// The manual pages that the build has made are sound, and that of flashfs-image tells every command
// and option that there is.
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>

#include "image/commands/all_commands.h"
#include "image/options.h"
#include "tests/support/run_program.h"

namespace {

using test_support::run_program;

const std::string pages = BUILD_FOLDER "/man";

TEST(manual_pages, pass_the_lint) {
  if (!std::filesystem::exists(pages)) {
    GTEST_SKIP() << "built without scdoc";
  }
  for (const char* page : {"/flashfs-image.1", "/zantrolume.8"}) {
    const auto ran = run_program(
        {.path = "/usr/bin/mandoc", .arguments = {"-T", "lint", "-W", "warning", pages + page}});
    ASSERT_TRUE(ran.status >= 0 && ran.status <= 2) << ran.err << ran.out;
    std::istringstream said(ran.out + ran.err);
    for (std::string line; std::getline(said, line);) {
      // The translator begins paragraphs that stay empty.
      EXPECT_NE(line.find("WARNING: skipping paragraph macro"), std::string::npos) << line;
    }
  }
}

TEST(manual_pages, tell_every_command_and_option) {
  const std::string page =
      test_support::read_whole_file(TESTS_FOLDER "/../docs/man/flashfs-image.1.scd");
  const image::option_tree tree = image::describe_command_line(image::all_commands());
  for (const image::described_option& option : tree.globals) {
    for (const std::string& name : option.names) {
      EXPECT_NE(page.find("*" + name + "*"), std::string::npos) << name;
    }
  }
  for (const image::described_command& command : tree.commands) {
    const size_t begin = page.find("\n*" + command.name + "* ");
    ASSERT_NE(begin, std::string::npos) << command.name;
    const std::string told = page.substr(begin, page.find("\n\n", begin) - begin);
    for (const image::described_option& option : command.options) {
      const std::string& name = option.names.back();
      const bool named = told.find("*" + name + "*") != std::string::npos;
      EXPECT_TRUE(named || name == "--help") << command.name << " " << name << told;
    }
  }
}

}  // namespace
