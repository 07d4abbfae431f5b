// The check as it deals with blocks, sectors, lists and the spare. Each test is a recipe - an
// image, the bytes that are wrong in it - with what the check says of it, what it leaves, and that
// a second check has nothing to say. The directory tree is in fsck_tree_test.cpp.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "tests/flashfs/flashfs_recipe.h"

namespace {

using namespace test_support;

std::string said(const std::string& text) {
  return "flashfs[0]: " + text + "\n";
}

class recipe : public recipe_fixture {
 protected:
  // Four blocks of four sectors, the last one the spare. The root has file 2 "f" of two sectors and
  // directory 3 "d", which holds the empty file 4 "x".
  void make() {
    make_blocks({4, 4, 4, 4});
    image().headers(3);
    root_slot(0, 0, 0);
    name(0, 0, 1, 1, 1, 2, "f");
    directory(0, 0, 2, 2, 1, 3, "d");
    name(0, 0, 3, 0, 3, 4, "x");
    data(2, {{0, 1}, {1, 0}});
  }
  void image_state(int block, uint8_t state) {
    image().header(block, {.erase_count = 5, .state = state});
  }
  void expect_tree() {
    EXPECT_EQ(path_lookup(fs(), "f"), 2);
    EXPECT_EQ(path_lookup(fs(), "d/x"), 4);
    EXPECT_EQ(sctr_list_length(entry(2)->sctr_list), 2U);
  }
};

using check_result = recipe;
using check_headers = recipe;
using check_states = recipe;
using check_sectors = recipe;
using check_slots = recipe;
using check_counters = recipe;
using check_duplicates = recipe;
using check_lists = recipe;

// --- the result as a whole ---

TEST_F(check_result, a_good_file_system_is_ready_and_only_the_time_is_told) {
  make();
  EXPECT_TRUE(is_repaired());
  EXPECT_EQ(fs()->ready, 1U);
  EXPECT_EQ(fs()->available_block, 3);
  EXPECT_EQ(map_text(fs()), "1<1 2<1 3<1 4<3");
  EXPECT_EQ(list_text(fs(), 2), "0:0.1/255 1:1.0/255");
  EXPECT_EQ(sectors_text(fs()), "2.0 2.1 2.2 2.3 1.1 1.2 1.3 0.2 0.3");
  EXPECT_EQ(fs()->num_available_slots, 28U);
  expect_tree();
}

TEST_F(check_result, the_whole_seconds_between_begin_and_end_are_told) {
  make();
  sim::chassis clock;
  clock.clock_step(5000, 1);
  sim::install_chassis(&clock);
  EXPECT_EQ(check_of_recipe(quick), said("flashfs fsck took 1 seconds."));
  sim::install_chassis(nullptr);
}

TEST_F(check_result, a_blank_flash_is_made_a_file_system) {
  make_blocks({4, 4});
  const auto blank = [](int b) {
    const std::string block = std::to_string(b);
    return "flashfs[0]: Checking block " + block + "...bad block number (65535)\n" +
           "flashfs[0]: erasing block " + block + "... eS" + block + " wS" + block + "done.\n";
  };
  // All blocks are available then; the root's slot brings block 1 into service.
  EXPECT_EQ(check_of_recipe(full), blank(0) + blank(1) + " wS1" + quiet_check);
  EXPECT_EQ(states_text(), "f0");
  EXPECT_EQ(header_on_flash(0).erase_count, 0U);
  EXPECT_EQ(map_text(fs()), "1<1");
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_result, a_second_check_of_the_same_state_finds_the_same) {
  make();
  ASSERT_EQ(check_of_recipe(quick), quiet_check);
  const std::string sectors = sectors_text(fs());
  const std::string slots = slots_text(fs());
  for (const uint32_t flags : {full, quick}) {
    ASSERT_EQ(check(flags), 0);
    EXPECT_EQ(check_output(), quiet_check);
    EXPECT_EQ(map_text(fs()), "1<1 2<1 3<1 4<3");
    EXPECT_EQ(sectors_text(fs()), sectors);
    EXPECT_EQ(slots_text(fs()), slots);
    EXPECT_EQ(counters_text(), "0/0 0/0 0/0 0/0");
  }
}

TEST_F(check_result, a_failed_check_is_eio_and_leaves_nothing_in_memory) {
  make();
  ASSERT_EQ(check_of_recipe(quick), quiet_check);
  device().fail(flash_call::read, 30, flash_operation_failed);
  errno = 0;
  EXPECT_EQ(check(full), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(fs()->ready, 0U);
  EXPECT_EQ(fs()->file_map, nullptr);
  EXPECT_EQ(fs()->available_sectors, nullptr);
  EXPECT_EQ(fs()->sctr_ptr_chunk, nullptr);
  EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
  EXPECT_EQ(check(full), 0);
  expect_tree();
}

TEST_F(check_result, every_failing_read_fails_the_check_and_harms_nothing) {
  for (const uint32_t flags : {quick, full}) {
    make();
    ASSERT_EQ(check_of_recipe(flags), quiet_check);
    device().clear_counts();
    ASSERT_EQ(check(flags), 0);
    const uint64_t reads = device().counts().reads;
    const std::vector<uint8_t> before = device().flash().snapshot();
    for (uint64_t n = 1; n <= reads; n++) {
      device().fail(flash_call::read, n, flash_poll_timeout);
      EXPECT_EQ(check(flags), -1) << n;
      EXPECT_NE(check_output().find(": Poll Timeout\n"), std::string::npos) << n;
      EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
      EXPECT_EQ(device().flash().first_difference(before), before.size());
    }
  }
}

TEST_F(check_result, the_space_report_must_succeed) {
  make();
  ASSERT_EQ(check_of_recipe(quick), quiet_check);
  device().clear_counts();
  ASSERT_EQ(check(quick), 0);
  // Its last read is that of the report's last header, of block 2.
  device().fail(flash_call::read, device().counts().reads, flash_busy);
  EXPECT_EQ(check(quick), -1);
  EXPECT_EQ(check_output(), said("reading from flash handle " + handle_text(device()) +
                                 ", device 0, offset " + hex(2 * block_bytes(4)) + ": Busy") +
                                said("Error obtaining space information."));
}

TEST_F(check_result, without_a_slot_for_the_root_it_fails) {
  make_blocks({1, 1});
  image().headers(1);
  data(2, {{0, 0}});
  EXPECT_EQ(check_of_recipe(quick), "result -1: " + said("error initializing the root directory."));
}

TEST_F(check_result, without_a_sector_buffer_it_fails) {
  make();
  ASSERT_EQ(check_of_recipe(quick), quiet_check);
  chunk_pool* pool = fs()->sctr_buf_chunk;
  fs()->sctr_buf_chunk = nullptr;
  EXPECT_EQ(check(quick), -1);
  EXPECT_EQ(check_output(), said("unable to allocate sector buffer -- chunk not initialized"));
  fs()->sctr_buf_chunk = pool;
}

TEST_F(check_result, blocks_without_sectors_are_blocks_too) {
  make_blocks({4, 0, 4});
  image().headers(2);
  root_slot(0, 0, 0);
  EXPECT_TRUE(is_repaired());
  image().header(1, {.state = 0x7});
  EXPECT_EQ(check_of_recipe(quick),
            said("erasing block 1 with status invalid1[0x7]") + " eS1 wS1" + quiet_check);
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_result, blocks_without_sectors_alone_hold_no_root) {
  make_blocks({0, 0});
  image().headers(0);
  EXPECT_EQ(check_of_recipe(full), "result -1: " + said("error initializing the root directory."));
}

TEST_F(check_result, a_device_without_blocks_has_no_spare) {
  make_blocks({});
  EXPECT_EQ(check_of_recipe(full), "result -1: " + said("unable to allocate available block."));
}

TEST_F(check_result, a_file_may_lie_on_two_devices) {
  make_blocks({4, 4}, {4, 4});
  image().headers(-1);
  image_1().headers(2);
  root_slot(0, 0, 0);
  name(0, 0, 1, 1, 1, 2, "f");
  data(2, {{0, 3}});
  image_1().data_sector(3, 2, 2, 1, "on the second device");
  EXPECT_TRUE(is_repaired());
  EXPECT_EQ(fs()->available_block, 2);
  EXPECT_EQ(list_text(fs(), 2), "0:0.3/255 1:3.2/255");
  image_1().header(3, {.good_checksum = false});
  EXPECT_NE(check_of_recipe(quick).find("erasing block 3... eS3 wS3done."), std::string::npos);
  EXPECT_EQ(list_text(fs(), 2), "0:0.3/255");
  EXPECT_TRUE(is_repaired());
}

// --- headers ---

TEST_F(check_headers, a_wrong_block_number_has_the_block_erased) {
  make();
  image().header(2, {.erase_count = 9, .block_num = 7, .state = 0});
  EXPECT_EQ(check_of_recipe(quick), said("Checking block 2...bad block number (7)") +
                                        "flashfs[0]: erasing block 2... eS2 wS2done.\n" +
                                        quiet_check);
  EXPECT_EQ(states_text(), "00ff");
  EXPECT_EQ(header_on_flash(2).block_num, 2);
  EXPECT_EQ(header_on_flash(2).erase_count, 10U);
  EXPECT_EQ(header_on_flash(2).timestamp, recipe_time);
  EXPECT_EQ(fs()->available_block, 2);
  expect_tree();
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_headers, a_live_block_goes_with_its_header) {
  make();
  image().header(1, {.block_num = 0, .state = 0});
  EXPECT_EQ(check_of_recipe(quick), said("Checking block 1...bad block number (0)") +
                                        "flashfs[0]: erasing block 1... eS1 wS1done.\n" +
                                        quiet_check);
  EXPECT_EQ(list_text(fs(), 2), "0:0.1/255");
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_headers, a_wrong_checksum_has_the_block_erased) {
  make();
  image().header(2, {.state = 0, .good_checksum = false});
  const uint32_t crc = image_crc(image().header_at(2) + 4, 6);
  EXPECT_EQ(check_of_recipe(full),
            said("Checking block 2...bad checksum (58096 != " + std::to_string(crc) + ")") +
                "flashfs[0]: erasing block 2... eS2 wS2done.\n" + quiet_check);
  EXPECT_EQ(states_text(), "00ff");
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_headers, the_number_is_looked_at_before_the_checksum) {
  make();
  image().header(2, {.block_num = 65534, .state = 0, .good_checksum = false});
  const std::string told = said("Checking block 2...bad block number (65534)");
  EXPECT_EQ(check_of_recipe(full).substr(0, told.size()), told);
  EXPECT_EQ(check_output().find("checksum"), std::string::npos);
}

TEST_F(check_headers, the_erase_count_is_not_covered_and_wraps) {
  make();
  image().header(2, {.erase_count = 0xFFFFFFFF, .state = 0});
  EXPECT_EQ(check_of_recipe(full), quiet_check);
  image().header(2, {.erase_count = 0xFFFFFFFF, .block_num = 1});
  check_of_recipe(full);
  EXPECT_EQ(header_on_flash(2).erase_count, 0U);
}

TEST_F(check_headers, one_that_stays_bad_fails_the_second_pass) {
  make();
  image().header(2, {.block_num = 7, .state = 0});
  // The block number's highest bit cannot be programmed.
  device().flash().stick(2 * block_bytes(4) + 10, 0, 0x80);
  EXPECT_EQ(check_of_recipe(quick),
            "result -1: " + said("Checking block 2...bad block number (7)") +
                "flashfs[0]: erasing block 2... eS2 wS2done.\n" +
                said("Checking block 2...bad block number (32770)") +
                said("Inconsistency in flash found on second pass"));
}

TEST_F(check_headers, a_block_that_does_not_erase_fails_the_check_unfinished) {
  make();
  image().header(2, {.block_num = 7, .state = 0});
  initialize();
  device().fail(flash_call::erase, 1, flash_operation_failed);
  EXPECT_EQ(check(quick), -1);
  EXPECT_EQ(check_output(),
            said("Checking block 2...bad block number (7)") +
                "flashfs[0]: erasing block 2... eS2flashfs[0]: erasing block, flash handle " +
                handle_text(device()) + ", device 0, offset " + hex(2 * block_bytes(4)) +
                ": Operation Failed\n");
}

TEST_F(check_headers, without_fixing_a_bad_one_is_only_told) {
  make();
  ASSERT_EQ(check_of_recipe(quick), quiet_check);
  flashfs_blkheader header = header_on_flash(2);
  EXPECT_EQ(output_of([&] { EXPECT_EQ(fsck_check_header(fs(), 2, &header, false), 0); }), "");
  header.block_num = 1;
  EXPECT_EQ(writes_of(fs(), [&] { EXPECT_EQ(fsck_check_header(fs(), 2, &header, false), 1); }), "");
  EXPECT_EQ(output_of([&] { fsck_check_header(fs(), 2, &header, false); }),
            said("Checking block 2...bad block number (1)"));
}

TEST_F(check_headers, fixing_reads_the_new_header_into_the_callers) {
  make();
  ASSERT_EQ(check_of_recipe(quick), quiet_check);
  flashfs_blkheader header = header_on_flash(2);
  header.block_num = 1;
  output_of([&] { EXPECT_EQ(fsck_check_header(fs(), 2, &header, true), 0); });
  EXPECT_EQ(header.block_num, 2);
  EXPECT_EQ(blkheader_state(&header), block_available);
}

// --- block states ---

TEST_F(check_states, a_committed_block_is_kept_in_use) {
  make();
  image_state(1, 0x3);
  EXPECT_EQ(
      check_of_recipe(quick),
      said("changing status of block 1 from \"committed\" to \"in use\".") + " wS1" + quiet_check);
  EXPECT_EQ(states_text(), "000f");
  EXPECT_EQ(header_on_flash(1).erase_count, 5U);
  expect_tree();
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_states, a_half_copied_a_half_freed_and_an_unknown_block_are_erased) {
  const struct {
    uint8_t state;
    const char* text;
  } states[] = {{0x7, "invalid1[0x7]"}, {0x1, "invalid2[0x1]"}, {0x2, "unknown[0x2]"},
                {0xB, "unknown[0xb]"},  {0x8, "unknown[0x8]"},  {0xE, "unknown[0xe]"}};
  for (const auto& each : states) {
    make();
    image_state(2, each.state);
    image().data_sector(2, 0, 2, 0, "an older copy");
    EXPECT_EQ(check_of_recipe(full), said(std::string("erasing block 2 with status ") + each.text) +
                                         " eS2 wS2" + quiet_check);
    EXPECT_EQ(states_text(), "00ff");
    EXPECT_EQ(header_on_flash(2).erase_count, 6U);
    expect_tree();
    EXPECT_TRUE(is_repaired());
  }
}

TEST_F(check_states, a_block_that_cannot_be_put_in_use_fails_the_check) {
  make();
  image_state(1, 0x3);
  device().flash().stick(block_bytes(4) + 12, 0, 0x03);
  EXPECT_EQ(check_of_recipe(quick),
            "result -1: " + said("changing status of block 1 from \"committed\" to \"in use\".") +
                " wS1" + said("block 1 not available or in use, state: committed[0x3]."));
}

TEST_F(check_states, a_failing_write_or_erase_fails_the_check) {
  for (const uint8_t state : {uint8_t{0x3}, uint8_t{0x7}}) {
    for (const flash_call kind : {flash_call::write, flash_call::erase}) {
      if (state == 0x3 && kind == flash_call::erase) {
        continue;
      }
      make();
      image_state(1, state);
      initialize();
      device().fail(kind, 1, flash_operation_failed);
      EXPECT_EQ(check(quick), -1);
      EXPECT_NE(check_output().find("Operation Failed"), std::string::npos);
      device().fail(kind, 0, flash_ok);
    }
  }
}

// --- sectors ---

TEST_F(check_sectors, the_quick_check_reads_whole_sectors_only_where_something_is) {
  make();
  ASSERT_EQ(check_of_recipe(quick), quiet_check);
  device().clear_counts();
  ASSERT_EQ(check(quick), 0);
  const uint64_t quick_bytes = device().counts().bytes_read;
  device().clear_counts();
  ASSERT_EQ(check(full), 0);
  // Of 12 sectors in use the quick check reads 3 whole and of 12 the owner, the full one all 12.
  EXPECT_EQ(device().counts().bytes_read - quick_bytes, 9 * 2056U - 12 * 2U);
}

TEST_F(check_sectors, a_wrong_checksum_is_found_by_the_full_check_only) {
  make();
  image().sector_at(1, 0)[100] ^= 0x10;
  const uint32_t crc = image_crc(image().sector_at(1, 0), 2056);
  EXPECT_EQ(check_of_recipe(quick), quiet_check);
  EXPECT_EQ(list_text(fs(), 2), "0:0.1/255 1:1.0/255");
  EXPECT_EQ(check_of_recipe(full),
            said("sector 0, block 1 checksum (" + hex(crc) + " != 0xe2f0)") + quiet_check);
  EXPECT_EQ(block_text(1), "0 - - -");
  EXPECT_EQ(list_text(fs(), 2), "0:0.1/255");
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_sectors, a_file_without_its_first_sector_is_emptied) {
  make();
  image().sector_at(0, 1)[2055] ^= 1;
  const uint32_t crc = image_crc(image().sector_at(0, 1), 2056);
  EXPECT_EQ(check_of_recipe(full), said("sector 1, block 0 checksum (" + hex(crc) + " != 0xe2f0)") +
                                       said("inconsistent sector list, fileid 2, parent_fileid 0") +
                                       quiet_check);
  EXPECT_EQ(block_text(0), "1 0 - -");
  EXPECT_EQ(block_text(1), "0 - - -");
  // Its name is still there, and makes an empty file of it.
  EXPECT_EQ(path_lookup(fs(), "f"), 2);
  EXPECT_EQ(list_text(fs(), 2), "");
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_sectors, a_sector_claimed_and_not_written_costs_the_quick_check_the_file) {
  make();
  image().sector_at(2, 0)[0] = 0;
  image().sector_at(2, 0)[1] = 2;
  const std::vector<uint8_t> before = device().flash().snapshot();
  EXPECT_EQ(check_of_recipe(quick),
            said("inconsistent sector list, fileid 2, parent_fileid 0") + quiet_check);
  EXPECT_EQ(list_text(fs(), 2), "");
  EXPECT_TRUE(is_repaired());

  device().flash().restore(before);
  const uint32_t crc = image_crc(image().sector_at(2, 0), 2056);
  EXPECT_EQ(check_of_recipe(full),
            said("sector 0, block 2 checksum (" + hex(crc) + " != 0xe2f0)") + quiet_check);
  EXPECT_EQ(list_text(fs(), 2), "0:0.1/255 1:1.0/255");
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_sectors, an_erased_sector_with_one_programmed_byte_is_invalidated_silently) {
  for (const int byte : {2, 3, 1000, 2055}) {
    make();
    image().sector_at(2, 1)[byte] = 0xFE;
    EXPECT_EQ(check_of_recipe(full), quiet_check);
    EXPECT_EQ(block_text(2), "- 0 - -");
    EXPECT_EQ(counters_text(), "0/0 0/0 1/0 0/0");
    EXPECT_TRUE(is_repaired());
  }
}

TEST_F(check_sectors, bytes_behind_the_last_sector_are_not_looked_at) {
  make_flash({{block_bytes(4) + 100, false}, {block_bytes(4) + 100, false}});
  image_builder odd(device());
  odd.headers(1);
  odd.slot(0, 0, 0, {.entry_fileid = 1, .mode = 0x4700, .name = {}});
  memset(odd.header_at(0) + block_bytes(4), 0, 100);
  memset(odd.header_at(1) + block_bytes(4), 0, 100);
  initialize();
  EXPECT_EQ(check(full), 0);
  EXPECT_EQ(check_output(), quiet_check);
}

// --- slots of directory sectors ---

TEST_F(check_slots, a_wrong_checksum_deletes_the_slot) {
  make();
  image().slot_at(0, 0, 3)[20] = 'y';
  const uint32_t crc = image_crc(image().slot_at(0, 0, 3), 64);
  EXPECT_EQ(check_of_recipe(quick), quiet_check);
  EXPECT_EQ(
      check_of_recipe(full),
      said("Dir slot 3, sector 0, block 0, checksum (" + hex(crc) + " != 0xe2f0)") + quiet_check);
  EXPECT_EQ(slot_on_flash(0, 0, 3).dir_fileid, 0);
  EXPECT_EQ(entry(4), nullptr);
  EXPECT_EQ(counters_text(), "0/1 0/0 0/0 0/0");
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_slots, a_wrong_file_type_deletes_the_slot) {
  make();
  name(0, 0, 3, 0, 3, 4, "x", 0xA1FF);
  EXPECT_EQ(check_of_recipe(full),
            said("Dir slot 3, sector 0, block 0, bad file type in mode: 0xa000") + quiet_check);
  EXPECT_EQ(entry(4), nullptr);
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_slots, an_illegal_character_deletes_the_slot) {
  make();
  name(0, 0, 3, 0, 3, 4, "a b");
  EXPECT_EQ(check_of_recipe(full),
            said("Illegal character 0x20 in filename: \"a b\"") + quiet_check);
  EXPECT_EQ(entry(4), nullptr);
  EXPECT_TRUE(is_repaired());
  make();
  name(0, 0, 3, 0, 3, 4, "a\x80z");
  EXPECT_EQ(check_of_recipe(full),
            said("Illegal character 0xffffff80 in filename: \"a\x80z\"") + quiet_check);
}

TEST_F(check_slots, a_name_without_its_end_is_not_read_past_its_field) {
  make();
  name(0, 0, 3, 0, 3, 4, std::string(46, 'n'));
  EXPECT_EQ(check_of_recipe(full), quiet_check);
  name(0, 0, 3, 0, 3, 4, std::string(45, 'n') + ":");
  EXPECT_EQ(
      check_of_recipe(full),
      said("Illegal character 0x3a in filename: \"" + std::string(45, 'n') + ":\"") + quiet_check);
}

TEST_F(check_slots, a_free_slot_with_a_programmed_byte_fails_the_quick_check_alone) {
  make();
  image().slot_at(0, 0, 9)[63] = 0x7F;
  EXPECT_EQ(check_of_recipe(quick),
            "result -1: " + said("Inconsistency found in directory slot 9 in sector 0 in block 0"));
  EXPECT_EQ(check_of_recipe(full), said("bad available_slot.") + quiet_check);
  EXPECT_EQ(slot_on_flash(0, 0, 9).dir_fileid, 0);
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_slots, the_first_thing_wrong_is_the_one_that_is_told) {
  make();
  name(0, 0, 3, 0, 3, 4, "a b", 0x1000);
  image().slot_at(0, 0, 3)[63] ^= 1;
  EXPECT_EQ(check_of_recipe(full).substr(0, 52),
            "flashfs[0]: Dir slot 3, sector 0, block 0, checksum ");
  make();
  name(0, 0, 3, 0, 3, 4, "a b", 0x1000);
  EXPECT_EQ(check_of_recipe(full),
            said("Dir slot 3, sector 0, block 0, bad file type in mode: 0x1000") + quiet_check);
}

TEST_F(check_slots, a_deleted_slot_is_not_looked_at) {
  make();
  image().slot_at(0, 0, 3)[63] ^= 1;
  delete_slot(0, 0, 3);
  EXPECT_EQ(check_of_recipe(full), quiet_check);
}

TEST_F(check_slots, a_sector_whose_last_slot_is_deleted_is_invalidated_at_once) {
  make();
  name(2, 0, 7, 1, 3, 5, "y", 0x1000);
  for (int k = 0; k < 32; k++) {
    if (k != 7) {
      delete_slot(2, 0, k);
    }
  }
  EXPECT_EQ(check_of_recipe(full),
            said("Dir slot 7, sector 0, block 2, bad file type in mode: 0x1000") + quiet_check);
  EXPECT_EQ(block_text(2), "0 - - -");
  EXPECT_EQ(counters_text(), "0/0 0/0 1/0 0/0");
  EXPECT_TRUE(is_repaired());
}

// --- counters ---

TEST_F(check_counters, invalid_sectors_and_deleted_slots_count_once_however_they_came) {
  for (const uint32_t flags : {quick, full}) {
    make();
    delete_slots(0, 0, 10, 13);
    invalidate(1, 1);
    invalidate(2, 0);
    invalidate(2, 3);
    EXPECT_EQ(check_of_recipe(flags), quiet_check);
    EXPECT_EQ(counters_text(), "0/3 1/0 2/0 0/0");
  }
  // Made so by the validation itself.
  image().sector_at(1, 2)[5] = 0;
  image().slot_at(0, 0, 20)[5] = 0;
  image().slot_at(0, 0, 21)[5] = 0;
  EXPECT_EQ(check_of_recipe(full),
            said("bad available_slot.") + said("bad available_slot.") + quiet_check);
  EXPECT_EQ(counters_text(), "0/5 2/0 2/0 0/0");
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_counters, sectors_invalidated_by_later_steps_count_too) {
  make();
  name(0, 0, 4, 1, 3, 5, "gap");
  image().data_sector(2, 0, 5, 0, "zero");
  image().data_sector(2, 1, 5, 2, "two");
  image().data_sector(1, 2, 2, 1, "a later copy of f's second sector");
  EXPECT_EQ(check_of_recipe(full),
            said("inconsistent sector list, fileid 5, parent_fileid 0") + quiet_check);
  EXPECT_EQ(counters_text(), "0/0 1/0 2/0 0/0");
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_counters, a_block_erased_on_the_way_counts_nothing) {
  make();
  invalidate(2, 0);
  image_state(2, 0x7);
  check_of_recipe(full);
  EXPECT_EQ(counters_text(), "0/0 0/0 0/0 0/0");
}

// --- duplicates ---

TEST_F(check_duplicates, of_two_copies_of_a_sector_the_one_read_last_stays) {
  for (const uint32_t flags : {quick, full}) {
    make();
    image().data_sector(2, 2, 2, 1, "another copy");
    EXPECT_EQ(check_of_recipe(flags), quiet_check);
    EXPECT_EQ(list_text(fs(), 2), "0:0.1/255 1:2.2/255");
    EXPECT_EQ(block_text(1), "0 - - -");
    EXPECT_EQ(block_text(2), "- - 2 -");
    EXPECT_TRUE(is_repaired());
  }
}

TEST_F(check_duplicates, of_many_copies_one_stays) {
  make();
  for (int sector = 0; sector < 4; sector++) {
    image().data_sector(2, sector, 2, 0, "another copy");
  }
  EXPECT_EQ(check_of_recipe(quick), quiet_check);
  EXPECT_EQ(list_text(fs(), 2), "0:2.3/255 1:1.0/255");
  EXPECT_EQ(block_text(0), "1 0 - -");
  EXPECT_EQ(block_text(2), "0 0 0 2");
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_duplicates, of_two_slots_the_one_read_last_stays) {
  make();
  name(0, 0, 9, 1, 1, 2, "newer");
  EXPECT_EQ(check_of_recipe(quick), quiet_check);
  EXPECT_EQ(list_text(fs(), 1), "0:0.0/0 1:0.0/9 2:0.0/2");
  EXPECT_EQ(slot_on_flash(0, 0, 1).dir_fileid, 0);
  EXPECT_EQ(path_lookup(fs(), "newer"), 2);
  EXPECT_EQ(counters_text(), "0/1 0/0 0/0 0/0");
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_duplicates, a_slot_and_a_data_sector_may_share_a_number) {
  make();
  image().data_sector(2, 0, 3, 0, "a data sector of a directory");
  EXPECT_EQ(check_of_recipe(quick), quiet_check);
  EXPECT_EQ(list_text(fs(), 3), "0:2.0/255");
  EXPECT_EQ(slot_on_flash(0, 0, 3).dir_fileid, 0);
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_duplicates, a_later_copy_in_a_committed_block_replaces_the_earlier_one) {
  make();
  image().data_sector(2, 2, 2, 1, "a copy");
  ASSERT_EQ(check_of_recipe(quick), quiet_check);
  ASSERT_EQ(list_text(fs(), 2), "0:0.1/255 1:2.2/255");
  image_state(1, 0x3);
  image().data_sector(1, 3, 2, 1, "in the committed block");
  auto* later = static_cast<flashfs_sctr_list_ordered*>(chunk_malloc(fs()->sctr_ptr_chunk));
  *later = {nullptr, 1, slot_of_sector, {1, 3}};
  entry(2)->sctr_list->next->next = later;
  EXPECT_EQ(writes_of(fs(), [&] { EXPECT_EQ(fsck_resolve_duplicates(fs(), entry(2)), 0); }), "2.2");
  EXPECT_EQ(list_text(fs(), 2), "0:0.1/255 1:1.3/255");
  EXPECT_EQ(block_text(2), "- - 0 -");
}

TEST_F(check_duplicates, a_later_slot_in_a_committed_block_replaces_the_earlier_one) {
  make();
  ASSERT_EQ(check_of_recipe(quick), quiet_check);
  image_state(1, 0x3);
  name(1, 3, 6, 1, 1, 2, "committed");
  auto* later = static_cast<flashfs_sctr_list_ordered*>(chunk_malloc(fs()->sctr_ptr_chunk));
  flashfs_sctr_list_ordered* second = entry(1)->sctr_list->next;
  *later = {second->next, 1, 6, {1, 3}};
  second->next = later;
  EXPECT_EQ(fsck_resolve_duplicates(fs(), entry(1)), 0);
  EXPECT_EQ(list_text(fs(), 1), "0:0.0/0 1:1.3/6 2:0.0/2");
  EXPECT_EQ(slot_on_flash(0, 0, 1).dir_fileid, 0);
  EXPECT_EQ(counters_text(), "0/1 0/0 0/0 0/0");
}

TEST_F(check_duplicates, a_failing_call_is_told) {
  for (uint64_t n = 1; n <= 3; n++) {
    make();
    ASSERT_EQ(check_of_recipe(quick), quiet_check);
    image().data_sector(2, 2, 2, 1, "a copy");
    filemap_add_sector(fs(), {2, 2}, reinterpret_cast<flashfs_sector*>(image().sector_at(2, 2)),
                       255);
    device().fail(flash_call::any, n, flash_operation_failed);
    output_of([&] { EXPECT_EQ(fsck_resolve_duplicates(fs(), entry(2)), 1); });
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
  }
}

// --- broken lists ---

TEST_F(check_lists, a_file_with_a_gap_is_dropped_with_its_sectors) {
  make();
  image().data_sector(1, 0, 2, 2, "was number 1");
  image().data_sector(2, 3, 2, 3, "three");
  EXPECT_EQ(check_of_recipe(quick),
            said("inconsistent sector list, fileid 2, parent_fileid 0") + quiet_check);
  EXPECT_EQ(block_text(0), "1 0 - -");
  EXPECT_EQ(block_text(1), "0 - - -");
  EXPECT_EQ(block_text(2), "- - - 0");
  EXPECT_EQ(list_text(fs(), 2), "");
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_lists, a_file_with_a_gap_and_no_name_is_gone) {
  make();
  image().data_sector(2, 0, 9, 0, "zero");
  image().data_sector(2, 1, 9, 2, "two");
  EXPECT_EQ(check_of_recipe(quick),
            said("inconsistent sector list, fileid 9, parent_fileid 0") + quiet_check);
  EXPECT_EQ(entry(9), nullptr);
  EXPECT_EQ(map_text(fs()), "1<1 2<1 3<1 4<3");
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_lists, a_file_that_does_not_begin_at_0_is_dropped) {
  make();
  image().data_sector(2, 0, 4, 1, "one");
  image().data_sector(2, 1, 65534, 65535, "the last number there is");
  EXPECT_EQ(check_of_recipe(quick),
            said("inconsistent sector list, fileid 4, parent_fileid 0") +
                said("inconsistent sector list, fileid 65534, parent_fileid 0") + quiet_check);
  EXPECT_EQ(block_text(2), "0 0 - -");
  EXPECT_EQ(path_lookup(fs(), "d/x"), 4);
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_lists, a_directory_may_have_gaps) {
  make();
  name(0, 0, 3, 8, 3, 4, "x");
  EXPECT_EQ(check_of_recipe(quick), quiet_check);
  EXPECT_EQ(list_text(fs(), 3), "8:0.0/3");
}

TEST_F(check_lists, a_sector_that_cannot_be_invalidated_fails_the_check) {
  make();
  image().data_sector(1, 0, 2, 2, "was number 1");
  initialize();
  device().fail(flash_call::write, 1, flash_operation_failed);
  EXPECT_EQ(check(quick), -1);
  const std::string told = said("inconsistent sector list, fileid 2, parent_fileid 0");
  EXPECT_EQ(check_output().substr(0, told.size()), told);
  device().fail(flash_call::any, 0, flash_ok);
}

}  // namespace
