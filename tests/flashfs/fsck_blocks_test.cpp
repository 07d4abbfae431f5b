// The check as it judges block headers, and finds the spare and cleans it.
#include "flashfs/fsck_blocks.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <initializer_list>
#include <string>
#include <vector>

#include "flashfs/check_flags.h"
#include "flashfs/filemap.h"
#include "sim/flash.h"
#include "tests/flashfs/flashfs_recipe.h"
#include "tests/flashfs/flashfs_test_tools.h"
#include "tests/flashfs/fsck_recipe.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"

namespace {

using namespace test_support;

using check_headers = check_recipe;
using check_spare = check_recipe;
using check_scrub = check_recipe;

// --- headers ---

TEST_F(check_headers, a_wrong_block_number_has_the_block_erased) {
  make();
  image().header(2, {.erase_count = 9, .block_num = 7, .state = 0});
  EXPECT_EQ(check_of_recipe(flashfs_check_quick),
            said("Checking block 2...bad block number (7)") +
                "flashfs[0]: erasing block 2... eS2 wS2done.\n" + quiet_check);
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
  EXPECT_EQ(check_of_recipe(flashfs_check_quick),
            said("Checking block 1...bad block number (0)") +
                "flashfs[0]: erasing block 1... eS1 wS1done.\n" + quiet_check);
  EXPECT_EQ(list_text(fs(), 2), "0:0.1/255");
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_headers, a_wrong_checksum_has_the_block_erased) {
  make();
  image().header(2, {.state = 0, .good_checksum = false});
  const uint32_t crc = image_crc(image().header_at(2) + 4, 6);
  EXPECT_EQ(check_of_recipe(flashfs_check_full),
            said("Checking block 2...bad checksum (58096 != " + std::to_string(crc) + ")") +
                "flashfs[0]: erasing block 2... eS2 wS2done.\n" + quiet_check);
  EXPECT_EQ(states_text(), "00ff");
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_headers, the_number_is_looked_at_before_the_checksum) {
  make();
  image().header(2, {.block_num = 65534, .state = 0, .good_checksum = false});
  const std::string told = said("Checking block 2...bad block number (65534)");
  EXPECT_EQ(check_of_recipe(flashfs_check_full).substr(0, told.size()), told);
  EXPECT_EQ(check_output().find("checksum"), std::string::npos);
}

TEST_F(check_headers, the_erase_count_is_not_covered_and_wraps) {
  make();
  image().header(2, {.erase_count = 0xFFFFFFFF, .state = 0});
  EXPECT_EQ(check_of_recipe(flashfs_check_full), quiet_check);
  image().header(2, {.erase_count = 0xFFFFFFFF, .block_num = 1});
  check_of_recipe(flashfs_check_full);
  EXPECT_EQ(header_on_flash(2).erase_count, 0U);
}

TEST_F(check_headers, one_that_stays_bad_fails_the_second_pass) {
  make();
  image().header(2, {.block_num = 7, .state = 0});
  // The block number's highest bit cannot be programmed.
  device().flash().stick(2 * block_bytes(4) + 10, 0, 0x80);
  EXPECT_EQ(check_of_recipe(flashfs_check_quick),
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
  EXPECT_EQ(check(flashfs_check_quick), -1);
  EXPECT_EQ(check_output(),
            said("Checking block 2...bad block number (7)") +
                "flashfs[0]: erasing block 2... eS2flashfs[0]: erasing block, flash handle " +
                handle_text(device()) + ", device 0, offset " + hex(2 * block_bytes(4)) +
                ": Operation Failed\n");
}

TEST_F(check_headers, without_fixing_a_bad_one_is_only_told) {
  make();
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  flashfs_blkheader header = header_on_flash(2);
  EXPECT_EQ(output_of([&] { EXPECT_EQ(fsck_check_header(fs(), 2, &header, false), 0); }), "");
  header.block_num = 1;
  EXPECT_EQ(writes_of(fs(), [&] { EXPECT_EQ(fsck_check_header(fs(), 2, &header, false), 1); }), "");
  EXPECT_EQ(output_of([&] { (void)fsck_check_header(fs(), 2, &header, false); }),
            said("Checking block 2...bad block number (1)"));
}

TEST_F(check_headers, fixing_reads_the_new_header_into_the_callers) {
  make();
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  flashfs_blkheader header = header_on_flash(2);
  header.block_num = 1;
  output_of([&] { EXPECT_EQ(fsck_check_header(fs(), 2, &header, true), 0); });
  EXPECT_EQ(header.block_num, 2);
  EXPECT_EQ(blkheader_state(&header), block_available);
}

// --- the spare ---

TEST_F(check_spare, the_first_full_size_available_block_is_taken) {
  make_blocks({3, 4, 4, 4});
  image().headers(0);
  image().header(2, {});
  image().header(3, {});
  names({"0:1.0/0 1<1"});
  EXPECT_TRUE(is_repaired());
  EXPECT_EQ(fs()->available_block, 2);
  EXPECT_EQ(states_text(), "f0ff");
  EXPECT_EQ(sectors_text(fs()), "1.1 1.2 1.3");
}

TEST_F(check_spare, without_one_the_check_fails) {
  make();
  image_state(3, 0);
  EXPECT_EQ(check_of_recipe(flashfs_check_full),
            "result -1: " + said("unable to allocate available block."));
  // A smaller one does not serve.
  make_blocks({4, 4, 3});
  image().headers(2);
  names({"0:0.0/0 1<1"});
  EXPECT_EQ(check_of_recipe(flashfs_check_quick),
            "result -1: " + said("unable to allocate available block."));
}

TEST_F(check_spare, a_committed_block_and_full_ones_leave_none) {
  make();
  image_state(3, 0x3);
  EXPECT_EQ(check_of_recipe(flashfs_check_quick),
            "result -1: " + said("changing status of block 3 from \"committed\" to \"in use\".") +
                " wS3" + said("unable to allocate available block."));
}

TEST_F(check_spare, is_erased_when_it_is_not_blank) {
  for (const uint32_t flags : {flashfs_check_quick, flashfs_check_full}) {
    make();
    image().sector_at(3, 2)[7] = 0xF7;
    image().sector_at(3, 3)[0] = 0;
    EXPECT_EQ(
        check_of_recipe(flags),
        said("found corrupted block[3] (byte 7, sector 2), fixing...") + " eS3 wS3" + quiet_check);
    EXPECT_EQ(header_on_flash(3).erase_count, 1U);
    EXPECT_TRUE(is_repaired());
  }
}

TEST_F(check_spare, other_available_blocks_are_not_looked_into) {
  make();
  image_state(2, 0xF);
  image().sector_at(3, 2)[7] = 0xF7;
  EXPECT_EQ(check_of_recipe(flashfs_check_full), quiet_check);
  EXPECT_EQ(fs()->available_block, 2);
}

TEST_F(check_scrub, a_blank_block_is_left_alone) {
  make();
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  EXPECT_EQ(output_of([&] { EXPECT_EQ(fsck_scrub_block(fs(), 3), 0); }), "");
}

TEST_F(check_scrub, the_first_byte_and_the_last_are_looked_at) {
  for (const int byte : {0, 2055}) {
    make();
    ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
    image().sector_at(3, 3)[byte] = 0;
    EXPECT_EQ(
        output_of([&] { EXPECT_EQ(fsck_scrub_block(fs(), 3), 0); }),
        said("found corrupted block[3] (byte " + std::to_string(byte) + ", sector 3), fixing...") +
            " eS3 wS3");
  }
}

TEST_F(check_scrub, a_failing_erase_is_its_result) {
  make();
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  image().sector_at(3, 0)[0] = 0;
  device().fail(flash_call::erase, 1, flash_operation_failed);
  output_of([&] { EXPECT_EQ(fsck_scrub_block(fs(), 3), 1); });
}

TEST_F(check_scrub, a_failing_read_is_told_on_a_line) {
  make();
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  device().fail(flash_call::read, 2, flash_busy);
  EXPECT_EQ(output_of([&] { EXPECT_EQ(fsck_scrub_block(fs(), 3), 1); }),
            said("reading from flash handle " + handle_text(device()) + ", device 0, offset " +
                 hex(3 * block_bytes(4) + 32 + 2056) + ": Busy") +
                "Failed on sector read\n");
}

TEST_F(check_scrub, without_a_buffer_says_so_on_a_line) {
  make();
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  chunk_pool* pool = fs()->sctr_buf_chunk;
  fs()->sctr_buf_chunk = nullptr;
  EXPECT_EQ(
      output_of([&] { EXPECT_EQ(fsck_scrub_block(fs(), 3), 1); }),
      said("unable to allocate sector buffer -- chunk not initialized") + "Unable to alloc sctr\n");
  fs()->sctr_buf_chunk = pool;
}

// --- the spare of a committed block: after the first pass there is none, so it is called ---

class committed_spare : public check_recipe {
 protected:
  // Mounts, then gives the blocks these states on flash.
  void mount_and_set(const std::vector<uint8_t>& states) {
    ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
    for (size_t b = 0; b < states.size(); b++) {
      image_state(static_cast<int>(b), states[b]);
    }
    fs()->available_block = no_block;
  }
  // The writes of establishing the spare, behind its result.
  std::string established() {
    int result = 0;
    const std::string writes = writes_of(fs(), [&] { result = fsck_establish_spare(fs()); });
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
    return std::to_string(result) + (writes.empty() ? "" : ": ") + writes;
  }
};

TEST_F(committed_spare, a_full_size_block_in_use_without_some_file_is_given_up_for_it) {
  make();
  mount_and_set({0, 0, 0, 0x3});
  // File 1 has nothing in block 1, which is the first block without some file: 0 has no file 4.
  EXPECT_EQ(established(), "0: erase 0 0=available");
  EXPECT_EQ(fs()->available_block, 0);
}

TEST_F(committed_spare, a_committed_block_of_another_size_does_not_help) {
  make_blocks({4, 3, 4, 4});
  image().headers(3);
  names({"0:0.0/0 1<1"});
  mount_and_set({0, 0x3, 0, 0});
  EXPECT_EQ(established(), "1");
}

TEST_F(committed_spare, an_empty_file_map_has_no_candidate) {
  make();
  mount_and_set({0, 0, 0, 0x3});
  filemap_clear(fs());
  EXPECT_EQ(established(), "1");
}

TEST_F(committed_spare, a_block_that_every_file_needs_is_no_candidate) {
  make_root(3);
  names({"1:1.0/0 2<1 f"});
  data(2, "0.1 1.1");
  mount_and_set({0, 0, 0x3});
  EXPECT_EQ(established(), "1");
}

TEST_F(committed_spare, the_largest_candidate_is_taken_and_the_first_of_equal_ones) {
  make_blocks({2, 3, 3, 4, 4});
  image().headers(4);
  names({"0:3.0/0 1<1"});
  mount_and_set({0, 0, 0, 0x1, 0x3});
  // Block 1: nothing lives in the committed block 4, so nothing is copied.
  EXPECT_EQ(established(),
            "0: erase 1 1=available 1=invalid1 1=in_use 4=invalid2 erase 4 4=available");
  EXPECT_EQ(fs()->available_block, 4);
  EXPECT_EQ(states_text(), "0001f");
}

TEST_F(committed_spare, a_smaller_block_takes_the_live_sectors_over) {
  make_blocks({3, 4, 4});
  image().headers(2);
  image().header(0, {});
  names({"0:1.1/0 1<1", "1:1.1/4 2<1 f"});
  invalidate("1.0");
  data(2, "1.3");
  mount_and_set({0xF, 0x3, 0x1});
  EXPECT_EQ(established(), "0: 0=invalid1 0.0 0.1 0=in_use 1=invalid2 erase 1 1=available");
  EXPECT_EQ(fs()->available_block, 1);
  EXPECT_EQ(block_text(0), "1 2 -");
  EXPECT_EQ(list_text(fs(), 1), "0:0.0/0 1:0.0/4");
  EXPECT_EQ(list_text(fs(), 2), "0:0.1/255");
  EXPECT_EQ(states_text(), "0f1");
}

TEST_F(committed_spare, a_smaller_block_must_hold_all_live_sectors) {
  make_blocks({1, 4, 4});
  image().headers(2);
  image().header(0, {});
  names({"0:1.1/0 1<1", "1:1.1/4 2<1 f"});
  data(2, "1.3");
  mount_and_set({0xF, 0x3, 0x1});
  EXPECT_EQ(established(), "1");
}

TEST_F(committed_spare, a_smaller_block_may_have_as_many_sectors_as_there_are_live_ones) {
  make_blocks({2, 4, 4});
  image().headers(2);
  image().header(0, {});
  names({"0:1.1/0 1<1", "1:1.1/4 2<1 f"});
  data(2, "1.3");
  mount_and_set({0xF, 0x3, 0x1});
  EXPECT_EQ(established(), "0: 0=invalid1 0.0 0.1 0=in_use 1=invalid2 erase 1 1=available");
}

TEST_F(committed_spare, the_last_committed_block_is_the_one_that_counts) {
  make_blocks({3, 4, 4, 4});
  image().headers(3);
  image().header(0, {});
  names({"0:1.0/0 1<1", "1:1.0/1 2<1 f"});
  data(2, "2.2");
  mount_and_set({0xF, 0x3, 0x3, 0x1});
  EXPECT_EQ(established(), "0: 0=invalid1 0.0 0=in_use 2=invalid2 erase 2 2=available");
  EXPECT_EQ(list_text(fs(), 2), "0:0.0/255");
  EXPECT_EQ(list_text(fs(), 1), "0:1.0/0 1:1.0/1");
  // One of another size behind it is the last, and does not serve.
  make_blocks({3, 4, 4, 4, 3});
  image().headers(3);
  names({"0:1.0/0 1<1"});
  mount_and_set({0, 0x3, 0, 0x1, 0x3});
  EXPECT_EQ(established(), "1");
}

TEST_F(committed_spare, any_failing_flash_call_is_told) {
  uint64_t calls = 1;
  for (uint64_t n = 0; n <= calls; n++) {
    make_blocks({3, 4, 4});
    image().headers(2);
    names({"0:1.1/0 1<1", "1:1.1/4 2<1 f"});
    data(2, "1.3");
    mount_and_set({0, 0x3, 0x1});
    device().fail(flash_call::any, n, flash_operation_failed);
    EXPECT_EQ(established().substr(0, 1), n == 0 ? "0" : "1") << n;
    calls = n == 0 ? device().calls_since_fail() : calls;
  }
  EXPECT_GT(calls, 20U);
}

}  // namespace
