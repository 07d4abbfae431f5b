// Message lines, and the line that marks a file system down.
#include "flashfs/log.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "tests/flashfs/unchecked_fixture.h"
#include "tests/support/output_capture.h"

using namespace test_support;

namespace {

const std::string log_start = "flashfs[0]: ";
constexpr uint32_t block_bytes = 0x20000;

using messages = unchecked_fixture;

}  // namespace

TEST_F(messages, messages_carry_the_file_systems_id) {
  fs()->fsid = 7;
  EXPECT_EQ(output_of([&] { flashfs_log(fs(), "n %d", 3); }), "flashfs[7]: n 3\n");
  EXPECT_EQ(output_of([&] { flashfs_log_open(fs(), "n %d", 3); }), "flashfs[7]: n 3");
  fs()->fsid = 0;
  EXPECT_STREQ(flashfs_log_prefix, "");
  EXPECT_STREQ(flashfs_log_suffix, "\n");
}

TEST_F(messages, marking_down_says_so_and_keeps_the_maps) {
  mount_new(4, block_bytes);
  ASSERT_EQ(write_file("one", "x"), 0);
  const flashfs_sctr_map* map = fs()->file_map;
  EXPECT_EQ(output_of([&] { flashfs_mark_down(fs()); }),
            log_start + "filesystem marked down.  Use \"fsck\" to recover.\n");
  EXPECT_EQ(fs()->ready, 0U);
  EXPECT_EQ(fs()->file_map, map);
  EXPECT_NE(fs()->sctr_ptr_chunk, nullptr);
  EXPECT_EQ(read_file("one"), "<errno " + std::to_string(EINVAL) + ">");
  ASSERT_EQ(check(), 0);
  EXPECT_EQ(read_file("one"), "x");
}
