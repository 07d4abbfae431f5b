// What the commands ask of a file system, and what they print of answers that the flash file system
// never gives: over a file system that notes its calls, behind a started switch.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "flashfs/flashfs.h"
#include "tests/ifs/recording_fs.h"
#include "tests/support/golden.h"
#include "tests/support/output_capture.h"
#include "tests/zantrolume/console.h"
#include "zantrolume/zantrolume_commands.h"

using recording_fs::calls;
using recording_fs::state;
using zantrolume_test::command;
using zantrolume_test::console;
using zantrolume_test::result_of;

namespace {

int32_t getdents_name(int32_t fd, void* buffer, uint32_t length) {
  strcpy(static_cast<ppc_dirent*>(buffer)->name, "name");
  return recording_fs::getdents(fd, buffer, length);
}

constexpr ifs_operations operations = [] {
  ifs_operations all = recording_fs::full_operations;
  all.getdents = getdents_name;
  return all;
}();

// Runs a command on the file system "odd:", whose calls end with `results` in turn, then with 0.
// The calls are compared without the addresses in them.
void expect_run(command one, const std::vector<std::string>& words,
                const std::deque<int32_t>& results, const std::string& output,
                const calls& expected, int expected_result) {
  const auto result = test_support::run_isolated([&] {
    console console;
    console.make_empty_file_system();
    test_support::output_of([] { ASSERT_EQ(start_flashfs(), 1); });
    ASSERT_EQ(recording_fs::create("odd", operations, 3), 1);
    state.error = EIO;
    state.results = results;
    EXPECT_EQ(result_of(one, words), expected_result);
    calls made;
    for (const std::string& call : state.calls) {
      const size_t pointer = call.find("0x");
      made.push_back(pointer == std::string::npos
                         ? call
                         : call.substr(0, pointer) + call.substr(call.find(' ', pointer) + 1));
    }
    EXPECT_EQ(made, expected);
  });
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output, output);
}

class command_calls : public testing::Test {
 protected:
  command_calls() {
    state = {};
    state.status.mode = 0x4700;
    state.status.fileid = 7;
    state.status.size = 10;
    state.status.change_date = 1;
    state.filesystem_status.block_size = 10;
    state.filesystem_status.total_blocks = 5;
    state.filesystem_status.free_blocks = 1;
  }
  ~command_calls() override {
    state = {};
  }
};

const std::string heading = "Directory of odd:/\n";

}  // namespace

TEST_F(command_calls, an_entry_without_id_size_and_date_shows_so) {
  state.status.mode = 0xFFFF;
  state.status.fileid = 0xFFFFFFFF;
  state.status.size = 0xFFFFFFFF;
  state.status.change_date = static_cast<sys_timestamp>(0xFFFFFFFF);
  expect_run(dir_cmd, {"dir", "odd:"}, {0, 0, 76, 0, 0, -1, 0},
             heading + "     -rwx   <no size><no date>            name\n" +
                 "\nNo space information available\n",
             {"stat 1 /", "open 1 / 1 0", "getdents 0 76", "stat 1 /name", "getdents 0 76",
              "statfs 1 /", "close 0"},
             0);
}

TEST_F(command_calls, a_type_of_its_own_is_listed_as_s) {
  state.during = [] {
    if (state.calls.back() == "stat 1 /") {
      state.status.mode = 0xC200;
    }
  };
  state.status.mode = ppc_mode_directory;
  expect_run(dir_cmd, {"dir", "odd:"}, {0, 0, 76, 0, 0, 0, 0},
             heading + "7    s-w-  10        <date>               name\n" +
                 "\n10 bytes available (40 bytes used)\n",
             {"stat 1 /", "open 1 / 1 0", "getdents 0 76", "stat 1 /name", "getdents 0 76",
              "statfs 1 /", "close 0"},
             0);
}

TEST_F(command_calls, a_directory_that_cannot_be_opened_is_told) {
  expect_run(dir_cmd, {"dir", "odd:"}, {0, -1}, "Unable to open odd:/: Input/output error\n",
             {"stat 1 /", "open 1 / 1 0"}, 0);
}

TEST_F(command_calls, a_directory_that_cannot_be_read_is_closed_in_silence) {
  expect_run(dir_cmd, {"dir", "odd:"}, {0, 0, -1, 0}, "",
             {"stat 1 /", "open 1 / 1 0", "getdents 0 76", "close 0"}, 0);
}

TEST_F(command_calls, an_entry_that_cannot_be_looked_at_ends_its_directory) {
  expect_run(dir_cmd, {"dir", "odd:"}, {0, 0, 76, -1, 0},
             heading + "odd:/name: Input/output error\n",
             {"stat 1 /", "open 1 / 1 0", "getdents 0 76", "stat 1 /name", "close 0"}, 0);
}

TEST_F(command_calls, a_directory_is_made_with_mode_0) {
  expect_run(mkdir_cmd, {"mkdir", "odd:d"}, {}, "Directory \"odd:d\" created\n", {"mkdir 1 d 0"},
             0);
}

TEST_F(command_calls, a_file_is_printed_in_pieces_of_512_bytes_and_closed) {
  expect_run(cat_cmd, {"cat", "odd:f"}, {}, "", {"open 1 f 1 0", "read 0 512", "close 0"}, 1);
}

TEST_F(command_calls, a_file_that_cannot_be_verified_is_closed) {
  expect_run(verify_cmd, {"verify", "odd:f"}, {0, -1, 0},
             "File \"odd:f\" verify failed -- Input/output error\n",
             {"open 1 f 1 0", "fioctl 0 7", "close 0"}, 1);
}

TEST_F(command_calls, a_copy_announces_its_size_and_asks_no_type_of_a_closed_file) {
  expect_run(copy_cmd, {"copy", "odd:a", "odd:b"}, {0, 0, 0, 0, 0, 10, 0, 10},
             ".\nFile \"odd:a\" successfully copied to \"odd:b\"\n",
             {"open 1 a 1 0", "open 1 b 778 0", "fstat 0", "statfs 1 b", "fioctl 1 1",
              "read 0 4096", "read 0 4086", "write 1 10", "read 0 4096", "close 0", "close 1"},
             0);
}

TEST_F(command_calls, a_copy_to_a_file_system_that_tells_no_space_goes_ahead) {
  expect_run(copy_cmd, {"copy", "odd:a", "odd:b"}, {0, 0, 0, -1},
             "\nFile \"odd:a\" successfully copied to \"odd:b\"\n",
             {"open 1 a 1 0", "open 1 b 778 0", "fstat 0", "statfs 1 b", "fioctl 1 1",
              "read 0 4096", "close 0", "close 1"},
             0);
}

TEST_F(command_calls, a_copy_that_writes_short_removes_its_destination) {
  state.during = [] { errno = EIO; };
  expect_run(
      copy_cmd, {"copy", "odd:a", "odd:b"}, {0, 0, 0, 0, 0, 10, 0, 5, 0},
      "odd:b: Input/output error\n\n",
      {"open 1 a 1 0", "open 1 b 778 0", "fstat 0", "statfs 1 b", "fioctl 1 1", "read 0 4096",
       "read 0 4086", "write 1 10", "write 1 5", "close 0", "close 1", "remove 1 b"},
      1);
}

TEST_F(command_calls, a_copy_whose_destination_cannot_be_opened_closes_its_source) {
  expect_run(copy_cmd, {"copy", "odd:a", "odd:b"}, {0, -1}, "odd:b: Input/output error\n",
             {"open 1 a 1 0", "open 1 b 778 0", "close 0"}, 0);
}

TEST(command_start, comes_before_the_arguments_are_looked_at) {
  for (const command one : {rename_cmd, cat_cmd, copy_cmd, delete_cmd}) {
    const auto result = test_support::run_isolated([&] {
      console console;
      console.make_empty_file_system();
      result_of(one, {"word"});
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "flashfs[0]: flashfs fsck took 0 seconds.\n");
  }
}
