// The check as it deals with block states, and its result as a whole. Each test is a
// recipe - an image, the bytes that are wrong in it - with what the check says of it, what it
// leaves, and that a second check has nothing to say. Sectors and lists are in
// fsck_sectors_test.cpp, headers and the spare in fsck_blocks_test.cpp, the directory tree in
// fsck_tree_test.cpp.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "flashfs/check_flags.h"
#include "flashfs/flashfs.h"
#include "sim/chassis.h"
#include "sim/flash.h"
#include "tests/flashfs/flashfs_recipe.h"
#include "tests/flashfs/flashfs_test_tools.h"
#include "tests/flashfs/fsck_recipe.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"

namespace {

using namespace test_support;

using check_result = check_recipe;
using check_states = check_recipe;
using check_reclaim = check_recipe;

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
  EXPECT_EQ(check_of_recipe(flashfs_check_quick), said("flashfs fsck took 1 seconds."));
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
  EXPECT_EQ(check_of_recipe(flashfs_check_full), blank(0) + blank(1) + " wS1" + quiet_check);
  EXPECT_EQ(states_text(), "f0");
  EXPECT_EQ(header_on_flash(0).erase_count, 0U);
  EXPECT_EQ(map_text(fs()), "1<1");
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_result, a_second_check_of_the_same_state_finds_the_same) {
  make();
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  const std::string sectors = sectors_text(fs());
  const std::string slots = slots_text(fs());
  for (const uint32_t flags : {flashfs_check_full, flashfs_check_quick}) {
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
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  device().fail(flash_call::read, 30, flash_operation_failed);
  errno = 0;
  EXPECT_EQ(check(flashfs_check_full), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(fs()->ready, 0U);
  EXPECT_EQ(fs()->file_map, nullptr);
  EXPECT_EQ(fs()->available_sectors, nullptr);
  EXPECT_EQ(fs()->sctr_ptr_chunk, nullptr);
  EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
  EXPECT_EQ(check(flashfs_check_full), 0);
  expect_tree();
}

TEST_F(check_result, every_failing_read_fails_the_check_and_harms_nothing) {
  for (const uint32_t flags : {flashfs_check_quick, flashfs_check_full}) {
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
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  device().clear_counts();
  ASSERT_EQ(check(flashfs_check_quick), 0);
  // Its last read is that of the report's last header, of block 2.
  device().fail(flash_call::read, device().counts().reads, flash_busy);
  EXPECT_EQ(check(flashfs_check_quick), -1);
  EXPECT_EQ(check_output(), said("reading from flash handle " + handle_text(device()) +
                                 ", device 0, offset " + hex(2 * block_bytes(4)) + ": Busy") +
                                said("Error obtaining space information."));
}

TEST_F(check_result, without_a_slot_for_the_root_it_fails) {
  make_blocks({1, 1});
  image().headers(1);
  data(2, "0.0");
  EXPECT_EQ(check_of_recipe(flashfs_check_quick),
            "result -1: " + said("error initializing the root directory."));
}

TEST_F(check_result, without_a_sector_buffer_it_fails) {
  make();
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  chunk_pool* pool = fs()->sctr_buf_chunk;
  fs()->sctr_buf_chunk = nullptr;
  EXPECT_EQ(check(flashfs_check_quick), -1);
  EXPECT_EQ(check_output(), said("unable to allocate sector buffer -- chunk not initialized"));
  fs()->sctr_buf_chunk = pool;
}

TEST_F(check_result, blocks_without_sectors_are_blocks_too) {
  make_blocks({4, 0, 4});
  image().headers(2);
  names({"0:0.0/0 1<1"});
  EXPECT_TRUE(is_repaired());
  image().header(1, {.state = 0x7});
  EXPECT_EQ(check_of_recipe(flashfs_check_quick),
            said("erasing block 1 with status invalid1[0x7]") + " eS1 wS1" + quiet_check);
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_result, blocks_without_sectors_alone_hold_no_root) {
  make_blocks({0, 0});
  image().headers(0);
  EXPECT_EQ(check_of_recipe(flashfs_check_full),
            "result -1: " + said("error initializing the root directory."));
}

TEST_F(check_result, a_device_without_blocks_has_no_spare) {
  make_blocks({});
  EXPECT_EQ(check_of_recipe(flashfs_check_full),
            "result -1: " + said("unable to allocate available block."));
}

TEST_F(check_result, a_file_may_lie_on_two_devices) {
  make_blocks({4, 4}, {4, 4});
  image().headers(-1);
  image_1().headers(2);
  names({"0:0.0/0 1<1", "1:0.0/1 2<1 f"});
  data(2, "0.3");
  image_1().data_sector(3, 2, 2, 1, "on the second device");
  EXPECT_TRUE(is_repaired());
  EXPECT_EQ(fs()->available_block, 2);
  EXPECT_EQ(list_text(fs(), 2), "0:0.3/255 1:3.2/255");
  image_1().header(3, {.good_checksum = false});
  EXPECT_NE(check_of_recipe(flashfs_check_quick).find("erasing block 3... eS3 wS3done."),
            std::string::npos);
  EXPECT_EQ(list_text(fs(), 2), "0:0.3/255");
  EXPECT_TRUE(is_repaired());
}

// --- block states ---

TEST_F(check_states, a_committed_block_is_kept_in_use) {
  make();
  image_state(1, 0x3);
  EXPECT_EQ(
      check_of_recipe(flashfs_check_quick),
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
    EXPECT_EQ(
        check_of_recipe(flashfs_check_full),
        said(std::string("erasing block 2 with status ") + each.text) + " eS2 wS2" + quiet_check);
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
  EXPECT_EQ(check_of_recipe(flashfs_check_quick),
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
      EXPECT_EQ(check(flashfs_check_quick), -1);
      EXPECT_NE(check_output().find("Operation Failed"), std::string::npos);
      device().fail(kind, 0, flash_ok);
    }
  }
}

// --- reclaiming everything ---

std::string tested(int block, const std::string& copy_of) {
  const std::string b = std::to_string(block);
  return copy_of + " eS" + b + said("testing block " + b + "...erased 0x0 times") + " eS" + b +
         " eS" + b + " wS" + b;
}

TEST_F(check_reclaim, every_block_goes_through_the_spare_and_every_erase_is_tested) {
  make_blocks({4, 4, 4});
  image().headers(0);
  names({"0:1.0/0 1<1", "1:1.0/5 2<1 f"});
  delete_slots("1.0/6-9");
  data(2, "1.1 2.0");
  invalidate("2.1");
  EXPECT_EQ(check_of_recipe(flashfs_check_quick | flashfs_check_reclaim_all),
            // the spare itself, then block 1 into it, and block 2 into block 1
            tested(0, "") + tested(1, " wS0 wS0") + " wS0" + tested(2, " wS1 wS1") + " wS1" +
                quiet_check);
  EXPECT_EQ(fs()->available_block, 2);
  EXPECT_EQ(states_text(), "00f");
  EXPECT_EQ(list_text(fs(), 1), "0:0.0/0 1:0.0/5");
  EXPECT_EQ(list_text(fs(), 2), "0:0.1/255 1:1.0/255");
  EXPECT_EQ(counters_text(), "0/0 0/0 0/0");
  EXPECT_EQ(sectors_text(fs()), "1.1 1.2 1.3 0.2 0.3");
  EXPECT_EQ(fs()->num_available_slots, 30U);
  for (int block = 0; block < 3; block++) {
    EXPECT_EQ(header_on_flash(block).erase_count, 3U);
  }
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_reclaim, a_block_is_the_spare_or_not_at_the_time_its_turn_comes) {
  make_blocks({2, 2, 2});
  image().headers(2);
  names({"0:0.0/0 1<1", "1:0.0/1 2<1 f"});
  data(2, "1.1");
  check_of_recipe(flashfs_check_full | flashfs_check_reclaim_all);
  // 0 went to 2, 1 to 0, and 2, which is not the spare any more, to 1.
  EXPECT_EQ(fs()->available_block, 2);
  EXPECT_EQ(list_text(fs(), 1), "0:1.0/0 1:1.0/1");
  EXPECT_EQ(list_text(fs(), 2), "0:0.1/255");
  EXPECT_TRUE(is_repaired());
}

TEST_F(check_reclaim, a_block_that_fails_its_test_fails_the_check) {
  make_blocks({2, 2, 2});
  image().headers(2);
  names({"0:0.0/0 1<1"});
  // A bit that cannot be programmed, in a sector that holds nothing.
  device().flash().stick(block_bytes(2) + 32 + 2056 + 10, 0, 0x01);
  const std::string output = check_of_recipe(flashfs_check_full | flashfs_check_reclaim_all);
  EXPECT_EQ(output.substr(0, 11), "result -1: ");
  EXPECT_NE(output.find("testing block 1...erased 0x0 times\n"), std::string::npos);
  EXPECT_NE(output.find("block 1, sector 1, byte 10\n"), std::string::npos);
}

TEST_F(check_reclaim, a_failing_reclamation_fails_the_check) {
  make();
  initialize();
  device().fail(flash_call::erase, 1, flash_operation_failed);
  EXPECT_EQ(check(flashfs_check_quick | flashfs_check_reclaim_all), -1);
  EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
  device().fail(flash_call::any, 0, flash_ok);
}

}  // namespace
