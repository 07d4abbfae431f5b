// The steps behind names: renaming, moving, changing modes, emptying, removing, verifying and
// dating entries, and the root's own slot.
#include "flashfs/entry.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <string>

#include "flashfs/alloc.h"
#include "flashfs/available.h"
#include "flashfs/buffer.h"
#include "flashfs/check_flags.h"
#include "flashfs/claim.h"
#include "flashfs/filemap.h"
#include "flashfs/path.h"
#include "tests/flashfs/alloc_recipe.h"
#include "tests/flashfs/flashfs_recipe.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"

namespace {

using namespace test_support;

// The root with file 2 "f" of two sectors and directory 3 "d", which holds the empty file 4 "x".
class small_tree : public recipe_fixture {
 protected:
  void make() {
    make_small_tree(3, "0.1+ 0.2+");
  }
  void make_and_mount() {
    make();
    ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
    ASSERT_EQ(list_text(fs(), 1), "0:0.0/0 1:0.0/1 2:0.0/2");
  }
  void without_buffers(const std::function<void()>& call) {
    chunk_pool* pool = fs()->sctr_buf_chunk;
    fs()->sctr_buf_chunk = nullptr;
    output_of(call);
    fs()->sctr_buf_chunk = pool;
  }
  // Runs the step once with each of its flash calls failing. `result` gives the step's result,
  // `after` is called after a remount.
  void with_every_failure(uint64_t expected_calls, const std::function<int()>& step,
                          const std::function<void()>& after) {
    for (uint64_t n = 0; n <= expected_calls; n++) {
      make_and_mount();
      device().fail(flash_call::any, n, flash_operation_failed);
      errno = 0;
      int result = 0;
      output_of([&] { result = step(); });
      EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
      if (n == 0) {
        EXPECT_EQ(result, 0);
        EXPECT_EQ(device().calls_since_fail(), expected_calls);
        continue;
      }
      EXPECT_NE(result, 0) << n;
      device().fail(flash_call::any, 0, flash_ok);
      check_of_recipe(flashfs_check_full);
      ASSERT_EQ(fs()->ready, 1U) << check_output();
      after();
    }
  }
};

using rename_step = small_tree;
using move_step = small_tree;
using mode_step = small_tree;
using truncate_step = small_tree;
using remove_step = small_tree;
using verify_step = small_tree;
using root_step = small_tree;
using new_slot_step = small_tree;
using touch = small_device;

// --- a fresh slot ---

TEST_F(new_slot_step, all_fields_are_set_and_the_carried_bytes_stay_erased) {
  make_and_mount();
  flashfs_sctr_ptr pointer;
  uint8_t slot_no = 0;
  ASSERT_EQ(flashfs_alloc_slot(fs(), &pointer, &slot_no, 0), 0);
  EXPECT_EQ(flashfs_write_new_slot(fs(), pointer, slot_no, entry(3), 77, 0x8123, "name"), 0);
  const flashfs_dir_slot slot = slot_on_flash(0, 0, 31);
  EXPECT_EQ(slot.seq_no, 1);
  EXPECT_EQ(slot.dir_fileid, 3);
  EXPECT_EQ(slot.entry_fileid, 77);
  EXPECT_EQ(slot.mode, 0x8123);
  EXPECT_EQ(slot.date, recipe_time);
  EXPECT_TRUE(is_erased(slot.reserved, 4));
  EXPECT_EQ(std::string(slot.name, 46), std::string("name") + std::string(42, '\0'));
  EXPECT_EQ(image_crc(&slot, 64), 0xE2F0);
  EXPECT_EQ(list_text(fs(), 3), "0:0.0/3 1:0.0/31");
}

TEST_F(new_slot_step, a_failing_write_is_eio_and_nothing_is_read) {
  make_and_mount();
  device().clear_counts();
  device().fail(flash_call::write, 1, flash_operation_failed);
  EXPECT_EQ(
      output_of([&] {
        EXPECT_EQ(flashfs_write_new_slot(fs(), {0, 0}, 31, entry(3), 77, 0x8123, "name"), EIO);
      }),
      "flashfs[0]: writing to flash handle " + handle_text(device()) +
          ", device 0, offset 0x0, length 0x808: Operation Failed\n"
          "flashfs[0]: sector ptr: {0x0, 0x0}\n");
  EXPECT_EQ(list_text(fs(), 3), "0:0.0/3");
  EXPECT_EQ(device().counts().calls(), 1U) << "the slot is known to be erased";
}

// --- renaming in place ---

TEST_F(rename_step, only_the_name_changes) {
  make_and_mount();
  flashfs_dir_slot expected = slot_on_flash(0, 0, 1);
  EXPECT_EQ(flashfs_rename_entry(fs(), entry(2), entry(1), "a-longer-name"), 0);
  memset(expected.name, 0, sizeof(expected.name));
  memcpy(expected.name, "a-longer-name", 13);
  expected.checksum = image_crc(&expected, 62);
  const flashfs_dir_slot fresh = slot_on_flash(0, 0, 31);
  EXPECT_EQ(memcmp(&fresh, &expected, sizeof(fresh)), 0);
  EXPECT_EQ(fresh.seq_no, 1);
  EXPECT_EQ(fresh.date, image_time);
  EXPECT_EQ(list_text(fs(), 1), "0:0.0/0 1:0.0/31 2:0.0/2");
  EXPECT_EQ(path_lookup(fs(), "a-longer-name"), 2);
  EXPECT_EQ(path_lookup(fs(), "f"), 0);
  EXPECT_TRUE(is_repaired());
}

TEST_F(rename_step, a_shorter_name_leaves_nothing_of_a_longer_one) {
  make_and_mount();
  ASSERT_EQ(flashfs_rename_entry(fs(), entry(2), entry(1), std::string(45, 'n').c_str()), 0);
  ASSERT_EQ(flashfs_rename_entry(fs(), entry(2), entry(1), "s"), 0);
  EXPECT_EQ(std::string(slot_on_flash(0, 0, 30).name, 46), "s" + std::string(45, '\0'));
}

TEST_F(rename_step, the_carried_bytes_are_carried) {
  make();
  memcpy(image().slot_at(0, 0, 1) + 12, "\x01\x02\x03\x04", 4);
  image().fix_slot_checksum(0, 0, 1);
  ASSERT_EQ(check_of_recipe(flashfs_check_full), quiet_check);
  EXPECT_EQ(flashfs_rename_entry(fs(), entry(2), entry(1), "g"), 0);
  EXPECT_EQ(memcmp(slot_on_flash(0, 0, 31).reserved, "\x01\x02\x03\x04", 4), 0);
}

TEST_F(rename_step, the_fresh_slot_is_written_before_the_old_one_goes) {
  make_and_mount();
  uint8_t slot_no = 0;
  while (fs()->available_slots != nullptr) {
    available_slot_take(fs(), &slot_no);
  }
  EXPECT_EQ(
      writes_of(fs(), [&] { EXPECT_EQ(flashfs_rename_entry(fs(), entry(2), entry(1), "g"), 0); }),
      "1.0+ 1.0 0.0");
  EXPECT_EQ(slot_on_flash(0, 0, 1).dir_fileid, 0);
}

TEST_F(rename_step, the_last_slot_is_used) {
  make_and_mount();
  uint8_t slot_no = 0;
  while (fs()->num_available_slots > 1) {
    available_slot_take(fs(), &slot_no);
  }
  EXPECT_EQ(flashfs_rename_entry(fs(), entry(2), entry(1), "g"), 0);
  EXPECT_EQ(fs()->available_slots, nullptr);
}

TEST_F(rename_step, an_entry_without_a_slot_is_not_found) {
  make_and_mount();
  flashfs_sctr_map* file = filemap_insert(fs(), 9, 1, 0x8700);
  errno = 0;
  EXPECT_EQ(flashfs_rename_entry(fs(), file, entry(1), "g"), -1);
  EXPECT_EQ(errno, ENOENT);
  errno = 0;
  EXPECT_EQ(flashfs_rename_entry(fs(), file, entry(3), "g"), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(rename_step, no_space_is_eio) {
  make_and_mount();
  available_clear(fs());
  image().header(2, {.state = 0});  // no spare either, whatever would be collected
  errno = 0;
  output_of([&] { EXPECT_EQ(flashfs_rename_entry(fs(), entry(2), entry(1), "g"), -1); });
  EXPECT_EQ(errno, EIO);
}

TEST_F(rename_step, every_failing_flash_call_is_eio_and_leaves_one_name) {
  with_every_failure(
      6,
      [&] {
        const int result = flashfs_rename_entry(fs(), entry(2), entry(1), "g");
        EXPECT_EQ(errno, result == 0 ? 0 : EIO);
        return result;
      },
      [&] {
        EXPECT_EQ((path_lookup(fs(), "f") == 2) + (path_lookup(fs(), "g") == 2), 1);
        EXPECT_EQ(sctr_list_length(entry(2)->sctr_list), 2U);
      });
}

TEST_F(rename_step, after_a_cut_between_the_two_slots_the_check_keeps_the_one_found_last) {
  make_and_mount();
  // The fresh slot is two writes: words that stay erased part them.
  device().fail(flash_call::write, 3, flash_operation_failed);
  output_of([&] { EXPECT_EQ(flashfs_rename_entry(fs(), entry(2), entry(1), "g"), -1); });
  // Both are valid.
  EXPECT_EQ(dir_slot_crc(reinterpret_cast<flashfs_dir_slot*>(image().slot_at(0, 0, 1))), 0xE2F0U);
  EXPECT_EQ(dir_slot_crc(reinterpret_cast<flashfs_dir_slot*>(image().slot_at(0, 0, 31))), 0xE2F0U);
  device().fail(flash_call::any, 0, flash_ok);
  EXPECT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  EXPECT_EQ(list_text(fs(), 1), "0:0.0/0 1:0.0/31 2:0.0/2");
  EXPECT_EQ(slot_on_flash(0, 0, 1).dir_fileid, 0);
  EXPECT_EQ(path_lookup(fs(), "g"), 2);
}

TEST_F(rename_step, without_buffers_fails) {
  make_and_mount();
  without_buffers([&] { EXPECT_EQ(flashfs_rename_entry(fs(), entry(2), entry(1), "g"), -1); });
}

// --- moving into another directory ---

TEST_F(move_step, the_target_gives_its_next_number) {
  make_and_mount();
  EXPECT_EQ(flashfs_rename_entry(fs(), entry(2), entry(3), "moved"), 0);
  const flashfs_dir_slot slot = slot_on_flash(0, 0, 31);
  EXPECT_EQ(slot.seq_no, 1);
  EXPECT_EQ(slot.dir_fileid, 3);
  EXPECT_EQ(slot.entry_fileid, 2);
  EXPECT_EQ(slot.date, image_time);
  EXPECT_STREQ(slot.name, "moved");
  EXPECT_EQ(image_crc(&slot, 64), 0xE2F0);
  EXPECT_EQ(list_text(fs(), 3), "0:0.0/3 1:0.0/31");
  EXPECT_EQ(list_text(fs(), 1), "0:0.0/0 2:0.0/2");
  EXPECT_EQ(entry(2)->parent_fileid, 3);
  EXPECT_EQ(path_lookup(fs(), "d/moved"), 2);
  EXPECT_TRUE(is_repaired());
}

TEST_F(move_step, a_gap_in_the_targets_numbers_is_filled) {
  make_and_mount();
  ASSERT_EQ(flashfs_rename_entry(fs(), entry(2), entry(3), "f"), 0);
  // The root's numbers are 0 and 2 now.
  EXPECT_EQ(flashfs_rename_entry(fs(), entry(4), entry(1), "x"), 0);
  EXPECT_EQ(list_text(fs(), 1), "0:0.0/0 1:0.0/30 2:0.0/2");
}

TEST_F(move_step, a_directory_takes_its_contents_along) {
  make_and_mount();
  const flashfs_sctr_map* made = flashfs_create_entry(fs(), "e", 0x4000);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(flashfs_rename_entry(fs(), entry(3), entry(made->fileid), "d2"), 0);
  EXPECT_EQ(path_lookup(fs(), "e/d2/x"), 4);
  EXPECT_TRUE(is_repaired());
}

TEST_F(move_step, without_its_old_directory_it_is_not_found) {
  make_and_mount();
  entry(2)->parent_fileid = 55;
  errno = 0;
  EXPECT_EQ(flashfs_rename_entry(fs(), entry(2), entry(3), "f"), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(move_step, every_failing_flash_call_is_eio_and_leaves_one_name) {
  with_every_failure(
      6,
      [&] {
        const int result = flashfs_rename_entry(fs(), entry(2), entry(3), "g");
        EXPECT_EQ(errno, result == 0 ? 0 : EIO);
        return result;
      },
      [&] {
        EXPECT_EQ((path_lookup(fs(), "f") == 2) + (path_lookup(fs(), "d/g") == 2), 1);
        EXPECT_EQ(sctr_list_length(entry(2)->sctr_list), 2U);
      });
}

// --- changing the mode ---

TEST_F(mode_step, the_low_nine_bits_are_replaced) {
  make_and_mount();
  EXPECT_EQ(flashfs_change_mode(fs(), entry(2), 0xFE55), 0);
  EXPECT_EQ(entry(2)->mode, 0x8655);
  flashfs_dir_slot expected = slot_on_flash(0, 0, 1);
  expected.dir_fileid = 1;  // deleted by now
  expected.mode = 0x8655;
  expected.checksum = image_crc(&expected, 62);
  const flashfs_dir_slot fresh = slot_on_flash(0, 0, 31);
  EXPECT_EQ(memcmp(&fresh, &expected, sizeof(fresh)), 0);
  EXPECT_EQ(list_text(fs(), 1), "0:0.0/0 1:0.0/31 2:0.0/2");
}

TEST_F(mode_step, slot_and_memory_each_keep_their_own_high_bits) {
  make_and_mount();
  entry(2)->mode = 0x8000;
  EXPECT_EQ(flashfs_change_mode(fs(), entry(2), 0x1FF), 0);
  EXPECT_EQ(entry(2)->mode, 0x81FF);
  EXPECT_EQ(slot_on_flash(0, 0, 31).mode, 0x87FF);
}

TEST_F(mode_step, an_entry_without_a_slot_is_not_found) {
  make_and_mount();
  errno = 0;
  EXPECT_EQ(flashfs_change_mode(fs(), filemap_insert(fs(), 9, 1, 0x8700), 1), -1);
  EXPECT_EQ(errno, ENOENT);
  errno = 0;
  EXPECT_EQ(flashfs_change_mode(fs(), filemap_insert(fs(), 10, 99, 0x8700), 1), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(mode_step, every_failing_flash_call_is_eio) {
  with_every_failure(
      6,
      [&] {
        const int result = flashfs_change_mode(fs(), entry(2), 0x1FF);
        EXPECT_EQ(errno, result == 0 ? 0 : EIO);
        EXPECT_EQ(entry(2)->mode, result == 0 ? 0x87FF : 0x8700);
        return result;
      },
      [&] { EXPECT_EQ(path_lookup(fs(), "f"), 2); });
}

// --- freeing all sectors ---

TEST_F(truncate_step, the_sectors_are_invalidated_from_the_first_on) {
  make_and_mount();
  EXPECT_EQ(writes_of(fs(), [&] { EXPECT_EQ(flashfs_truncate_entry(fs(), entry(2)), 0); }),
            "0.1+ 0.2+");
  EXPECT_EQ(block_text(0), "1 0 0 -");
  EXPECT_EQ(entry(2)->sctr_list, nullptr);
  EXPECT_EQ(counters_text(), "2/0 0/0 0/0");
  EXPECT_TRUE(is_repaired());
}

TEST_F(truncate_step, a_reserved_sector_is_invalidated_as_well) {
  make_and_mount();
  ASSERT_EQ(extend_sctr_list(fs(), entry(2), 3 * 2048), 3 * 2048);
  EXPECT_EQ(flashfs_truncate_entry(fs(), entry(2)), 0);
  EXPECT_EQ(block_text(1), "0 - - -");
}

TEST_F(truncate_step, an_empty_file_needs_nothing) {
  make_and_mount();
  EXPECT_EQ(writes_of(fs(), [&] { EXPECT_EQ(flashfs_truncate_entry(fs(), entry(4)), 0); }), "");
}

TEST_F(truncate_step, the_first_failure_leaves_the_rest_of_the_list) {
  make_and_mount();
  device().fail(flash_call::write, 2, flash_operation_failed);
  output_of([&] { EXPECT_NE(flashfs_truncate_entry(fs(), entry(2)), 0); });
  EXPECT_EQ(list_text(fs(), 2), "1:0.2/255");
  make_and_mount();
  device().fail(flash_call::read, 1, flash_operation_failed);
  output_of([&] { EXPECT_NE(flashfs_truncate_entry(fs(), entry(2)), 0); });
  EXPECT_EQ(list_text(fs(), 2), "0:0.1/255 1:0.2/255");
  EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
  int result = -1;
  without_buffers([&] { result = flashfs_truncate_entry(fs(), entry(2)); });
  EXPECT_EQ(result, 0) << "nothing is borrowed for it";
  EXPECT_EQ(list_text(fs(), 2), "");
}

// --- removing ---

TEST_F(remove_step, the_name_goes_first_and_the_directory_is_dated_last) {
  make_and_mount();
  EXPECT_EQ(writes_of(fs(), [&] { EXPECT_EQ(flashfs_remove_entry(fs(), entry(2)), 0); }),
            "0.0 0.1+ 0.2+ 0.0 0.0");
  EXPECT_EQ(slot_on_flash(0, 0, 1).dir_fileid, 0);
  EXPECT_EQ(block_text(0), "1 0 0 -");
  EXPECT_EQ(map_text(fs()), "1<1 3<1 4<3");
  EXPECT_EQ(list_text(fs(), 1), "0:0.0/31 2:0.0/2");
  EXPECT_EQ(slot_on_flash(0, 0, 31).date, recipe_time);
  EXPECT_EQ(entry(1)->writer, 0U);
  EXPECT_EQ(counters_text(), "2/2 0/0 0/0");
  EXPECT_TRUE(is_repaired());
}

TEST_F(remove_step, the_directory_of_an_entry_below_it_is_dated) {
  make_and_mount();
  EXPECT_EQ(flashfs_remove_entry(fs(), entry(4)), 0);
  EXPECT_EQ(slot_on_flash(0, 0, 31).entry_fileid, 3);
  EXPECT_EQ(slot_on_flash(0, 0, 31).date, recipe_time);
  EXPECT_EQ(list_text(fs(), 3), "");
  EXPECT_EQ(entry(3)->writer, 0U);
}

TEST_F(remove_step, the_slots_of_a_directory_go_with_it) {
  make_and_mount();
  EXPECT_EQ(flashfs_remove_entry(fs(), entry(3)), 0);
  EXPECT_EQ(slot_on_flash(0, 0, 2).dir_fileid, 0);
  EXPECT_EQ(slot_on_flash(0, 0, 3).dir_fileid, 0);
  EXPECT_EQ(map_text(fs()), "1<1 2<1 4<3");
}

TEST_F(remove_step, a_data_sector_in_a_directorys_list_goes_as_a_sector) {
  make();
  image().data_sector(1, 0, 3, 1, "data");
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  ASSERT_EQ(list_text(fs(), 3), "0:0.0/3 1:1.0/255");
  EXPECT_EQ(flashfs_remove_entry(fs(), entry(3)), 0);
  EXPECT_EQ(block_text(1), "0 - - -");
  EXPECT_EQ(slot_on_flash(0, 0, 3).dir_fileid, 0);
}

TEST_F(remove_step, the_root_is_busy) {
  make_and_mount();
  errno = 0;
  EXPECT_EQ(flashfs_remove_entry(fs(), entry(1)), -1);
  EXPECT_EQ(errno, EBUSY);
  EXPECT_EQ(entry(1)->writer, 0U);
}

TEST_F(remove_step, an_entry_in_use_is_busy) {
  make_and_mount();
  for (const uint32_t mode : {acquire_read, acquire_write}) {
    ASSERT_EQ(flashfs_file_acquire(entry(2), mode), 0);
    errno = 0;
    EXPECT_EQ(flashfs_remove_entry(fs(), entry(2)), -1);
    EXPECT_EQ(errno, EBUSY);
    flashfs_file_release(entry(2));
    EXPECT_EQ(entry(2)->readers + entry(2)->writer, 0U);
    EXPECT_EQ(entry(1)->readers + entry(1)->writer, 0U);
  }
}

TEST_F(remove_step, a_directory_in_use_is_busy_and_the_entry_is_released) {
  make_and_mount();
  ASSERT_EQ(flashfs_file_acquire(entry(1), acquire_read), 0);
  errno = 0;
  EXPECT_EQ(writes_of(fs(), [&] { EXPECT_EQ(flashfs_remove_entry(fs(), entry(2)), -1); }), "");
  EXPECT_EQ(errno, EBUSY);
  EXPECT_EQ(entry(2)->writer, 0U);
  EXPECT_EQ(entry(1)->readers, 1U);
}

TEST_F(remove_step, an_entry_without_a_slot_is_eio_and_released) {
  make_and_mount();
  flashfs_sctr_map* file = filemap_insert(fs(), 9, 1, 0x8700);
  flashfs_sctr_map* lost = filemap_insert(fs(), 10, 99, 0x8700);
  for (flashfs_sctr_map* each : {file, lost}) {
    errno = 0;
    EXPECT_EQ(flashfs_remove_entry(fs(), each), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(each->writer, 0U);
  }
  EXPECT_EQ(entry(1)->writer, 0U);
}

TEST_F(remove_step, every_failing_flash_call_is_eio_and_releases_both) {
  with_every_failure(
      14,
      [&] {
        const int result = flashfs_remove_entry(fs(), entry(2));
        EXPECT_EQ(errno, result == 0 ? 0 : EIO);
        EXPECT_EQ(entry(1)->writer, 0U);
        if (entry(2) != nullptr) {
          EXPECT_EQ(entry(2)->writer, 0U);
        }
        return result;
      },
      [&] { EXPECT_EQ(path_lookup(fs(), "d/x"), 4); });
}

TEST_F(remove_step, without_buffers_fails) {
  make_and_mount();
  without_buffers([&] { EXPECT_EQ(flashfs_remove_entry(fs(), entry(2)), -1); });
  EXPECT_EQ(entry(2)->writer, 0U);
  EXPECT_EQ(entry(1)->writer, 0U);
}

// --- verifying ---

TEST_F(verify_step, good_files_and_directories_pass) {
  make_and_mount();
  for (const uint16_t fileid : {uint16_t{1}, uint16_t{2}, uint16_t{3}, uint16_t{4}}) {
    EXPECT_EQ(output_of([&] { EXPECT_EQ(flashfs_verify_entry(fs(), entry(fileid)), 0); }), "");
  }
}

TEST_F(verify_step, one_wrong_bit_in_any_sector_is_eio) {
  for (const int sector : {1, 2}) {
    for (const int byte : {2, 4, 2051, 2052, 2055}) {
      make_and_mount();
      image().sector_at(0, sector)[byte] ^= 1;
      errno = 0;
      EXPECT_EQ(flashfs_verify_entry(fs(), entry(2)), -1);
      EXPECT_EQ(errno, EIO);
    }
  }
}

TEST_F(verify_step, one_wrong_bit_in_any_slot_is_eio) {
  make_and_mount();
  image().slot_at(0, 0, 2)[40] ^= 1;
  errno = 0;
  EXPECT_EQ(flashfs_verify_entry(fs(), entry(1)), -1);
  EXPECT_EQ(errno, EIO);
  // It is no slot of the directory that it names.
  EXPECT_EQ(flashfs_verify_entry(fs(), entry(3)), 0);
}

TEST_F(verify_step, a_sector_reserved_and_not_written_is_eio) {
  make_and_mount();
  ASSERT_EQ(extend_sctr_list(fs(), entry(4), 1), 2048);
  EXPECT_EQ(flashfs_verify_entry(fs(), entry(4)), -1);
}

TEST_F(verify_step, data_in_a_directorys_list_is_passed_over) {
  make();
  image().data_sector(1, 0, 3, 1, "data", -1, false);
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  ASSERT_EQ(list_text(fs(), 3), "0:0.0/3 1:1.0/255");
  EXPECT_EQ(flashfs_verify_entry(fs(), entry(3)), 0);
}

TEST_F(verify_step, an_entry_without_a_slot_is_an_error_that_names_its_directory) {
  make_and_mount();
  flashfs_sctr_map* file = filemap_insert(fs(), 9, 3, 0x8700);
  errno = 0;
  EXPECT_EQ(output_of([&] { EXPECT_EQ(flashfs_verify_entry(fs(), file), -1); }),
            "flashfs[0]: doverify, unable to lookup filemap for fileid 3\n");
  EXPECT_EQ(errno, EIO);
}

TEST_F(verify_step, a_failing_read_is_eio) {
  for (const uint64_t n : {1U, 2U, 3U}) {
    make_and_mount();
    device().fail(flash_call::read, n, flash_operation_failed);
    errno = 0;
    output_of([&] { EXPECT_EQ(flashfs_verify_entry(fs(), entry(2)), -1); });
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
  }
}

TEST_F(verify_step, without_buffers_fails) {
  make_and_mount();
  without_buffers([&] { EXPECT_EQ(flashfs_verify_entry(fs(), entry(2)), -1); });
}

// --- the root's own slot ---

TEST_F(root_step, one_that_is_there_stays) {
  make_and_mount();
  entry(1)->parent_fileid = 9;
  EXPECT_EQ(writes_of(fs(), [&] { EXPECT_EQ(flashfs_ensure_root_slot(fs()), 0); }), "");
  EXPECT_EQ(entry(1)->parent_fileid, 1);
}

TEST_F(root_step, a_missing_record_is_made_and_named_in_itself) {
  make_blocks({4, 4, 4});
  image().headers(2);
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  EXPECT_EQ(map_text(fs()), "1<1");
  EXPECT_EQ(entry(1)->mode, 0x4600);
  EXPECT_EQ(list_text(fs(), 1), "0:1.0/31");
  const flashfs_dir_slot slot = slot_on_flash(1, 0, 31);
  EXPECT_EQ(slot.seq_no, 0);
  EXPECT_EQ(slot.dir_fileid, 1);
  EXPECT_EQ(slot.entry_fileid, 1);
  EXPECT_EQ(slot.mode, 0x4600);
  EXPECT_EQ(slot.date, recipe_time);
  EXPECT_TRUE(is_erased(slot.reserved, 4));
  EXPECT_EQ(std::string(slot.name, 46), std::string(46, '\0'));
  EXPECT_EQ(image_crc(&slot, 64), 0xE2F0);
  EXPECT_TRUE(is_repaired());
}

TEST_F(root_step, a_missing_slot_gets_the_roots_next_number_and_its_mode) {
  make();
  delete_slots("0.0/0");
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  // The root's names begin with number 1, so 0 is the next one.
  EXPECT_EQ(list_text(fs(), 1), "0:0.0/31 1:0.0/1 2:0.0/2");
  EXPECT_EQ(slot_on_flash(0, 0, 31).mode, 0x4600);
  EXPECT_EQ(slot_on_flash(0, 0, 31).entry_fileid, 1);
  EXPECT_TRUE(is_repaired());
}

TEST_F(root_step, the_reserve_serves_it) {
  make();
  delete_slots("0.0/0");
  delete_slots("0.0/5-31");
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  EXPECT_EQ(list_text(fs(), 1), "0:0.0/4 1:0.0/1 2:0.0/2");
}

TEST_F(root_step, every_failing_flash_call_is_told) {
  for (uint64_t n = 0; n <= 3; n++) {
    make();
    delete_slots("0.0/0");
    ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
    // Takes away again what the check has made.
    delete_slots("0.0/31");
    sctr_list_remove(fs(), entry(1), entry(1)->sctr_list);
    device().fail(flash_call::any, n, flash_operation_failed);
    output_of([&] { EXPECT_EQ(flashfs_ensure_root_slot(fs()) != 0, n != 0) << n; });
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
    if (n == 0) {
      // Looking at the fresh slot, reading and writing its sector.
      EXPECT_EQ(device().calls_since_fail(), 3U);
    }
  }
}

TEST_F(root_step, without_buffers_fails) {
  make_and_mount();
  without_buffers([&] { EXPECT_NE(flashfs_ensure_root_slot(fs()), 0); });
}

// --- dating ---

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
            "1.0+ 1.0 0.0");
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
    // Between its two writes the fresh slot is what a power cut there leaves: only the full check
    // tells that it is not whole.
    check_of_recipe(n == 4 ? flashfs_check_full : flashfs_check_quick);
    EXPECT_EQ(path_lookup(fs(), "dir"), 3) << "call " << n;
  }
  // Finding the slot, looking at the fresh one, writing it before and behind what stays erased,
  // looking for another slot beside the old one, and its end.
  EXPECT_EQ(failures, 6);
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
            "2=invalid1 2.0 2=committed erase 0 0=available 2=in_use 2.1+ 2.1 2.0");
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

}  // namespace
