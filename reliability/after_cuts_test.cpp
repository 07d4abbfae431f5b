// What each kind of exception looks like to an operator: the power is cut where it shows, then
// either check runs. docs/power-cuts.md tells these.
#include <gtest/gtest.h>

#include <algorithm>

#include "reliability/power_cuts.h"
#include "reliability/rig_fixture.h"

namespace {

using reliability::operation;
using reliability::pattern;
using reliability::planned_cut;
using sim::cut_kind;

class after_a_cut : public reliability::rig_fixture {
 protected:
  // Cuts the power at a mutation of an operation.
  void cut(const char* name, planned_cut planned) {
    const auto operations = reliability::power_cut_operations();
    const auto what = std::find_if(operations.begin(), operations.end(),
                                   [&](const operation& each) { return each.name == name; });
    ASSERT_NE(what, operations.end()) << name;
    rig_.reset();
    left_ = reliability::left_by_power_cut(*what, planned);
    rig_ = std::make_unique<reliability::rig>(what->blocks);
    rig_->restore(left_);
  }
  // Cuts it at a mutation of a check of what was left.
  void cut_check(uint32_t flags, planned_cut planned) {
    rig_->register_only();
    rig_->supply().restore();
    rig_->supply().cut_at(planned.mutation, planned.kind, planned.mutation);
    rig_->check(flags);
    rig_->supply().restore();
    rig_->unmount();
    left_ = rig_->snapshot();
  }
  // Mounts what the cut left, whatever has been mounted since.
  int32_t mount_left(uint32_t flags) {
    rig_->unmount();
    rig_->restore(left_);
    return mount(flags);
  }
  // The content of all others than "file", which the operations change.
  void expect_others_whole() {
    EXPECT_EQ(content_of("keep"), pattern(5000, 1));
    EXPECT_EQ(content_of("d/inner"), pattern(3000, 3));
  }

  std::vector<uint8_t> left_;
};

TEST_F(after_a_cut, a_slot_with_its_number_alone_is_refused_by_the_quick_check_only) {
  cut("create", {2, cut_kind::before});
  EXPECT_EQ(mount_left(flashfs_check_quick), -1);
  EXPECT_TRUE(printed("Inconsistency found in directory slot 17 in sector 0 in block 4"));
  EXPECT_EQ(mount_left(flashfs_check_full), 0);
  EXPECT_TRUE(printed("bad available_slot.")) << printed_;
  expect_others_whole();
  EXPECT_EQ(content_of("new"), "<absent>");
}

TEST_F(after_a_cut, a_slot_without_its_entry_is_refused_by_the_quick_check_only) {
  cut("create", {3, cut_kind::before});
  EXPECT_EQ(mount_left(flashfs_check_quick), -1);
  EXPECT_TRUE(printed("dir struct error[1].")) << printed_;
  EXPECT_EQ(mount_left(flashfs_check_full), 0);
  EXPECT_TRUE(printed("Dir slot 17, sector 0, block 4, checksum (")) << printed_;
  expect_others_whole();
}

TEST_F(after_a_cut, half_a_name_is_believed_by_the_quick_check_only) {
  cut("create", {8, cut_kind::before});
  EXPECT_EQ(mount_left(flashfs_check_quick), 0);
  EXPECT_EQ(rig_->walk().count("new"), 0U);
  EXPECT_EQ(rig_->walk().size(), 6U);
  EXPECT_EQ(mount(flashfs_check_full), 0);
  EXPECT_EQ(rig_->walk().size(), 5U);
  expect_others_whole();
}

TEST_F(after_a_cut, half_a_slot_of_the_root_hides_everything_from_the_quick_check_only) {
  cut("repair: no slot of the root", {4, cut_kind::before});
  EXPECT_EQ(mount_left(flashfs_check_quick), 0);
  EXPECT_TRUE(rig_->walk().empty());
  EXPECT_EQ(mount(flashfs_check_full), 0);
  expect_others_whole();
}

// The check comes to directory 4 by itself and once more from the directory that names it, and
// takes the names in it for second ones.
TEST_F(after_a_cut, names_below_two_orphans_are_not_there_until_the_next_check) {
  cut("relink an orphan directory", {13, cut_kind::before});
  cut_check(flashfs_check_quick, {31, cut_kind::before});
  EXPECT_EQ(mount_left(flashfs_check_full), 0);
  EXPECT_EQ(content_of("lost+found/00007/00004/inner"), "<absent>");
  EXPECT_EQ(mount(flashfs_check_quick), 0);
  EXPECT_EQ(content_of("lost+found/00007/00004/inner"), pattern(3000, 3));
}

TEST_F(after_a_cut, a_torn_deletion_of_an_available_slot_is_refused_by_the_quick_check_only) {
  cut("repair: dirty available slot", {1, cut_kind::during});
  EXPECT_EQ(mount_left(flashfs_check_quick), -1);
  EXPECT_EQ(mount_left(flashfs_check_full), 0);
  expect_others_whole();
  EXPECT_EQ(content_of("file"), pattern(5000, 2));
}

TEST_F(after_a_cut, an_unfinished_sector_costs_the_file_under_the_quick_check_for_good) {
  cut("append", {100, cut_kind::before});
  EXPECT_EQ(mount_left(flashfs_check_quick), 0);
  EXPECT_TRUE(printed("inconsistent sector list, fileid 3, parent_fileid 0")) << printed_;
  EXPECT_EQ(content_of("file"), "");
  expect_others_whole();
  EXPECT_EQ(mount(flashfs_check_full), 0);
  EXPECT_EQ(content_of("file"), "");
}

TEST_F(after_a_cut, an_unfinished_sector_costs_nothing_when_the_full_check_comes_first) {
  cut("append", {100, cut_kind::before});
  EXPECT_EQ(mount_left(flashfs_check_full), 0);
  EXPECT_TRUE(printed("sector 4, block 5 checksum (0x37e5 != 0xe2f0)")) << printed_;
  EXPECT_EQ(content_of("file"), pattern(5000, 2));
  expect_others_whole();
}

TEST_F(after_a_cut, the_incomplete_copy_of_a_sector_wins_under_the_quick_check_for_good) {
  cut("overwrite in the middle", {1028, cut_kind::during});
  EXPECT_EQ(mount_left(flashfs_check_quick), 0);
  EXPECT_EQ(content_of("file"), "<errno 5>");
  EXPECT_EQ(mount(flashfs_check_full), 0);
  EXPECT_EQ(content_of("file"), "");
  EXPECT_EQ(mount_left(flashfs_check_full), 0);
  EXPECT_EQ(content_of("file"), pattern(5000, 2));
}

TEST_F(after_a_cut, data_whose_owner_reads_as_a_directory_are_taken_for_names_by_the_quick_check) {
  cut("truncate to nothing", {1, cut_kind::during});
  EXPECT_EQ(mount_left(flashfs_check_quick), 0);
  EXPECT_TRUE(printed("relinked orphaned directory into the fs as \"/lost+found/")) << printed_;
  EXPECT_EQ(mount_left(flashfs_check_full), 0);
  EXPECT_TRUE(printed("Dir slot 0, sector 4, block 4, checksum (")) << printed_;
  EXPECT_FALSE(printed("relinked"));
  expect_others_whole();
}

TEST_F(after_a_cut, sectors_whose_name_went_first_come_back_under_either_check) {
  cut("remove", {2, cut_kind::before});
  for (const uint32_t flags : {flashfs_check_quick, flashfs_check_full}) {
    EXPECT_EQ(mount_left(flags), 0);
    EXPECT_TRUE(printed("relinked orphaned file into the fs as \"/lost+found/00003\"."));
    EXPECT_EQ(content_of("lost+found/00003"), pattern(5000, 2));
    expect_others_whole();
  }
}

TEST_F(after_a_cut, a_cut_format_leaves_whole_files_under_lost_and_found_and_a_second_one_nothing) {
  cut("format", {3, cut_kind::before});
  for (const uint32_t flags : {flashfs_check_quick, flashfs_check_full}) {
    EXPECT_EQ(mount_left(flags), 0);
    EXPECT_EQ(content_of("lost+found/00005"), pattern(3000, 3));
    EXPECT_EQ(content_of("keep"), "<absent>");
  }
  EXPECT_EQ(rig_->files().format(), 0);
  EXPECT_TRUE(rig_->walk().empty());
}

TEST_F(after_a_cut, a_shortened_sector_before_others_stays_until_the_file_is_truncated_again) {
  cut("truncate to a length", {231, cut_kind::before});
  const std::string old = pattern(5000, 2);
  for (const uint32_t flags : {flashfs_check_quick, flashfs_check_full}) {
    ASSERT_EQ(mount_left(flags), 0);
    ppc_stat status;
    ASSERT_EQ(ifs_stat("bootflash:file", &status), 0);
    EXPECT_EQ(status.size, 5000U);
    const int32_t fd = ifs_open("bootflash:file", ifs_open_read, 0);
    std::string content(8192, '\0');
    content.resize(static_cast<size_t>(ifs_read(fd, content.data(), 8192)));
    ifs_close(fd);
    EXPECT_EQ(content, old.substr(0, 2500) + old.substr(4096));
    EXPECT_EQ(rig_->truncate("file", 2500), 0);
    EXPECT_EQ(content_of("file"), old.substr(0, 2500));
  }
}

TEST_F(after_a_cut, with_all_blocks_in_use_a_committed_spare_cannot_be_mounted) {
  for (const auto& [name, mutation] :
       {std::pair("reclaim a full-size block", 3087), std::pair("reclaim a smaller block", 4000)}) {
    cut(name, {static_cast<uint64_t>(mutation), cut_kind::before});
    for (const uint32_t flags : {flashfs_check_quick, flashfs_check_full}) {
      EXPECT_EQ(mount_left(flags), -1) << name;
      EXPECT_TRUE(printed(" from \"committed\" to \"in use\"."));
      EXPECT_TRUE(printed("unable to allocate available block.")) << printed_;
      EXPECT_EQ(mount(flags), -1) << name;
    }
  }
}

TEST_F(after_a_cut, without_a_spare_the_files_still_stand_on_the_raw_flash) {
  cut("reclaim a full-size block", {3087, cut_kind::before});
  EXPECT_EQ(mount_left(flashfs_check_quick), -1);
  const std::vector<uint8_t> contents = rig_->snapshot();
  const std::string part = pattern(5000, 1).substr(0, 2048);
  EXPECT_NE(
      std::search(contents.begin(), contents.end(), part.begin(), part.end(),
                  [](uint8_t byte, char wanted) { return byte == static_cast<uint8_t>(wanted); }),
      contents.end());
}

TEST_F(after_a_cut, a_half_programmed_state_costs_the_only_copy_under_either_check) {
  cut("reclaim a full-size block", {3094, cut_kind::during});
  for (const uint32_t flags : {flashfs_check_quick, flashfs_check_full}) {
    EXPECT_EQ(mount_left(flags), 0);
    EXPECT_TRUE(printed("erasing block 2 with status unknown[0x2]")) << printed_;
    EXPECT_EQ(content_of("odd"), "");
    expect_others_whole();
  }
}

// Both slots name one file that does not exist, so the second is a second name: its number is
// handed out again, to "/lost+found", which loses its name at the next check.
TEST_F(after_a_cut, two_half_written_slots_make_lost_and_found_nest_until_a_full_check) {
  cut("relink an orphan", {3, cut_kind::during});
  cut_check(flashfs_check_quick, {3, cut_kind::during});
  int mounts = 0;
  std::vector<uint8_t> before;
  do {
    before = rig_->snapshot();
    ASSERT_EQ(mount(flashfs_check_quick), 0);
    rig_->unmount();
    mounts++;
  } while (rig_->snapshot() != before && mounts < 20);
  EXPECT_EQ(mounts, 7);
  ASSERT_EQ(mount(flashfs_check_quick), 0);
  EXPECT_EQ(content_of("lost+found/00010/00009/00008/00007/00003"), pattern(5000, 2));

  ASSERT_EQ(mount_left(flashfs_check_full), 0);
  EXPECT_EQ(content_of("lost+found/00003"), pattern(5000, 2));
  rig_->unmount();
  before = rig_->snapshot();
  ASSERT_EQ(mount(flashfs_check_full), 0);
  rig_->unmount();
  EXPECT_EQ(rig_->snapshot(), before);
}

// One in 65,536 torn sectors passes its checksum.
TEST_F(after_a_cut, a_torn_sector_whose_checksum_holds_by_chance_is_believed_by_the_full_check) {
  cut("extend over a hole", {503, cut_kind::before});
  cut_check(flashfs_check_full, {2, cut_kind::during});
  ASSERT_EQ(mount_left(flashfs_check_full), 0);
  EXPECT_TRUE(printed("inconsistent sector list, fileid 2, parent_fileid 0")) << printed_;
  EXPECT_EQ(content_of("keep"), "");
  EXPECT_EQ(content_of("file"), pattern(5000, 2));
}

}  // namespace
