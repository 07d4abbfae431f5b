// What the tests of garbage collection share.
#pragma once

#include <string>

#include "flashfs/alloc.h"
#include "flashfs/available.h"
#include "tests/flashfs/flashfs_recipe.h"
#include "tests/support/output_capture.h"

namespace test_support {

inline const std::string inconsistency = "flashfs[0]: inconsistency during sector reclamation\n";

// A file system from which single sectors are allocated.
class collection_recipe : public recipe_fixture {
 protected:
  // Allocates one sector. Its address, or "none", after what was printed.
  std::string allocate(uint32_t use_reserve = 0) {
    flashfs_sctr_ptr pointer = {9, 9};
    int result = 0;
    const std::string output =
        output_of([&] { result = flashfs_alloc_sector(fs(), &pointer, use_reserve); });
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
    if (result != 0) {
      EXPECT_TRUE(result == alloc_without_space || result == alloc_failed) << result;
      EXPECT_EQ(pointer.block_num, -1);
      return output + "none";
    }
    return output + text_of(pointer);
  }
  std::string writes_of_allocation(uint32_t use_reserve = 0) {
    return writes_of(fs(), [&] { allocate(use_reserve); });
  }
  // Leaves nothing on the lists of what is available; the flash keeps what was on them erased.
  void take_all() {
    available_clear(fs());
  }
  void image_state(int block, uint8_t state) {
    image().header(block, {.state = state});
  }
};

}  // namespace test_support
