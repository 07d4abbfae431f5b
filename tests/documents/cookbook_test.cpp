// Every command of the cookbook is run, in the order of the page, and prints what is shown under
// it. A block that is fenced as "sh" has commands behind "$ ", each with what it prints; "..."
// stands for any lines. The folder has boot.img, damaged.img and cut.img in it and is the home of a
// chassis, whose complex 4 has the flash of boot.img.
#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "tests/support/run_program.h"
#include "tests/support/stored_image.h"

namespace {

using test_support::temporary_folder;

struct shown_command {
  int line = 0;  // of the page
  std::string text;
  std::vector<std::string> output;
};

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    lines.push_back(line);
  }
  return lines;
}

std::vector<shown_command> commands_of(const std::string& page) {
  std::vector<shown_command> commands;
  bool inside = false;
  int number = 0;
  for (const std::string& line : lines_of(page)) {
    ++number;
    if (line.starts_with("```")) {
      inside = line == "```sh";
    } else if (inside && line.starts_with("$ ")) {
      commands.push_back({number, line.substr(2), {}});
    } else if (inside && !commands.empty()) {
      commands.back().output.push_back(line);
    } else if (inside) {
      ADD_FAILURE() << "line " << number << ": no command stands above it";
    }
  }
  return commands;
}

// Whether lines from `at` on are those shown from `shown` on.
bool fits(const std::vector<std::string>& lines, size_t at, const std::vector<std::string>& shown,
          size_t next) {
  if (next == shown.size()) {
    return at == lines.size();
  }
  if (shown[next] != "...") {
    return at < lines.size() && lines[at] == shown[next] && fits(lines, at + 1, shown, next + 1);
  }
  for (size_t from = at; from <= lines.size(); ++from) {
    if (fits(lines, from, shown, next + 1)) {
      return true;
    }
  }
  return false;
}

class cookbook : public testing::Test {
 protected:
  cookbook() {
    using test_support::write_whole_file;
    const std::string flash = test_support::read_stored_image("basic");
    write_whole_file(folder_.file("boot.img"), flash);
    write_whole_file(folder_.file("damaged.img"), test_support::read_stored_image("orphans"));
    write_whole_file(folder_.file("cut.img"), test_support::read_stored_image("gap_in_file"));
    write_whole_file(folder_.file("ppc4.flash"), flash);
    write_whole_file(folder_.file("chassis.txt"), "clock 1800000000\n");
    link(FLASHFS_IMAGE_SIM_PROGRAM, "flashfs-image");
    link(ZANTROLUME_SIM_PROGRAM, "zantrolume");
  }

  std::string run(const std::string& command) const {
    const std::string path = programs_.path() + ":" + getenv("PATH");
    return test_support::run_program({.path = "/bin/bash",
                                      .arguments = {"-c", "exec 2>&1; " + command},
                                      .environment = {{"PATH", path},
                                                      {"TZ", "UTC"},
                                                      {"SOURCE_DATE_EPOCH", "1800000000"},
                                                      {"ZANTROLUME_CHASSIS", folder_.path()}},
                                      .folder = folder_.path()})
        .out;
  }

 private:
  void link(const char* program, const char* name) {
    EXPECT_EQ(symlink(program, programs_.file(name).c_str()), 0);
  }

  temporary_folder folder_;
  temporary_folder programs_;
};

TEST_F(cookbook, every_command_prints_what_is_shown) {
  const std::vector<shown_command> commands =
      commands_of(test_support::read_whole_file(TESTS_FOLDER "/../docs/flashfs-image.md"));
  EXPECT_GE(commands.size(), 20U);
  for (const shown_command& one : commands) {
    const std::string printed = run(one.text);
    EXPECT_TRUE(fits(lines_of(printed), 0, one.output, 0))
        << "docs/flashfs-image.md:" << one.line << ": " << one.text << "\nprints:\n"
        << printed;
  }
}

TEST(cookbook_page, points_stand_for_any_lines) {
  EXPECT_TRUE(fits({"a", "b", "c"}, 0, {"a", "...", "c"}, 0));
  EXPECT_TRUE(fits({"a", "c"}, 0, {"a", "...", "c"}, 0));
  EXPECT_FALSE(fits({"a", "b"}, 0, {"a"}, 0));
  EXPECT_FALSE(fits({"a"}, 0, {"a", "b"}, 0));
  EXPECT_FALSE(fits({"a", "b", "d"}, 0, {"a", "...", "c"}, 0));
}

}  // namespace
