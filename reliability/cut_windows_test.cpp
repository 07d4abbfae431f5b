// The windows of docs/power-cuts.md: at which mutations of an operation a single cut shows what.
#include <gtest/gtest.h>

#include <algorithm>

#include "reliability/power_cuts.h"
#include "sim/chassis.h"

namespace {

using reliability::cause;
using reliability::outcome;

struct window {
  const char* operation;
  cause why;
  const char* mutations;
  std::set<outcome> quick;
  std::set<outcome> full;
};

// Operations of many mutations are left to the native run.
#ifdef ZANTROLUME_EMULATOR
constexpr uint64_t most_mutations = 40;
#else
constexpr uint64_t most_mutations = 8000;
#endif

const window windows[] = {
    {"create",
     cause::half_written_slot,
     "1-8, 31-32",
     {outcome::check_refuses, outcome::stray_name},
     {}},
    {"rename in place", cause::half_written_slot, "1-2", {outcome::check_refuses}, {}},
    {"chmod", cause::half_written_slot, "1-2", {outcome::check_refuses}, {}},
    {"move across directories",
     cause::half_written_slot,
     "1-3",
     {outcome::check_refuses, outcome::stray_name},
     {}},
    {"repair: dirty available slot", cause::torn_deletion, "1", {outcome::check_refuses}, {}},
    {"append", cause::half_claimed_sector, "2", {outcome::touched_dropped}, {}},
    {"append",
     cause::unfinished_sector,
     "2-1960",
     {outcome::touched_dropped, outcome::touched_torn},
     {}},
    {"overwrite in the middle",
     cause::unfinished_sector,
     "2-1028",
     {outcome::touched_dropped, outcome::touched_torn},
     {}},
    {"overwrite in the middle", cause::torn_invalidation, "1029", {outcome::other_changed}, {}},
    {"truncate to nothing", cause::torn_invalidation, "1-2", {outcome::other_changed}, {}},
    {"remove", cause::sectors_outlive_name, "2", {outcome::relinked}, {outcome::relinked}},
    {"format", cause::sectors_outlive_name, "1-8", {outcome::relinked}, {outcome::relinked}},
    {"truncate to a length",
     cause::shortened_first,
     "231-232",
     {outcome::touched_torn},
     {outcome::touched_torn}},
    {"reclaim a full-size block",
     cause::no_spare,
     "3087",
     {outcome::check_refuses},
     {outcome::check_refuses}},
    {"reclaim a smaller block",
     cause::no_spare,
     "3087-6180",
     {outcome::check_refuses},
     {outcome::check_refuses}},
};

std::set<outcome> keys_of(const std::map<outcome, uint64_t>& counts) {
  std::set<outcome> keys;
  for (const auto& [kind, count] : counts) {
    keys.insert(kind);
  }
  return keys;
}

class cut_windows : public testing::TestWithParam<window> {};

TEST_P(cut_windows, are_where_the_document_says) {
  const window& expected = GetParam();
  sim::chassis chassis;
  chassis.clock_hold(1800000000);
  sim::install_chassis(&chassis);
  for (const reliability::operation& each : reliability::power_cut_operations()) {
    if (each.name != expected.operation || reliability::count_mutations(each) > most_mutations) {
      continue;
    }
    const reliability::cut_counts counts =
        reliability::try_power_cuts(each, {.second_stride = 0, .used = reliability::uses::none});
    ASSERT_EQ(counts.causes.count(expected.why), 1U);
    const reliability::cause_counts& found = counts.causes.at(expected.why);
    EXPECT_EQ(reliability::ranges_text(found.window), expected.mutations);
    EXPECT_EQ(keys_of(found.quick), expected.quick);
    EXPECT_EQ(keys_of(found.full), expected.full);
    EXPECT_EQ(counts.unexplained, 0U);
  }
  sim::install_chassis(nullptr);
}

std::string name_of(const testing::TestParamInfo<window>& param) {
  std::string name =
      std::string(param.param.operation) + " " + reliability::cause_name(param.param.why);
  std::replace_if(
      name.begin(), name.end(), [](unsigned char c) { return isalnum(c) == 0; }, '_');
  return name;
}

INSTANTIATE_TEST_SUITE_P(causes, cut_windows, testing::ValuesIn(windows), name_of);

}  // namespace
