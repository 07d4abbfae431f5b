// The file commands, as sessions of whole commands over a simulated complex. Each golden file holds
// the lines that were typed, what was printed, and the results.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>

#include "flashfs/flashfs.h"
#include "flashfs/vector.h"
#include "sim/flash.h"
#include "tests/support/golden.h"
#include "tests/support/image_builder.h"
#include "tests/zantrolume/console.h"
#include "tests/zantrolume/selected_complex.h"
#include "zantrolume/zantrolume_commands.h"

using zantrolume_test::console;
using zantrolume_test::expect_session;

namespace {

const std::string deepest(600, 'd');

// A started file system with a few files and directories.
void make_files(console& console) {
  console.make_empty_file_system();
  ASSERT_EQ(start_flashfs(), 1);
  console::write_file("readme", "first line\nsecond line\n");
  console::write_file("empty", "");
  console::write_file("large", std::string(5000, 'x'));
  ASSERT_EQ(ifs_mkdir("bootflash:config", 0), 0);
  console::write_file("config/startup", "line\n");
}

// Damages the first data byte of a file's first sector, which holds this text.
void damage_sector_with(console& console, const std::string& text) {
  uint8_t* bytes = console.complex().flash().bytes();
  uint8_t* end = bytes + zantrolume_test::usable_blocks * zantrolume_test::block_size_bytes;
  uint8_t* found = std::search(bytes, end, text.begin(), text.end());
  ASSERT_NE(found, end);
  *found = 0;
}

}  // namespace

// --- dir ---

TEST(dir_command, lists_a_directory_and_its_space) {
  expect_session("dir.txt", [](console& console) {
    make_files(console);
    console.run(dir_cmd, {"dir", "bootflash:"});
    console.run(dir_cmd, {"dir", "bootflash:config", "bootflash:config/"});
    console.run(dir_cmd, {"dir", "-a", "-a", "bootflash:"});
  });
}

TEST(dir_command, of_an_empty_directory_prints_its_heading) {
  expect_session("dir_empty.txt", [](console& console) {
    console.make_empty_file_system();
    console.run(dir_cmd, {"dir", "bootflash:"});
  });
}

TEST(dir_command, without_a_name_lists_the_file_systems) {
  expect_session("dir_filesystems.txt", [](console& console) {
    console.make_empty_file_system();
    ASSERT_EQ(start_flashfs(), 1);
    ASSERT_EQ(ifs_add_prefix(0, "flash"), 0);
    ASSERT_EQ(ifs_create("readable", &flashfs_operations, 1, 1, 0, nullptr), 1);
    ASSERT_EQ(ifs_create("writable", &flashfs_operations, 1, 2, 0, nullptr), 2);
    ASSERT_EQ(ifs_create("neither", &flashfs_operations, 1, 4, 0, nullptr), 3);
    ASSERT_EQ(ifs_create("hidden", &flashfs_operations, 1, ifs_flag_hidden | 3, 0, nullptr), 4);
    console.run(dir_cmd, {"dir"});
    console.run(dir_cmd, {"dir", "-a"});
  });
}

TEST(dir_command, refuses_what_is_no_directory_and_goes_on) {
  expect_session("dir_failures.txt", [](console& console) {
    make_files(console);
    console.run(dir_cmd,
                {"dir", "bootflash:readme", "bootflash:missing", "nvram:", "", "bootflash:config"});
    console.run(dir_cmd, {"dir", "-x", "bootflash:"});
    console.run(dir_cmd, {"dir", "-ab"});
    console.run(dir_cmd, {"dir", "bootflash:" + deepest});
  });
}

// --- cat and more ---

TEST(cat_command, prints_files_and_returns_1) {
  expect_session("cat.txt", [](console& console) {
    make_files(console);
    console.run(cat_cmd, {"cat", "bootflash:readme"});
    console.run(cat_cmd, {"cat", "bootflash:empty", "bootflash:config/startup"});
    console.run(more_cmd, {"more", "bootflash:readme"});
    console.run(cat_cmd, {"cat"});
    console.run(more_cmd, {"more"});
  });
}

TEST(cat_command, stops_a_file_at_its_first_nul_or_ctrl_z) {
  expect_session("cat_end.txt", [](console& console) {
    make_files(console);
    console::write_file("nul", std::string("before\0after", 12));
    console::write_file("ctrl_z",
                        "before\x1A"
                        "after");
    console::write_file("late", std::string(511, 'l') + std::string("e\0after", 7));
    console.run(cat_cmd, {"cat", "bootflash:nul", "bootflash:ctrl_z", "bootflash:late"});
  });
}

TEST(cat_command, prints_every_other_byte_of_a_long_file_as_it_is) {
  expect_session("cat_bytes.txt", [](console& console) {
    make_files(console);
    std::string bytes;
    for (int i = 0; i < 3000; ++i) {
      const int value = i % 256;
      bytes += static_cast<char>(value == 0 || value == 26 ? 'z' : value);
    }
    console::write_file("bytes", bytes);
    console.run(cat_cmd, {"cat", "bootflash:bytes"});
  });
}

TEST(cat_command, goes_on_behind_files_that_cannot_be_opened_or_read) {
  expect_session("cat_failures.txt", [](console& console) {
    make_files(console);
    console::write_file("damaged", "a text that stands nowhere else");
    damage_sector_with(console, "a text that stands nowhere else");
    console.run(cat_cmd,
                {"cat", "bootflash:missing", "bootflash:config", "", "readme", "bootflash:readme"});
    console.run(cat_cmd, {"cat", "bootflash:damaged", "bootflash:readme"});
  });
}

TEST(cat_command, an_output_that_fails_interrupts_the_file) {
  const auto result = test_support::run_isolated([] {
    console console;
    make_files(console);
    // An output whose first write fails; what comes after it is caught on standard error.
    static int writes;
    cookie_io_functions_t functions = {};
    functions.write = [](void*, const char* data, size_t size) -> ssize_t {
      if (++writes == 1) {
        return -1;
      }
      return static_cast<ssize_t>(fwrite(data, 1, size, stderr));
    };
    fflush(stdout);
    FILE* real_output = stdout;
    stdout = fopencookie(nullptr, "w", functions);
    char name[] = "cat";
    char large[] = "bootflash:large";
    char readme[] = "bootflash:readme";
    char* argv[] = {name, large, readme, nullptr};
    EXPECT_EQ(cat_cmd(3, argv), 1);
    fclose(stdout);
    stdout = real_output;
    EXPECT_GT(writes, 1);
  });
  EXPECT_EQ(result.status, 0);
  EXPECT_TRUE(result.output.ends_with("\nCommand interrupted.\nfirst line\nsecond line\n"))
      << result.output;
}

// --- delete, verify, mkdir, rmdir ---

TEST(delete_command, deletes_what_it_can) {
  expect_session("delete.txt", [](console& console) {
    make_files(console);
    console.run(delete_cmd, {"delete", "bootflash:readme"});
    console.run(delete_cmd, {"delete", "bootflash:missing", "bootflash:config/startup"});
    console.run(delete_cmd, {"delete", "bootflash:config", "", "nvram:x"});
    console.run(delete_cmd, {"delete"});
    console.run(dir_cmd, {"dir", "bootflash:", "bootflash:config"});
  });
}

TEST(verify_command, reads_files_back) {
  expect_session("verify.txt", [](console& console) {
    make_files(console);
    console.run(verify_cmd, {"verify", "bootflash:readme", "bootflash:large", "bootflash:empty",
                             "bootflash:config"});
    console.run(verify_cmd, {"verify", "bootflash:missing", "bootflash:readme", "nvram:x", ""});
    console.run(verify_cmd, {"verify"});
  });
}

TEST(verify_command, finds_a_damaged_sector) {
  expect_session("verify_damaged.txt", [](console& console) {
    make_files(console);
    console::write_file("damaged", "a text that stands nowhere else");
    damage_sector_with(console, "a text that stands nowhere else");
    console.run(verify_cmd, {"verify", "bootflash:damaged"});
  });
}

TEST(mkdir_command, makes_directories) {
  expect_session("mkdir.txt", [](console& console) {
    make_files(console);
    console.run(mkdir_cmd, {"mkdir", "bootflash:new", "bootflash:new/inner"});
    console.run(mkdir_cmd, {"mkdir", "bootflash:new", "bootflash:readme/x", "bootflash:none/x",
                            "bootflash:other"});
    console.run(mkdir_cmd, {"mkdir", "", "nvram:x", "bootflash:" + std::string(46, 'n'),
                            "bootflash:" + std::string(45, 'n')});
    console.run(mkdir_cmd, {"mkdir"});
    console.run(dir_cmd, {"dir", "bootflash:", "bootflash:new"});
  });
}

TEST(rmdir_command, removes_empty_directories) {
  expect_session("rmdir.txt", [](console& console) {
    make_files(console);
    console.run(rmdir_cmd, {"rmdir", "bootflash:config", "bootflash:readme", "bootflash:missing",
                            "bootflash:/", "", "nvram:x"});
    console.run(delete_cmd, {"delete", "bootflash:config/startup"});
    console.run(rmdir_cmd, {"rmdir", "bootflash:config"});
    console.run(rmdir_cmd, {"rmdir"});
    console.run(dir_cmd, {"dir", "bootflash:"});
  });
}

// --- rename ---

TEST(rename_command, takes_two_paths) {
  expect_session("rename.txt", [](console& console) {
    make_files(console);
    console.run(rename_cmd, {"rename"});
    console.run(rename_cmd, {"rename", "bootflash:readme"});
    console.run(rename_cmd, {"rename", "bootflash:readme", "bootflash:x", "bootflash:y"});
    console.run(rename_cmd, {"rename", "bootflash:readme", "bootflash:readme.txt"});
    console.run(rename_cmd, {"rename", "bootflash:readme.txt", "bootflash:config/moved"});
    console.run(rename_cmd, {"rename", "bootflash:missing", "bootflash:x"});
    console.run(rename_cmd, {"rename", "bootflash:empty", "bootflash:large"});
    console.run(rename_cmd, {"rename", "bootflash:empty", "bootflash:none/x"});
    console.run(rename_cmd, {"rename", "bootflash:config", "bootflash:config/inside"});
    console.run(rename_cmd, {"rename", "bootflash:empty", "nvram:x"});
    console.run(rename_cmd, {"rename", "bootflash:empty", "bootflash:" + std::string(46, 'n')});
    console.run(dir_cmd, {"dir", "bootflash:", "bootflash:config"});
    console.run(cat_cmd, {"cat", "bootflash:config/moved"});
  });
}

// --- copy ---

TEST(copy_command, copies_in_buffers_and_prints_a_dot_for_each) {
  expect_session("copy.txt", [](console& console) {
    make_files(console);
    console.run(copy_cmd, {"copy", "bootflash:large", "bootflash:large2"});
    EXPECT_EQ(console::read_file("large2"), std::string(5000, 'x'));
    console.run(copy_cmd, {"copy", "-b", "1000", "bootflash:large", "bootflash:config/large3"});
    EXPECT_EQ(console::read_file("config/large3"), std::string(5000, 'x'));
    console.run(copy_cmd, {"copy", "bootflash:empty", "bootflash:large2"});
    EXPECT_EQ(console::read_file("large2"), "");
    console.run(copy_cmd, {"copy", "-b", "7", "-b", "100000", "bootflash:readme", "bootflash:r"});
    EXPECT_EQ(console::read_file("r"), "first line\nsecond line\n");
    console.run(dir_cmd, {"dir", "bootflash:"});
  });
}

TEST(copy_command, refuses_bad_usage_silently) {
  expect_session("copy_usage.txt", [](console& console) {
    make_files(console);
    console.run(copy_cmd, {"copy"});
    console.run(copy_cmd, {"copy", "bootflash:readme"});
    console.run(copy_cmd, {"copy", "bootflash:readme", "bootflash:b", "bootflash:c"});
    console.run(copy_cmd, {"copy", "-x", "100", "bootflash:readme", "bootflash:b"});
    console.run(copy_cmd, {"copy", "-bx", "100", "bootflash:readme", "bootflash:b"});
    console.run(copy_cmd, {"copy", "-b"});
    console.run(copy_cmd, {"copy", "-b", "100"});
    console.run(copy_cmd, {"copy", "-b", "0", "bootflash:readme", "bootflash:b"});
    console.run(copy_cmd, {"copy", "-b", "abc", "bootflash:readme", "bootflash:b"});
    console.run(copy_cmd, {"copy", "-b", "-5", "bootflash:readme", "bootflash:b"});
    console.run(copy_cmd, {"copy", "-b", "-99999999999", "bootflash:readme", "bootflash:b"});
  });
}

TEST(copy_command, reports_a_source_or_destination_that_cannot_be_opened) {
  expect_session("copy_open.txt", [](console& console) {
    make_files(console);
    console.run(copy_cmd, {"copy", "bootflash:missing", "bootflash:b"});
    console.run(copy_cmd, {"copy", "nvram:x", "bootflash:b"});
    console.run(copy_cmd, {"copy", "bootflash:readme", "bootflash:config"});
    console.run(copy_cmd, {"copy", "bootflash:readme", "bootflash:none/x"});
    console.run(copy_cmd, {"copy", "bootflash:readme", "bootflash:readme"});
    console.run(cat_cmd, {"cat", "bootflash:readme"});
  });
}

TEST(copy_command, that_does_not_fit_leaves_no_destination) {
  expect_session("copy_no_space.txt", [](console& console) {
    // All of the device's sectors but a few belong to one file, whose copy has no room.
    test_support::image_builder builder = console.builder();
    builder.headers(zantrolume_test::usable_blocks - 1);
    builder.slot(0, 0, 0,
                 {.seq_no = 0, .dir_fileid = 1, .entry_fileid = 1, .mode = 0x4700, .name = "/"});
    builder.slot(0, 0, 1, {.seq_no = 1, .dir_fileid = 1, .entry_fileid = 2, .name = "huge"});
    uint16_t seq_no = 0;
    const std::string data(2048, 'h');
    for (int block = 0; block < 120; ++block) {
      for (int sector = block == 0 ? 1 : 0; sector < 63; ++sector) {
        builder.data_sector(block, sector, 2, seq_no++, data);
      }
    }
    console.run(copy_cmd, {"copy", "bootflash:huge", "bootflash:copy"});
    console.run(dir_cmd, {"dir", "bootflash:"});
  });
}

TEST(copy_command, that_cannot_read_its_source_says_so_and_fails) {
  expect_session("copy_failure.txt", [](console& console) {
    make_files(console);
    console::write_file("damaged", std::string(3000, 'd') + "a text that stands nowhere else");
    damage_sector_with(console, "a text that stands nowhere else");
    console.run(copy_cmd, {"copy", "-b", "2048", "bootflash:damaged", "bootflash:b"});
  });
}
