// A sample of the power cuts of every operation, evenly spread, and what it leaves, exactly; the
// program `reliability` tries all of them.
#include "reliability/power_cuts.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "reliability/expectation.h"
#include "reliability/sample_of_tests.h"
#include "sim/chassis.h"

namespace {

constexpr int64_t standing_clock = 1800000000;

class power_cuts : public testing::TestWithParam<size_t> {};

TEST_P(power_cuts, leave_what_they_are_known_to_leave_and_nothing_without_a_cause) {
  sim::chassis chassis;
  chassis.clock_hold(standing_clock);
  sim::install_chassis(&chassis);
  const reliability::operation operation = reliability::power_cut_operations().at(GetParam());
  const reliability::tried found = reliability::try_sample(operation, reliability::sample_of_tests);
  for (const std::string& defect : found.defects) {
    ADD_FAILURE() << defect;
  }
  EXPECT_EQ(reliability::difference_of_rows(
                reliability::stored_rows(reliability::sample_of_tests, operation.name, false),
                found.rows),
            "")
      << "scripts/reliability --rewrite writes what is found";
  sim::install_chassis(nullptr);
}

std::string name_of(const testing::TestParamInfo<size_t>& info) {
  std::string name = reliability::power_cut_operations().at(info.param).name;
  std::replace_if(
      name.begin(), name.end(), [](unsigned char c) { return isalnum(c) == 0; }, '_');
  return name;
}

INSTANTIATE_TEST_SUITE_P(operations, power_cuts,
                         testing::Range<size_t>(0, reliability::power_cut_operations().size()),
                         name_of);

}  // namespace
