// The command line: words and codes, the usage text, and whole runs of the commands that need no
// file system, over the simulated chassis.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "sim/chassis.h"
#include "sim/counts.h"
#include "sim/cpld.h"
#include "sim/flash.h"
#include "tests/support/golden.h"
#include "tests/support/output_capture.h"
#include "zantrolume/zantrolume_cpld.h"
#include "zantrolume/zantrolume_main.h"

using test_support::isolated_result;
using test_support::output_of;
using test_support::run_isolated;

namespace {

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

const std::string missing = "\nMissing required parameters." + usage;
const std::string unknown = "\nzantrolume: Unknown parameter." + usage;
const std::string opened = "\nZANTROLUME : vexmor device driver opened";
const std::string mapped = "\nZANTROLUME : vexmor device driver memory mapped";
const std::string unmapped = "\nZANTROLUME : unmapped vexmor device driver";

// What the C library says of an option that it was not told of.
std::string invalid_option(char option) {
  return std::string("zantrolume: invalid option -- '") + option + "'\n";
}

using chassis_action = std::function<void(sim::chassis& chassis)>;

void nothing(sim::chassis&) {}

// One run of the program in a process of its own. Its exit status is the result's, unless a test
// assertion in `after` fails.
isolated_result run(const std::vector<std::string>& words, const chassis_action& before = nothing,
                    const chassis_action& after = nothing) {
  return run_isolated([&] {
    sim::chassis chassis;
    chassis.clock_hold(1800000000);
    sim::install_chassis(&chassis);
    before(chassis);
    std::vector<std::string> copies = words;
    copies.insert(copies.begin(), "zantrolume");
    std::vector<char*> argv;
    for (std::string& word : copies) {
      argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    const int status = zantrolume_run(static_cast<int>(copies.size()), argv.data());
    after(chassis);
    EXPECT_EQ(chassis.deviations().total(), 0U);
    if (!testing::Test::HasFailure()) {
      fflush(stdout);
      test_support::end_child(status);
    }
  });
}

void expect_run(const std::vector<std::string>& words, int status, const std::string& output) {
  const isolated_result result = run(words);
  EXPECT_EQ(result.output, output) << testing::PrintToString(words);
  EXPECT_EQ(result.status, status) << testing::PrintToString(words);
}

// A refusal comes before the device is opened.
void expect_refused(const std::vector<std::string>& words, const std::string& output) {
  const isolated_result result =
      run(words, nothing, [](sim::chassis& chassis) { EXPECT_EQ(chassis.opens(), 0); });
  EXPECT_EQ(result.output, output) << testing::PrintToString(words);
  EXPECT_EQ(result.status, 1) << testing::PrintToString(words);
}

std::string dump_line(const std::string& address) {
  return address + "    " +
         "ffffffff ffffffff ffffffff ffffffff ffffffff ffffffff ffffffff ffffffff     " +
         std::string(32, '.') + "\n";
}

}  // namespace

// --- the companions ---

TEST(command_words, have_the_codes_of_their_order) {
  const char* const words[] = {"copy", "dir",   "erase", "fsck", "more",
                               "rm",   "sread", "aread", "sizes"};
  for (int code = 0; code < 9; ++code) {
    EXPECT_EQ(get_cmd_enum(words[code]), code);
  }
}

TEST(command_words, match_exactly_or_not_at_all) {
  for (const char* word : {"", "copyx", "cop", "dirx", "di", "rmx", "r", "sizes ", "DIR", "help"}) {
    EXPECT_EQ(get_cmd_enum(word), 9) << word;
  }
}

TEST(command_words, three_need_a_file_name) {
  for (const int code : {-1, 1, 2, 3, 6, 7, 8, 9, 10, 1000}) {
    EXPECT_EQ(cmd_requires_filename(code), 0) << code;
  }
  for (const int code : {0, 4, 5}) {
    EXPECT_EQ(cmd_requires_filename(code), 1) << code;
  }
}

TEST(usage_text, is_printed_to_the_letter) {
  EXPECT_EQ(output_of(zantrolume_display_usage), usage);
}

// --- refusals ---

TEST(command_line, without_words_is_refused) {
  expect_refused({}, missing);
}

TEST(command_line, help_prints_the_usage_and_fails) {
  expect_refused({"-h"}, "\nDisplay help message." + usage);
  expect_refused({"-v", "-h", "4", "dir"}, "\nDisplay help message." + usage);
}

// Standard error is not buffered, so the C library's line comes first.
TEST(command_line, an_unknown_option_is_told_by_the_c_library_and_prints_the_usage) {
  expect_refused({"-x"}, invalid_option('x') + unknown);
  expect_refused({"-vx", "4", "dir"}, invalid_option('x') + unknown);
  expect_refused({"--help"}, invalid_option('-') + unknown);
  expect_refused({"4", "dir", "-x"}, invalid_option('x') + unknown);
}

TEST(command_line, a_negative_operand_is_an_option_unless_it_stands_behind_two_dashes) {
  expect_refused({"4", "sread", "2", "-5"}, invalid_option('5') + unknown);
  expect_run({"--", "4", "sread", "2", "-5"}, 0, "");
}

TEST(command_line, options_may_follow_operands) {
  unsetenv("POSIXLY_CORRECT");
  expect_refused({"4", "sizes", "-h"}, "\nDisplay help message." + usage);
  expect_run({"4", "copy", "-v"}, 0, opened + mapped + "Sorry, not supported\n" + unmapped);
}

TEST(command_line, options_end_at_the_first_operand_when_the_environment_asks_for_it) {
  setenv("POSIXLY_CORRECT", "1", 1);
  expect_run({"4", "copy", "-h"}, 0, "Sorry, not supported\n");
  expect_run({"4", "copy", "-v"}, 0, "Sorry, not supported\n");
  expect_run({"4", "copy", "-x"}, 0, "Sorry, not supported\n");
  expect_run({"4", "sread", "2", "-5"}, 0, "");
  expect_run({"-v", "4", "copy"}, 0, opened + mapped + "Sorry, not supported\n" + unmapped);
  expect_refused({"-h", "4", "copy"}, "\nDisplay help message." + usage);
  unsetenv("POSIXLY_CORRECT");
}

TEST(command_line, a_number_outside_3_to_8_is_refused_with_the_number) {
  expect_refused({"9", "dir"}, "\nInvalid ppc number : 9" + usage);
  expect_refused({"2", "dir"}, "\nInvalid ppc number : 2" + usage);
  expect_refused({"abc", "dir"}, "\nInvalid ppc number : 0" + usage);
  expect_refused({"", "dir"}, "\nInvalid ppc number : 0" + usage);
  expect_refused({"--", "-1", "dir"}, "\nInvalid ppc number : -1" + usage);
}

TEST(command_line, a_number_that_does_not_fit_is_saturated_to_32_bits) {
  expect_refused({"4294967299", "dir"}, "\nInvalid ppc number : 2147483647" + usage);
  expect_refused({"99999999999999999999", "dir"}, "\nInvalid ppc number : 2147483647" + usage);
  expect_refused({"--", "-99999999999999999999", "dir"},
                 "\nInvalid ppc number : -2147483648" + usage);
}

TEST(command_line, missing_words_are_refused_before_the_device_is_opened) {
  expect_refused({"-v"}, missing);
  expect_refused({"--"}, missing);
  expect_refused({"4"}, missing);
  expect_refused({"4", "erase"}, missing);
  expect_refused({"4", "sread"}, missing);
  expect_refused({"4", "sread", "1"}, missing);
  expect_refused({"4", "aread"}, missing);
  expect_refused({"4", "aread", "20"}, missing);
}

TEST(command_line, a_wrong_number_is_seen_before_a_missing_command) {
  expect_refused({"9"}, "\nInvalid ppc number : 9" + usage);
}

// --- the device ---

TEST(command_line, a_device_that_cannot_be_opened_ends_with_status_0) {
  const auto result = run(
      {"-v", "4", "sizes"}, [](sim::chassis& chassis) { chassis.fail_open(ENOENT); },
      [](sim::chassis&) {
        EXPECT_EQ(cpld_flash_access_selection, 0x5000U);
        EXPECT_EQ(flash_status_bit, 4U);
      });
  EXPECT_EQ(result.output, "\nZANTROLUME : Failed to open file VEXMOR device driver, errno " +
                               std::to_string(ENOENT));
  EXPECT_EQ(result.status, 0);
}

TEST(command_line, a_window_that_cannot_be_mapped_ends_with_status_0) {
  const auto result = run({"4", "sizes"}, [](sim::chassis& chassis) { chassis.fail_map(EINVAL); });
  EXPECT_EQ(result.output, "\nZANTROLUME: mmap failed, errno " + std::to_string(EINVAL) + ".\n");
  EXPECT_EQ(result.status, 0);
}

TEST(command_line, a_window_mapped_at_null_ends_with_status_0) {
  const auto result = run({"4", "sizes"}, [](sim::chassis& chassis) {
    chassis.map_null();
    errno = 0;
  });
  EXPECT_EQ(result.output, "\nZANTROLUME: mmap failed, errno 0.\n");
  EXPECT_EQ(result.status, 0);
}

TEST(command_line, descriptor_0_is_no_failure_but_is_not_told) {
  const auto result =
      run({"-v", "4", "copy"}, [](sim::chassis& chassis) { chassis.set_first_descriptor(0); });
  EXPECT_EQ(result.output, mapped + "Sorry, not supported\n" + unmapped);
  EXPECT_EQ(result.status, 0);
}

TEST(command_line, a_negative_multiple_of_32_is_told_as_it_is) {
  expect_run({"-v", "--", "4", "sread", "2", "-64"}, 0,
             opened + mapped +
                 "\nZANTROLUME: enter zantrolume_cpld:zantrolume_display_flash"
                 "sector = 2, flash_offset = 0x40000, length = -64\n" +
                 unmapped);
}

TEST(command_line, a_running_complex_is_left_alone_and_the_window_unmapped) {
  for (int ppc = 3; ppc <= 8; ++ppc) {
    const std::string number = std::to_string(ppc);
    const auto result = run(
        {number, "sizes"}, [ppc](sim::chassis& chassis) { chassis.set_running(ppc, true); },
        [](sim::chassis& chassis) {
          EXPECT_EQ(chassis.mapped(), 0);
          EXPECT_EQ(chassis.counts().run_state_reads, 1U);
          EXPECT_EQ(chassis.counts().page_writes, 0U);
        });
    EXPECT_EQ(result.output,
              "\nZANTROLUME : PPC Flashfs access requires PPC " + number + " to be in reset.\n");
    EXPECT_EQ(result.status, 0);
  }
}

TEST(command_line, other_complexes_of_the_node_may_run) {
  const auto result = run({"4", "copy"}, [](sim::chassis& chassis) {
    chassis.set_running(3, true);
    chassis.set_running(5, true);
    chassis.set_running(7, true);
  });
  EXPECT_EQ(result.output, "Sorry, not supported\n");
}

TEST(command_line, each_number_selects_its_own_complex) {
  for (int ppc = 3; ppc <= 8; ++ppc) {
    const auto result = run(
        {std::to_string(ppc), "aread", "20", "32"},
        [ppc](sim::chassis& chassis) { memset(chassis.flash(ppc).bytes() + 0x20, 'x', 32); },
        [ppc](sim::chassis& chassis) {
          EXPECT_EQ(cpld_flash_access_selection, 0x4000U + 0x1000U * ((ppc - 3U) % 3U));
          EXPECT_EQ(flash_status_bit, 2U << ((ppc - 3U) % 3U));
          EXPECT_EQ(vexmor_mapped_ptr, chassis.window_of(ppc));
          EXPECT_EQ(chassis.opens(), 1);
          EXPECT_EQ(chassis.mapped(), 0);
        });
    EXPECT_EQ(result.output,
              "0x00000020    78787878 78787878 78787878 78787878 78787878 78787878 78787878 "
              "78787878     xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx\n")
        << ppc;
    EXPECT_EQ(result.status, 0);
  }
}

// --- the commands ---

TEST(command_line, verbose_mode_prints_three_lines_around_the_command) {
  expect_run({"-v", "6", "nothing"}, 0, opened + mapped + "Sorry, not supported\n" + unmapped);
  const std::string sizes = run({"6", "sizes"}).output;
  expect_run({"-v", "6", "sizes"}, 0, opened + mapped + sizes + unmapped);
}

TEST(command_line, copy_and_unknown_words_are_not_supported) {
  for (const char* word : {"copy", "dirx", "di", "", "rename"}) {
    expect_run({"4", word, "a", "b"}, 0, "Sorry, not supported\n");
  }
}

TEST(command_line, erase_takes_a_sector_number_and_prints_nothing) {
  const auto result = run(
      {"4", "erase", "2"},
      [](sim::chassis& chassis) { memset(chassis.flash(4).bytes(), 0, 4U << 17); },
      [](sim::chassis& chassis) {
        const uint8_t* bytes = chassis.flash(4).bytes();
        EXPECT_EQ(bytes[(2U << 17) - 1], 0);
        EXPECT_EQ(bytes[2U << 17], 0xFF);
        EXPECT_EQ(bytes[(3U << 17) - 1], 0xFF);
        EXPECT_EQ(bytes[3U << 17], 0);
        EXPECT_EQ(chassis.counts().erases, 1U);
      });
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.status, 0);
}

TEST(command_line, erase_of_what_is_no_number_erases_sector_0) {
  const auto result = run(
      {"4", "erase", "abc"},
      [](sim::chassis& chassis) { memset(chassis.flash(4).bytes(), 0, 2U << 17); },
      [](sim::chassis& chassis) {
        EXPECT_EQ(chassis.flash(4).bytes()[0], 0xFF);
        EXPECT_EQ(chassis.flash(4).bytes()[1U << 17], 0);
      });
  EXPECT_EQ(result.status, 0) << result.output;
}

TEST(command_line, erase_of_a_word_that_begins_as_a_number_erases_that_sector) {
  const auto result = run(
      {"4", "erase", "1x"},
      [](sim::chassis& chassis) { memset(chassis.flash(4).bytes(), 0, 2U << 17); },
      [](sim::chassis& chassis) {
        EXPECT_EQ(chassis.flash(4).bytes()[0], 0);
        EXPECT_EQ(chassis.flash(4).bytes()[1U << 17], 0xFF);
      });
  EXPECT_EQ(result.status, 0) << result.output;
}

TEST(command_line, a_huge_sector_number_stays_in_32_bits) {
  for (const char* number : {"2147483647", "32767", "99999999999"}) {
    const auto result = run({"4", "erase", number}, nothing, [](sim::chassis& chassis) {
      EXPECT_EQ(chassis.counts().erases, 1U);
      EXPECT_EQ(chassis.node_of(4).page(), 0x1FE0U);
    });
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.status, 0);
  }
}

TEST(command_line, a_failing_erase_still_ends_with_status_0) {
  const auto result =
      run({"5", "erase", "1"}, [](sim::chassis& chassis) { chassis.set_ready_never(5); });
  EXPECT_EQ(result.output, "Timeout waiting for flash ready: bit 0x8\n");
  EXPECT_EQ(result.status, 0);
}

TEST(command_line, sread_takes_a_sector_number_and_a_length) {
  expect_run({"4", "sread", "2", "64"}, 0, dump_line("0x00040000") + dump_line("0x00040020"));
  expect_run({"4", "sread", "0", "64"}, 0, "");
  expect_run({"4", "sread", "1", "x"}, 0, "");
}

TEST(command_line, sread_behind_the_end_reads_from_the_beginning) {
  // The only way to print the first line of a flash: addresses wrap, and 0 is no address.
  const auto result = run({"4", "sread", "256", "64"},
                          [](sim::chassis& chassis) { memset(chassis.flash(4).bytes(), 'A', 32); });
  const std::string words = "41414141 41414141 41414141 41414141 ";
  EXPECT_EQ(result.output, "0x02000000    " + words + words + "    " + std::string(32, 'A') + "\n" +
                               dump_line("0x02000020"));
  EXPECT_EQ(result.status, 0);
}

TEST(command_line, aread_takes_a_hexadecimal_address_and_a_length) {
  expect_run({"4", "aread", "1f000", "64"}, 0, dump_line("0x0001f000") + dump_line("0x0001f020"));
  expect_run({"4", "aread", "0x1F000", "1"}, 0, dump_line("0x0001f000"));
  expect_run({"4", "aread", "0", "64"}, 0, "");
}

TEST(command_line, an_address_that_does_not_fit_is_saturated_to_32_bits) {
  const std::string saturated = dump_line("0x7fffffff");
  expect_run({"4", "aread", "ffffffff", "32"}, 0, saturated);
  expect_run({"4", "aread", "fffffffffffffffff", "32"}, 0, saturated);
  expect_run({"--", "4", "aread", "-20", "32"}, 0, dump_line("0xffffffe0"));
}
