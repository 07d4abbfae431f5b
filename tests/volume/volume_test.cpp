// Registering, mounting and giving back.
#include "volume/volume.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "tests/support/flashfs_fixture.h"
#include "tests/support/ram_flash.h"
#include "tests/volume/volume_fixture.h"

namespace volume_test {
namespace {

using test_support::contents_of;
using test_support::ram_blocks;
using test_support::ram_flash;

using volume_mount = volume_fixture;

TEST_F(volume_mount, what_was_written_is_there_after_the_next_mount) {
  EXPECT_EQ(files().state(), nullptr);
  EXPECT_FALSE(files().is_ready());
  mount_new();
  EXPECT_TRUE(files().is_ready());
  ASSERT_EQ(files().write_file("a", "text"), 0);
  files().detach();
  EXPECT_EQ(files().state(), nullptr);
  EXPECT_EQ(contents_of(files(), "a"), "<errno 13>");
  ASSERT_EQ(mount(flashfs_check_full), 0);
  EXPECT_EQ(contents_of(files(), "a"), "text");
}

TEST_F(volume_mount, attaching_registers_without_a_check) {
  EXPECT_EQ(files().attach({device_of(flash())}), 0);
  EXPECT_FALSE(files().is_ready());
  ASSERT_NE(files().state(), nullptr);
  EXPECT_EQ(flashfs_get_fsp("bootflash:"), files().state());
  EXPECT_EQ(flash().counts().calls(), 0U);
  EXPECT_EQ(files().check(flashfs_check_quick), 0);
  EXPECT_TRUE(files().is_ready());
}

TEST_F(volume_mount, one_file_system_lies_on_two_devices) {
  ram_flash second(ram_blocks(2, small_block));
  ASSERT_EQ(files().mount({device_of(flash()), device_of(second)}), 0);
  EXPECT_EQ(files().state()->num_blocks, 6);
  ASSERT_EQ(files().write_file("a", std::string(2048 * 25, 'x')), 0);
  EXPECT_GT(second.counts().writes, 0U);
  files().detach();
}

TEST_F(volume_mount, volumes_under_several_prefixes_live_side_by_side) {
  mount_new();
  ram_flash other_flash(ram_blocks(4, small_block));
  {
    volume::file_system other("other");
    ASSERT_EQ(other.mount({device_of(other_flash)}), 0);
    ASSERT_EQ(other.write_file("a", "theirs"), 0);
    ASSERT_EQ(files().write_file("a", "ours"), 0);
    EXPECT_EQ(contents_of(other, "a"), "theirs");
    EXPECT_EQ(other.full_path("a"), "other:a");
  }
  EXPECT_EQ(contents_of(files(), "a"), "ours");
  EXPECT_EQ(ifs_lookup_prefix("other:"), -1);
}

TEST_F(volume_mount, a_prefix_that_is_taken_is_refused_and_harms_nobody) {
  mount_new();
  ASSERT_EQ(files().write_file("a", "ours"), 0);
  ram_flash other_flash(ram_blocks(4, small_block));
  volume::file_system other;
  EXPECT_EQ(other.mount({device_of(other_flash)}), -1);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_EQ(other.state(), nullptr);
  EXPECT_EQ(contents_of(files(), "a"), "ours");
}

TEST_F(volume_mount, records_that_cannot_be_used_are_refused) {
  const volume::device good = device_of(flash());
  EXPECT_EQ(files().attach({good, good, good}), -1);
  EXPECT_EQ(errno, EINVAL);
  flash_driver_info without_read = *flash().driver();
  without_read.read = nullptr;
  EXPECT_EQ(files().attach({{&without_read, flash().handle()}}), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(files().attach({{nullptr, nullptr}}), -1);
  volume::file_system long_prefix(std::string(32, 'p'));
  EXPECT_EQ(long_prefix.attach({good}), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(volume_mount, a_check_that_fails_leaves_it_attached) {
  flash().fail(test_support::flash_call::read, 1, flash_operation_failed, true);
  EXPECT_EQ(mount(), -1);
  EXPECT_EQ(errno, EIO);
  ASSERT_NE(files().state(), nullptr);
  EXPECT_FALSE(files().is_ready());
  flash().fail(test_support::flash_call::any, 0, flash_ok);
  EXPECT_EQ(files().check(flashfs_check_quick), 0);
}

TEST_F(volume_mount, giving_it_back_closes_what_is_open) {
  mount_new();
  const int32_t fd = ifs_open("bootflash:a", volume::open_anew, 0);
  ASSERT_GE(fd, 0);
  files().detach();
  EXPECT_EQ(open_descriptors(), 0);
  ASSERT_EQ(mount(), 0);
  EXPECT_EQ(contents_of(files(), "a"), "");
}

}  // namespace
}  // namespace volume_test
