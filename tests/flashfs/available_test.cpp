// The lists of available sectors and slots.
#include "flashfs/available.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "tests/flashfs/flashfs_recipe.h"
#include "tests/flashfs/unchecked_fixture.h"
#include "tests/support/output_capture.h"

using namespace test_support;

namespace {

using available_lists = unchecked_fixture;

class sorted_slots : public unchecked_fixture {
 protected:
  // The list of slots when those given, in this order, have been sorted.
  std::string sorted(const std::vector<flashfs_sctr_list_unordered>& given) {
    available_clear(fs());
    for (auto each = given.rbegin(); each != given.rend(); ++each) {
      EXPECT_EQ(available_slot_push(fs(), each->sctr_ptr, each->slot_no), 0);
    }
    available_sort_slots(fs());
    EXPECT_EQ(fs()->num_available_slots, given.size());
    return available(fs()->available_slots);
  }
};

}  // namespace

TEST_F(available_lists, available_sectors_and_slots_are_pushed_on_the_front) {
  EXPECT_EQ(available_sector_push(fs(), {1, 9}), 0);
  EXPECT_EQ(available_sector_push(fs(), {1, 8}), 0);
  EXPECT_EQ(available_slot_push(fs(), {2, 3}, 31), 0);
  EXPECT_EQ(available_slot_push(fs(), {2, 3}, 0), 0);
  EXPECT_EQ(available(fs()->available_sectors), "1.8/255 1.9/255");
  EXPECT_EQ(available(fs()->available_slots), "2.3/0 2.3/31");
  EXPECT_EQ(fs()->num_available_sectors, 2U);
  EXPECT_EQ(fs()->num_available_slots, 2U);
}

TEST_F(available_lists, available_sectors_and_slots_are_taken_from_the_front) {
  (void)available_sector_push(fs(), {1, 9});
  (void)available_sector_push(fs(), {1, 8});
  (void)available_slot_push(fs(), {2, 3}, 31);
  (void)available_slot_push(fs(), {2, 4}, 7);
  uint8_t slot_no = 0;
  EXPECT_EQ(available_sector_take(fs()), (flashfs_sctr_ptr{1, 8}));
  EXPECT_EQ(available_slot_take(fs(), &slot_no), (flashfs_sctr_ptr{2, 4}));
  EXPECT_EQ(slot_no, 7);
  EXPECT_EQ(available(fs()->available_sectors), "1.9/255");
  EXPECT_EQ(available(fs()->available_slots), "2.3/31");
  EXPECT_EQ(fs()->num_available_sectors, 1U);
  EXPECT_EQ(fs()->num_available_slots, 1U);
}

TEST_F(available_lists, everything_available_in_a_block_can_be_dropped) {
  for (const int16_t block : std::initializer_list<int16_t>{1, 2, 2, 1, 0, 1}) {
    (void)available_sector_push(fs(), {block, 5});
    (void)available_slot_push(fs(), {block, 6}, 4);
  }
  available_drop_block(fs(), 1);
  EXPECT_EQ(available(fs()->available_sectors), "0.5/255 2.5/255 2.5/255");
  EXPECT_EQ(available(fs()->available_slots), "0.6/4 2.6/4 2.6/4");
  EXPECT_EQ(fs()->num_available_sectors, 3U);
  EXPECT_EQ(fs()->num_available_slots, 3U);
  available_clear(fs());
  EXPECT_EQ(fs()->available_sectors, nullptr);
  EXPECT_EQ(fs()->available_slots, nullptr);
  EXPECT_EQ(fs()->num_available_sectors + fs()->num_available_slots, 0U);
}

TEST(swap, exchanges_contents_and_leaves_the_links) {
  flashfs_sctr_list_unordered last = {nullptr, 3, {7, 8}};
  flashfs_sctr_list_unordered second = {&last, 2, {5, 6}};
  flashfs_sctr_list_unordered first = {&second, 1, {3, 4}};
  swap_sctr_ptr(&first);
  EXPECT_EQ(text_of(first.sctr_ptr, first.slot_no), "5.6/2");
  EXPECT_EQ(text_of(second.sctr_ptr, second.slot_no), "3.4/1");
  EXPECT_EQ(text_of(last.sctr_ptr, last.slot_no), "7.8/3");
  EXPECT_EQ(first.next, &second);
  EXPECT_EQ(second.next, &last);
}

// --- sorting ---

TEST_F(sorted_slots, stand_by_block_and_then_by_sector) {
  EXPECT_EQ(sorted({{{}, 1, {2, 0}}, {{}, 2, {1, 9}}, {{}, 3, {1, 8}}, {{}, 4, {0, 30}}}),
            "0.30/4 1.8/3 1.9/2 2.0/1");
  EXPECT_EQ(sorted({{{}, 1, {1, 8}}, {{}, 2, {2, 0}}, {{}, 3, {1, 9}}, {{}, 4, {0, 30}}}),
            "0.30/4 1.8/1 1.9/3 2.0/2");
}

TEST_F(sorted_slots, of_one_sector_keep_their_order) {
  EXPECT_EQ(sorted({{{}, 31, {1, 8}},
                    {{}, 3, {0, 5}},
                    {{}, 7, {1, 8}},
                    {{}, 9, {0, 5}},
                    {{}, 30, {1, 8}},
                    {{}, 2, {0, 5}}}),
            "0.5/3 0.5/9 0.5/2 1.8/31 1.8/7 1.8/30");
}

TEST_F(sorted_slots, that_were_sorted_stay_as_they_are) {
  EXPECT_EQ(sorted({{{}, 9, {0, 5}}, {{}, 8, {0, 5}}, {{}, 7, {1, 0}}}), "0.5/9 0.5/8 1.0/7");
  EXPECT_EQ(sorted({{{}, 9, {0, 5}}}), "0.5/9");
  EXPECT_EQ(sorted({}), "");
}

TEST_F(sorted_slots, do_not_touch_the_list_of_sectors) {
  ASSERT_EQ(available_sector_push(fs(), {0, 1}), 0);
  ASSERT_EQ(available_sector_push(fs(), {1, 1}), 0);
  ASSERT_EQ(available_slot_push(fs(), {0, 2}, 3), 0);
  ASSERT_EQ(available_slot_push(fs(), {1, 2}, 3), 0);
  available_sort_slots(fs());
  EXPECT_EQ(available(fs()->available_sectors), "1.1/255 0.1/255");
  EXPECT_EQ(available(fs()->available_slots), "0.2/3 1.2/3");
}
