// The version is in both programs, for `what` and `strings`, and in nothing that they print. (Three
// numbers like it can be a slot's place, too: stored texts are searched for it behind a word.)
#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <initializer_list>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/run_program.h"
#include "tests/support/stored_image.h"

namespace {

using test_support::read_whole_file;

const std::string version = ZANTROLUME_VERSION;

void expect_carried_by(const std::string& program) {
  const std::string marked = "@(#)zantrolume " + version + std::string(1, '\0');
  EXPECT_NE(read_whole_file(program).find(marked), std::string::npos) << program;
}

void expect_not_shown(const test_support::program_call& call) {
  const test_support::program_result result = test_support::run_program(call);
  const std::string words = testing::PrintToString(call.arguments);
  EXPECT_NE(result.out, "") << words;
  EXPECT_EQ(result.out.find(version), std::string::npos) << words;
  EXPECT_EQ(result.err.find(version), std::string::npos) << words;
}

}  // namespace

TEST(version, has_three_numbers) {
  size_t points = 0;
  for (const char character : version) {
    points += character == '.' ? 1 : 0;
    EXPECT_TRUE(character == '.' || (character >= '0' && character <= '9')) << version;
  }
  EXPECT_EQ(points, 2U) << version;
}

TEST(version, is_carried_by_both_programs) {
  expect_carried_by(ZANTROLUME_PROGRAM);
  expect_carried_by(ZANTROLUME_SIM_PROGRAM);
}

TEST(version, is_shown_by_no_usage_text) {
  for (const char* program : {ZANTROLUME_PROGRAM, ZANTROLUME_SIM_PROGRAM}) {
    for (const std::vector<std::string>& words :
         std::vector<std::vector<std::string>>{{}, {"-h"}, {"-v"}, {"-x"}, {"9", "dir"}}) {
      test_support::program_call call;
      call.path = program;
      call.arguments = words;
      expect_not_shown(call);
    }
  }
}

TEST(version, is_shown_by_no_command) {
  const test_support::temporary_folder chassis;
  test_support::write_whole_file(chassis.file("chassis.txt"), "clock 1800000000\n");
  test_support::write_whole_file(chassis.file("ppc4.flash"),
                                 test_support::read_stored_image("basic"));
  for (const std::vector<std::string>& words :
       std::vector<std::vector<std::string>>{{"-v", "4", "dir"},
                                             {"-v", "4", "more", "bootflash:readme.txt"},
                                             {"-v", "4", "sizes"},
                                             {"-v", "4", "sread", "1", "64"},
                                             {"-v", "4", "fsck"},
                                             {"-v", "4", "copy"},
                                             {"-v", "4", "erase", "200"},
                                             {"-v", "4", "rm", "bootflash:readme.txt"}}) {
    test_support::program_call call;
    call.path = ZANTROLUME_SIM_PROGRAM;
    call.arguments = words;
    call.environment = {{"ZANTROLUME_CHASSIS", chassis.path()}};
    expect_not_shown(call);
  }
}

TEST(version, stands_in_no_stored_output) {
  int files = 0;
  for (const char* folder : {TESTS_FOLDER "/golden", TESTS_FOLDER "/images"}) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
      const std::string extension = entry.path().extension().string();
      if (extension == ".txt" || extension == ".stdout" || extension == ".stderr") {
        files++;
        const std::string stored = read_whole_file(entry.path().string());
        for (const char* before : {"zantrolume ", "flashfs-image ", "version "}) {
          EXPECT_EQ(stored.find(before + version), std::string::npos) << entry.path();
        }
      }
    }
  }
  EXPECT_GT(files, 0);
}
