// Host commands and stored images; see stored_image.h.
#include "tests/support/stored_image.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace test_support {

std::string shell_output(const std::string& command, size_t expected) {
  FILE* const pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) {
    ADD_FAILURE() << "cannot run " << command;
    return "";
  }
  std::string output;
  output.reserve(expected);
  char part[65536];
  for (size_t got = 0; (got = fread(part, 1, sizeof(part), pipe)) > 0;) {
    output.append(part, got);
  }
  EXPECT_EQ(pclose(pipe), 0) << command;
  return output;
}

static std::string unpacking(const std::string& name) {
  return "xz -dc '" TESTS_FOLDER "/images/" + name + "/image.xz'";
}

std::string read_stored_image(const std::string& name) {
  constexpr size_t whole_flash = 32U << 20;
  return shell_output(unpacking(name), whole_flash);
}

void unpack_stored_image(const std::string& name, const std::string& path) {
  shell_output(unpacking(name) + " >'" + path + "'");
}

}  // namespace test_support
