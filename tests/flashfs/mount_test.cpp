// The making of a file system from driver records, its registration, and its teardown.
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "flashfs/check_flags.h"
#include "flashfs/control_codes.h"
#include "flashfs/filemap.h"
#include "flashfs/flashfs.h"
#include "flashfs/io.h"
#include "flashfs/log.h"
#include "flashfs/operations.h"
#include "flashfs/vector.h"
#include "tests/flashfs/flashfs_test_tools.h"
#include "tests/support/flashfs_fixture.h"
#include "tests/support/golden.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"

using namespace test_support;

namespace {

constexpr uint32_t block_bytes = 0x20000;

class mounting : public flashfs_fixture {
 protected:
  int32_t initialize_with(const flash_driver_info* const records[], int32_t num_devices,
                          const char* prefix = "bootflash") {
    const void* handles[flashfs_max_devices + 1] = {};
    return flashfs_initialize(handles, records, num_devices, prefix);
  }
  // A refusal says nothing and registers nothing.
  void expect_silent_refusal(const flash_driver_info* const records[], int32_t num_devices,
                             const char* prefix = "bootflash") {
    EXPECT_EQ(output_of([&] { EXPECT_EQ(initialize_with(records, num_devices, prefix), -1); }), "");
    EXPECT_EQ(ifs_fsid_get_entry(0), nullptr);
  }
  void expect_unusable(const flash_driver_info& record) {
    const flash_driver_info good = *device().driver();
    const flash_driver_info* records[] = {&good, &record};
    expect_silent_refusal(records, 2);
    expect_silent_refusal(records + 1, 1);
  }
  // A checked file system that the fixture does not know of: the test gives it back.
  flashfs* make_to_release() {
    make_flash(ram_blocks(4, block_bytes));
    return mount_to_release();
  }
  flashfs* mount_to_release() {
    const void* handles[] = {device().handle()};
    const flash_driver_info* records[] = {device().driver()};
    EXPECT_EQ(flashfs_initialize(handles, records, 1, "bootflash"), 0);
    uint32_t flags = flashfs_check_quick;
    output_of([&] { EXPECT_EQ(ifs_ioctl("bootflash:", flashfs_ioctl_check, &flags), 0); });
    return flashfs_get_fsp("bootflash:");
  }
  // A file of 5000 bytes, left open.
  static int32_t open_new(const char* path) {
    const int32_t fd = ifs_open(path, ifs_open_read | ifs_open_write | ifs_open_create, 0);
    const std::string text(5000, 'x');
    EXPECT_EQ(ifs_write(fd, text.data(), 5000), 5000);
    return fd;
  }
  // Gives it back. Memory that is not is found as a leak when the program ends.
  static std::string output_of_release(flashfs* fs) {
    std::string output = output_of([&] { flashfs_release(fs); });
    EXPECT_EQ(ifs_lookup_prefix("bootflash:"), -1);
    EXPECT_EQ(ifs_fsid_get_entry(0), nullptr);
    return output;
  }
  static int open_descriptors() {
    int count = 0;
    for (int32_t fd = 0; fd < ifs_max_descriptors; fd++) {
      count += ifs_fd_is_valid(fd);
    }
    return count;
  }
  held_clock clock_{1000};
};

}  // namespace

// --- what is refused ---

TEST_F(mounting, three_devices_are_refused_in_silence) {
  make_flash(ram_blocks(2, block_bytes));
  const flash_driver_info* records[] = {device().driver(), device().driver(), device().driver()};
  expect_silent_refusal(records, 3);
  expect_silent_refusal(records, INT_MAX);
}

TEST_F(mounting, missing_records_or_a_missing_prefix_are_refused_in_silence) {
  make_flash(ram_blocks(2, block_bytes));
  const flash_driver_info* records[] = {device().driver()};
  expect_silent_refusal(nullptr, 1);
  expect_silent_refusal(records, 1, nullptr);
  const flash_driver_info* missing[] = {nullptr};
  expect_silent_refusal(missing, 1);
}

TEST_F(mounting, missing_handles_are_refused_in_silence) {
  make_flash(ram_blocks(2, block_bytes));
  const flash_driver_info* records[] = {device().driver()};
  EXPECT_EQ(output_of([&] { EXPECT_EQ(flashfs_initialize(nullptr, records, 1, "bootflash"), -1); }),
            "");
}

TEST_F(mounting, a_driver_without_read_write_or_erase_cannot_be_used) {
  make_flash(ram_blocks(2, block_bytes));
  flash_driver_info record = *device().driver();
  record.read = nullptr;
  expect_unusable(record);
  record = *device().driver();
  record.write = nullptr;
  expect_unusable(record);
  record = *device().driver();
  record.erase = nullptr;
  expect_unusable(record);
  record = *device().driver();
  record.blocks = nullptr;
  expect_unusable(record);
}

TEST_F(mounting, a_driver_needs_no_operation_but_read_write_and_erase) {
  make_flash(ram_blocks(2, block_bytes));
  auto* record = const_cast<flash_driver_info*>(device().driver());
  record->uninit = nullptr;
  record->lock = nullptr;
  record->unlock = nullptr;
  record->lock_master = nullptr;
  mount();
}

TEST_F(mounting, more_blocks_than_a_block_number_can_name_are_refused) {
  make_flash(ram_blocks(2, block_bytes));
  std::vector<flash_block_info> blocks(0x8000, flash_block_info{0, 4200, 0});
  flash_driver_info record = *device().driver();
  record.block_count = 0x8000;
  record.blocks = blocks.data();
  const flash_driver_info* records[] = {&record};
  expect_silent_refusal(records, 1);
}

TEST_F(mounting, a_taken_prefix_is_reported) {
  make_flash(ram_blocks(2, block_bytes));
  ASSERT_EQ(initialize(), 0);
  const flash_driver_info* records[] = {device().driver()};
  // In a child: the state stays allocated.
  const isolated_result end = end_of_child([&] { std::printf("%d", initialize_with(records, 1)); });
  EXPECT_EQ(end.output, "flashfs: Unable to register with IFS.\n-1");
}

TEST_F(mounting, a_prefix_that_is_too_long_is_reported) {
  make_flash(ram_blocks(2, block_bytes));
  const flash_driver_info* records[] = {device().driver()};
  const std::string prefix(32, 'p');
  const isolated_result end =
      end_of_child([&] { std::printf("%d", initialize_with(records, 1, prefix.c_str())); });
  EXPECT_EQ(end.output, "flashfs: Unable to register with IFS.\n-1");
}

// --- what is made ---

TEST_F(mounting, is_silent_and_leaves_the_flash_alone) {
  make_flash(ram_blocks(4, block_bytes));
  const void* handles[] = {device().handle()};
  const flash_driver_info* records[] = {device().driver()};
  EXPECT_EQ(output_of([&] { EXPECT_EQ(flashfs_initialize(handles, records, 1, "bootflash"), 0); }),
            "");
  EXPECT_EQ(device().counts().calls(), 0U);
  flashfs_release(flashfs_get_fsp("bootflash:"));
}

TEST_F(mounting, registers_the_state_with_the_switch) {
  make_flash(ram_blocks(4, block_bytes));
  ASSERT_EQ(initialize(), 0);
  const ifs_filesystem* entry = ifs_fsid_get_entry(0);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->context, fs());
  EXPECT_EQ(entry->operations, &flashfs_operations);
  EXPECT_EQ(entry->type, 1);
  EXPECT_EQ(entry->flags, 131U);
  EXPECT_EQ(entry->feature, 1734);
  EXPECT_STREQ(entry->prefixes->name, "bootflash");
}

TEST_F(mounting, returns_and_keeps_the_id_that_the_switch_gives) {
  make_flash(ram_blocks(4, block_bytes));
  ASSERT_EQ(initialize(), 0);
  const void* handles[] = {device().handle()};
  const flash_driver_info* records[] = {device().driver()};
  EXPECT_EQ(flashfs_initialize(handles, records, 1, "second"), 1);
  flashfs* second = flashfs_get_fsp("second:");
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(second->fsid, 1);
  EXPECT_EQ(fs()->fsid, 0);
  flashfs_release(second);
}

TEST_F(mounting, makes_a_state_that_is_not_ready) {
  make_flash({{4200, false}, {block_bytes, false}, {32, false}});
  ASSERT_EQ(initialize(), 0);
  EXPECT_EQ(fs()->magic, &flashfs_initialize);
  EXPECT_EQ(fs()->num_devices, 1);
  EXPECT_EQ(fs()->num_blocks, 3);
  EXPECT_EQ(fs()->handle[0], device().handle());
  EXPECT_EQ(fs()->available_sectors, nullptr);
  EXPECT_EQ(fs()->available_slots, nullptr);
  EXPECT_EQ(fs()->file_map, nullptr);
  EXPECT_EQ(fs()->largest_block_size, 63) << "in sectors";
  EXPECT_NE(fs()->lock, nullptr);
  EXPECT_EQ(fs()->random, 0U);
  EXPECT_EQ(fs()->ready, 0U);
  EXPECT_EQ(fs()->sctr_ptr_chunk, nullptr);
  ASSERT_NE(fs()->sctr_buf_chunk, nullptr);
  EXPECT_EQ(fs()->sctr_buf_chunk->element_size, 2056U);
  EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
  EXPECT_EQ(fs()->raw_file_map.fileid, 0xFFFF);
  EXPECT_EQ(fs()->raw_file_map.parent_fileid, 0);
  EXPECT_EQ(fs()->raw_file_map.mode, 0);
  EXPECT_EQ(fs()->raw_file_map.next, nullptr);
  EXPECT_EQ(fs()->raw_file_map.readers + fs()->raw_file_map.writer, 0U);
  EXPECT_EQ(fs()->raw_file_map.sctr_list, nullptr);
}

TEST_F(mounting, copies_the_driver_records) {
  make_flash(ram_blocks(2, block_bytes));
  ASSERT_EQ(initialize(), 0);
  auto* record = const_cast<flash_driver_info*>(device().driver());
  const flash_driver_info kept = *record;
  EXPECT_EQ(std::memcmp(&fs()->fdi[0], record, sizeof kept), 0);
  std::memset(static_cast<void*>(record), 0, sizeof *record);
  flashfs_blkheader header;
  EXPECT_EQ(read_blkheader(fs(), 1, &header, whole_header), 0);
  *record = kept;
}

TEST_F(mounting, describes_every_block) {
  make_flash({{4200, false}, {block_bytes, false}, {2000, false}});
  ASSERT_EQ(initialize(), 0);
  const flashfs_block* blocks = fs()->flashfs_blocks;
  EXPECT_EQ(blocks[0].offset, 0U);
  EXPECT_EQ(blocks[0].num_sectors, 2);
  EXPECT_EQ(blocks[0].spare_bytes, 4200 - 32 - 2 * 2056);
  EXPECT_EQ(blocks[1].offset, 4200U);
  EXPECT_EQ(blocks[1].num_sectors, 63);
  EXPECT_EQ(blocks[1].spare_bytes, 1512);
  EXPECT_EQ(blocks[2].offset, 4200U + block_bytes);
  EXPECT_EQ(blocks[2].num_sectors, 0);
  EXPECT_EQ(blocks[2].spare_bytes, 1968);
  for (int b = 0; b < 3; b++) {
    EXPECT_EQ(blocks[b].invalid_sectors, 0);
    EXPECT_EQ(blocks[b].invalid_slots, 0);
    EXPECT_EQ(blocks[b].device, 0);
  }
}

TEST_F(mounting, leaves_out_the_blocks_that_must_not_be_used) {
  make_flash({{4200, true}, {4200, false}, {block_bytes, true}, {4200, false}, {4200, true}});
  ASSERT_EQ(initialize(), 0);
  ASSERT_EQ(fs()->num_blocks, 2);
  EXPECT_EQ(fs()->flashfs_blocks[0].offset, 4200U);
  EXPECT_EQ(fs()->flashfs_blocks[1].offset, 2 * 4200 + block_bytes);
  EXPECT_EQ(fs()->largest_block_size, 2) << "of the blocks that are used";
}

TEST_F(mounting, any_skip_flag_but_0_keeps_a_block_out) {
  make_flash(ram_blocks(3, 4200));
  device().driver()->blocks[1].skip = 255;
  ASSERT_EQ(initialize(), 0);
  ASSERT_EQ(fs()->num_blocks, 2);
  EXPECT_EQ(fs()->flashfs_blocks[1].offset, 8400U);
}

TEST_F(mounting, a_device_whose_blocks_are_all_flagged_offers_none) {
  make_flash({{4200, true}, {4200, true}});
  ASSERT_EQ(initialize(), 0);
  EXPECT_EQ(fs()->num_blocks, 0);
  EXPECT_EQ(fs()->largest_block_size, 0);
  EXPECT_EQ(fs()->num_devices, 1);
}

TEST_F(mounting, a_device_whose_blocks_are_all_flagged_is_passed_over) {
  make_flash({{4200, true}, {4200, true}}, ram_blocks(3, 4200));
  ASSERT_EQ(initialize(), 0);
  ASSERT_EQ(fs()->num_blocks, 3);
  EXPECT_EQ(fs()->flashfs_blocks[0].device, 1);
  EXPECT_EQ(fs()->flashfs_blocks[0].offset, 0U);
}

TEST_F(mounting, the_blocks_of_two_devices_are_numbered_one_after_the_other) {
  make_flash(ram_blocks(64, block_bytes), ram_blocks(32, block_bytes));
  ASSERT_EQ(initialize(), 0);
  EXPECT_EQ(fs()->num_devices, 2);
  ASSERT_EQ(fs()->num_blocks, 96);
  EXPECT_EQ(fs()->handle[1], device(1).handle());
  for (uint32_t b = 0; b < 96; b++) {
    EXPECT_EQ(fs()->flashfs_blocks[b].device, b < 64 ? 0 : 1) << b;
    EXPECT_EQ(fs()->flashfs_blocks[b].offset, (b < 64 ? b : b - 64) * block_bytes) << b;
  }
}

TEST_F(mounting, the_device_of_a_complex_has_216_usable_blocks) {
  make_flash(ram_blocks_of_ppc());
  ASSERT_EQ(initialize(), 0);
  EXPECT_EQ(fs()->num_blocks, 216);
}

// --- looking a file system up ---

TEST_F(mounting, the_state_is_found_by_its_prefix) {
  make_flash(ram_blocks(2, block_bytes));
  ASSERT_EQ(initialize(), 0);
  EXPECT_EQ(flashfs_get_fsp("bootflash:"), fs());
  errno = 0;
  EXPECT_EQ(flashfs_get_fsp("disk0:"), nullptr);
  EXPECT_EQ(errno, ENODEV);
}

TEST_F(mounting, a_ready_file_system_has_no_known_chip) {
  make_flash(ram_blocks(2, block_bytes));
  mount();
  errno = 0;
  EXPECT_EQ(flashfs_get_chip_code("bootflash:"), 0);
  EXPECT_EQ(flashfs_get_chip_desc("bootflash:"), nullptr);
  EXPECT_EQ(errno, 0);
}

TEST_F(mounting, no_row_of_the_chip_table_has_another_id_than_0) {
  make_flash(ram_blocks(2, block_bytes));
  mount();
  fs()->fsid = 5;
  errno = 0;
  EXPECT_EQ(flashfs_get_chip_code("bootflash:"), 0);
  EXPECT_EQ(flashfs_get_chip_desc("bootflash:"), nullptr);
  EXPECT_EQ(errno, 0);
  fs()->fsid = 0;
}

TEST_F(mounting, a_chip_is_not_looked_for_while_the_file_system_is_not_ready) {
  make_flash(ram_blocks(2, block_bytes));
  ASSERT_EQ(initialize(), 0);
  for (const char* prefix : {"bootflash:", "disk0:"}) {
    errno = 0;
    EXPECT_EQ(flashfs_get_chip_code(prefix), 0);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(flashfs_get_chip_desc(prefix), nullptr);
    EXPECT_EQ(errno, EINVAL);
  }
}

// --- giving a file system back ---

TEST_F(mounting, giving_back_closes_what_is_open_and_leaves_the_flash_alone) {
  flashfs* fs = make_to_release();
  ASSERT_EQ(ifs_mkdir("bootflash:d", 0), 0);
  EXPECT_GE(open_new("bootflash:a"), 0);
  EXPECT_EQ(ifs_close(open_new("bootflash:d/b")), 0);
  EXPECT_GE(ifs_open("bootflash:d/b", ifs_open_read, 0), 0);
  EXPECT_GE(ifs_open("bootflash:d", ifs_open_read, 0), 0);
  device().clear_counts();
  EXPECT_EQ(output_of_release(fs), "");
  EXPECT_EQ(device().counts().calls(), 0U);
  EXPECT_EQ(open_descriptors(), 0);
  mount();
  EXPECT_EQ(read_file("a"), std::string(5000, 'x')) << "under the prefix that is free again";
}

TEST_F(mounting, giving_back_leaves_the_files_of_others_open) {
  make_flash(ram_blocks(4, block_bytes), ram_blocks(4, block_bytes));
  mount();
  const int32_t fd = open_new("bootflash:a");
  const void* handles[] = {device(1).handle()};
  const flash_driver_info* records[] = {device(1).driver()};
  EXPECT_EQ(flashfs_initialize(handles, records, 1, "second"), 1);
  flashfs_release(flashfs_get_fsp("second:"));
  EXPECT_EQ(ifs_fsid_get_entry(0)->open_count, 1);
  EXPECT_EQ(ifs_close(fd), 0);
}

TEST_F(mounting, giving_back_frees_a_full_map_with_all_its_lists) {
  flashfs* fs = make_to_release();
  flashfs_sector sector = {};
  for (uint32_t id = fileid_first; id <= fileid_last; id++) {
    sector.fileid = static_cast<uint16_t>(id);
    ASSERT_EQ(filemap_collect_sector_all(fs, {0, 0}, &sector), 0);
  }
  EXPECT_EQ(fs->num_files, 65534U);
  EXPECT_EQ(output_of_release(fs), "");
}

TEST_F(mounting, giving_back_closes_the_files_of_one_that_is_down) {
  flashfs* fs = make_to_release();
  EXPECT_GE(open_new("bootflash:a"), 0);
  output_of([&] { flashfs_mark_down(fs); });
  EXPECT_EQ(output_of_release(fs), "");
  EXPECT_EQ(open_descriptors(), 0);
}

TEST_F(mounting, giving_back_closes_the_raw_device_whatever_becomes_of_it) {
  flashfs* fs = make_to_release();
  EXPECT_GE(ifs_open("bootflash:...", ifs_open_read, 0), 0);
  EXPECT_EQ(output_of_release(fs), "");
  EXPECT_EQ(open_descriptors(), 0);
  // Closing a device that was opened for writing checks it, which may fail.
  fs = mount_to_release();
  output_of([&] { EXPECT_GE(ifs_open("bootflash:...", ifs_open_write, 0), 0); });
  device().fail(flash_call::read, 1, flash_operation_failed);
  EXPECT_NE(output_of_release(fs), "");
  EXPECT_EQ(open_descriptors(), 0);
}

TEST_F(mounting, giving_back_is_not_kept_by_a_descriptor_that_has_failed) {
  flashfs* fs = make_to_release();
  EXPECT_GE(open_new("bootflash:a"), 0);
  const int32_t fd = open_new("bootflash:b");
  ifs_descriptor* failed = ifs_fd_get_entry(fd);
  failed->flags = -1;
  EXPECT_EQ(output_of_release(fs), "");
  EXPECT_EQ(open_descriptors(), 0);
  // The switch does not ask for the closing of such a descriptor and keeps its entry.
  EXPECT_EQ(ifs_fd_get_entry(fd), nullptr);
  failed->flags = 0;
  delete static_cast<flashfs_open_file*>(failed->fd_context);
  EXPECT_EQ(ifs_fd_destroy(fd), 1);
}
