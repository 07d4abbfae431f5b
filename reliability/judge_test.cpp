// The judge of power cuts: what it makes of trees and flashes that are known to be good or broken.
#include "reliability/judge.h"

#include <gtest/gtest.h>

#include "flashfs/format.h"
#include "reliability/expectation.h"
#include "reliability/left_flash.h"
#include "reliability/power_cuts.h"
#include "reliability/rig_fixture.h"
#include "reliability/use.h"
#include "tests/support/image_builder.h"

namespace {

using reliability::outcome;
using reliability::pattern;
using reliability::tree;

constexpr uint16_t mode_of_file = 0x8600;
constexpr uint32_t date = 1800000000;
constexpr uint16_t fileid_of_b = 3;

class a_removed_file : public testing::Test {
 protected:
  a_removed_file() {
    removal_.touched = {"file"};
  }
  std::set<outcome> judged(const tree& now) const {
    return reliability::judge_tree(removal_, now, {{{"file", whole_}}, {}});
  }

  reliability::operation removal_;
  const reliability::tree_node whole_ = {mode_of_file, date, pattern(5000, 1)};
};

TEST_F(a_removed_file, may_be_there_and_may_be_gone) {
  EXPECT_EQ(judged({{"file", whole_}}), std::set<outcome>{});
  EXPECT_EQ(judged({}), std::set<outcome>{});
}

TEST_F(a_removed_file, may_not_lose_its_content_before_its_name) {
  EXPECT_EQ(judged({{"file", {mode_of_file, date, ""}}}), std::set{outcome::touched_dropped});
}

TEST_F(a_removed_file, may_not_be_there_in_part) {
  EXPECT_EQ(judged({{"file", {mode_of_file, date, pattern(5000, 1).substr(0, 4096)}}}),
            std::set{outcome::touched_torn});
}

TEST(rows, that_are_the_same_do_not_differ) {
  EXPECT_EQ(reliability::difference_of_rows({"a | 1", "b | 2"}, {"a | 1", "b | 2"}), "");
}

TEST(rows, that_are_gone_new_or_different_are_told) {
  EXPECT_EQ(
      reliability::difference_of_rows({"a | 1", "b | 2", "c | 3"}, {"a | 1", "b | 4", "d | 5"}),
      "- b | 2\n- c | 3\n+ b | 4\n+ d | 5\n");
}

TEST(rows, that_are_long_are_shown_where_they_differ) {
  const std::string row = "create | at " + std::string(300, '1');
  EXPECT_EQ(reliability::difference_of_rows({row + "2"}, {row + "3"}),
            "- create | at " + std::string(88, '1') + " ... " + std::string(20, '1') + "2\n" +
                "+ create | at " + std::string(88, '1') + " ... " + std::string(20, '1') + "3\n");
}

// Six blocks, of which one is the spare and some were never used, with three files.
class a_flash_in_use : public reliability::rig_fixture {
 protected:
  a_flash_in_use() {
    rig_ = std::make_unique<reliability::rig>(
        test_support::ram_blocks(6, reliability::block_of_sectors(6)));
    rig_->restore({});
    mount(flashfs_check_quick);
    rig_->make_file("a", pattern(3000, 1));
    rig_->make_file("b", pattern(3000, 2));
    rig_->make_file("c", pattern(3000, 3));
  }
};

TEST_F(a_flash_in_use, is_sound_and_stays_as_it_was) {
  const std::vector<uint8_t> contents = rig_->snapshot();
  const reliability::use_result used = reliability::use_flash(*rig_);
  EXPECT_TRUE(used.is_sound()) << used.story;
  EXPECT_TRUE(used.reclaimed);
  EXPECT_FALSE(used.short_of_room);
  EXPECT_EQ(rig_->snapshot(), contents);
}

// The quick check does not look at data; the full one that comes after it drops the file.
TEST_F(a_flash_in_use, is_not_sound_when_the_checks_do_not_agree_on_it) {
  rig_->unmount();
  test_support::image_builder image(rig_->device());
  for (int b = 0; b < image.block_count(); b++) {
    for (int s = 0; s < image.sector_count(b); s++) {
      if (reinterpret_cast<const flashfs_sector*>(image.sector_at(b, s))->fileid == fileid_of_b) {
        image.sector_at(b, s)[1000] ^= 1;
      }
    }
  }
  ASSERT_EQ(mount(flashfs_check_quick), 0);
  const reliability::use_result used = reliability::use_flash(*rig_);
  EXPECT_TRUE(used.differs);
  EXPECT_NE(used.story.find("  full check:\n    b has mode "), std::string::npos) << used.story;
}

TEST_F(a_flash_in_use, means_the_same_whatever_obsolete_sectors_hold_and_nothing_else) {
  rig_->write("a", "XY", ifs_open_write, 0);
  rig_->unmount();
  const uint64_t meaning = reliability::meaning_of(rig_->device());
  test_support::image_builder image(rig_->device());
  int obsolete = 0;
  for (int b = 0; b < image.block_count(); b++) {
    for (int s = 0; s < image.sector_count(b); s++) {
      uint8_t* sector = image.sector_at(b, s);
      const bool is_obsolete = sector[0] == 0 && sector[1] == 0;
      obsolete += is_obsolete ? 1 : 0;
      sector[500] ^= 1;
      EXPECT_EQ(reliability::meaning_of(rig_->device()) == meaning, is_obsolete);
      sector[500] ^= 1;
    }
  }
  EXPECT_EQ(obsolete, 1);
  EXPECT_EQ(reliability::meaning_of(rig_->device()), meaning);
}

TEST_F(a_flash_in_use, has_files_that_stand_whole_until_a_byte_of_them_is_gone) {
  rig_->unmount();
  EXPECT_TRUE(reliability::stands_whole(rig_->device(), "a", pattern(3000, 1)));
  EXPECT_FALSE(reliability::stands_whole(rig_->device(), "a", pattern(3000, 2)));
  EXPECT_FALSE(reliability::stands_whole(rig_->device(), "d", ""));
}

TEST(a_reclamation, is_without_a_spare_only_while_its_copy_is_whole) {
  test_support::ram_flash device(test_support::ram_blocks(3, reliability::block_of_sectors(4)));
  test_support::image_builder image(device);
  for (int b = 0; b < 3; b++) {
    image.header(b, {.state = static_cast<uint8_t>(b == 2 ? 0x3 : 0x0)});
  }
  image.data_sector(0, 1, 5, 0, "one");
  image.data_sector(0, 2, 5, 1, "two");
  EXPECT_FALSE(reliability::has_only_committed_copy(device));
  image.data_sector(2, 1, 5, 0, "one");
  EXPECT_FALSE(reliability::has_only_committed_copy(device));
  image.data_sector(2, 2, 5, 1, "two");
  EXPECT_TRUE(reliability::has_only_committed_copy(device));
  image.header(1, {.state = 0xF});
  EXPECT_FALSE(reliability::has_only_committed_copy(device));
}

}  // namespace
