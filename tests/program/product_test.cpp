// The production binary itself, on the paths that need no device: every usage error and a device
// node that is not there. What it does with a device is tested over the simulated chassis.
#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "tests/support/run_program.h"

namespace {

using test_support::program_result;

const std::string usage =
    "\nUsage - zantrolume [-vh] <ppc#> <cmd> [filename]\n"
    "   -h : Display this help file\n"
    "   -v : verbose mode\n"
    "<ppc#> - which PPC (3-8)\n"
    "<cmd>  - what operation to perform\n"
    "   aread - read flashfs offset address and length\n"
    "   dir - directory listing\n"
    "   erase- erase file system sector\n"
    "   fsck - file system check\n"
    "   more - more a file\n"
    "   rm - delete a file\n"
    "   sread - read flashfs sector and length\n";

program_result run_product(const std::vector<std::string>& words,
                           const std::map<std::string, std::string>& environment = {}) {
  test_support::program_call call;
  call.environment = environment;
  call.path = ZANTROLUME_PROGRAM;
  call.arguments = words;
  return test_support::run_program(call);
}

void expect_usage_error(const std::vector<std::string>& words, const std::string& message,
                        const std::string& error_line = "") {
  const program_result result = run_product(words);
  EXPECT_EQ(result.out, message + usage) << testing::PrintToString(words);
  EXPECT_EQ(result.err, error_line) << testing::PrintToString(words);
  EXPECT_EQ(result.status, 1) << testing::PrintToString(words);
}

// The C library's own line about an option.
std::string invalid_option(char option) {
  return std::string(ZANTROLUME_PROGRAM) + ": invalid option -- '" + option + "'\n";
}

void expect_device_is_missing(const std::vector<std::string>& words,
                              const std::map<std::string, std::string>& environment = {}) {
  const program_result result = run_product(words, environment);
  EXPECT_EQ(result.out, "\nZANTROLUME : Failed to open file VEXMOR device driver, errno 2")
      << testing::PrintToString(words);
  EXPECT_EQ(result.err, "") << testing::PrintToString(words);
  EXPECT_EQ(result.status, 0) << testing::PrintToString(words);
}

}  // namespace

TEST(product, without_arguments_prints_the_usage) {
  expect_usage_error({}, "\nMissing required parameters.");
}

TEST(product, options_alone_are_missing_parameters) {
  expect_usage_error({"-v"}, "\nMissing required parameters.");
  expect_usage_error({"-v", "-v"}, "\nMissing required parameters.");
  expect_usage_error({"--"}, "\nMissing required parameters.");
}

TEST(product, a_missing_command_word_is_a_missing_parameter) {
  expect_usage_error({"3"}, "\nMissing required parameters.");
  expect_usage_error({"-v", "8"}, "\nMissing required parameters.");
}

TEST(product, a_missing_operand_of_a_raw_command_is_a_missing_parameter) {
  expect_usage_error({"4", "erase"}, "\nMissing required parameters.");
  expect_usage_error({"4", "sread"}, "\nMissing required parameters.");
  expect_usage_error({"4", "sread", "1"}, "\nMissing required parameters.");
  expect_usage_error({"4", "aread"}, "\nMissing required parameters.");
  expect_usage_error({"4", "aread", "1f000"}, "\nMissing required parameters.");
}

TEST(product, help_prints_the_usage_and_fails) {
  expect_usage_error({"-h"}, "\nDisplay help message.");
  expect_usage_error({"-vh", "4", "dir"}, "\nDisplay help message.");
  expect_usage_error({"4", "dir", "-h"}, "\nDisplay help message.");
}

TEST(product, an_unknown_option_is_told_on_standard_error_and_prints_the_usage) {
  const std::string message = "\nzantrolume: Unknown parameter.";
  expect_usage_error({"-x", "4", "dir"}, message, invalid_option('x'));
  expect_usage_error({"4", "dir", "-x"}, message, invalid_option('x'));
  expect_usage_error({"--verbose", "4", "dir"}, message, invalid_option('-'));
}

TEST(product, an_option_behind_the_first_operand_is_none_when_the_environment_asks_for_it) {
  const std::map<std::string, std::string> environment = {{"POSIXLY_CORRECT", "1"}};
  expect_device_is_missing({"4", "dir", "-h"}, environment);
  expect_device_is_missing({"4", "dir", "-x"}, environment);
}

TEST(product, a_complex_outside_3_to_8_is_refused_with_its_number) {
  expect_usage_error({"9", "dir"}, "\nInvalid ppc number : 9");
  expect_usage_error({"2", "dir"}, "\nInvalid ppc number : 2");
  expect_usage_error({"--", "-1", "dir"}, "\nInvalid ppc number : -1");
}

TEST(product, a_complex_that_is_no_number_counts_as_0) {
  expect_usage_error({"abc", "dir"}, "\nInvalid ppc number : 0");
  expect_usage_error({"", "dir"}, "\nInvalid ppc number : 0");
  expect_usage_error({"-", "dir"}, "\nInvalid ppc number : 0");
}

TEST(product, the_number_of_the_complex_saturates_at_32_bits) {
  expect_usage_error({"99999999999999999999", "dir"}, "\nInvalid ppc number : 2147483647");
  expect_usage_error({"4294967300", "dir"}, "\nInvalid ppc number : 2147483647");
  expect_usage_error({"--", "-4294967292", "dir"}, "\nInvalid ppc number : -2147483648");
}

TEST(product, an_invalid_complex_is_reported_before_a_missing_command) {
  expect_usage_error({"9"}, "\nInvalid ppc number : 9");
}

TEST(product, a_missing_device_node_is_reported_with_status_0) {
  if (access("/dev/vexmor1", F_OK) == 0 || access("/dev/vexmor2", F_OK) == 0) {
    FAIL() << "this machine has the real device nodes; run the tests elsewhere";
  }
  expect_device_is_missing({"3", "dir"});
  expect_device_is_missing({"8", "dir"});
  expect_device_is_missing({"-v", "6", "sizes"});
  expect_device_is_missing({"4", "erase", "1"});
  expect_device_is_missing({"4", "sread", "1", "64"});
  expect_device_is_missing({"4", "aread", "20", "64"});
}

TEST(product, a_file_command_without_its_file_name_still_reaches_for_the_device) {
  expect_device_is_missing({"4", "more"});
  expect_device_is_missing({"4", "rm"});
  expect_device_is_missing({"4", "copy"});
}

TEST(product, an_unknown_command_word_still_reaches_for_the_device) {
  expect_device_is_missing({"4", "dirx"});
  expect_device_is_missing({"4", ""});
}

TEST(product, a_number_followed_by_other_characters_counts_as_the_number) {
  expect_device_is_missing({"4x", "dir"});
}

TEST(product, contains_nothing_of_the_simulator) {
  const std::string variable = "ZANTROLUME_CHASSIS";
  EXPECT_NE(test_support::read_whole_file(ZANTROLUME_SIM_PROGRAM).find(variable),
            std::string::npos);
  EXPECT_EQ(test_support::read_whole_file(ZANTROLUME_PROGRAM).find(variable), std::string::npos);
}
