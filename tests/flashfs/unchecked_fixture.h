// A file system that is registered and not checked: nothing is in its lists, but the pool of list
// entries is there. For the tests of the modules that keep lists, buffers and locks, and of the
// steps of a check. The flash has three erased blocks.
#pragma once

#include <string>

#include "tests/flashfs/flashfs_test_tools.h"

namespace test_support {

class unchecked_fixture : public flashfs_fixture {
 protected:
  void SetUp() override {
    make(ram_blocks(3, 0x20000));
  }
  void make(const std::vector<ram_block>& blocks) {
    make_flash(blocks);
    ASSERT_EQ(initialize(), 0);
    fs()->sctr_ptr_chunk = chunk_create(sizeof(flashfs_sctr_list_either), 512);
    device().clear_counts();
  }
  // An available list, as "block.sector/slot".
  static std::string available(const flashfs_sctr_list_unordered* each) {
    std::string text;
    for (; each != nullptr; each = each->next) {
      text += (text.empty() ? "" : " ") + std::to_string(each->sctr_ptr.block_num) + "." +
              std::to_string(each->sctr_ptr.sctr_num) + "/" + std::to_string(each->slot_no);
    }
    return text;
  }

  held_clock clock_{1000};
  flashfs_sector sector_;  // a buffer
};

}  // namespace test_support
