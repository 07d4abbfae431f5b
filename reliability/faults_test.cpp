// A sample of the failing driver calls of every operation; the program `reliability` tries all.
#include "reliability/faults.h"

#include <gtest/gtest.h>

#include "reliability/expectation.h"
#include "reliability/sample_of_tests.h"
#include "sim/chassis.h"

namespace {

TEST(failing_flash, is_reported_keeps_no_buffer_and_leaves_what_the_next_mount_takes) {
  sim::chassis chassis;
  chassis.clock_hold(1800000000);
  sim::install_chassis(&chassis);
  for (const reliability::fault_operation& each : reliability::fault_operations()) {
    const reliability::tried found = reliability::try_sample(each, reliability::sample_of_tests);
    for (const std::string& defect : found.defects) {
      ADD_FAILURE() << defect;
    }
    EXPECT_EQ(reliability::difference_of_rows(
                  reliability::stored_rows(reliability::sample_of_tests, each.what.name, true),
                  found.rows),
              "")
        << "scripts/reliability --rewrite writes what is found";
  }
  sim::install_chassis(nullptr);
}

}  // namespace
