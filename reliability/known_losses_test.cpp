// What the order of writes can cost, each on the smallest flash that has it, and what the quick and
// the full check make of it. docs/power-cuts.md tells these to operators.
#include <gtest/gtest.h>

#include <cstring>

#include "reliability/rig_fixture.h"
#include "tests/support/image_builder.h"

namespace {

using reliability::pattern;
using test_support::image_builder;

constexpr uint16_t fileid_keep = 2;
constexpr uint16_t fileid_file = 3;

// A flash with two files, unmounted, to be damaged and mounted in either way.
class known_losses : public reliability::rig_fixture {
 protected:
  known_losses() {
    rig_ = std::make_unique<reliability::rig>(
        test_support::ram_blocks(4, reliability::block_of_sectors(6)));
    rig_->mount(flashfs_check_full);
    rig_->make_file("keep", pattern(5000, 1));
    rig_->make_file("file", pattern(5000, 2));
    rig_->unmount();
    image_ = std::make_unique<image_builder>(rig_->device());
  }
  // The first sector with this owner and number, from a place on.
  flashfs_sector* sector(uint16_t fileid, uint16_t seq_no) {
    for (int b = 0; b < image_->block_count(); b++) {
      for (int s = 0; s < image_->sector_count(b); s++) {
        auto* found = reinterpret_cast<flashfs_sector*>(image_->sector_at(b, s));
        if (found->fileid == fileid && found->seq_no == seq_no) {
          return found;
        }
      }
    }
    return nullptr;
  }
  flashfs_sector* directory_sector() {
    return sector(fileid_root, 0xFFFF);
  }
  // The erased sector of a block in use that a check meets last; what stands in it comes first
  // among copies.
  flashfs_sector* erased_sector() {
    for (int b = image_->block_count() - 1; b >= 0; b--) {
      for (int s = image_->sector_count(b) - 1; s >= 0; s--) {
        auto* found = reinterpret_cast<flashfs_sector*>(image_->sector_at(b, s));
        if (blkheader_state(header(b)) == block_in_use && is_erased(found, sizeof(*found))) {
          return found;
        }
      }
    }
    return nullptr;
  }
  flashfs_dir_slot* available_slot() {
    for (flashfs_dir_slot& slot : directory_sector()->slots) {
      if (slot.dir_fileid == fileid_available) {
        return &slot;
      }
    }
    return nullptr;
  }
  flashfs_dir_slot* slot_of(uint16_t fileid) {
    for (flashfs_dir_slot& slot : directory_sector()->slots) {
      if (slot.dir_fileid == fileid_root && slot.entry_fileid == fileid) {
        return &slot;
      }
    }
    return nullptr;
  }
  flashfs_blkheader* header(int block) {
    return reinterpret_cast<flashfs_blkheader*>(image_->header_at(block));
  }
  // The block in use that holds the files; the last of them when there are several.
  int block_of(const flashfs_sector* found) {
    for (int b = 0; b < image_->block_count(); b++) {
      for (int s = 0; s < image_->sector_count(b); s++) {
        if (image_->sector_at(b, s) == reinterpret_cast<const uint8_t*>(found)) {
          return b;
        }
      }
    }
    return -1;
  }

  std::unique_ptr<image_builder> image_;
};

TEST_F(known_losses,
       a_slot_with_only_its_number_stops_the_quick_check_and_is_mended_by_the_full_one) {
  available_slot()->seq_no = 3;
  EXPECT_EQ(mount(flashfs_check_quick), -1);
  EXPECT_TRUE(printed("Inconsistency found in directory slot ")) << printed_;
  EXPECT_EQ(mount(flashfs_check_full), 0);
  EXPECT_TRUE(printed("bad available_slot.")) << printed_;
  EXPECT_EQ(content_of("file"), pattern(5000, 2));
}

TEST_F(known_losses, a_slot_without_its_entry_stops_the_quick_check_and_is_mended_by_the_full_one) {
  flashfs_dir_slot* slot = available_slot();
  slot->seq_no = 3;
  slot->dir_fileid = fileid_root;
  EXPECT_EQ(mount(flashfs_check_quick), -1);
  EXPECT_TRUE(printed("dir struct error[1].")) << printed_;
  EXPECT_EQ(mount(flashfs_check_full), 0);
  EXPECT_EQ(content_of("keep"), pattern(5000, 1));
}

TEST_F(known_losses, a_sector_without_its_number_costs_the_whole_file_under_the_quick_check) {
  erased_sector()->fileid = fileid_file;
  EXPECT_EQ(mount(flashfs_check_quick), 0);
  EXPECT_TRUE(printed("inconsistent sector list, fileid 3, parent_fileid 0")) << printed_;
  EXPECT_EQ(content_of("file"), "");
  EXPECT_EQ(content_of("keep"), pattern(5000, 1));
}

TEST_F(known_losses, a_sector_without_its_number_costs_nothing_under_the_full_check) {
  erased_sector()->fileid = fileid_file;
  EXPECT_EQ(mount(flashfs_check_full), 0);
  EXPECT_TRUE(printed("checksum (0x")) << printed_;
  EXPECT_EQ(content_of("file"), pattern(5000, 2));
}

TEST_F(known_losses, the_incomplete_copy_of_a_sector_wins_under_the_quick_check_only) {
  flashfs_sector* copy = erased_sector();
  memcpy(copy, sector(fileid_file, 1), sizeof(flashfs_sector));
  copy->checksum = 0xFFFF;
  const std::vector<uint8_t> cut = rig_->snapshot();
  EXPECT_EQ(mount(flashfs_check_quick), 0);
  EXPECT_EQ(content_of("file"), "<errno 5>");
  rig_->unmount();
  rig_->restore(cut);
  EXPECT_EQ(mount(flashfs_check_full), 0);
  EXPECT_EQ(content_of("file"), pattern(5000, 2));
}

TEST_F(known_losses,
       a_torn_invalidation_can_cost_another_file_a_sector_under_the_quick_check_only) {
  // 3 on its way to 0 reads as 2, the id of the other file.
  flashfs_sector* copy = erased_sector();
  memcpy(copy, sector(fileid_file, 1), sizeof(flashfs_sector));
  copy->fileid = fileid_keep;
  const std::vector<uint8_t> cut = rig_->snapshot();
  EXPECT_EQ(mount(flashfs_check_quick), 0);
  EXPECT_NE(content_of("keep"), pattern(5000, 1));
  rig_->unmount();
  rig_->restore(cut);
  EXPECT_EQ(mount(flashfs_check_full), 0);
  EXPECT_EQ(content_of("keep"), pattern(5000, 1));
  EXPECT_EQ(content_of("file"), pattern(5000, 2));
}

TEST_F(known_losses, a_torn_invalidation_that_is_nobodys_comes_back_under_lost_and_found) {
  // Of sector 0, so that it is the whole of a file.
  flashfs_sector* copy = erased_sector();
  memcpy(copy, sector(fileid_file, 0), sizeof(flashfs_sector));
  copy->fileid = 9;
  const std::vector<uint8_t> cut = rig_->snapshot();
  EXPECT_EQ(mount(flashfs_check_quick), 0);
  EXPECT_EQ(content_of("lost+found/00009"), "<errno 5>");  // its checksum was of the other owner
  EXPECT_EQ(content_of("file"), pattern(5000, 2));
  rig_->unmount();
  rig_->restore(cut);
  EXPECT_EQ(mount(flashfs_check_full), 0);
  EXPECT_TRUE(printed("checksum (0x")) << printed_;
  EXPECT_EQ(content_of("lost+found"), "<absent>");
}

TEST_F(known_losses, a_committed_spare_with_all_other_blocks_in_use_leaves_no_spare) {
  for (int b = 0; b < image_->block_count(); b++) {
    blkheader_set_state(header(b), header(b)->state == 0xFF ? block_committed : block_in_use);
  }
  for (const uint32_t flags : {flashfs_check_quick, flashfs_check_full}) {
    EXPECT_EQ(mount(flags), -1);
    EXPECT_TRUE(printed("unable to allocate available block.")) << printed_;
  }
}

TEST_F(known_losses, a_half_programmed_state_costs_the_block) {
  const int live = block_of(sector(fileid_file, 1));
  header(live)->state = 0xF1;
  const std::vector<uint8_t> cut = rig_->snapshot();
  for (const uint32_t flags : {flashfs_check_quick, flashfs_check_full}) {
    rig_->unmount();
    rig_->restore(cut);
    EXPECT_EQ(mount(flags), 0);
    EXPECT_TRUE(printed(" with status invalid2[0x1]")) << printed_;
    EXPECT_NE(content_of("file"), pattern(5000, 2));
  }
}

TEST_F(known_losses, a_damaged_header_costs_the_block) {
  const int live = block_of(sector(fileid_file, 1));
  header(live)->checksum = 0;
  const std::vector<uint8_t> cut = rig_->snapshot();
  for (const uint32_t flags : {flashfs_check_quick, flashfs_check_full}) {
    rig_->unmount();
    rig_->restore(cut);
    EXPECT_EQ(mount(flags), 0);
    EXPECT_TRUE(printed("bad checksum (58096 != ")) << printed_;
    EXPECT_NE(content_of("file"), pattern(5000, 2));
  }
}

TEST_F(known_losses, sectors_without_a_name_come_back_under_lost_and_found) {
  slot_of(fileid_file)->dir_fileid = 0;
  EXPECT_EQ(mount(flashfs_check_quick), 0);
  EXPECT_TRUE(printed("relinked orphaned file into the fs as \"/lost+found/00003\".")) << printed_;
  EXPECT_EQ(content_of("lost+found/00003"), pattern(5000, 2));
}

TEST_F(known_losses, the_number_of_a_second_name_is_handed_out_again_and_costs_a_name) {
  // A second name of "keep" with the next number of the root.
  flashfs_dir_slot* second = available_slot();
  *second = *slot_of(fileid_keep);
  second->seq_no = 3;
  memset(second->name, 0, sizeof(second->name));
  strcpy(second->name, "second");
  dir_slot_set_checksum(second);
  ASSERT_EQ(mount(flashfs_check_quick), 0);
  EXPECT_EQ(content_of("second"), "<absent>");
  ASSERT_EQ(rig_->make_file("new", pattern(100, 5)), 0);
  EXPECT_EQ(content_of("new"), pattern(100, 5));
  // Two slots of number 3 stand on flash now; one of the two names goes.
  ASSERT_EQ(mount(flashfs_check_full), 0);
  EXPECT_EQ((content_of("new") == "<absent>") + (content_of("second") == "<absent>"), 1);
}

}  // namespace
