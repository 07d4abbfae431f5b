// The check as it deals with the directory tree: parents and modes, second names, directories that
// contain themselves or each other, deep nesting, and orphans and their new names.
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "tests/flashfs/flashfs_recipe.h"

namespace {

using namespace test_support;

std::string said(const std::string& text) {
  return "flashfs[0]: " + text + "\n";
}

std::string relinked(const std::string& kind, const std::string& digits) {
  return said("relinked orphaned " + kind + " into the fs as \"/lost+found/" + digits + "\".");
}

class tree_recipe : public recipe_fixture {
 protected:
  // Four blocks of four sectors, the last one the spare, and the root's own slot.
  void make() {
    make_blocks({4, 4, 4, 4});
    image().headers(3);
    root_slot(0, 0, 0);
  }
  void expect_unchanged(const std::vector<uint8_t>& before) {
    EXPECT_EQ(device().flash().first_difference(before), before.size());
  }
};

using tree = tree_recipe;
using second_names = tree_recipe;
using circles = tree_recipe;
using orphans = tree_recipe;
using relinking = tree_recipe;

// --- parents and modes ---

TEST_F(tree, every_entry_gets_its_parent_and_mode_from_its_slot) {
  make();
  directory(0, 0, 1, 1, 1, 3, "d");
  image().slot(0, 0, 2,
               {.seq_no = 0, .dir_fileid = 3, .entry_fileid = 4, .mode = 0x4123, .name = "e"});
  image().slot(0, 0, 3,
               {.seq_no = 0, .dir_fileid = 4, .entry_fileid = 5, .mode = 0x8055, .name = "f"});
  data(5, {{1, 0}});
  EXPECT_TRUE(is_repaired());
  EXPECT_EQ(map_text(fs()), "1<1 3<1 4<3 5<4");
  EXPECT_EQ(entry(1)->mode, 0x4700);
  EXPECT_EQ(entry(4)->mode, 0x4123);
  EXPECT_EQ(entry(5)->mode, 0x8055);
  EXPECT_EQ(path_lookup(fs(), "d/e/f"), 5);
}

TEST_F(tree, an_entry_without_sectors_exists_by_its_name) {
  make();
  name(0, 0, 1, 1, 1, 2, "empty", 0x8111);
  directory(0, 0, 2, 2, 1, 65534, "bare");
  EXPECT_TRUE(is_repaired());
  EXPECT_EQ(map_text(fs()), "1<1 2<1 65534<1");
  EXPECT_EQ(entry(2)->mode, 0x8111);
  EXPECT_EQ(entry(2)->sctr_list, nullptr);
}

TEST_F(tree, a_data_sector_in_a_directorys_list_is_passed_over) {
  make();
  directory(0, 0, 1, 1, 1, 3, "d");
  image().data_sector(1, 0, 3, 0, std::string(2048, '\x01'));
  name(0, 0, 2, 1, 3, 4, "f");
  EXPECT_TRUE(is_repaired());
  EXPECT_EQ(list_text(fs(), 3), "0:1.0/255 1:0.0/2");
  EXPECT_EQ(path_lookup(fs(), "d/f"), 4);
}

TEST_F(tree, a_slot_that_names_no_possible_entry_is_an_error) {
  for (const uint16_t fileid : {uint16_t{0}, uint16_t{65535}}) {
    make();
    name(0, 0, 1, 1, 1, fileid, "n");
    for (const uint32_t flags : {quick, full}) {
      EXPECT_EQ(check_of_recipe(flags), "result -1: " + said("dir struct error[1]."));
    }
    make();
    name(0, 0, 1, 1, 9, fileid, "n");
    EXPECT_EQ(check_of_recipe(quick), "result -1: " + said("dir struct error[2]."));
  }
}

TEST_F(tree, a_name_in_a_directory_that_is_a_file_is_known_by_the_file) {
  make();
  name(0, 0, 1, 1, 1, 2, "f");
  name(0, 0, 2, 0, 2, 7, "inside");
  // 7 is known to nobody: the walk does not enter a file.
  EXPECT_EQ(check_of_recipe(quick), quiet_check);
  EXPECT_EQ(map_text(fs()), "1<1 2<1");
  EXPECT_EQ(list_text(fs(), 2), "0:0.0/2");
}

TEST_F(tree, the_root_named_below_itself_keeps_its_place) {
  make();
  directory(0, 0, 1, 1, 1, 3, "d");
  directory(0, 0, 2, 0, 3, 1, "root-again");
  EXPECT_TRUE(is_repaired());
  EXPECT_EQ(map_text(fs()), "1<1 3<1");
  EXPECT_EQ(list_text(fs(), 3), "");
  // Without a slot of its own it gets one, whatever names it.
  make();
  delete_slot(0, 0, 0);
  directory(0, 0, 1, 1, 1, 3, "d");
  directory(0, 0, 2, 0, 3, 1, "root-again");
  EXPECT_EQ(check_of_recipe(quick), quiet_check);
  EXPECT_EQ(map_text(fs()), "1<1 3<1");
  EXPECT_EQ(list_text(fs(), 1), "0:0.0/31 1:0.0/1");
  EXPECT_EQ(list_text(fs(), 3), "0:0.0/2");
  EXPECT_TRUE(is_repaired());
}

TEST_F(tree, a_directory_that_is_not_known_cannot_be_walked) {
  make();
  ASSERT_EQ(check_of_recipe(quick), quiet_check);
  EXPECT_EQ(fsck_check_dir(fs(), 1234), 1);
  EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
}

TEST_F(tree, a_walk_without_a_buffer_or_a_readable_sector_fails) {
  make();
  directory(0, 0, 1, 1, 1, 3, "d");
  ASSERT_EQ(check_of_recipe(quick), quiet_check);
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
  directory(0, 0, 1, 1, 1, 3, "d");
  name(0, 0, 2, 2, 1, 2, "first");
  name(0, 0, 3, 3, 1, 2, "second");
  name(0, 0, 4, 0, 3, 2, "third");
  const std::vector<uint8_t> before = device().flash().snapshot();
  for (const uint32_t flags : {quick, full, quick}) {
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
  directory(0, 0, 1, 1, 1, 3, "d");
  name(0, 0, 2, 0, 3, 2, "inner");
  name(0, 0, 3, 9, 1, 2, "outer");
  EXPECT_EQ(check_of_recipe(quick), quiet_check);
  EXPECT_EQ(entry(2)->parent_fileid, 1);
  EXPECT_EQ(list_text(fs(), 3), "");
}

TEST_F(second_names, the_last_slot_of_a_sector_counts_as_the_sector) {
  make();
  name(0, 0, 1, 1, 1, 2, "first");
  name(1, 0, 0, 2, 1, 2, "second");
  delete_slots(1, 0, 1, 32);
  const std::vector<uint8_t> before = device().flash().snapshot();
  EXPECT_EQ(check_of_recipe(quick), quiet_check);
  EXPECT_EQ(counters_text(), "0/0 1/0 0/0 0/0");
  EXPECT_EQ(block_text(1), "1 - - -");
  expect_unchanged(before);
}

TEST_F(second_names, two_in_one_sector_each_see_the_other_as_it_stands_on_flash) {
  make();
  name(0, 0, 1, 1, 1, 2, "first");
  name(1, 0, 0, 2, 1, 2, "second");
  name(1, 0, 1, 3, 1, 2, "third");
  delete_slots(1, 0, 2, 32);
  EXPECT_EQ(check_of_recipe(quick), quiet_check);
  EXPECT_EQ(counters_text(), "0/0 0/32 0/0 0/0");
}

TEST_F(second_names, a_dropped_ones_number_is_given_again_and_the_next_check_keeps_one) {
  make();
  name(0, 0, 1, 1, 1, 2, "first");
  name(0, 0, 2, 2, 1, 2, "second");
  ASSERT_EQ(check_of_recipe(quick), quiet_check);
  const flashfs_sctr_map* made = flashfs_create_entry(fs(), "new", 0x8000);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(made->fileid, 3);
  ASSERT_EQ(check_of_recipe(quick), quiet_check);
  EXPECT_EQ(path_lookup(fs(), "new"), 3);
  EXPECT_EQ(path_lookup(fs(), "first"), 2);
  EXPECT_EQ(slot_on_flash(0, 0, 2).dir_fileid, 0);
  EXPECT_TRUE(is_repaired());
}

// --- directories that contain themselves or each other ---

TEST_F(circles, a_directory_below_the_root_that_names_itself) {
  make();
  directory(0, 0, 1, 1, 1, 3, "d");
  directory(0, 0, 2, 0, 3, 3, "itself");
  name(0, 0, 3, 1, 3, 4, "f");
  const std::vector<uint8_t> before = device().flash().snapshot();
  EXPECT_TRUE(is_repaired());
  EXPECT_EQ(map_text(fs()), "1<1 3<1 4<3");
  EXPECT_EQ(list_text(fs(), 3), "1:0.0/3");
  EXPECT_EQ(path_lookup(fs(), "d/f"), 4);
  expect_unchanged(before);
}

TEST_F(circles, a_directory_below_the_root_that_is_named_further_down) {
  make();
  directory(0, 0, 1, 1, 1, 3, "d");
  directory(0, 0, 2, 0, 3, 4, "e");
  directory(0, 0, 3, 0, 4, 3, "up");
  EXPECT_TRUE(is_repaired());
  EXPECT_EQ(map_text(fs()), "1<1 3<1 4<3");
  EXPECT_EQ(list_text(fs(), 4), "");
}

TEST_F(circles, an_orphan_that_names_itself_has_a_parent_and_loses_its_list) {
  make();
  directory(0, 0, 1, 0, 3, 3, "itself");
  name(0, 0, 2, 1, 3, 4, "f");
  directory(0, 0, 3, 2, 3, 5, "e");
  name(0, 0, 4, 0, 5, 6, "g");
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
  directory(0, 0, 1, 0, 3, 5, "e");
  name(0, 0, 2, 0, 5, 6, "g");
  directory(0, 0, 3, 1, 3, 3, "itself");
  directory(0, 0, 4, 2, 3, 7, "behind");
  name(0, 0, 5, 0, 7, 8, "h");
  EXPECT_TRUE(is_repaired());
  // 7 is placed, but the slot that leads to it is gone before the walk comes to it.
  EXPECT_EQ(map_text(fs()), "1<1 3<3 5<3 6<5 7<3");
  EXPECT_EQ(list_text(fs(), 3), "");
  EXPECT_EQ(list_text(fs(), 5), "0:0.0/2");
}

TEST_F(circles, two_orphans_that_name_each_other) {
  make();
  directory(0, 0, 1, 0, 5, 6, "to-6");
  directory(0, 0, 2, 0, 6, 5, "to-5");
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
  directory(0, 0, 1, 0, 5, 6, "to-6");
  directory(0, 0, 2, 1, 5, 7, "to-7");
  directory(0, 0, 3, 0, 6, 5, "to-5");
  directory(0, 0, 4, 0, 7, 5, "to-5-too");
  EXPECT_TRUE(is_repaired());
  EXPECT_EQ(map_text(fs()), "1<1 5<6 6<5 7<5");
  EXPECT_EQ(list_text(fs(), 5), "");
  // The walk of 7 never came, so its slot is still there.
  EXPECT_EQ(list_text(fs(), 7), "0:0.0/4");
}

TEST_F(circles, a_long_circle_of_orphans) {
  make();
  for (int k = 0; k < 30; k++) {
    directory(0, 0, 1 + k, 0, static_cast<uint16_t>(10 + k),
              static_cast<uint16_t>(10 + (k + 1) % 30), "next");
  }
  EXPECT_TRUE(is_repaired());
  EXPECT_EQ(list_text(fs(), 10), "");
  EXPECT_EQ(entry(10)->parent_fileid, 39);
  EXPECT_EQ(entry(39)->parent_fileid, 38);
}

TEST_F(circles, an_operation_in_one_ends) {
  make();
  directory(0, 0, 1, 0, 5, 6, "to-6");
  directory(0, 0, 2, 0, 6, 5, "to-5");
  ASSERT_EQ(check_of_recipe(quick), quiet_check);
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
    root_slot(0, 0, 0);
    for (int i = 0; i < depth; i++) {
      const int place = 32 + i;
      const auto holder = i == 0 ? top : static_cast<uint16_t>(9 + i);
      directory(place / 32 / block_sectors, place / 32 % block_sectors, place % 32, i == 0 ? 1 : 0,
                holder, static_cast<uint16_t>(10 + i), "d");
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
    pthread_t thread;
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
  for (const uint32_t flags : {quick, full}) {
    EXPECT_EQ(check_on_little_stack(flags), quiet_check);
    EXPECT_EQ(fs()->num_files, 1U + depth);
    EXPECT_EQ(parent_of(0), 1);
    EXPECT_EQ(parent_of(depth - 1), 10 + depth - 2);
  }
}

TEST_F(deep_nesting, below_an_orphan) {
  make_chain(9);
  EXPECT_EQ(check_on_little_stack(quick), relinked("directory", "00009") + quiet_check);
  EXPECT_EQ(parent_of(0), 9);
  EXPECT_EQ(parent_of(depth - 1), 10 + depth - 2);
}

TEST_F(deep_nesting, of_a_circle) {
  make_chain(static_cast<uint16_t>(10 + depth - 1));
  EXPECT_EQ(check_on_little_stack(full), quiet_check);
  EXPECT_EQ(parent_of(0), 10 + depth - 1);
  EXPECT_EQ(parent_of(depth - 1), 10 + depth - 2);
}

TEST_F(deep_nesting, of_orphans_that_come_before_what_holds_them) {
  // Higher ids hold lower ones: every one is met as an orphan before it gets its parent.
  make_blocks({block_sectors, block_sectors, block_sectors});
  image().headers(2);
  root_slot(0, 0, 0);
  for (int i = 0; i < depth; i++) {
    const int place = 32 + i;
    directory(place / 32 / block_sectors, place / 32 % block_sectors, place % 32, 0,
              static_cast<uint16_t>(11 + i), static_cast<uint16_t>(10 + i), "d");
  }
  const std::string digits = "0" + std::to_string(10 + depth);
  EXPECT_EQ(check_on_little_stack(quick), relinked("directory", digits) + quiet_check);
}

// --- collecting orphans ---

TEST_F(orphans, a_file_and_a_directory_that_nobody_names_are_relinked) {
  make();
  data(5, {{1, 0}, {1, 1}});
  name(0, 0, 1, 0, 17, 6, "in-17");
  EXPECT_EQ(check_of_recipe(quick),
            relinked("file", "00005") + relinked("directory", "00017") + quiet_check);
  EXPECT_EQ(map_text(fs()), "1<1 2<1 5<2 6<17 17<2");
  EXPECT_EQ(path_lookup(fs(), "lost+found/00005"), 5);
  EXPECT_EQ(path_lookup(fs(), "lost+found/00017/in-17"), 6);
  EXPECT_EQ(list_text(fs(), 5), "0:1.0/255 1:1.1/255");
  EXPECT_TRUE(is_repaired());
}

TEST_F(orphans, what_an_orphan_holds_is_no_orphan_whichever_id_is_lower) {
  make();
  directory(0, 0, 1, 0, 9, 5, "low-in-high");
  name(0, 0, 2, 1, 9, 20, "high");
  EXPECT_EQ(check_of_recipe(quick), relinked("directory", "00009") + quiet_check);
  EXPECT_EQ(map_text(fs()), "1<1 2<1 5<9 9<2 20<9");
  EXPECT_EQ(path_lookup(fs(), "lost+found/00009/low-in-high"), 5);
  EXPECT_TRUE(is_repaired());
}

TEST_F(orphans, what_was_walked_before_its_holder_shows_its_names_after_the_next_check) {
  make();
  directory(0, 0, 1, 0, 9, 5, "low-in-high");
  name(0, 0, 2, 0, 5, 20, "high-in-low");
  data(20, {{1, 0}});
  EXPECT_EQ(check_of_recipe(quick), relinked("directory", "00009") + quiet_check);
  // 5 was met as an orphan; walked again below 9, its names seem to be second ones.
  EXPECT_EQ(map_text(fs()), "1<1 2<1 5<9 9<2 20<5");
  EXPECT_EQ(list_text(fs(), 5), "");
  EXPECT_TRUE(is_repaired());
  EXPECT_EQ(path_lookup(fs(), "lost+found/00009/low-in-high/high-in-low"), 20);
}

TEST_F(orphans, the_highest_id_has_five_digits_too) {
  make();
  data(65534, {{1, 0}});
  EXPECT_EQ(check_of_recipe(quick), relinked("file", "65534") + quiet_check);
  EXPECT_EQ(path_lookup(fs(), "lost+found/65534"), 65534);
  EXPECT_TRUE(is_repaired());
}

TEST_F(orphans, without_a_root_everything_is_one) {
  make_blocks({4, 4, 4});
  image().headers(2);
  data(5, {{0, 0}});
  EXPECT_EQ(check_of_recipe(full), relinked("file", "00005") + quiet_check);
  EXPECT_EQ(path_lookup(fs(), "lost+found/00005"), 5);
  EXPECT_TRUE(is_repaired());
}

TEST_F(orphans, a_file_that_holds_names_is_relinked_as_a_file_and_not_walked) {
  make();
  image().data_sector(0, 1, 5, 0, "data");
  name(1, 0, 0, 1, 5, 6, "in-a-file");
  EXPECT_EQ(check_of_recipe(quick), relinked("file", "00005") + quiet_check);
  EXPECT_EQ(entry(6), nullptr);
  EXPECT_EQ(list_text(fs(), 5), "0:0.1/255 1:1.0/0");
  EXPECT_TRUE(is_repaired());
}

TEST_F(orphans, a_broken_one_is_dropped_not_relinked) {
  make();
  image().data_sector(1, 0, 5, 1, "not the first");
  EXPECT_EQ(check_of_recipe(quick),
            said("inconsistent sector list, fileid 5, parent_fileid 0") + quiet_check);
  EXPECT_TRUE(is_repaired());
}

// --- relinking ---

TEST_F(relinking, the_new_name_has_all_fields_and_is_written_before_the_directory_is_dated) {
  make();
  directory(0, 0, 1, 1, 1, 2, "lost+found");
  name(0, 0, 2, 0, 2, 3, "older");
  image().data_sector(1, 0, 5, 0, "data");
  initialize();
  const std::string writes = writes_of(fs(), [&] { EXPECT_EQ(check(quick), 0); });
  // The name, the directory's fresh slot, its old one.
  EXPECT_EQ(writes, "0.0 0.0 0.0");
  const flashfs_dir_slot slot = slot_on_flash(0, 0, 31);
  EXPECT_EQ(slot.seq_no, 1);
  EXPECT_EQ(slot.dir_fileid, 2);
  EXPECT_EQ(slot.entry_fileid, 5);
  EXPECT_EQ(slot.mode, 0x8600);
  EXPECT_EQ(slot.date, recipe_time);
  EXPECT_TRUE(is_erased(slot.reserved, 4));
  EXPECT_EQ(std::string(slot.name, 46), "00005" + std::string(41, '\0'));
  EXPECT_EQ(image_crc(&slot, 64), 0xE2F0);
  EXPECT_EQ(list_text(fs(), 2), "0:0.0/2 1:0.0/31");
  EXPECT_EQ(entry(5)->parent_fileid, 2);
  EXPECT_EQ(slot_on_flash(0, 0, 30).entry_fileid, 2);
  EXPECT_EQ(slot_on_flash(0, 0, 30).date, recipe_time);
  EXPECT_TRUE(is_repaired());
}

TEST_F(relinking, an_orphan_directory_keeps_the_mode_it_was_found_with) {
  make();
  name(0, 0, 1, 0, 17, 6, "in-17");
  check_of_recipe(quick);
  EXPECT_EQ(entry(17)->mode, 0x4600);
  EXPECT_EQ(slot_on_flash(*entry(entry(17)->parent_fileid)->sctr_list).mode, 0x4600);
}

TEST_F(relinking, lost_and_found_is_made_as_a_directory) {
  make();
  data(5, {{1, 0}});
  check_of_recipe(quick);
  const flashfs_sctr_map* made = entry(path_lookup(fs(), "/lost+found"));
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(made->mode, 0x4700);
  EXPECT_EQ(made->parent_fileid, 1);
}

TEST_F(relinking, a_file_of_that_name_is_replaced_by_a_directory) {
  make();
  name(0, 0, 1, 1, 1, 2, "lost+found");
  data(2, {{1, 0}, {1, 1}});
  data(5, {{2, 0}});
  EXPECT_EQ(check_of_recipe(quick), relinked("file", "00005") + quiet_check);
  EXPECT_EQ(block_text(1), "0 0 - -");
  EXPECT_TRUE(is_directory_mode(entry(path_lookup(fs(), "lost+found"))->mode));
  EXPECT_EQ(path_lookup(fs(), "lost+found/00005"), 5);
  EXPECT_EQ(list_text(fs(), 5), "0:2.0/255");
  EXPECT_TRUE(is_repaired());
}

TEST_F(relinking, an_entry_that_has_the_name_is_removed_first) {
  make();
  directory(0, 0, 1, 1, 1, 2, "lost+found");
  name(0, 0, 2, 0, 2, 3, "00005");
  data(3, {{1, 0}});
  directory(0, 0, 3, 1, 2, 4, "00006");
  data(5, {{2, 0}});
  data(6, {{2, 1}});
  EXPECT_EQ(check_of_recipe(full),
            relinked("file", "00005") + relinked("file", "00006") + quiet_check);
  EXPECT_EQ(path_lookup(fs(), "lost+found/00005"), 5);
  EXPECT_EQ(path_lookup(fs(), "lost+found/00006"), 6);
  EXPECT_EQ(entry(3), nullptr);
  EXPECT_EQ(entry(4), nullptr);
  EXPECT_EQ(block_text(1), "0 - - -");
  EXPECT_TRUE(is_repaired());
}

TEST_F(relinking, without_space_for_lost_and_found_every_one_fails_and_the_check_goes_on) {
  make_blocks({2, 2, 2});
  image().headers(2);
  root_slot(0, 0, 0);
  for (int k = 1; k < 32; k++) {
    name(0, 0, k, static_cast<uint16_t>(k), 1, static_cast<uint16_t>(100 + k), "n");
  }
  data(5, {{0, 1}, {1, 0}});
  data(6, {{1, 1}});
  const std::string failed = said("error accessing/creating /lost+found");
  EXPECT_EQ(check_of_recipe(quick), failed + failed + quiet_check);
  EXPECT_EQ(fs()->ready, 1U);
  EXPECT_EQ(entry(5)->parent_fileid, 0);
  EXPECT_EQ(list_text(fs(), 5), "0:0.1/255 1:1.0/255");
}

TEST_F(relinking, without_space_for_the_name_it_fails_and_the_check_goes_on) {
  make_blocks({2, 2, 2});
  image().headers(2);
  root_slot(0, 0, 0);
  directory(0, 0, 1, 1, 1, 2, "lost+found");
  for (int k = 2; k < 32; k++) {
    name(0, 0, k, static_cast<uint16_t>(k), 1, static_cast<uint16_t>(100 + k), "n");
  }
  data(5, {{0, 1}, {1, 0}});
  data(6, {{1, 1}});
  EXPECT_EQ(check_of_recipe(quick), said("error accessing/creating /lost+found/00005") +
                                        said("error accessing/creating /lost+found/00006") +
                                        quiet_check);
  EXPECT_EQ(fs()->ready, 1U);
  EXPECT_EQ(entry(5)->parent_fileid, 0);
}

TEST_F(relinking, the_last_slot_is_kept_back) {
  make_blocks({2, 2, 2});
  image().headers(2);
  root_slot(0, 0, 0);
  directory(0, 0, 1, 1, 1, 2, "lost+found");
  for (int k = 2; k < 31; k++) {
    name(0, 0, k, static_cast<uint16_t>(k), 1, static_cast<uint16_t>(100 + k), "n");
  }
  data(5, {{0, 1}, {1, 0}, {1, 1}});
  EXPECT_EQ(check_of_recipe(quick),
            said("error accessing/creating /lost+found/00005") + quiet_check);
  EXPECT_EQ(slots_text(fs()), "0.0/31");
}

TEST_F(relinking, every_failing_write_is_told_and_the_check_goes_on) {
  // Making the directory and dating the root, then the name and dating the directory: three each.
  for (uint64_t n = 1; n <= 6; n++) {
    make();
    data(5, {{1, 0}});
    initialize();
    device().fail(flash_call::write, n, flash_operation_failed);
    EXPECT_EQ(check(quick), 0) << n;
    const std::string path = n <= 3 ? "/lost+found" : "/lost+found/00005";
    const std::string end = said("error accessing/creating " + path) + quiet_check;
    ASSERT_GT(check_output().size(), end.size());
    EXPECT_EQ(check_output().substr(check_output().size() - end.size()), end) << n;
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
    device().fail(flash_call::any, 0, flash_ok);
    // The next check finishes what was begun.
    check_of_recipe(quick);
    EXPECT_EQ(path_lookup(fs(), "lost+found/00005"), 5) << n << check_output();
    EXPECT_TRUE(is_repaired()) << n;
  }
}

TEST_F(relinking, a_failing_removal_of_what_has_the_name_is_told) {
  make();
  directory(0, 0, 1, 1, 1, 2, "lost+found");
  name(0, 0, 2, 0, 2, 3, "00005");
  data(5, {{2, 0}});
  initialize();
  device().fail(flash_call::write, 1, flash_operation_failed);
  EXPECT_EQ(check(quick), 0);
  EXPECT_NE(check_output().find(said("error accessing/creating /lost+found/00005")),
            std::string::npos);
  device().fail(flash_call::any, 0, flash_ok);
  name(0, 0, 1, 1, 1, 2, "lost+found");  // a file now
  initialize();
  device().fail(flash_call::write, 1, flash_operation_failed);
  EXPECT_EQ(check(quick), 0);
  EXPECT_NE(check_output().find(said("error accessing/creating /lost+found")), std::string::npos);
  device().fail(flash_call::any, 0, flash_ok);
}

TEST_F(relinking, a_failing_read_is_told_and_the_check_goes_on) {
  int failed_checks = 0;
  int failed_names = 0;
  for (uint64_t n = 1;; n++) {
    make();
    data(5, {{1, 0}});
    initialize();
    device().fail(flash_call::read, n, flash_operation_failed);
    const bool failed = check(quick) != 0;
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
    const bool reached = device().calls_since_fail() >= n;
    device().fail(flash_call::any, 0, flash_ok);
    if (!reached) {
      break;
    }
    if (failed) {
      failed_checks++;
      EXPECT_EQ(check_output().find("lost+found/00005\n"), std::string::npos) << n;
    } else {
      failed_names++;
      EXPECT_NE(check_output().find("flashfs[0]: error accessing/creating /lost+found"),
                std::string::npos)
          << n;
    }
  }
  // Before relinking and in the space report a failing read ends the check.
  EXPECT_GT(failed_checks, 20);
  EXPECT_GT(failed_names, 10);
}

TEST_F(relinking, the_call_gives_0_or_1) {
  make();
  ASSERT_EQ(check_of_recipe(quick), quiet_check);
  filemap_insert(fs(), 7, 0, 0x8700);
  EXPECT_EQ(output_of([&] { EXPECT_EQ(fsck_relink_orphan(fs(), 7), 0); }),
            relinked("file", "00007"));
  EXPECT_EQ(entry(7)->parent_fileid, path_lookup(fs(), "lost+found"));
  EXPECT_EQ(output_of([&] { EXPECT_EQ(fsck_relink_orphan(fs(), 99), 1); }),
            said("error accessing/creating /lost+found/00099"));
}

}  // namespace
