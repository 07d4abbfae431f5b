// The power and the window of the simulated chassis.
#include "sim/chassis.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "tests/sim/command_cycles.h"
#include "window/clock.h"
#include "window/window.h"

using sim_test::erase;
using sim_test::page;
using sim_test::program;
using sim_test::run_state;
using sim_test::status;
using sim_test::unlock;

TEST(sim_power_cut, a_dead_chassis_reads_as_ones_and_its_clock_runs) {
  sim::chassis chassis;
  chassis.clock_hold(1000);
  chassis.set_ready_never(5);
  sim::cpld& node = chassis.node_of(3);
  program(node, 0x4000, 0x20, 0x1111);
  EXPECT_EQ(node.load16(0x4020), 0x1111);
  chassis.supply().cut_at(1, sim::cut_kind::before);
  program(node, 0x4000, 0x20, 0x0000);
  EXPECT_TRUE(chassis.supply().dead());
  EXPECT_EQ(node.load16(0x4020), 0xFFFF);
  EXPECT_EQ(node.load32(status), 0xFFFFFFFF);
  EXPECT_EQ(node.load32(run_state), 0xFFFFFFFF);
  EXPECT_EQ(chassis.clock(), 1000);
  EXPECT_EQ(chassis.clock(), 1001);
  erase(node, 0x4000, 0);
  chassis.power_on();
  EXPECT_EQ(node.load16(0x4020), 0x1111);
  EXPECT_EQ(chassis.deviations().total(), 0U);
}

TEST(sim_power_cut, the_real_clock_of_a_dead_chassis_runs_too) {
  sim::chassis chassis;
  chassis.supply().cut_at(1, sim::cut_kind::before);
  program(chassis.node_of(3), 0x4000, 0, 0);
  const int64_t first = chassis.clock();
  EXPECT_EQ(chassis.clock(), first + 1);
}

TEST(sim_power_cut, power_on_forgets_a_begun_sequence) {
  sim::chassis chassis;
  sim::cpld& node = chassis.node_of(3);
  node.store32(page, 0);
  unlock(node, 0x4000);
  node.store32(page, 9);
  chassis.power_on();
  EXPECT_EQ(node.page(), 0U);
  program(node, 0x4000, 0x20, 0x1111);
  EXPECT_EQ(chassis.deviations().total(), 0U);
}

class sim_window : public testing::Test {
 protected:
  sim_window() {
    sim::install_chassis(&chassis_);
  }
  sim::chassis chassis_;
};

TEST_F(sim_window, nodes_open_and_map_at_their_offsets) {
  const int first = window_open("/dev/vexmor1");
  const int second = window_open("/dev/vexmor2");
  ASSERT_GT(first, 0);
  ASSERT_GT(second, first);
  const window_base base = window_map(first, 32768, 0x10150000);
  EXPECT_EQ(base, chassis_.window_of(5));
  EXPECT_EQ(window_map(second, 32768, 0x10170000), chassis_.window_of(6));
  EXPECT_EQ(chassis_.mapped(), 2);
  EXPECT_EQ(window_unmap(base, 32768), 0);
  EXPECT_EQ(chassis_.mapped(), 1);
  EXPECT_EQ(chassis_.opens(), 2);
}

TEST_F(sim_window, wrong_calls_fail_with_errno) {
  const auto failed = reinterpret_cast<window_base>(UINTPTR_MAX);
  EXPECT_EQ(window_open("/dev/vexmor3"), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(window_map(3, 32768, 0x10150000), failed);
  EXPECT_EQ(errno, EBADF);
  const int fd = window_open("/dev/vexmor1");
  EXPECT_EQ(window_map(fd, 32768, 0x10170000), failed);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(window_map(fd, 4096, 0x10150000), failed);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(window_unmap(chassis_.window_of(3), 32768), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(sim_window, open_and_map_fail_when_told_to) {
  chassis_.fail_open(EACCES);
  EXPECT_EQ(window_open("/dev/vexmor1"), -1);
  EXPECT_EQ(errno, EACCES);
  chassis_.fail_open(0);
  chassis_.fail_map(ENOMEM);
  const int fd = window_open("/dev/vexmor1");
  EXPECT_EQ(window_map(fd, 32768, 0x10150000), reinterpret_cast<window_base>(UINTPTR_MAX));
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(chassis_.mapped(), 0);
}

TEST_F(sim_window, loads_and_stores_reach_the_node) {
  const window_base base = chassis_.window_of(7);
  chassis_.clock_hold(5);
  window_store32(base, page, 3);
  window_load16(base, 0x5000);
  window_store16(base, 0x5000, 1);
  EXPECT_EQ(window_load32(base, status), 0xEU);
  EXPECT_EQ(window_clock(), 5);
  EXPECT_EQ(chassis_.node_of(7).page(), 3U);
  EXPECT_EQ(chassis_.counts().words_read, 1U);
  EXPECT_EQ(chassis_.deviations().out_of_order, 1U);
}
