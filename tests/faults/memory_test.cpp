// What the file system's lower half does when there is no memory.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>

#include "flashfs/alloc.h"
#include "flashfs/available.h"
#include "flashfs/buffer.h"
#include "flashfs/check_flags.h"
#include "flashfs/entry.h"
#include "flashfs/erase.h"
#include "flashfs/filemap.h"
#include "flashfs/flashfs.h"
#include "flashfs/path.h"
#include "flashfs/scan.h"
#include "flashfs/slots.h"
#include "tests/flashfs/flashfs_test_tools.h"
#include "tests/support/failing_memory.h"
#include "tests/support/flashfs_fixture.h"
#include "tests/support/golden.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"
#include "tests/support/plain_walk.h"
#include "tests/support/ram_flash.h"

using namespace test_support;

namespace {

const std::string log_start = "flashfs[0]: ";

class short_memory : public flashfs_fixture {
 protected:
  ~short_memory() override {
    fail_allocation(0);
  }
  void SetUp() override {
    mount_new(3);
    std::memset(&sector_, 0xFF, sizeof sector_);
  }
  int32_t initialize_again(const char* prefix) {
    const void* handles[] = {device().handle()};
    const flash_driver_info* records[] = {device().driver()};
    return flashfs_initialize(handles, records, 1, prefix);
  }
  held_clock clock_{1000};
  flashfs_sector sector_;
};

}  // namespace

TEST_F(short_memory, no_file_system_is_made_without_its_record_lock_or_blocks) {
  for (uint64_t n = 1; n <= 3; n++) {
    fail_allocation(n);
    EXPECT_EQ(output_of([&] { EXPECT_EQ(initialize_again("second"), -1); }),
              "flashfs: out of memory.\n");
    EXPECT_EQ(ifs_fsid_get_entry(1), nullptr);
  }
}

TEST_F(short_memory, a_missing_pool_of_sector_buffers_is_reported_on_its_own) {
  fail_allocation(4);
  EXPECT_EQ(output_of([&] { EXPECT_EQ(initialize_again("second"), -1); }),
            log_start + "unable to allocate chunk of memory.\nflashfs: out of memory.\n");
  EXPECT_EQ(ifs_fsid_get_entry(1), nullptr);
}

TEST_F(short_memory, a_switch_without_memory_cannot_register_the_file_system) {
  // In a child: the state stays allocated.
  const isolated_result end = end_of_child([&] {
    fail_allocation(5);
    std::printf("%d", initialize_again("second"));
  });
  EXPECT_EQ(end.output, "flashfs: Unable to register with IFS.\n-1");
}

TEST_F(short_memory, a_sector_buffer_that_cannot_be_had_is_enomem) {
  fail_allocation(1);
  errno = 0;
  EXPECT_EQ(output_of([&] { EXPECT_EQ(sector_buffer_alloc(fs()), nullptr); }),
            log_start + "unable to allocate sector buffer\n");
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
}

TEST_F(short_memory, a_block_is_not_tested_without_a_buffer) {
  fail_allocation(1);
  device().clear_counts();
  output_of([&] { EXPECT_EQ(test_block(fs(), 2, nullptr), 1); });
  EXPECT_EQ(device().counts().calls(), 0U);
}

TEST_F(short_memory, no_entry_is_inserted_into_the_map) {
  const uint32_t files = fs()->num_files;
  for (uint64_t n = 1; n <= 2; n++) {  // the page of the id, the entry
    fail_allocation(n);
    EXPECT_EQ(filemap_insert(fs(), static_cast<uint16_t>(5000 + 1000 * n), 1, 0x8000), nullptr);
    EXPECT_EQ(filemap_lookup(fs(), static_cast<uint16_t>(5000 + 1000 * n)), nullptr);
  }
  EXPECT_EQ(fs()->num_files, files);
}

TEST_F(short_memory, no_sector_is_added_and_nothing_is_lost) {
  sector_.fileid = 9000;
  sector_.seq_no = 0;
  for (uint64_t n = 1; n <= 3; n++) {  // the list's entry, the page, the file's entry
    fail_allocation(n);
    EXPECT_EQ(filemap_add_sector(fs(), {1, 0}, &sector_, slot_of_sector), 1) << n;
    EXPECT_EQ(filemap_lookup(fs(), 9000), nullptr);
  }
  EXPECT_EQ(filemap_add_sector(fs(), {1, 0}, &sector_, slot_of_sector), 0);
}

TEST_F(short_memory, the_walk_over_a_directory_sector_ends_at_the_first_failure) {
  sector_.fileid = fileid_root;
  for (const size_t k : {3U, 4U, 5U}) {
    sector_.slots[k].dir_fileid = 1;
    sector_.slots[k].seq_no = static_cast<uint16_t>(100 + k);
  }
  sector_.slots[31].dir_fileid = 0;
  const uint32_t entries = sctr_list_length(filemap_lookup(fs(), 1)->sctr_list);
  fail_allocation(2);
  EXPECT_EQ(filemap_add_sector_all(fs(), {2, 0}, &sector_), 1);
  EXPECT_EQ(sctr_list_length(filemap_lookup(fs(), 1)->sctr_list), entries + 1);
  EXPECT_EQ(fs()->flashfs_blocks[2].invalid_slots, 0) << "slot 31 was not reached";
}

TEST_F(short_memory, nothing_is_pushed_on_the_available_lists) {
  const uint32_t sectors = fs()->num_available_sectors;
  const uint32_t slots = fs()->num_available_slots;
  const auto* first_sector = fs()->available_sectors;
  fail_allocation(1);
  EXPECT_EQ(available_sector_push(fs(), {1, 0}), 1);
  fail_allocation(1);
  EXPECT_EQ(available_slot_push(fs(), {1, 0}, 4), 1);
  EXPECT_EQ(fs()->num_available_sectors, sectors);
  EXPECT_EQ(fs()->num_available_slots, slots);
  EXPECT_EQ(fs()->available_sectors, first_sector);
}

TEST_F(short_memory, a_block_is_not_collected_to_its_end) {
  const int16_t spare = fs()->available_block;
  image_builder(device()).slot(spare, 62, 0, {.name = "n"});
  const uint32_t before = fs()->num_available_slots + fs()->num_available_sectors;
  // The buffer; 31 slots of sector 62, the last one first; the sectors below it.
  for (const uint64_t n : {1U, 2U, 32U, 33U, 94U}) {
    fail_allocation(n);
    output_of([&] { EXPECT_EQ(flashfs_scan_block_available(fs(), spare), 1) << n; });
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
    available_drop_block(fs(), spare);
  }
  fail_allocation(0);
  EXPECT_EQ(flashfs_scan_block_available(fs(), spare), 0);
  EXPECT_EQ(allocations(), 1U + 31 + 62);
  available_drop_block(fs(), spare);
  EXPECT_EQ(fs()->num_available_slots + fs()->num_available_sectors, before);
}

TEST_F(short_memory, no_slot_is_found_without_a_buffer) {
  fail_allocation(1);
  output_of([&] { EXPECT_EQ(filemap_find_slot(fs(), filemap_lookup(fs(), 1)), nullptr); });
  EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
}

TEST_F(short_memory, a_slot_that_was_written_stays_when_it_cannot_be_listed) {
  // The last allocation of flashfs_write_new_slot is the list's entry.
  flashfs_sctr_ptr pointer;
  uint8_t slot_no = 0;
  ASSERT_EQ(flashfs_alloc_slot(fs(), &pointer, &slot_no, 0), 0);
  fail_allocation(1);
  EXPECT_EQ(
      flashfs_write_new_slot(fs(), pointer, slot_no, filemap_lookup(fs(), 1), 99, 0x8700, "name"),
      ENOMEM);
  fail_allocation(0);
  EXPECT_EQ(path_lookup(fs(), "name"), 0);
  remount();
  EXPECT_EQ(path_lookup(fs(), "name"), 99);
}

TEST_F(short_memory, a_name_is_not_created_again_when_nobody_could_tell_that_it_exists) {
  ASSERT_NE(flashfs_create_entry(fs(), "name", 0x8000), nullptr);
  fail_allocation(1);
  errno = 0;
  output_of([&] { EXPECT_EQ(flashfs_create_entry(fs(), "name", 0x8000), nullptr); });
  EXPECT_EQ(errno, ENOMEM);
}

TEST_F(short_memory, without_an_index_names_are_found_all_the_same) {
  for (int i = 0; i < 40; i++) {
    ASSERT_NE(flashfs_create_entry(fs(), ("file" + std::to_string(i)).c_str(), 0x8000), nullptr);
  }
  // The buffer of the search can be had, and the index, or what it points to, cannot.
  for (uint64_t n = 2; n <= 3; n++) {
    remount();
    const uint16_t last = path_lookup(fs(), "file39");
    ASSERT_NE(last, 0);
    remount();
    fail_allocation(n, true);
    EXPECT_EQ(path_lookup(fs(), "file39"), last);
    EXPECT_EQ(allocations(), n);
    fail_allocation(0);
    EXPECT_EQ(difference_to_a_walk(fs()), "");
  }
}

TEST_F(short_memory, an_index_that_cannot_grow_goes_on) {
  for (int i = 0; i < 300; i++) {
    const std::string name = "file" + std::to_string(i);
    // Every look-up has its buffer; what a crowded index would need beyond it is not there.
    const flashfs_sctr_map* entry = flashfs_create_entry(fs(), name.c_str(), 0x8000);
    ASSERT_NE(entry, nullptr);
    flashfs_dir_slot slot = {};
    dir_slot_set_name(&slot, name.c_str());
    slot.dir_fileid = 1;
    slot.entry_fileid = entry->fileid;
    slot.seq_no = static_cast<uint16_t>(1000 + i);
    fail_allocation(2, true);  // the list's entry can be had
    flashfs_sctr_list_ordered* added = filemap_add_slot(fs(), {2, 0}, 5, slot);
    fail_allocation(0);
    ASSERT_NE(added, nullptr);
    ASSERT_EQ(path_lookup(fs(), name.c_str()), entry->fileid);
    sctr_list_remove(fs(), filemap_lookup(fs(), 1), added);
  }
  EXPECT_EQ(difference_to_a_walk(fs()), "");
}

TEST_F(short_memory, creating_fails_at_any_of_its_allocations_and_gives_everything_back) {
  uint64_t n = 0;
  int named_without_a_list = 0;
  flashfs_sctr_map* created = nullptr;
  for (; created == nullptr; n++) {
    ASSERT_LT(n, 200U);
    remount(flashfs_check_full);
    const std::string name = "file" + std::to_string(n);
    errno = 0;
    output_of([&] {
      fail_allocation(n + 1);
      created = flashfs_create_entry(fs(), name.c_str(), 0x8000);
      fail_allocation(0);
    });
    if (created != nullptr) {
      break;
    }
    const int error = errno;
    EXPECT_EQ(difference_to_a_walk(fs()), "") << n;
    EXPECT_TRUE(error == ENOMEM || error == ENOSPC || error == EIO) << n << ": " << error;
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U) << n;
    EXPECT_EQ(filemap_lookup(fs(), 1)->writer, 0U) << n;
    // Where the name stands on flash and only its list entry is missing, memory is what was short.
    const bool dating_failed = error == EIO;
    remount(flashfs_check_full);
    if (path_lookup(fs(), name.c_str()) != 0 && !dating_failed) {
      named_without_a_list++;
      EXPECT_EQ(error, ENOMEM) << n;
    }
  }
  EXPECT_EQ(n, 4U) << "a buffer to look the name up, the file's record, the list's entry, dating";
  EXPECT_EQ(named_without_a_list, 1);
  EXPECT_TRUE(flash_is_consistent());
}

TEST_F(short_memory, a_reader_in_pieces_reads_a_sector_again_that_it_cannot_keep) {
  const std::string text(1000, 'x');
  ASSERT_EQ(files().write_file("f", text), 0);
  const volume::file open = files().open("f", ifs_open_read);
  device().clear_counts();
  char piece[100];
  for (int i = 0; i < 3; i++) {
    fail_allocation(2);  // the first is the sector buffer
    EXPECT_EQ(open.read(piece, sizeof(piece)), 100);
    EXPECT_EQ(std::string(piece, sizeof(piece)), text.substr(0, 100));
  }
  fail_allocation(0);
  EXPECT_EQ(device().counts().reads, 3U);
  EXPECT_EQ(open.read(piece, sizeof(piece)), 100);
  EXPECT_EQ(open.read(piece, sizeof(piece)), 100);
  EXPECT_EQ(device().counts().reads, 4U);
}
