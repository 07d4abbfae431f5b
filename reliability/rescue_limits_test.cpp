// What no rescue can tell: two histories that leave the same flash to the byte, of which one wants
// back what the other has rightly replaced.
#include <gtest/gtest.h>

#include <algorithm>

#include "flashfs/check_flags.h"
#include "reliability/power_cuts.h"
#include "reliability/rescue_run.h"
#include "reliability/rig_fixture.h"

namespace {

using reliability::operation;
using reliability::pattern;
using reliability::rig;

constexpr uint64_t date_mutations = 31;  // a slot is written anew, and the old one deleted

class rescue_limits : public testing::Test {
 protected:
  rescue_limits() {
    chassis_.clock_hold(1800000000);
    sim::install_chassis(&chassis_);
  }
  ~rescue_limits() override {
    sim::install_chassis(nullptr);
  }

  static operation named(const std::string& name) {
    const std::vector<operation> all = reliability::further_rescue_operations();
    return *std::find_if(all.begin(), all.end(),
                         [&](const operation& each) { return each.name == name; });
  }
  static std::vector<uint8_t> cut_before(const operation& what, uint64_t mutation) {
    return reliability::left_by_power_cut(what, {mutation, sim::cut_kind::before});
  }

  sim::chassis chassis_;
};

// The first sector of three that are to be overwritten, or the only one that was.
TEST_F(rescue_limits, overwrite_cut_between_two_sectors_equals_a_shorter_one_before_its_date) {
  const operation longer = named("overwrite three sectors");
  operation shorter = longer;
  shorter.act = [](rig& flash) {
    return flash.write("file", pattern(5000, 77).substr(0, 2048), ifs_open_write);
  };
  const uint64_t before_date = reliability::count_mutations(shorter) - date_mutations + 1;
  EXPECT_TRUE(cut_before(longer, before_date) == cut_before(shorter, before_date));
}

// The first of three sectors of a file that is written anew, or all that it held when two were to
// be appended.
TEST_F(rescue_limits, file_written_anew_equals_a_shorter_one_that_is_appended_to) {
  const operation anew = named("write anew");
  operation first = anew;
  first.act = [](rig& flash) {
    return flash.write("file", pattern(5000, 77).substr(0, 2048),
                       ifs_open_write | ifs_open_truncate);
  };
  const uint64_t before_date = reliability::count_mutations(first) - date_mutations + 1;
  rig flash(first.blocks);
  flash.restore(cut_before(first, before_date));
  ASSERT_EQ(0, flash.mount(flashfs_check_full));
  flash.supply().restore();
  constexpr uint64_t claims = 3;  // two, and between them a block comes into service
  flash.supply().cut_at(claims + 1, sim::cut_kind::before);
  flash.write("file", pattern(5000, 77).substr(2048), ifs_open_write | ifs_open_append);
  flash.supply().restore();
  flash.unmount();
  EXPECT_TRUE(cut_before(anew, before_date + claims) == flash.snapshot());
}

// A file that the quick check gave up for the claim of an append, or one that is open, was emptied
// and is written anew.
TEST_F(rescue_limits, file_that_a_check_has_dropped_equals_an_emptied_one) {
  constexpr uint64_t old_sectors = 3;
  operation emptied = named("write anew");
  emptied.act = [](rig& flash) {
    volume::file opened = flash.files().open("file", ifs_open_write);
    const int32_t error = opened.truncate(0);
    return opened.close(error != 0 ? error : opened.write(pattern(5000, 77)));
  };
  operation appended = emptied;
  appended.act = [](rig& flash) {
    return flash.write("file", pattern(5000, 77), ifs_open_write | ifs_open_append);
  };
  constexpr uint64_t first_claim = 1;
  rig flash(appended.blocks);
  flash.restore(cut_before(appended, first_claim + 1));
  flash.supply().restore();
  flash.supply().cut_at(old_sectors + 1, sim::cut_kind::before);
  flash.mount(flashfs_check_quick);
  flash.supply().restore();
  flash.unmount();
  EXPECT_TRUE(cut_before(emptied, old_sectors + first_claim + 1) == flash.snapshot());
}

}  // namespace
