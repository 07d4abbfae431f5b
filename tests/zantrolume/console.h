// A simulated complex with a small file system and a console for the commands: sessions run in a
// process of their own, and everything they print is compared with a golden file.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/flashfs_fixture.h"
#include "tests/support/golden.h"
#include "tests/support/image_builder.h"
#include "tests/zantrolume/selected_complex.h"
#include "zantrolume/zantrolume_commands.h"

namespace zantrolume_test {

constexpr int usable_blocks = 216;
constexpr uint32_t block_size_bytes = 0x20000;

using command = int (*)(int argc, char* argv[]);

inline int result_of(command one, std::vector<std::string> words) {
  std::vector<char*> argv;
  for (std::string& word : words) {
    argv.push_back(word.data());
  }
  argv.push_back(nullptr);
  return one(static_cast<int>(words.size()), argv.data());
}

class console {
 public:
  console() : complex_(4) {}

  // Good headers on all blocks and nothing in them; the last one is the spare.
  void make_empty_file_system() {
    builder().headers(usable_blocks - 1);
  }
  test_support::image_builder builder() {
    return {complex_.flash().bytes(), usable_blocks, block_size_bytes};
  }
  selected_complex& complex() {
    return complex_;
  }

  // Prints a line of words, runs the command on them, prints its result.
  void run(command one, const std::vector<std::string>& words) {
    printf("$");
    for (const std::string& word : words) {
      printf(" %s", word.c_str());
    }
    printf("\n");
    printf("= %d\n", result_of(one, words));
  }

  // The files of a started file system.
  static void write_file(const std::string& path, const std::string& contents) {
    ASSERT_EQ(volume::files("bootflash").write_file(path, contents), 0) << path;
  }
  static std::string read_file(const std::string& path) {
    return test_support::contents_of(volume::files("bootflash"), path);
  }

 private:
  selected_complex complex_;
};

// Messages of failed flash accesses print the handle, an address that differs from run to run.
inline std::string without_handles(std::string text) {
  const std::string label = "flash handle 0x";
  for (size_t at = 0; (at = text.find(label, at)) != std::string::npos;) {
    at += label.size();
    const size_t end = text.find_first_not_of("0123456789abcdef", at);
    text.replace(at, (end == std::string::npos ? text.size() : end) - at, "########");
  }
  return text;
}

// Runs a session and compares all that it prints with the golden file. Hardware deviations fail it.
inline void expect_session(const std::string& golden,
                           const std::function<void(console& console)>& session, int status = 0) {
  const test_support::isolated_result result = test_support::run_isolated([&] {
    console fresh;
    session(fresh);
    EXPECT_EQ(fresh.complex().chassis().deviations().total(), 0U);
  });
  EXPECT_EQ(result.status, status);
  test_support::expect_golden(golden, without_handles(result.output));
}

}  // namespace zantrolume_test
