// The small devices on which sectors and slots are handed out.
#pragma once

#include "flashfs/available.h"
#include "tests/flashfs/flashfs_recipe.h"

namespace test_support {

// Three blocks of four sectors, the last one the spare. Block 0 begins with the directory sector of
// the root; all else is erased.
class small_device : public recipe_fixture {
 protected:
  void make() {
    make_root(3);
  }
  void make_and_mount() {
    make();
    ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  }
  // Leaves so many entries on the list of available sectors; the flash keeps the others erased.
  void keep_sectors(uint32_t count) {
    while (fs()->num_available_sectors > count) {
      available_sector_take(fs());
    }
  }
  void keep_slots(uint32_t count) {
    uint8_t slot_no = 0;
    while (fs()->num_available_slots > count) {
      available_slot_take(fs(), &slot_no);
    }
  }
  // Block 0: the root's sector and file 2 ("f"), block 1: the rest of the file, two of its sectors
  // replaced by invalidated ones. Nothing is available but what reclamation gives.
  void make_full_with_two_invalid_sectors() {
    make();
    names({"1:0.0/1 2<1 f"});
    data(2, "0.1 0.2 0.3 1.0 1.1");
    invalidate("1.2 1.3");
    ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
    ASSERT_EQ(fs()->available_sectors, nullptr);
  }
  // As above without anything to reclaim, and one available sector, 1.3.
  void make_full_but_one() {
    make();
    names({"1:0.0/1 2<1 f"});
    data(2, "0.1 0.2 0.3 1.0 1.1 1.2");
    ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
    ASSERT_EQ(sectors_text(fs()), "1.3");
    keep_slots(0);
  }
};

}  // namespace test_support
