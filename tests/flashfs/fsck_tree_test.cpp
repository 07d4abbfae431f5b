// The check as it deals with the directory tree: parents and modes, second names, directories that
// contain themselves or each other, and deep nesting. Orphans are in fsck_orphans_test.cpp.
#include "flashfs/fsck_tree.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <initializer_list>
#include <string>
#include <vector>

#include "flashfs/check_flags.h"
#include "flashfs/entry.h"
#include "flashfs/path.h"
#include "flashfs/status.h"
#include "sim/flash.h"
#include "tests/flashfs/flashfs_recipe.h"
#include "tests/flashfs/fsck_recipe.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"

namespace {

using namespace test_support;

using tree = tree_recipe;
using second_names = tree_recipe;
using circles = tree_recipe;

// --- parents and modes ---

TEST_F(tree, every_entry_gets_its_parent_and_mode_from_its_slot) {
  make();
  names({"1:0.0/1 3<1 d/"});
  image().slot(0, 0, 2,
               {.seq_no = 0, .dir_fileid = 3, .entry_fileid = 4, .mode = 0x4123, .name = "e"});
  image().slot(0, 0, 3,
               {.seq_no = 0, .dir_fileid = 4, .entry_fileid = 5, .mode = 0x8055, .name = "f"});
  data(5, "1.0");
  EXPECT_TRUE(is_repaired());
  EXPECT_EQ(map_text(fs()), "1<1 3<1 4<3 5<4");
  EXPECT_EQ(entry(1)->mode, 0x4700);
  EXPECT_EQ(entry(4)->mode, 0x4123);
  EXPECT_EQ(entry(5)->mode, 0x8055);
  EXPECT_EQ(path_lookup(fs(), "d/e/f"), 5);
}

TEST_F(tree, an_entry_without_sectors_exists_by_its_name) {
  make();
  image().slot(0, 0, 1, {.seq_no = 1, .entry_fileid = 2, .mode = 0x8111, .name = "empty"});
  names({"2:0.0/2 65534<1 bare/"});
  EXPECT_TRUE(is_repaired());
  EXPECT_EQ(map_text(fs()), "1<1 2<1 65534<1");
  EXPECT_EQ(entry(2)->mode, 0x8111);
  EXPECT_EQ(entry(2)->sctr_list, nullptr);
}

TEST_F(tree, a_data_sector_in_a_directorys_list_is_passed_over) {
  make();
  names({"1:0.0/1 3<1 d/"});
  image().data_sector(1, 0, 3, 0, std::string(2048, '\x01'));
  names({"1:0.0/2 4<3 f"});
  EXPECT_TRUE(is_repaired());
  EXPECT_EQ(list_text(fs(), 3), "0:1.0/255 1:0.0/2");
  EXPECT_EQ(path_lookup(fs(), "d/f"), 4);
}

TEST_F(tree, a_slot_that_names_no_possible_entry_is_an_error) {
  for (const uint16_t fileid : {uint16_t{0}, uint16_t{65535}}) {
    make();
    names({"1:0.0/1 " + std::to_string(fileid) + "<1 n"});
    for (const uint32_t flags : {flashfs_check_quick, flashfs_check_full}) {
      EXPECT_EQ(check_of_recipe(flags), "result -1: " + said("dir struct error[1]."));
    }
    make();
    names({"1:0.0/1 " + std::to_string(fileid) + "<9 n"});
    EXPECT_EQ(check_of_recipe(flashfs_check_quick), "result -1: " + said("dir struct error[2]."));
  }
}

TEST_F(tree, a_name_in_a_directory_that_is_a_file_is_known_by_the_file) {
  make();
  names({"1:0.0/1 2<1 f", "0:0.0/2 7<2 inside"});
  // 7 is known to nobody: the walk does not enter a file.
  EXPECT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  EXPECT_EQ(map_text(fs()), "1<1 2<1");
  EXPECT_EQ(list_text(fs(), 2), "0:0.0/2");
}

TEST_F(tree, the_root_named_below_itself_keeps_its_place) {
  make();
  names({"1:0.0/1 3<1 d/", "0:0.0/2 1<3 root-again/"});
  EXPECT_TRUE(is_repaired());
  EXPECT_EQ(map_text(fs()), "1<1 3<1");
  EXPECT_EQ(list_text(fs(), 3), "");
  // Without a slot of its own it gets one, whatever names it.
  make();
  delete_slots("0.0/0");
  names({"1:0.0/1 3<1 d/", "0:0.0/2 1<3 root-again/"});
  EXPECT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  EXPECT_EQ(map_text(fs()), "1<1 3<1");
  EXPECT_EQ(list_text(fs(), 1), "0:0.0/31 1:0.0/1");
  EXPECT_EQ(list_text(fs(), 3), "0:0.0/2");
  EXPECT_TRUE(is_repaired());
}

TEST_F(tree, a_directory_that_is_not_known_cannot_be_walked) {
  make();
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  EXPECT_EQ(fsck_check_dir(fs(), 1234), 1);
  EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
}

TEST_F(tree, a_walk_without_a_buffer_or_a_readable_sector_fails) {
  make();
  names({"1:0.0/1 3<1 d/"});
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  device().fail(flash_call::read, 1, flash_operation_failed);
  output_of([&] { EXPECT_EQ(fsck_check_dir(fs(), 1), 1); });
  chunk_pool* pool = fs()->sctr_buf_chunk;
  fs()->sctr_buf_chunk = nullptr;
  output_of([&] { EXPECT_EQ(fsck_check_dir(fs(), 1), 1); });
  fs()->sctr_buf_chunk = pool;
}

// --- second names ---

TEST_F(second_names, are_dropped_from_memory_and_from_the_counters_only) {
  make();
  names({"1:0.0/1 3<1 d/", "2:0.0/2 2<1 first", "3:0.0/3 2<1 second", "0:0.0/4 2<3 third"});
  const std::vector<uint8_t> before = device().flash().snapshot();
  for (const uint32_t flags : {flashfs_check_quick, flashfs_check_full, flashfs_check_quick}) {
    EXPECT_EQ(check_of_recipe(flags), quiet_check);
    EXPECT_EQ(list_text(fs(), 1), "0:0.0/0 1:0.0/1 2:0.0/2");
    EXPECT_EQ(list_text(fs(), 3), "");
    EXPECT_EQ(counters_text(), "0/2 0/0 0/0 0/0");
    EXPECT_EQ(path_lookup(fs(), "first"), 2);
    EXPECT_EQ(path_lookup(fs(), "second"), 0);
    expect_unchanged(before);
  }
}

TEST_F(second_names, the_name_nearer_to_the_root_is_the_first) {
  make();
  names({"1:0.0/1 3<1 d/", "0:0.0/2 2<3 inner", "9:0.0/3 2<1 outer"});
  EXPECT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  EXPECT_EQ(entry(2)->parent_fileid, 1);
  EXPECT_EQ(list_text(fs(), 3), "");
}

TEST_F(second_names, the_last_slot_of_a_sector_counts_as_the_sector) {
  make();
  names({"1:0.0/1 2<1 first", "2:1.0/0 2<1 second"});
  delete_slots("1.0/1-31");
  const std::vector<uint8_t> before = device().flash().snapshot();
  EXPECT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  EXPECT_EQ(counters_text(), "0/0 1/0 0/0 0/0");
  EXPECT_EQ(block_text(1), "1 - - -");
  expect_unchanged(before);
}

TEST_F(second_names, two_in_one_sector_each_see_the_other_as_it_stands_on_flash) {
  make();
  names({"1:0.0/1 2<1 first", "2:1.0/0 2<1 second", "3:1.0/1 2<1 third"});
  delete_slots("1.0/2-31");
  EXPECT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  EXPECT_EQ(counters_text(), "0/0 0/32 0/0 0/0");
}

TEST_F(second_names, a_dropped_ones_number_is_given_again_and_the_next_check_keeps_one) {
  make();
  names({"1:0.0/1 2<1 first", "2:0.0/2 2<1 second"});
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  const flashfs_sctr_map* made = flashfs_create_entry(fs(), "new", 0x8000);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(made->fileid, 3);
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  EXPECT_EQ(path_lookup(fs(), "new"), 3);
  EXPECT_EQ(path_lookup(fs(), "first"), 2);
  EXPECT_EQ(slot_on_flash(0, 0, 2).dir_fileid, 0);
  EXPECT_TRUE(is_repaired());
}

// --- directories that contain themselves or each other ---

TEST_F(circles, a_directory_below_the_root_that_names_itself) {
  make();
  names({"1:0.0/1 3<1 d/", "0:0.0/2 3<3 itself/", "1:0.0/3 4<3 f"});
  const std::vector<uint8_t> before = device().flash().snapshot();
  EXPECT_TRUE(is_repaired());
  EXPECT_EQ(map_text(fs()), "1<1 3<1 4<3");
  EXPECT_EQ(list_text(fs(), 3), "1:0.0/3");
  EXPECT_EQ(path_lookup(fs(), "d/f"), 4);
  expect_unchanged(before);
}

TEST_F(circles, a_directory_below_the_root_that_is_named_further_down) {
  make();
  names({"1:0.0/1 3<1 d/", "0:0.0/2 4<3 e/", "0:0.0/3 3<4 up/"});
  EXPECT_TRUE(is_repaired());
  EXPECT_EQ(map_text(fs()), "1<1 3<1 4<3");
  EXPECT_EQ(list_text(fs(), 4), "");
}

TEST_F(circles, an_orphan_that_names_itself_has_a_parent_and_loses_its_list) {
  make();
  names({"0:0.0/1 3<3 itself/", "1:0.0/2 4<3 f", "2:0.0/3 5<3 e/", "0:0.0/4 6<5 g"});
  const std::vector<uint8_t> before = device().flash().snapshot();
  EXPECT_TRUE(is_repaired());
  // It is entered again through its own slot, and everything in it has its place by then.
  EXPECT_EQ(map_text(fs()), "1<1 3<3 4<3 5<3");
  EXPECT_EQ(list_text(fs(), 3), "");
  EXPECT_EQ(counters_text(), "0/3 0/0 0/0 0/0");
  expect_unchanged(before);
}

TEST_F(circles, what_stands_before_the_slot_that_leads_back_is_walked) {
  make();
  names({"0:0.0/1 5<3 e/", "0:0.0/2 6<5 g", "1:0.0/3 3<3 itself/", "2:0.0/4 7<3 behind/",
         "0:0.0/5 8<7 h"});
  EXPECT_TRUE(is_repaired());
  // 7 is placed, but the slot that leads to it is gone before the walk comes to it.
  EXPECT_EQ(map_text(fs()), "1<1 3<3 5<3 6<5 7<3");
  EXPECT_EQ(list_text(fs(), 3), "");
  EXPECT_EQ(list_text(fs(), 5), "0:0.0/2");
}

TEST_F(circles, two_orphans_that_name_each_other) {
  make();
  names({"0:0.0/1 6<5 to-6/", "0:0.0/2 5<6 to-5/"});
  const std::vector<uint8_t> before = device().flash().snapshot();
  EXPECT_TRUE(is_repaired());
  EXPECT_EQ(map_text(fs()), "1<1 5<6 6<5");
  EXPECT_EQ(list_text(fs(), 5), "");
  EXPECT_EQ(list_text(fs(), 6), "0:0.0/2");
  EXPECT_EQ(counters_text(), "0/1 0/0 0/0 0/0");
  expect_unchanged(before);
}

TEST_F(circles, the_slot_that_the_outer_walk_stands_on_is_dropped) {
  make();
  // 5 holds 6 and 7, and both lead back to 5.
  names({"0:0.0/1 6<5 to-6/", "1:0.0/2 7<5 to-7/", "0:0.0/3 5<6 to-5/", "0:0.0/4 5<7 to-5-too/"});
  EXPECT_TRUE(is_repaired());
  EXPECT_EQ(map_text(fs()), "1<1 5<6 6<5 7<5");
  EXPECT_EQ(list_text(fs(), 5), "");
  // The walk of 7 never came, so its slot is still there.
  EXPECT_EQ(list_text(fs(), 7), "0:0.0/4");
}

TEST_F(circles, a_long_circle_of_orphans) {
  make();
  for (int k = 0; k < 30; k++) {
    names({"0:0.0/" + std::to_string(1 + k) + " " + std::to_string(10 + (k + 1) % 30) + "<" +
           std::to_string(10 + k) + " next/"});
  }
  EXPECT_TRUE(is_repaired());
  EXPECT_EQ(list_text(fs(), 10), "");
  EXPECT_EQ(entry(10)->parent_fileid, 39);
  EXPECT_EQ(entry(39)->parent_fileid, 38);
}

TEST_F(circles, an_operation_in_one_ends) {
  make();
  names({"0:0.0/1 6<5 to-6/", "0:0.0/2 5<6 to-5/"});
  ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  char path[path_size_max];
  EXPECT_EQ(flashfs_build_path(fs(), 5, path, sizeof(path)), -1);
  EXPECT_EQ(output_of([&] { EXPECT_EQ(flashfs_verify_entry(fs(), entry(6)), -1); }),
            said("doverify, unable to lookup filemap for fileid 5"));
}

// --- deep nesting, on little stack ---

class deep_nesting : public recipe_fixture {
 protected:
  static constexpr int depth = 3000;
  static constexpr int block_sectors = 60;

  // Directories 10, 11, ... each in the one before it; `top` holds the first one.
  void make_chain(uint16_t top) {
    make_blocks({block_sectors, block_sectors, block_sectors});
    image().headers(2);
    names({"0:0.0/0 1<1"});
    for (int i = 0; i < depth; i++) {
      const int place = 32 + i;
      const auto holder = i == 0 ? top : static_cast<uint16_t>(9 + i);
      image().slot(place / 32 / block_sectors, place / 32 % block_sectors, place % 32,
                   {.seq_no = static_cast<uint16_t>(i == 0 ? 1 : 0),
                    .dir_fileid = holder,
                    .entry_fileid = static_cast<uint16_t>(10 + i),
                    .mode = 0x4700,
                    .name = "d"});
    }
  }

  struct check_call {
    deep_nesting* test;
    uint32_t flags;
    std::string output;
  };
  static void* run_check(void* argument) {
    auto* call = static_cast<check_call*>(argument);
    call->output = call->test->check_of_recipe(call->flags);
    return nullptr;
  }
  // Checks in a thread with a stack that holds far fewer frames than there are directories.
  std::string check_on_little_stack(uint32_t flags) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, std::max<size_t>(128 * 1024, PTHREAD_STACK_MIN));
    check_call call = {this, flags, "no thread"};
    pthread_t thread{};
    if (pthread_create(&thread, &attributes, run_check, &call) == 0) {
      pthread_join(thread, nullptr);
    }
    pthread_attr_destroy(&attributes);
    return call.output;
  }
  uint16_t parent_of(int i) {
    return entry(static_cast<uint16_t>(10 + i))->parent_fileid;
  }
};

TEST_F(deep_nesting, below_the_root) {
  make_chain(1);
  for (const uint32_t flags : {flashfs_check_quick, flashfs_check_full}) {
    EXPECT_EQ(check_on_little_stack(flags), quiet_check);
    EXPECT_EQ(fs()->num_files, 1U + depth);
    EXPECT_EQ(parent_of(0), 1);
    EXPECT_EQ(parent_of(depth - 1), 10 + depth - 2);
  }
}

TEST_F(deep_nesting, below_an_orphan) {
  make_chain(9);
  EXPECT_EQ(check_on_little_stack(flashfs_check_quick),
            relinked("directory", "00009") + quiet_check);
  EXPECT_EQ(parent_of(0), 9);
  EXPECT_EQ(parent_of(depth - 1), 10 + depth - 2);
}

TEST_F(deep_nesting, of_a_circle) {
  make_chain(static_cast<uint16_t>(10 + depth - 1));
  EXPECT_EQ(check_on_little_stack(flashfs_check_full), quiet_check);
  EXPECT_EQ(parent_of(0), 10 + depth - 1);
  EXPECT_EQ(parent_of(depth - 1), 10 + depth - 2);
}

TEST_F(deep_nesting, of_orphans_that_come_before_what_holds_them) {
  // Higher ids hold lower ones: every one is met as an orphan before it gets its parent.
  make_blocks({block_sectors, block_sectors, block_sectors});
  image().headers(2);
  names({"0:0.0/0 1<1"});
  for (int i = 0; i < depth; i++) {
    const int place = 32 + i;
    image().slot(place / 32 / block_sectors, place / 32 % block_sectors, place % 32,
                 {.dir_fileid = static_cast<uint16_t>(11 + i),
                  .entry_fileid = static_cast<uint16_t>(10 + i),
                  .mode = 0x4700,
                  .name = "d"});
  }
  const std::string digits = "0" + std::to_string(10 + depth);
  EXPECT_EQ(check_on_little_stack(flashfs_check_quick),
            relinked("directory", digits) + quiet_check);
}

}  // namespace
