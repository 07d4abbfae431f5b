// The registers, command sequences, counters and faults of one node of the simulated chassis.
#include "sim/cpld.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <string>
#include <utility>

#include "sim/chassis.h"
#include "tests/sim/command_cycles.h"

using sim_test::erase;
using sim_test::page;
using sim_test::program;
using sim_test::run_state;
using sim_test::status;
using sim_test::unlock;
using sim_test::window_of_index;

TEST(sim_registers, run_state_and_ready_bits_stand_one_above_the_index) {
  sim::chassis chassis;
  chassis.set_running(4, true);
  chassis.set_running(8, true);
  EXPECT_EQ(chassis.node_of(3).load32(run_state), 0x4U);
  EXPECT_EQ(chassis.node_of(6).load32(run_state), 0x8U);
  EXPECT_EQ(chassis.node_of(3).load32(status), 0xEU);
  EXPECT_EQ(chassis.deviations().total(), 0U);
}

TEST(sim_registers, the_page_register_moves_all_three_windows) {
  sim::chassis chassis;
  sim::cpld& node = chassis.node_of(3);
  for (int index = 0; index < 3; ++index) {
    uint8_t* word = node.flash(index).bytes() + 0x1FFE;
    word[0] = 0x10;
    word[1] = static_cast<uint8_t>(index);
  }
  node.store32(page, 1);
  for (int index = 0; index < 3; ++index) {
    const uint32_t window = window_of_index(index);
    EXPECT_EQ(node.load16(window + 0xFFE), 0x1000 + index);
    EXPECT_EQ(node.load16(window + 0xFFE), 0x1000 + index);
  }
  node.store32(page, 0x1FFF);
  EXPECT_EQ(node.load16(window_of_index(2) + 0xFFE), 0xFFFF);
  EXPECT_EQ(chassis.deviations().total(), 0U);
  EXPECT_EQ(chassis.counts().words_read, 7U);
}

TEST(sim_commands, a_program_sequence_clears_bits_of_one_word_of_one_flash) {
  for (int index = 0; index < 3; ++index) {
    sim::chassis chassis;
    sim::cpld& node = chassis.node_of(6);
    program(node, window_of_index(index), 0x1234 << 8, 0xBEEF);
    EXPECT_EQ(node.flash(index).read16(0x1234 << 8), 0xBEEF);
    for (int other = 0; other < 3; ++other) {
      EXPECT_EQ(node.flash(other).touched(), other == index);
    }
    EXPECT_EQ(chassis.counts().programs, 1U);
    EXPECT_EQ(chassis.counts().command_cycles, 3U);
    EXPECT_EQ(chassis.counts().page_writes, 2U);
    EXPECT_EQ(chassis.deviations().total(), 0U);
  }
}

TEST(sim_commands, an_erase_sequence_erases_the_whole_sector_and_no_more) {
  sim::chassis chassis;
  sim::cpld& node = chassis.node_of(3);
  uint8_t* bytes = node.flash(1).bytes();
  std::fill_n(bytes, sim::chassis_flash_size, uint8_t{0});
  erase(node, window_of_index(1), 5 << 17);
  EXPECT_EQ(bytes[(5 << 17) - 1], 0x00);
  EXPECT_EQ(bytes[5 << 17], 0xFF);
  EXPECT_EQ(bytes[(6 << 17) - 1], 0xFF);
  EXPECT_EQ(bytes[6 << 17], 0x00);
  EXPECT_EQ(chassis.counts().erases, 1U);
  EXPECT_EQ(chassis.counts().command_cycles, 6U);
  EXPECT_EQ(chassis.deviations().total(), 0U);
}

TEST(sim_commands, an_erase_confirmed_in_a_later_page_of_the_sector_erases_from_its_beginning) {
  sim::chassis chassis;
  sim::cpld& node = chassis.node_of(3);
  std::fill_n(node.flash(0).bytes(), sim::chassis_flash_size, uint8_t{0});
  erase(node, window_of_index(0), (2 << 17) + 0x3000);
  EXPECT_EQ(node.flash(0).read16(2 << 17), 0xFFFF);
  EXPECT_EQ(node.flash(0).read16(3 << 17), 0x0000);
}

TEST(sim_deviations, a_program_that_asks_for_ones_over_zeros_is_counted) {
  sim::chassis chassis;
  sim::cpld& node = chassis.node_of(3);
  program(node, 0x4000, 0x100, 0x0000);
  program(node, 0x4000, 0x100, 0x0001);
  EXPECT_EQ(node.deviations().bit_set, 1U);
  EXPECT_EQ(chassis.deviations().total(), 1U);
  EXPECT_EQ(node.flash(0).read16(0x100), 0x0000);
  chassis.clear_counts();
  EXPECT_EQ(chassis.deviations().total(), 0U);
  EXPECT_EQ(chassis.counts().programs, 0U);
}

TEST(sim_deviations, widths_alignment_directions_and_offsets_are_counted) {
  sim::chassis chassis;
  sim::cpld& node = chassis.node_of(3);
  node.load32(0x4000);
  node.store32(0x5000, 0);
  node.load16(status);
  node.store16(page, 0);
  EXPECT_EQ(chassis.deviations().wrong_width, 4U);
  node.load16(0x4001);
  node.store16(0x4001, 0);
  node.load32(2);
  node.store32(0x22, 0);
  EXPECT_EQ(chassis.deviations().unaligned, 4U);
  node.load32(page);
  node.store32(run_state, 0);
  node.store32(status, 0);
  EXPECT_EQ(chassis.deviations().wrong_direction, 3U);
  node.load32(0x0004);
  node.load16(0x7000);
  node.store16(0x3FFE, 0);
  node.store32(0x8000, 0);
  node.load16(0xFFFFFFFE);
  EXPECT_EQ(chassis.deviations().unknown_register, 5U);
  node.store32(page, 0x2000);
  EXPECT_EQ(chassis.deviations().bad_page, 1U);
  EXPECT_EQ(chassis.deviations().total(), 17U);
  EXPECT_EQ(chassis.counts().programs, 0U);
  EXPECT_FALSE(chassis.flash(3).touched());
}

TEST(sim_deviations, a_read_in_the_middle_of_a_sequence_is_counted_and_does_not_end_it) {
  sim::chassis chassis;
  sim::cpld& node = chassis.node_of(3);
  node.load16(0x4000);
  unlock(node, 0x4000);
  node.store16(0x4AAA, 0xA0);
  EXPECT_EQ(node.load16(0x4000), 0xFFFF);
  EXPECT_EQ(chassis.deviations().mid_sequence_read, 1U);
  node.store16(0x4000, 0x1234);
  EXPECT_EQ(node.load16(0x4000), 0x1234);
  EXPECT_EQ(chassis.deviations().total(), 1U);
}

TEST(sim_deviations, a_cycle_out_of_order_is_counted_and_ends_the_sequence) {
  struct wrong_cycle {
    int right_cycles;  // of an erase sequence, before the wrong one
    uint32_t offset;
    uint16_t value;
  };
  const wrong_cycle wrong_cycles[] = {
      {0, 0xAAA, 0xAB}, {0, 0xAAC, 0xAA}, {0, 0x554, 0x55}, {0, 0x000, 0x30},
      {1, 0x554, 0xAA}, {1, 0xAAA, 0x55}, {2, 0xAAA, 0x90}, {2, 0x554, 0x80},
      {3, 0x554, 0x55}, {4, 0xAAA, 0xA0}, {5, 0x002, 0x30}, {5, 0x000, 0x31},
  };
  const std::pair<uint32_t, uint16_t> cycles[] = {{0xAAA, 0xAA}, {0x554, 0x55}, {0xAAA, 0x80},
                                                  {0xAAA, 0xAA}, {0x554, 0x55}, {0x000, 0x30}};
  for (const wrong_cycle& wrong : wrong_cycles) {
    SCOPED_TRACE(testing::Message() << wrong.right_cycles << " cycles, then " << wrong.offset);
    sim::chassis chassis;
    sim::cpld& node = chassis.node_of(3);
    node.flash(0).bytes()[0] = 0;
    for (int cycle = 0; cycle < wrong.right_cycles; ++cycle) {
      node.store16(0x4000 + cycles[cycle].first, cycles[cycle].second);
    }
    EXPECT_EQ(chassis.deviations().total(), 0U);
    node.store16(0x4000 + wrong.offset, wrong.value);
    EXPECT_EQ(chassis.deviations().out_of_order, 1U);
    node.load16(0x4000);
    EXPECT_EQ(chassis.deviations().mid_sequence_read, 0U);
    EXPECT_EQ(node.flash(0).bytes()[0], 0);
  }
}

TEST(sim_deviations, a_first_unlock_cycle_begins_anew_in_the_middle_of_a_sequence) {
  sim::chassis chassis;
  sim::cpld& node = chassis.node_of(3);
  unlock(node, 0x4000);
  program(node, 0x4000, 0x20, 0x4321);
  EXPECT_EQ(chassis.deviations().out_of_order, 1U);
  EXPECT_EQ(chassis.deviations().total(), 1U);
  EXPECT_EQ(node.flash(0).read16(0x20), 0x4321);
}

TEST(sim_deviations, unlock_cycles_count_only_in_page_0) {
  sim::chassis chassis;
  sim::cpld& node = chassis.node_of(3);
  node.store32(page, 1);
  node.store16(0x4AAA, 0xAA);
  EXPECT_EQ(chassis.deviations().out_of_order, 1U);
}

TEST(sim_commands, each_flash_of_a_node_has_its_own_sequence) {
  sim::chassis chassis;
  sim::cpld& node = chassis.node_of(3);
  for (const uint32_t window : {0x4000U, 0x5000U}) {
    unlock(node, window);
    node.store16(window + 0xAAA, 0xA0);
  }
  node.store16(0x4010, 0x1111);
  node.store16(0x5010, 0x2222);
  EXPECT_EQ(node.load16(0x4010), 0x1111);
  EXPECT_EQ(node.load16(0x5010), 0x2222);
  EXPECT_EQ(chassis.deviations().total(), 0U);
}

TEST(sim_trace, shows_every_access_in_order_with_its_value) {
  sim::chassis chassis;
  sim::cpld& node = chassis.node_of(3);
  node.load16(0x4000);
  node.start_trace();
  node.load32(run_state);
  program(node, 0x4000, 0x2010, 0xCAFE);
  node.load32(status);
  node.load16(0x4010);
  node.load16(0x4001);
  const std::vector<sim::traced_access> expected = {
      sim::read32(run_state, 0),    sim::write32(page, 0),      sim::write16(0x4AAA, 0xAA),
      sim::write16(0x4554, 0x55),   sim::write16(0x4AAA, 0xA0), sim::write32(page, 2),
      sim::write16(0x4010, 0xCAFE), sim::read32(status, 0xE),   sim::read16(0x4010, 0xCAFE),
      sim::read16(0x4001, 0xFFFF),
  };
  EXPECT_EQ(node.stop_trace(), expected);
  node.load16(0x4000);
  EXPECT_TRUE(node.stop_trace().empty());
}

TEST(sim_ready, each_cycle_keeps_the_bit_low_for_so_many_status_reads) {
  sim::chassis chassis;
  chassis.set_ready_low(4, 2);
  sim::cpld& node = chassis.node_of(4);
  for (const uint32_t expected : {0xAU, 0xAU, 0xEU, 0xEU}) {
    EXPECT_EQ(node.load32(status), expected);
  }
  node.store16(0x5AAA, 0xAA);
  for (const uint32_t expected : {0xAU, 0xAU, 0xEU}) {
    EXPECT_EQ(node.load32(status), expected);
  }
  EXPECT_EQ(chassis.deviations().total(), 0U);
}

TEST(sim_ready, accesses_before_the_bit_is_seen_again_are_deviations) {
  sim::chassis chassis;
  chassis.set_ready_low(4, 1);
  sim::cpld& node = chassis.node_of(4);
  node.store16(0x5AAA, 0xAA);
  node.store16(0x5554, 0x55);
  EXPECT_EQ(chassis.deviations().while_busy, 1U);
  node.store32(page, 0);
  EXPECT_EQ(chassis.deviations().while_busy, 2U);
  node.load32(status);
  node.load32(status);
  node.store32(page, 0);
  EXPECT_EQ(chassis.deviations().while_busy, 2U);
  node.store16(0x5AAA, 0xA0);
  node.load32(status);
  node.load32(status);
  node.store16(0x5000, 0x1234);
  EXPECT_EQ(node.load16(0x5000), 0x1234);
  EXPECT_EQ(chassis.deviations().while_busy, 3U);
  EXPECT_EQ(chassis.deviations().total(), 3U);
}

TEST(sim_ready, a_bit_that_never_rises_stays_low) {
  sim::chassis chassis;
  chassis.set_ready_never(5);
  for (int read = 0; read < 5000; ++read) {
    ASSERT_EQ(chassis.node_of(5).load32(status), 0x6U);
  }
  EXPECT_EQ(chassis.node_of(6).load32(status), 0xEU);
}

TEST(sim_ready, a_bit_that_sticks_after_some_cycles_rises_until_then) {
  sim::chassis chassis;
  chassis.set_ready_never(5, 2);
  sim::cpld& node = chassis.node_of(5);
  node.store16(0x6AAA, 0xAA);
  EXPECT_EQ(node.load32(status), 0xEU);
  node.store16(0x6AAA, 0xAA);
  for (int read = 0; read < 5000; ++read) {
    ASSERT_EQ(node.load32(status), 0x6U);
  }
  chassis.set_ready_low(5, 0);
  EXPECT_EQ(node.load32(status), 0xEU);
}
