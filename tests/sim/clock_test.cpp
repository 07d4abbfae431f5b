// The clock of the simulated chassis.
#include "sim/clock.h"

#include <gtest/gtest.h>

#include <ctime>
#include <initializer_list>
#include <memory>

#include "sim/chassis.h"
#include "sim/cpld.h"
#include "tests/sim/command_cycles.h"

using sim_test::page;
using sim_test::status;

TEST(sim_clock, real_held_and_stepped) {
  sim::chassis chassis;
  const int64_t now = std::time(nullptr);
  EXPECT_GE(chassis.clock(), now);
  EXPECT_LE(chassis.clock(), now + 60);
  chassis.clock_hold(1800000000);
  for (int read = 0; read < 5000; ++read) {
    chassis.node_of(3).load32(status);
    ASSERT_EQ(chassis.clock(), 1800000000);
  }
  chassis.clock_step(50, 3);
  for (const int64_t expected : {50, 50, 50, 51, 51, 51, 52}) {
    EXPECT_EQ(chassis.clock(), expected);
  }
  chassis.clock_step(50, 2);
  chassis.node_of(3).load32(status);
  chassis.node_of(3).load32(status);
  EXPECT_EQ(chassis.clock(), 51);
}

TEST(sim_clock, held_moves_only_for_a_long_wait_in_vain) {
  sim::chassis chassis;
  chassis.clock_hold(70);
  chassis.set_ready_never(4);
  sim::cpld& node = chassis.node_of(4);
  for (int read = 0; read < 999; ++read) {
    node.load32(status);
  }
  node.store32(page, 0);
  for (int read = 0; read < 999; ++read) {
    node.load32(status);
  }
  EXPECT_EQ(chassis.clock(), 70);
  node.load32(status);
  EXPECT_EQ(chassis.clock(), 71);
}
