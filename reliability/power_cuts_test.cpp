// A sample of the power cuts of every operation, evenly spread; the program `reliability` tries all
// of them.
#include "reliability/power_cuts.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "sim/chassis.h"

namespace {

constexpr int64_t standing_clock = 1800000000;
// Cuts tried in an operation; an emulated run is many times slower.
#ifdef ZANTROLUME_EMULATOR
constexpr uint64_t cuts_in_sample = 12;
constexpr uint64_t second_stride = 197;
#else
constexpr uint64_t cuts_in_sample = 150;
constexpr uint64_t second_stride = 11;
#endif

class power_cuts : public testing::TestWithParam<size_t> {};

TEST_P(power_cuts, leave_nothing_that_the_order_of_writes_does_not_explain) {
  sim::chassis chassis;
  chassis.clock_hold(standing_clock);
  sim::install_chassis(&chassis);
  const reliability::operation operation = reliability::power_cut_operations().at(GetParam());
  const uint64_t mutations = reliability::count_mutations(operation);
  const uint64_t stride = std::max<uint64_t>(1, mutations / cuts_in_sample);
  const reliability::cut_counts counts =
      reliability::try_power_cuts(operation, stride, second_stride);
  EXPECT_EQ(counts.unexplained, 0U) << operation.name;
  for (const std::string& sample : counts.unexplained_samples) {
    ADD_FAILURE() << sample;
  }
  EXPECT_EQ(counts.mutations, mutations);
  EXPECT_GE(counts.cuts, std::min<uint64_t>(mutations, cuts_in_sample));
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
