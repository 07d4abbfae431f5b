// The binding of the flash file system to the PowerPC flash.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "flashfs/flashfs.h"
#include "sim/chassis.h"
#include "sim/counts.h"
#include "tests/support/golden.h"
#include "tests/support/ram_flash.h"
#include "tests/zantrolume/selected_complex.h"
#include "zantrolume/zantrolume_cpld.h"
#include "zantrolume/zantrolume_flashfs.h"

using test_support::run_isolated;
using zantrolume_test::selected_complex;

TEST(binding, blocks_0_to_215_are_usable) {
  EXPECT_EQ(zantrolume_block_usable(-1), 0);
  EXPECT_EQ(zantrolume_block_usable(0), 1);
  EXPECT_EQ(zantrolume_block_usable(215), 1);
  EXPECT_EQ(zantrolume_block_usable(216), 0);
  EXPECT_EQ(zantrolume_block_usable(255), 0);
  EXPECT_EQ(zantrolume_block_usable(INT32_MIN), 0);
  EXPECT_EQ(zantrolume_block_usable(INT32_MAX), 0);
}

TEST(binding, registers_a_file_system_of_216_blocks_of_63_sectors_on_one_device) {
  const auto result = run_isolated([] {
    selected_complex c(4);
    ifs_init();
    ASSERT_EQ(zantrolume_flashfs_initialize(), 1U);
    const flashfs* fs = flashfs_get_fsp("bootflash:");
    ASSERT_NE(fs, nullptr);
    EXPECT_EQ(fs->num_blocks, 216);
    EXPECT_EQ(fs->num_devices, 1);
    EXPECT_EQ(fs->largest_block_size, 63);
    EXPECT_EQ(fs->ready, 0U);
    for (int i = 0; i < 216; ++i) {
      EXPECT_EQ(fs->flashfs_blocks[i].device, 0);
      EXPECT_EQ(fs->flashfs_blocks[i].offset, static_cast<uint32_t>(i) * 0x20000U);
      EXPECT_EQ(fs->flashfs_blocks[i].num_sectors, 63);
    }
    EXPECT_EQ(ifs_fsid_get_type(fs->fsid), 1);
    EXPECT_EQ(ifs_fsid_get_flags(fs->fsid), 131U);
    EXPECT_EQ(ifs_fsid_get_feature(fs->fsid), 1734);
    EXPECT_EQ(c.chassis().counts().words_read, 0U) << "nothing is read before the check";
  });
  EXPECT_EQ(result.status, 0) << result.output;
}

TEST(binding, hands_the_cpld_driver_over_as_it_is) {
  const auto result = run_isolated([] {
    const selected_complex c(4);
    ifs_init();
    ASSERT_EQ(zantrolume_flashfs_initialize(), 1U);
    const flashfs* fs = flashfs_get_fsp("bootflash:");
    ASSERT_NE(fs, nullptr);
    const flash_driver_info& driver = fs->fdi[0];
    EXPECT_EQ(driver.read, zantrolume_cpld_read);
    EXPECT_EQ(driver.write, zantrolume_cpld_write);
    EXPECT_EQ(driver.erase, zantrolume_cpld_erase);
    EXPECT_EQ(driver.uninit, zantrolume_cpld_uninit);
    EXPECT_EQ(driver.lock, zantrolume_cpld_lock);
    EXPECT_EQ(driver.unlock, zantrolume_cpld_unlock);
    EXPECT_EQ(driver.lock_master, zantrolume_cpld_lock_master);
    ASSERT_EQ(driver.block_count, 256);
    for (uint32_t i = 0; i < 256; ++i) {
      EXPECT_EQ(driver.blocks[i].offset, i * 0x20000);
      EXPECT_EQ(driver.blocks[i].size, 0x20000U);
      EXPECT_EQ(driver.blocks[i].skip, i < 216 ? 0 : 1);
    }
    EXPECT_EQ(*static_cast<const uint32_t*>(fs->handle[0]), 0xFE000000U);
  });
  EXPECT_EQ(result.status, 0) << result.output;
}

TEST(binding, a_second_registration_under_the_same_prefix_fails_with_a_line) {
  const auto result = run_isolated([] {
    const selected_complex c(4);
    ifs_init();
    ASSERT_EQ(zantrolume_flashfs_initialize(), 1U);
    EXPECT_EQ(zantrolume_flashfs_initialize(), 0U);
  });
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_TRUE(result.output.ends_with("ZANTROLUME: failed to register flash with fs\n"))
      << result.output;
}

TEST(driver_records, an_entirely_skipped_device_offers_no_blocks) {
  const auto result = run_isolated([] {
    const std::vector<test_support::ram_block> blocks(4, {0x20000, true});
    test_support::ram_flash device(blocks);
    ifs_init();
    const void* const handles[] = {device.handle()};
    const flash_driver_info* const records[] = {device.driver()};
    const int32_t fsid = flashfs_initialize(handles, records, 1, "flash");
    const flashfs* fs = flashfs_get_fsp("flash:");
    ASSERT_EQ(fsid, 0);
    EXPECT_EQ(fs->num_blocks, 0);
    EXPECT_EQ(device.counts().calls(), 0U);
  });
  EXPECT_EQ(result.status, 0) << result.output;
}

TEST(driver_records, a_driver_without_one_of_its_three_operations_cannot_be_used) {
  for (int missing = 0; missing < 3; ++missing) {
    const auto result = run_isolated([missing] {
      test_support::ram_flash device(test_support::ram_blocks(4, 0x20000));
      flash_driver_info record = *device.driver();
      if (missing == 0) {
        record.read = nullptr;
      } else if (missing == 1) {
        record.write = nullptr;
      } else {
        record.erase = nullptr;
      }
      ifs_init();
      const void* const handles[] = {device.handle()};
      const flash_driver_info* const records[] = {&record};
      EXPECT_EQ(flashfs_initialize(handles, records, 1, "flash"), -1);
      EXPECT_EQ(ifs_lookup_prefix("flash:"), -1);
    });
    EXPECT_EQ(result.status, 0) << missing << result.output;
  }
}
