// The program on stored flash images. Each folder of tests/images holds one 32 MiB flash of
// complex 4 (image.xz) and numbered cases: the command line (NN.args), all of standard output and
// standard error (NN.stdout, NN.stderr), and the exit status and the digest of the whole flash
// afterwards (NN.after). Every case starts from the image as it is; the clock stands still.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <compare>
#include <filesystem>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/run_program.h"
#include "tests/support/stored_image.h"

namespace {

namespace fs = std::filesystem;
using test_support::read_whole_file;
using test_support::shell_output;
using test_support::write_whole_file;

struct image_case {
  std::string image;   // folder name
  std::string number;  // "00", "01", ...
};

void PrintTo(const image_case& tested, std::ostream* out) {
  *out << tested.image << "/" << tested.number;
}

std::vector<std::string> words_of(const std::string& line) {
  std::istringstream stream(line);
  return {std::istream_iterator<std::string>(stream), {}};
}

std::vector<image_case> all_cases() {
  std::vector<image_case> cases;
  for (const fs::directory_entry& folder : fs::directory_iterator(TESTS_FOLDER "/images")) {
    if (!folder.is_directory()) {
      continue;
    }
    for (const fs::directory_entry& file : fs::directory_iterator(folder)) {
      if (file.path().extension() == ".args") {
        cases.push_back({folder.path().filename().string(), file.path().stem().string()});
      }
    }
  }
  std::sort(cases.begin(), cases.end(), [](const image_case& left, const image_case& right) {
    return left.image + left.number < right.image + right.number;
  });
  return cases;
}

class images : public testing::TestWithParam<image_case> {
 protected:
  // The path of one of the case's files.
  static std::string stored(const std::string& extension) {
    return image_folder() + "/" + GetParam().number + extension;
  }
  static std::string image_folder() {
    return std::string(TESTS_FOLDER "/images/") + GetParam().image;
  }

  test_support::temporary_folder chassis;
};

}  // namespace

TEST(image_folders, hold_cases_to_run) {
  EXPECT_FALSE(all_cases().empty());
}

TEST_P(images, the_command_prints_and_leaves_on_flash_what_is_stored) {
  const std::string flash = chassis.file("ppc4.flash");
  shell_output("xz -dc '" + image_folder() + "/image.xz' > '" + flash + "'");
  write_whole_file(chassis.file("chassis.txt"), "clock 1800000000\n");

  test_support::program_call call;
  call.path = ZANTROLUME_SIM_PROGRAM;
  call.arguments = words_of(read_whole_file(stored(".args")));
  call.environment = {{"ZANTROLUME_CHASSIS", chassis.path()}};
  const test_support::program_result result = test_support::run_program(call);

  EXPECT_EQ(result.out, read_whole_file(stored(".stdout")));
  EXPECT_EQ(result.err, read_whole_file(stored(".stderr")));
  const std::string digest = shell_output("sha256sum < '" + flash + "'").substr(0, 64);
  const std::string after = "status " + std::to_string(result.status) + "\nsha256 " + digest + "\n";
  EXPECT_EQ(after, read_whole_file(stored(".after")).substr(0, after.size()));
}

INSTANTIATE_TEST_SUITE_P(stored, images, testing::ValuesIn(all_cases()),
                         [](const testing::TestParamInfo<image_case>& tested) {
                           return tested.param.image + "_" + tested.param.number;
                         });
