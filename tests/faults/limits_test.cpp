// Numbers at the ends of their ranges: clocks, counts, ids and geometries.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "flashfs/check_flags.h"
#include "flashfs/control_codes.h"
#include "flashfs/filemap.h"
#include "flashfs/flashfs.h"
#include "sim/chassis.h"
#include "sim/flash.h"
#include "tests/support/flashfs_fixture.h"
#include "tests/support/image_builder.h"
#include "tests/support/ram_flash.h"

namespace test_support {
namespace {

constexpr uint32_t small_block = 32 + 6 * 2056;

class limits : public flashfs_fixture {
 protected:
  // From now on the clock stands at this time.
  void hold_clock(int64_t seconds) {
    own_.clock_hold(seconds);
    sim::install_chassis(&own_);
  }
  uint32_t date_of(const char* path) {
    ppc_stat status = {};
    EXPECT_EQ(ifs_stat(path, &status), 0) << path;
    return status.change_date;
  }

 private:
  sim::chassis own_;
};

TEST_F(limits, a_date_past_2038_is_kept_as_it_is) {
  hold_clock(4000000000);
  mount_new(4, small_block);
  EXPECT_NE(check_output().find("flashfs fsck took 0 seconds."), std::string::npos);
  ASSERT_EQ(write_file("late", "text"), 0);
  remount();
  EXPECT_EQ(date_of("bootflash:late"), 4000000000U);
}

TEST_F(limits, a_clock_before_1970_gives_the_same_32_bits) {
  hold_clock(-1000);
  mount_new(4, small_block);
  ASSERT_EQ(write_file("early", "text"), 0);
  remount(flashfs_check_full);
  EXPECT_EQ(date_of("bootflash:early"), static_cast<uint32_t>(-1000));
  EXPECT_EQ(read_file("early"), "text");
}

TEST_F(limits, an_erase_count_of_all_ones_goes_on_from_zero) {
  make_flash(ram_blocks(4, small_block));
  image_builder image(device());
  image.headers(0);
  image.header(2, {.erase_count = 0xFFFFFFFF, .good_checksum = false});
  initialize();
  ASSERT_EQ(check(), 0);
  EXPECT_EQ(memcmp(image.header_at(2), "\0\0\0\0", 4), 0);
}

TEST_F(limits, without_a_free_file_id_nothing_is_written) {
  mount_new(4, small_block);
  for (uint32_t fileid = fileid_first; fileid <= fileid_last; fileid++) {
    ASSERT_NE(filemap_insert(fs(), static_cast<uint16_t>(fileid), fileid_root, 0x8700), nullptr);
  }
  EXPECT_EQ(flashfs_next_fileid(fs()), 0xFFFF);
  const std::vector<uint8_t> before = device().flash().snapshot();
  EXPECT_EQ(ifs_open("bootflash:one", ifs_open_write | ifs_open_create, 0), -1);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(device().flash().snapshot(), before);
}

TEST_F(limits, the_highest_file_ids_are_mounted_read_and_reported) {
  make_flash(ram_blocks(4, small_block));
  image_builder image(device());
  image.headers(0);
  image.slot(1, 0, 31, {.seq_no = 0, .entry_fileid = 1, .mode = 0x4700, .name = ""});
  image.slot(1, 0, 30, {.seq_no = 1, .entry_fileid = 65534, .name = "last"});
  image.data_sector(1, 1, 65534, 0, "the last file");
  initialize();
  ASSERT_EQ(check(flashfs_check_full), 0) << check_output();
  EXPECT_EQ(read_file("last"), "the last file");
  uint32_t highest = 0;
  EXPECT_EQ(ifs_ioctl("bootflash:", flashfs_ioctl_highest_fileid, &highest), 0);
  EXPECT_EQ(highest, 65534U);
  ASSERT_EQ(write_file("next", "x"), 0);
  ppc_stat status = {};
  ASSERT_EQ(ifs_stat("bootflash:next", &status), 0);
  EXPECT_EQ(status.fileid, 2U);
}

TEST_F(limits, a_count_above_the_data_area_is_cut_to_it) {
  make_flash(ram_blocks(4, small_block));
  image_builder image(device());
  image.headers(0);
  const std::string data(2048, 'd');
  image.slot(1, 0, 31, {.seq_no = 0, .entry_fileid = 1, .mode = 0x4700, .name = ""});
  image.slot(1, 0, 30, {.seq_no = 1, .entry_fileid = 2, .name = "file"});
  image.data_sector(1, 1, 2, 0, data, 65535);
  initialize();
  ASSERT_EQ(check(flashfs_check_full), 0) << check_output();
  EXPECT_EQ(ifs_file_size("bootflash:file"), 2048);
  EXPECT_EQ(read_file("file"), data);
  const int32_t fd = ifs_open("bootflash:file", ifs_open_write | ifs_open_append, 0);
  EXPECT_EQ(ifs_write(fd, "more", 4), 4);
  ifs_close(fd);
  EXPECT_EQ(read_file("file"), data + "more");
}

TEST_F(limits, the_highest_sequence_number_of_a_directory_is_followed_by_the_lowest_free_one) {
  make_flash(ram_blocks(4, small_block));
  image_builder image(device());
  image.headers(0);
  image.slot(1, 0, 31, {.seq_no = 0, .entry_fileid = 1, .mode = 0x4700, .name = ""});
  image.slot(1, 0, 30, {.seq_no = 65535, .entry_fileid = 2, .name = "high"});
  initialize();
  ASSERT_EQ(check(flashfs_check_full), 0) << check_output();
  EXPECT_EQ(flashfs_next_slot_seq_no(filemap_lookup(fs(), fileid_root)), 1);
  ASSERT_EQ(write_file("next", "x"), 0);
  remount();
  EXPECT_EQ(read_file("high"), "");
  EXPECT_EQ(read_file("next"), "x");
}

TEST_F(limits, blocks_without_sectors_hold_no_file_system) {
  make_flash(ram_blocks(4, 40));
  initialize();
  EXPECT_EQ(fs()->largest_block_size, 0);
  EXPECT_EQ(check(flashfs_check_full), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_NE(check_output().find("error initializing the root directory."), std::string::npos)
      << check_output();
}

TEST_F(limits, blocks_without_sectors_among_others_do_no_harm) {
  make_flash({{40}, {small_block}, {40}, {small_block}, {small_block}});
  initialize();
  ASSERT_EQ(check(flashfs_check_full), 0) << check_output();
  ASSERT_EQ(write_file("file", "text"), 0);
  remount();
  EXPECT_EQ(read_file("file"), "text");
}

TEST_F(limits, a_device_without_usable_blocks_cannot_be_mounted) {
  make_flash({{small_block, true}, {small_block, true}});
  ASSERT_GE(initialize(), 0);
  EXPECT_EQ(fs()->num_blocks, 0);
  EXPECT_EQ(check(flashfs_check_full), -1);
  EXPECT_NE(check_output().find("unable to allocate available block."), std::string::npos)
      << check_output();
}

}  // namespace
}  // namespace test_support
