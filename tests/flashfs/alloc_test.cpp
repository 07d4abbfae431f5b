// Handing out sectors and slots, growing a file, dating an entry, the lock's complaints, admission,
// and the numbers for what is new. What is done when nothing is left to hand out: gc_test.cpp.
#include "flashfs/alloc.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <vector>

#include "flashfs/available.h"
#include "flashfs/claim.h"
#include "flashfs/entry.h"
#include "flashfs/filemap.h"
#include "flashfs/gc.h"
#include "flashfs/path.h"
#include "tests/flashfs/flashfs_recipe.h"

namespace {

using namespace test_support;

// Three blocks of four sectors, the last one the spare. Block 0 begins with the directory sector of
// the root; all else is erased.
class small_device : public recipe_fixture {
 protected:
  void make() {
    make_root(3);
  }
  void make_and_mount() {
    make();
    ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  }
  // Leaves so many entries on the list of available sectors; the flash keeps the others erased.
  void keep_sectors(uint32_t count) {
    while (fs()->num_available_sectors > count) {
      available_sector_take(fs());
    }
  }
  void keep_slots(uint32_t count) {
    uint8_t slot_no = 0;
    while (fs()->num_available_slots > count) {
      available_slot_take(fs(), &slot_no);
    }
  }
  // Block 0: the root's sector and file 2 ("f"), block 1: the rest of the file, two of its sectors
  // replaced by invalidated ones. Nothing is available but what reclamation gives.
  void make_full_with_two_invalid_sectors() {
    make();
    names({"1:0.0/1 2<1 f"});
    data(2, "0.1 0.2 0.3 1.0 1.1");
    invalidate("1.2 1.3");
    ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
    ASSERT_EQ(fs()->available_sectors, nullptr);
  }
  // As above without anything to reclaim, and one available sector, 1.3.
  void make_full_but_one() {
    make();
    names({"1:0.0/1 2<1 f"});
    data(2, "0.1 0.2 0.3 1.0 1.1 1.2");
    ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
    ASSERT_EQ(sectors_text(fs()), "1.3");
    keep_slots(0);
  }
};

using alloc_sector = small_device;
using alloc_slot = small_device;
using extend_list = small_device;
using touch = small_device;
using buffer_complaints = small_device;

// --- sectors ---

TEST_F(alloc_sector, the_head_of_the_list_is_given_without_a_look_at_the_flash) {
  make_and_mount();
  ASSERT_EQ(sectors_text(fs()), "1.0 1.1 1.2 1.3 0.1 0.2 0.3");
  device().clear_counts();
  flashfs_sctr_ptr pointer = {};
  EXPECT_EQ(flashfs_alloc_sector(fs(), &pointer, 0), 0);
  EXPECT_EQ(text_of(pointer), "1.0");
  EXPECT_EQ(sectors_text(fs()), "1.1 1.2 1.3 0.1 0.2 0.3");
  EXPECT_EQ(fs()->num_available_sectors, 6U);
  EXPECT_EQ(device().counts().calls(), 0U);
}

TEST_F(alloc_sector, the_last_one_is_given_at_once_from_the_reserve) {
  make_full_with_two_invalid_sectors();
  (void)available_sector_push(fs(), {1, 3});
  device().clear_counts();
  flashfs_sctr_ptr pointer = {};
  EXPECT_EQ(flashfs_alloc_sector(fs(), &pointer, 1), 0);
  EXPECT_EQ(text_of(pointer), "1.3");
  EXPECT_EQ(fs()->available_sectors, nullptr);
  EXPECT_EQ(device().counts().calls(), 0U);
}

TEST_F(alloc_sector, with_one_left_garbage_is_collected_first_without_the_reserve) {
  make();
  names({"1:0.0/1 2<1 f"});
  data(2, "0.1 0.2 0.3 1.0 1.1");
  invalidate("1.2");
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  ASSERT_EQ(sectors_text(fs()), "1.3");
  flashfs_sctr_ptr pointer = {};
  EXPECT_EQ(output_of([&] { EXPECT_EQ(flashfs_alloc_sector(fs(), &pointer, 0), 0); }),
            " wS2 wS2 eS1 wS1 wS2");
  EXPECT_EQ(text_of(pointer), "2.2");
  EXPECT_EQ(sectors_text(fs()), "2.3");
}

TEST_F(alloc_sector, the_last_one_is_kept_back_when_nothing_can_be_collected) {
  make_full_but_one();
  flashfs_sctr_ptr pointer = {5, 5};
  EXPECT_EQ(output_of([&] { EXPECT_EQ(flashfs_alloc_sector(fs(), &pointer, 0), 1); }), "");
  EXPECT_EQ(pointer.block_num, -1);
  EXPECT_EQ(sectors_text(fs()), "1.3");
}

TEST_F(alloc_sector, an_empty_device_gives_no_sector_from_the_reserve_either) {
  make_full_but_one();
  keep_sectors(0);
  flashfs_sctr_ptr pointer = {5, 5};
  EXPECT_EQ(flashfs_alloc_sector(fs(), &pointer, 1), 1);
  EXPECT_EQ(pointer.block_num, -1);
}

TEST_F(alloc_sector, a_header_that_cannot_be_read_ends_the_search_at_once) {
  make_full_with_two_invalid_sectors();
  device().clear_counts();
  device().fail(flash_call::read, 1, flash_poll_timeout);
  flashfs_sctr_ptr pointer = {5, 5};
  EXPECT_EQ(output_of([&] { EXPECT_EQ(flashfs_alloc_sector(fs(), &pointer, 0), 1); }),
            "flashfs[0]: reading from flash handle " + handle_text(device()) +
                ", device 0, offset 0x0: Poll Timeout\n");
  EXPECT_EQ(pointer.block_num, -1);
  EXPECT_EQ(device().counts().calls(), 1U);
}

// --- slots ---

TEST_F(alloc_slot, the_head_of_the_list_is_given) {
  make_and_mount();
  ASSERT_EQ(slots_text(fs()).substr(0, 13), "0.0/31 0.0/30");
  device().clear_counts();
  flashfs_sctr_ptr pointer = {};
  uint8_t slot_no = 0;
  EXPECT_EQ(flashfs_alloc_slot(fs(), &pointer, &slot_no, 0), 0);
  EXPECT_EQ(text_of(pointer, slot_no), "0.0/31");
  EXPECT_EQ(fs()->num_available_slots, 30U);
  EXPECT_EQ(device().counts().calls(), 0U);
}

TEST_F(alloc_slot, a_new_directory_sector_gives_its_slots_from_31_downwards) {
  make_and_mount();
  keep_slots(0);
  for (int expected = 31; expected >= 0; expected--) {
    flashfs_sctr_ptr pointer = {};
    uint8_t slot_no = 0;
    EXPECT_EQ(
        writes_of(fs(), [&] { EXPECT_EQ(flashfs_alloc_slot(fs(), &pointer, &slot_no, 1), 0); }),
        expected == 31 ? "1.0" : "");
    EXPECT_EQ(text_of(pointer, slot_no), "1.0/" + std::to_string(expected));
  }
  EXPECT_EQ(fs()->available_slots, nullptr);
}

TEST_F(alloc_slot, a_new_directory_sector_is_erased_but_for_its_owner) {
  make_and_mount();
  keep_slots(0);
  flashfs_sctr_ptr pointer = {};
  uint8_t slot_no = 0;
  ASSERT_EQ(flashfs_alloc_slot(fs(), &pointer, &slot_no, 0), 0);
  EXPECT_EQ(fileid_at(1, 0), 1);
  EXPECT_TRUE(is_erased(image().sector_at(1, 0) + 2, 2054));
}

TEST_F(alloc_slot, the_last_one_is_kept_back_and_a_fresh_sector_taken_instead) {
  make_and_mount();
  keep_slots(1);
  flashfs_sctr_ptr pointer = {};
  uint8_t slot_no = 0;
  EXPECT_EQ(flashfs_alloc_slot(fs(), &pointer, &slot_no, 0), 0);
  EXPECT_EQ(text_of(pointer, slot_no), "1.0/31");
  EXPECT_EQ(fs()->num_available_slots, 32U);
}

TEST_F(alloc_slot, the_last_one_is_given_from_the_reserve) {
  make_and_mount();
  keep_slots(1);
  flashfs_sctr_ptr pointer = {};
  uint8_t slot_no = 9;
  EXPECT_EQ(flashfs_alloc_slot(fs(), &pointer, &slot_no, 1), 0);
  EXPECT_EQ(text_of(pointer, slot_no), "0.0/1");
  EXPECT_EQ(fs()->available_slots, nullptr);
}

TEST_F(alloc_slot, without_a_sector_there_is_no_slot) {
  make_full_but_one();
  flashfs_sctr_ptr pointer = {5, 5};
  uint8_t slot_no = 0;
  EXPECT_EQ(flashfs_alloc_slot(fs(), &pointer, &slot_no, 0), 1);
  EXPECT_EQ(pointer.block_num, -1);
  EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
}

TEST_F(alloc_slot, the_reserve_turns_the_last_sector_into_slots) {
  make_full_but_one();
  flashfs_sctr_ptr pointer = {};
  uint8_t slot_no = 0;
  EXPECT_EQ(flashfs_alloc_slot(fs(), &pointer, &slot_no, 1), 0);
  EXPECT_EQ(text_of(pointer, slot_no), "1.3/31");
  EXPECT_EQ(fs()->available_sectors, nullptr);
}

TEST_F(alloc_slot, a_failing_read_or_write_of_the_new_sector_fails) {
  for (const flash_call kind : {flash_call::read, flash_call::write}) {
    make_and_mount();
    keep_slots(0);
    device().fail(kind, 1, flash_operation_failed);
    flashfs_sctr_ptr pointer = {};
    uint8_t slot_no = 0;
    output_of([&] { EXPECT_EQ(flashfs_alloc_slot(fs(), &pointer, &slot_no, 0), 1); });
    EXPECT_EQ(fs()->available_slots, nullptr);
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
  }
}

TEST_F(alloc_slot, without_a_sector_buffer_nothing_is_taken) {
  make_and_mount();
  chunk_pool* pool = fs()->sctr_buf_chunk;
  fs()->sctr_buf_chunk = nullptr;
  flashfs_sctr_ptr pointer = {};
  uint8_t slot_no = 0;
  EXPECT_EQ(output_of([&] { EXPECT_EQ(flashfs_alloc_slot(fs(), &pointer, &slot_no, 1), 1); }),
            "flashfs[0]: unable to allocate sector buffer -- chunk not initialized\n");
  fs()->sctr_buf_chunk = pool;
  EXPECT_EQ(fs()->num_available_slots, 31U);
}

// --- growing a file ---

TEST_F(extend_list, two_sectors_are_reserved_for_2049_bytes) {
  make_and_mount();
  flashfs_sctr_map* file = filemap_insert(fs(), 7, 1, 0x8700);
  EXPECT_EQ(writes_of(fs(), [&] { EXPECT_EQ(extend_sctr_list(fs(), file, 2049), 4096); }),
            "1.0+ 1.1+");
  EXPECT_EQ(list_text(fs(), 7), "0:1.0/254 1:1.1/254");
  EXPECT_EQ(block_text(1), "7 7 - -");
  EXPECT_TRUE(is_erased(image().sector_at(1, 0) + 2, 2054));
}

TEST_F(extend_list, a_size_of_0_gives_the_capacity_held) {
  make_and_mount();
  flashfs_sctr_map* file = filemap_insert(fs(), 7, 1, 0x8700);
  EXPECT_EQ(extend_sctr_list(fs(), file, 0), 0);
  ASSERT_EQ(extend_sctr_list(fs(), file, 2048), 2048);
  device().clear_counts();
  EXPECT_EQ(extend_sctr_list(fs(), file, 0), 2048);
  EXPECT_EQ(extend_sctr_list(fs(), file, 2048), 2048);
  EXPECT_EQ(device().counts().calls(), 0U);
}

TEST_F(extend_list, a_negative_size_asks_for_nothing) {
  make_and_mount();
  flashfs_sctr_map* file = filemap_insert(fs(), 7, 1, 0x8700);
  EXPECT_EQ(extend_sctr_list(fs(), file, -1), 0);
  EXPECT_EQ(extend_sctr_list(fs(), file, INT_MIN), 0);
  EXPECT_EQ(file->sctr_list, nullptr);
}

TEST_F(extend_list, new_sectors_come_behind_those_held) {
  make_and_mount();
  flashfs_sctr_map* file = filemap_insert(fs(), 7, 1, 0x8700);
  ASSERT_EQ(extend_sctr_list(fs(), file, 1), 2048);
  file->sctr_list->slot_no = slot_of_sector;
  EXPECT_EQ(extend_sctr_list(fs(), file, 3 * 2048), 6144);
  EXPECT_EQ(list_text(fs(), 7), "0:1.0/255 1:1.1/254 2:1.2/254");
}

TEST_F(extend_list, what_there_is_is_taken_when_space_runs_out) {
  make_and_mount();
  keep_slots(0);
  keep_sectors(2);
  // All else is taken, so that nothing can be collected.
  flashfs_sctr_map* file = filemap_insert(fs(), 7, 1, 0x8700);
  EXPECT_EQ(output_of([&] { EXPECT_EQ(extend_sctr_list(fs(), file, 2049), 2048); }), "");
  EXPECT_EQ(list_text(fs(), 7), "0:0.2/254");
  EXPECT_EQ(file->sctr_list->next, nullptr);
  EXPECT_EQ(sectors_text(fs()), "0.3");
}

TEST_F(extend_list, the_reserve_is_left_alone) {
  make_full_but_one();
  flashfs_sctr_map* file = filemap_insert(fs(), 7, 1, 0x8700);
  EXPECT_EQ(extend_sctr_list(fs(), file, 1), 0);
  EXPECT_EQ(file->sctr_list, nullptr);
  EXPECT_EQ(sectors_text(fs()), "1.3");
}

TEST_F(extend_list, a_claim_that_cannot_be_written_gives_minus_1) {
  make_and_mount();
  flashfs_sctr_map* file = filemap_insert(fs(), 7, 1, 0x8700);
  device().fail(flash_call::write, 2, flash_operation_failed);
  EXPECT_EQ(output_of([&] { EXPECT_EQ(extend_sctr_list(fs(), file, 3 * 2048), -1); }),
            "flashfs[0]: writing to flash handle " + handle_text(device()) + ", device 0, offset " +
                hex(block_bytes(4)) +
                ", length 0x2: Operation Failed\nflashfs[0]: sector ptr: {0x1, 0x1}\n");
  EXPECT_EQ(list_text(fs(), 7), "0:1.0/254 1:1.1/254");
}

TEST_F(extend_list, a_file_ends_where_the_numbers_of_its_sectors_do) {
  make_and_mount();
  std::vector<flashfs_sctr_list_ordered> held(65535);
  for (size_t i = 0; i < held.size(); i++) {
    held[i] = {i + 1 < held.size() ? &held[i + 1] : nullptr,
               static_cast<uint16_t>(i),
               slot_of_sector,
               {0, 0}};
  }
  flashfs_sctr_map file = {};
  file.fileid = 7;
  file.sctr_list = held.data();
  EXPECT_EQ(extend_sctr_list(fs(), &file, INT_MAX), 65536 * 2048);
  flashfs_sctr_list_ordered* last = held.back().next;
  ASSERT_NE(last, nullptr);
  EXPECT_EQ(last->seq_no, 65535);
  EXPECT_EQ(last->next, nullptr);
  chunk_free(fs()->sctr_ptr_chunk, last);
}

// --- dating an entry ---

TEST_F(touch, the_fresh_slot_has_the_date_and_keeps_all_else) {
  make();
  names({"4:0.0/1 3<1 dir/"});
  image().slot_at(0, 0, 1)[13] = 0x5A;  // in the carried bytes
  image().fix_slot_checksum(0, 0, 1);
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  EXPECT_EQ(writes_of(fs(), [&] { EXPECT_EQ(flashfs_touch(fs(), entry(3), 0x87654321), 0); }),
            "0.0 0.0");
  EXPECT_EQ(list_text(fs(), 1), "0:0.0/0 4:0.0/31");
  flashfs_dir_slot expected = slot_on_flash(0, 0, 1);
  EXPECT_EQ(expected.dir_fileid, 0);  // the old one is deleted
  expected.dir_fileid = 1;
  expected.date = 0x87654321;
  expected.checksum = image_crc(&expected, 62);
  const flashfs_dir_slot fresh = slot_on_flash(0, 0, 31);
  EXPECT_EQ(memcmp(&fresh, &expected, sizeof(fresh)), 0);
  EXPECT_EQ(counters_text(), "0/1 0/0 0/0");
}

TEST_F(touch, time_0_is_now) {
  make();
  names({"4:0.0/1 3<1 dir/"});
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  EXPECT_EQ(flashfs_touch(fs(), entry(3), 0), 0);
  EXPECT_EQ(slot_on_flash(0, 0, 31).date, recipe_time);
  EXPECT_EQ(slot_on_flash(0, 0, 31).seq_no, 4);
}

TEST_F(touch, the_root_has_a_date_too) {
  make_and_mount();
  EXPECT_EQ(flashfs_touch(fs(), entry(1), 77), 0);
  EXPECT_EQ(list_text(fs(), 1), "0:0.0/31");
  EXPECT_EQ(slot_on_flash(0, 0, 31).date, 77U);
}

TEST_F(touch, the_last_slot_is_used) {
  make_and_mount();
  keep_slots(1);
  EXPECT_EQ(flashfs_touch(fs(), entry(1), 77), 0);
  EXPECT_EQ(list_text(fs(), 1), "0:0.0/1");
}

TEST_F(touch, the_fresh_slot_is_written_before_the_old_one_goes) {
  make();
  names({"4:0.0/1 3<1 dir/"});
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  keep_slots(0);
  // The fresh sector's owner, the fresh slot in it, the old slot.
  EXPECT_EQ(writes_of(fs(), [&] { EXPECT_EQ(flashfs_touch(fs(), entry(3), 1), 0); }),
            "1.0 1.0 0.0");
}

TEST_F(touch, an_entry_without_a_slot_is_an_error_that_names_its_directory) {
  make_and_mount();
  flashfs_sctr_map* file = filemap_insert(fs(), 7, 1, 0x8700);
  flashfs_sctr_map* child = filemap_insert(fs(), 8, 21, 0x8700);
  errno = 0;
  EXPECT_EQ(output_of([&] { EXPECT_EQ(flashfs_touch(fs(), file, 0), -1); }),
            "flashfs[0]: flashfs_touch, unable to lookup filemap for fileid 1\n");
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(output_of([&] { EXPECT_EQ(flashfs_touch(fs(), child, 0), -1); }),
            "flashfs[0]: flashfs_touch, unable to lookup filemap for fileid 21\n");
}

TEST_F(touch, any_failure_of_the_flash_is_eio_and_leaves_a_valid_slot) {
  int failures = 0;
  for (uint64_t n = 1; failures == static_cast<int>(n) - 1; n++) {
    ASSERT_LT(n, 20U);
    make();
    names({"4:0.0/1 3<1 dir/"});
    ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
    device().fail(flash_call::any, n, flash_operation_failed);
    errno = 0;
    output_of([&] {
      if (flashfs_touch(fs(), entry(3), 0) != 0) {
        failures++;
        EXPECT_EQ(errno, EIO);
      }
    });
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
    device().fail(flash_call::any, 0, flash_ok);
    check_of_recipe(flashfs_check_quick);
    EXPECT_EQ(path_lookup(fs(), "dir"), 3) << "call " << n;
  }
  // Finding and reading the slots, writing the fresh one, reading and writing the old one.
  EXPECT_EQ(failures, 5);
}

TEST_F(touch, no_space_is_eio) {
  make_full_but_one();
  keep_sectors(0);
  errno = 0;
  EXPECT_EQ(flashfs_touch(fs(), entry(2), 0), -1);
  EXPECT_EQ(errno, EIO);
}

TEST_F(touch, without_two_buffers_nothing_is_done) {
  make_and_mount();
  chunk_pool* pool = fs()->sctr_buf_chunk;
  fs()->sctr_buf_chunk = nullptr;
  output_of([&] { EXPECT_EQ(flashfs_touch(fs(), entry(1), 0), -1); });
  fs()->sctr_buf_chunk = pool;
  EXPECT_EQ(list_text(fs(), 1), "0:0.0/0");
}

TEST_F(touch, a_slot_that_reclamation_moves_is_deleted_at_its_new_place) {
  make_blocks({2, 2, 2});
  image().headers(2);
  names({"0:0.0/0 1<1", "1:0.0/1 2<1 f"});
  delete_slots("0.0/2-31");
  invalidate("0.1");
  data(2, "1.0 1.1");
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  ASSERT_EQ(fs()->available_slots, nullptr);
  EXPECT_EQ(writes_of(fs(), [&] { EXPECT_EQ(flashfs_touch(fs(), entry(2), 5), 0); }),
            "2=invalid1 2.0 2=committed erase 0 0=available 2=in_use 2.1 2.1 2.0");
  EXPECT_EQ(list_text(fs(), 1), "0:2.0/0 1:2.1/31");
  EXPECT_EQ(slot_on_flash(2, 0, 1).dir_fileid, 0);
  EXPECT_EQ(slot_on_flash(2, 1, 31).date, 5U);
  EXPECT_TRUE(is_repaired());
}

TEST_F(touch, a_slot_that_compaction_moves_is_deleted_at_its_new_place) {
  make();
  names({"1:0.0/1 2<1 f"});
  delete_slots("0.0/2-31");
  names({"2:0.1/0 3<1 dir/"});
  delete_slots("0.1/1-31");
  data(2, "0.2 0.3 1.0 1.1 1.2 1.3");
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  output_of([&] { EXPECT_EQ(flashfs_touch(fs(), entry(3), 5), 0); });
  // Compaction has moved the slot to 0.0/31, its sector was freed and has become the fresh one.
  EXPECT_EQ(list_text(fs(), 1), "0:0.0/0 1:0.0/1 2:0.1/31");
  EXPECT_EQ(slot_on_flash(0, 0, 31).dir_fileid, 0);
  EXPECT_EQ(slot_on_flash(0, 1, 31).date, 5U);
  EXPECT_STREQ(slot_on_flash(0, 1, 31).name, "dir");
  EXPECT_TRUE(is_repaired());
}

// --- the lock ---

TEST_F(buffer_complaints, none_when_no_buffer_is_out) {
  make_and_mount();
  EXPECT_EQ(output_of([&] {
              flashfs_lock(fs());
              flashfs_unlock(fs());
            }),
            "");
}

TEST_F(buffer_complaints, the_lock_and_the_unlock_tell_how_many_are_out) {
  make_and_mount();
  fs()->sctr_bufs_allocated = 2;
  EXPECT_EQ(output_of([&] { flashfs_lock(fs()); }),
            "flashfs[0]: flashfs_lock, 2 sector buffers already allocated\n");
  EXPECT_EQ(output_of([&] { flashfs_unlock(fs()); }),
            "flashfs[0]: flashfs_unlock, 2 sector buffers still allocated\n");
  // The count is not mended.
  EXPECT_EQ(fs()->sctr_bufs_allocated, 2U);
  fs()->sctr_bufs_allocated = 0;
}

// --- admission ---

TEST(admission, many_readers_are_admitted) {
  flashfs_sctr_map file = {};
  EXPECT_EQ(flashfs_file_acquire(&file, acquire_read), 0);
  EXPECT_EQ(flashfs_file_acquire(&file, acquire_read), 0);
  EXPECT_EQ(file.readers, 2U);
  EXPECT_EQ(file.writer, 0U);
}

TEST(admission, a_writer_is_refused_while_a_reader_is_admitted) {
  flashfs_sctr_map file = {};
  (void)flashfs_file_acquire(&file, acquire_read);
  EXPECT_EQ(flashfs_file_acquire(&file, acquire_write), 1);
  EXPECT_EQ(file.writer, 0U);
  flashfs_file_release(&file);
  EXPECT_EQ(file.readers, 0U);
  EXPECT_EQ(flashfs_file_acquire(&file, acquire_write), 0);
  EXPECT_EQ(file.writer, 1U);
}

TEST(admission, nobody_is_admitted_beside_a_writer) {
  flashfs_sctr_map file = {};
  EXPECT_EQ(flashfs_file_acquire(&file, acquire_write), 0);
  EXPECT_EQ(flashfs_file_acquire(&file, acquire_write), 1);
  EXPECT_EQ(flashfs_file_acquire(&file, acquire_read), 1);
  EXPECT_EQ(file.readers, 0U);
}

TEST(admission, a_release_ends_the_writer_before_any_reader) {
  flashfs_sctr_map file = {};
  file.writer = 1;
  file.readers = 2;
  flashfs_file_release(&file);
  EXPECT_EQ(file.writer, 0U);
  EXPECT_EQ(file.readers, 2U);
  flashfs_file_release(&file);
  EXPECT_EQ(file.readers, 1U);
}

TEST(admission, another_mode_is_refused) {
  flashfs_sctr_map file = {};
  EXPECT_EQ(flashfs_file_acquire(&file, 2), 1);
  EXPECT_EQ(flashfs_file_acquire(&file, 0xFFFFFFFF), 1);
  EXPECT_EQ(file.readers, 0U);
  EXPECT_EQ(file.writer, 0U);
}

// --- numbers for what is new ---

uint16_t next_slot_after(std::initializer_list<uint16_t> numbers) {
  std::vector<flashfs_sctr_list_ordered> held(numbers.size());
  size_t i = 0;
  for (const uint16_t number : numbers) {
    held[i].next = i + 1 < held.size() ? &held[i + 1] : nullptr;
    held[i++].seq_no = number;
  }
  flashfs_sctr_map directory = {};
  directory.sctr_list = held.empty() ? nullptr : held.data();
  return flashfs_next_slot_seq_no(&directory);
}

TEST(next_slot_seq_no, is_0_for_an_empty_directory_and_one_that_does_not_begin_with_0) {
  EXPECT_EQ(next_slot_after({}), 0);
  EXPECT_EQ(next_slot_after({1, 2}), 0);
}

TEST(next_slot_seq_no, follows_the_unbroken_run_from_0) {
  EXPECT_EQ(next_slot_after({0}), 1);
  EXPECT_EQ(next_slot_after({0, 1, 2}), 3);
  EXPECT_EQ(next_slot_after({0, 1, 3, 4}), 2);
  EXPECT_EQ(next_slot_after({0, 65535}), 1);
  EXPECT_EQ(next_slot_after({0, 0, 1}), 1);
}

TEST(next_slot_seq_no, has_16_bits) {
  std::vector<flashfs_sctr_list_ordered> held(65536);
  for (size_t i = 0; i < held.size(); i++) {
    held[i].next = i + 1 < held.size() ? &held[i + 1] : nullptr;
    held[i].seq_no = static_cast<uint16_t>(i);
  }
  flashfs_sctr_map directory = {};
  directory.sctr_list = held.data();
  EXPECT_EQ(flashfs_next_slot_seq_no(&directory), 0);
  held[65534].next = nullptr;
  EXPECT_EQ(flashfs_next_slot_seq_no(&directory), 65535);
}

class next_fileid : public small_device {
 protected:
  uint16_t after(std::initializer_list<uint16_t> ids) {
    make_and_mount();
    filemap_clear(fs());
    for (const uint16_t id : ids) {
      filemap_insert(fs(), id, 1, 0x8700);
    }
    return flashfs_next_fileid(fs());
  }
};

TEST_F(next_fileid, is_2_for_an_empty_map) {
  EXPECT_EQ(after({}), 2);
}

TEST_F(next_fileid, follows_the_unbroken_run_at_the_beginning_of_the_map) {
  EXPECT_EQ(after({1}), 2);
  EXPECT_EQ(after({1, 2, 3, 5}), 4);
  EXPECT_EQ(after({5, 6, 9}), 7);
}

TEST_F(next_fileid, says_65535_when_none_is_left_behind_the_run) {
  EXPECT_EQ(after({65533, 65534}), 65535);
  EXPECT_EQ(after({65533}), 65534);
}

TEST_F(next_fileid, says_65535_when_every_id_is_taken) {
  make_and_mount();
  for (uint32_t id = 2; id <= fileid_last; id++) {
    filemap_insert(fs(), static_cast<uint16_t>(id), 1, 0x8700);
  }
  EXPECT_EQ(flashfs_next_fileid(fs()), 65535);
  filemap_remove(fs(), entry(40000));
  EXPECT_EQ(flashfs_next_fileid(fs()), 40000);
}

TEST(toggle_random, gives_the_new_value) {
  flashfs fs = {};
  EXPECT_EQ(flashfs_toggle_random(&fs), 1U);
  EXPECT_EQ(fs.random, 1U);
  EXPECT_EQ(flashfs_toggle_random(&fs), 0U);
  EXPECT_EQ(fs.random, 0U);
  fs.random = 8;
  EXPECT_EQ(flashfs_toggle_random(&fs), 0U);
}

TEST_F(next_fileid, random_is_0_after_the_first_mount) {
  make_and_mount();
  EXPECT_EQ(fs()->random, 0U);
}

TEST(swap, exchanges_contents_and_leaves_the_links) {
  flashfs_sctr_list_unordered last = {nullptr, 3, {7, 8}};
  flashfs_sctr_list_unordered second = {&last, 2, {5, 6}};
  flashfs_sctr_list_unordered first = {&second, 1, {3, 4}};
  swap_sctr_ptr(&first);
  EXPECT_EQ(text_of(first.sctr_ptr, first.slot_no), "5.6/2");
  EXPECT_EQ(text_of(second.sctr_ptr, second.slot_no), "3.4/1");
  EXPECT_EQ(text_of(last.sctr_ptr, last.slot_no), "7.8/3");
  EXPECT_EQ(first.next, &second);
  EXPECT_EQ(second.next, &last);
}

}  // namespace
