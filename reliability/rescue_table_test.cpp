// What the rescue promises, on a sample of the states that power cuts leave: the whole table is
// made by `reliability rescue all`.
#include "reliability/rescue_table.h"

#include <gtest/gtest.h>

#include "reliability/rescue_run.h"
#include "sim/chassis.h"

namespace {

using reliability::left_by;
using reliability::recovery;
using reliability::touched_state;

class rescue_table : public testing::Test {
 protected:
  rescue_table() {
    sim::install_chassis(&chassis_);
    for (const reliability::operation& each : reliability::rescue_operations()) {
      for (const auto& [kinds, counts] : reliability::try_rescue(
               each, *reliability::find_rescue_sample("suite"),
               [this](int64_t seconds) { chassis_.clock_hold(seconds); },
               [this](const std::string& told) { told_ += told + "\n"; })) {
        rows_[kinds].add(counts);
      }
    }
  }
  ~rescue_table() override {
    sim::install_chassis(nullptr);
  }

  static uint64_t whole(const reliability::rescue_counts& counts) {
    uint64_t states = 0;
    for (const touched_state kind :
         {touched_state::old, touched_state::as_new, touched_state::between}) {
      const auto found = counts.touched.find(kind);
      states += found == counts.touched.end() ? 0 : found->second;
    }
    return states;
  }

  sim::chassis chassis_;
  reliability::rescue_rows rows_;
  std::string told_;
};

TEST_F(rescue_table, nothing_untouched_is_lost_and_little_is_torn) {
  for (const left_by kind : {left_by::first_cut, left_by::cut_after_erase, left_by::cut_quick_check,
                             left_by::cut_full_check, left_by::cut_rescue}) {
    SCOPED_TRACE(left_by_name(kind));
    const reliability::rescue_counts& counts = rows_[{kind, recovery::rescue}];
    EXPECT_LT(0U, counts.states);
    EXPECT_EQ(0U, counts.refused) << told_;
    EXPECT_EQ(0U, counts.not_silent) << told_;
    if (kind == left_by::cut_quick_check || kind == left_by::cut_full_check) {
      continue;  // what the check has destroyed does not come back
    }
    EXPECT_EQ(0U, counts.untouched_lost) << told_;
    EXPECT_EQ(0U, counts.unexpected_names) << told_;
    if (kind != left_by::cut_rescue) {
      EXPECT_LE(counts.states * 985, whole(counts) * 1000) << told_;
    }
  }
}

}  // namespace
