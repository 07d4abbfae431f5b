// What "cmake --install" puts where; and the installed program runs.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/run_program.h"

namespace {

using test_support::run_program;

TEST(install, puts_programs_pages_and_completions_in_their_places) {
  const test_support::temporary_folder root;
  const auto ran = run_program({.path = CMAKE_PROGRAM,
                                .arguments = {"--install", BUILD_FOLDER, "--prefix", "/usr"},
                                .environment = {{"DESTDIR", root.path()}}});
  ASSERT_EQ(ran.status, 0) << ran.out << ran.err;
  std::vector<std::string> found;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root.path())) {
    if (entry.is_regular_file()) {
      found.push_back(entry.path().string().substr(root.path().size()));
    }
  }
  std::sort(found.begin(), found.end());
  std::vector<std::string> expected = {
      "/usr/bin/flashfs-image",
      "/usr/sbin/zantrolume",
      "/usr/share/bash-completion/completions/flashfs-image",
      "/usr/share/fish/vendor_completions.d/flashfs-image.fish",
      "/usr/share/man/man1/flashfs-image.1",
      "/usr/share/man/man8/zantrolume.8",
      "/usr/share/zsh/site-functions/_flashfs-image",
  };
  if (!std::filesystem::exists(BUILD_FOLDER "/man")) {
    std::erase_if(expected, [](const std::string& one) { return one.find("/man/") < one.size(); });
  }
  EXPECT_EQ(found, expected);

  const auto version =
      run_program({.path = root.file("usr/bin/flashfs-image"), .arguments = {"--version"}});
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.out.substr(0, 14), "flashfs-image ");
}

}  // namespace
