// Start-up of the file system and the maintenance commands, as sessions of whole commands.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "flashfs/flashfs.h"
#include "sim/chassis.h"
#include "sim/counts.h"
#include "sim/cpld.h"
#include "sim/flash.h"
#include "tests/support/golden.h"
#include "tests/support/image_builder.h"
#include "tests/zantrolume/console.h"
#include "tests/zantrolume/selected_complex.h"
#include "zantrolume/zantrolume_commands.h"

using zantrolume_test::console;
using zantrolume_test::expect_session;

namespace {

int flashfs_init_words(int argc, char*[]) {
  return flashfs_init_cmd(argc);
}

int set_bs_words(int, char*[]) {
  return set_bs_cmd();
}

int start_words(int, char*[]) {
  return start_flashfs();
}

int register_words(int, char*[]) {
  return register_flashfs();
}

}  // namespace

TEST(startup, registers_without_touching_the_flash_and_only_once) {
  expect_session("startup_register.txt", [](console& console) {
    console.run(register_words, {"register"});
    EXPECT_EQ(ifs_lookup_prefix("bootflash:"), 0);
    ifs_init();
    console.run(register_words, {"register"});
    EXPECT_EQ(ifs_lookup_prefix("bootflash:"), -1);
    EXPECT_EQ(console.complex().chassis().counts().words_read, 0U);
  });
}

TEST(startup, checks_once_and_then_touches_no_flash) {
  expect_session("startup_start.txt", [](console& console) {
    console.make_empty_file_system();
    console.run(start_words, {"start"});
    console.complex().chassis().clear_counts();
    console.run(start_words, {"start"});
    EXPECT_EQ(console.complex().chassis().counts().words_read, 0U);
    EXPECT_EQ(console.complex().chassis().counts().page_writes, 0U);
  });
}

TEST(startup, a_failing_check_is_reported_and_tried_again) {
  expect_session("startup_failure.txt", [](console& console) {
    console.builder().headers(-1);
    console.run(start_words, {"start"});
    console.run(flashfs_init_words, {"flashfs_init"});
    memset(console.complex().flash().bytes(), 0xFF, zantrolume_test::block_size_bytes);
    console.run(start_words, {"start"});
  });
}

TEST(startup, commands_stop_when_the_file_system_cannot_be_started) {
  expect_session("startup_abort.txt", [](console& console) {
    console.builder().headers(-1);
    console.run(copy_cmd, {"copy", "bootflash:a", "bootflash:b"});
    console.run(rename_cmd, {"rename", "bootflash:a", "bootflash:b"});
    console.run(dir_cmd, {"dir", "bootflash:"});
    console.run(cat_cmd, {"cat", "bootflash:a"});
    console.run(more_cmd, {"more", "bootflash:a"});
    console.run(delete_cmd, {"delete", "bootflash:a"});
    console.run(verify_cmd, {"verify", "bootflash:a"});
    console.run(mkdir_cmd, {"mkdir", "bootflash:a"});
    console.run(rmdir_cmd, {"rmdir", "bootflash:a"});
    console.run(flashfs_init_words, {"flashfs_init"});
  });
}

TEST(startup, flashfs_init_takes_no_arguments) {
  expect_session("flashfs_init.txt", [](console& console) {
    console.make_empty_file_system();
    console.run(flashfs_init_words, {"flashfs_init", "bootflash:"});
    console.run(flashfs_init_words, {"flashfs_init"});
    console.run(set_bs_words, {"set_bs"});
  });
}

TEST(startup, and_maintenance_register_the_file_system_anew) {
  for (const zantrolume_test::command one : {start_words, fsck_cmd, format_cmd}) {
    const auto result = test_support::run_isolated([&] {
      console console;
      console.make_empty_file_system();
      register_flashfs();
      ASSERT_EQ(ifs_add_prefix(0, "other"), 0);
      console.run(one, {"word"});
      EXPECT_EQ(ifs_lookup_prefix("bootflash:"), 0);
      EXPECT_EQ(ifs_lookup_prefix("other:"), -1);
    });
    EXPECT_EQ(result.status, 0) << result.output;
  }
}

TEST(startup, a_format_counts_as_a_start) {
  const auto result = test_support::run_isolated([&] {
    console console;
    console.make_empty_file_system();
    console.run(format_cmd, {"format", "bootflash:"});
    console.complex().chassis().clear_counts();
    EXPECT_EQ(start_flashfs(), 1);
    EXPECT_EQ(console.complex().chassis().counts().words_read, 0U);
  });
  EXPECT_EQ(result.status, 0) << result.output;
}

TEST(fsck_command, without_f_reads_more) {
  const auto result = test_support::run_isolated([&] {
    console console;
    console.make_empty_file_system();
    ASSERT_EQ(start_flashfs(), 1);
    console::write_file("file", std::string(5000, 'x'));
    const auto words_read_by = [&](const std::vector<std::string>& words) {
      console.complex().chassis().clear_counts();
      console.run(fsck_cmd, words);
      return console.complex().chassis().counts().words_read;
    };
    const uint64_t quick = words_read_by({"fsck", "-f", "bootflash:"});
    EXPECT_GT(quick, 0U);
    EXPECT_GT(words_read_by({"fsck", "bootflash:"}), quick);
  });
  EXPECT_EQ(result.status, 0) << result.output;
}

TEST(fsck_command, reads_its_options_and_one_name) {
  expect_session("fsck.txt", [](console& console) {
    console.make_empty_file_system();
    console.run(fsck_cmd, {"fsck", "-f"});
    console.run(fsck_cmd, {"fsck"});
    console.run(fsck_cmd, {"fsck", "-x", "bootflash:"});
    console.run(fsck_cmd, {"fsck", "-", "bootflash:"});
    console.run(fsck_cmd, {"fsck", "-testing", "bootflash:"});
    console.run(fsck_cmd, {"fsck", "-tes", "bootflash:"});
    console.run(fsck_cmd, {"fsck", "bootflash:", "bootflash:"});
    console.run(fsck_cmd, {"fsck", "bootflash:", "-f"});
    console.run(fsck_cmd, {"fsck", "nvram:"});
    console.run(fsck_cmd, {"fsck", "-f", "bootflash"});
    console.run(fsck_cmd, {"fsck", "-f", "bootflash:"});
    console.run(fsck_cmd, {"fsck", "bootflash:some/file"});
    console.run(start_words, {"start"});
  });
}

TEST(fsck_command, passes_its_options_to_the_check) {
  expect_session("fsck_options.txt", [](console& console) {
    console.make_empty_file_system();
    console.run(start_words, {"start"});
    // Of a flash in order, -f alone writes nothing; -test finds the flash stuck at the first block
    // that it reclaims.
    console.complex().node().set_ready_never(1);
    console.run(fsck_cmd, {"fsck", "-f", "bootflash:"});
    console.run(fsck_cmd, {"fsck", "-f", "-test", "bootflash:"});
  });
}

TEST(fsck_command, a_failing_check_gives_its_error) {
  expect_session("fsck_failure.txt", [](console& console) {
    console.builder().headers(-1);
    console.run(fsck_cmd, {"fsck", "-f", "bootflash:"});
  });
}

TEST(format_command, takes_one_name) {
  expect_session("format_usage.txt", [](console& console) {
    console.run(format_cmd, {"format"});
    console.run(format_cmd, {"format", "bootflash:", "x"});
    console.run(format_cmd, {"format", "nvram:"});
    console.run(format_cmd, {"format", "bootflash"});
    EXPECT_EQ(ifs_lookup_prefix("bootflash:"), 0)
        << "registered before the arguments are looked at";
    EXPECT_EQ(console.complex().chassis().counts().words_read, 0U);
  });
}

TEST(format_command, of_a_path_formats_its_file_system) {
  expect_session("format.txt", [](console& console) {
    console.make_empty_file_system();
    console.run(start_words, {"start"});
    console::write_file("file", "gone soon");
    console.run(dir_cmd, {"dir", "bootflash:"});
    console.run(format_cmd, {"format", "bootflash:some/file:with"});
    console.run(start_words, {"start"});
    console.run(dir_cmd, {"dir", "bootflash:"});
  });
}

TEST(format_command, a_flash_that_is_never_ready_gives_the_error) {
  expect_session("format_failure.txt", [](console& console) {
    console.make_empty_file_system();
    console.complex().node().set_ready_never(1);
    console.run(format_cmd, {"format", "bootflash:"});
  });
}
