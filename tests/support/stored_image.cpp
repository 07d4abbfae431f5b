// Host commands and stored images; see stored_image.h.
#include "tests/support/stored_image.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace test_support {

std::string shell_output(const std::string& command) {
  FILE* const pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) {
    ADD_FAILURE() << "cannot run " << command;
    return "";
  }
  std::string output;
  char part[65536];
  for (size_t got = 0; (got = fread(part, 1, sizeof(part), pipe)) > 0;) {
    output.append(part, got);
  }
  EXPECT_EQ(pclose(pipe), 0) << command;
  return output;
}

std::string read_stored_image(const std::string& name) {
  return shell_output("xz -dc '" TESTS_FOLDER "/images/" + name + "/image.xz'");
}

}  // namespace test_support
