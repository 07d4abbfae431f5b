// Allocation, garbage collection, the entry steps and the check when memory runs out, and the check
// when a request for interruption comes.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>

#include "flashfs/alloc.h"
#include "flashfs/available.h"
#include "flashfs/check_flags.h"
#include "flashfs/entry.h"
#include "flashfs/filemap.h"
#include "flashfs/flashfs.h"
#include "flashfs/fsck.h"
#include "flashfs/fsck_tree.h"
#include "flashfs/gc.h"
#include "flashfs/path.h"
#include "flashfs/status.h"
#include "tests/faults/interruptions.h"
#include "tests/flashfs/flashfs_recipe.h"
#include "tests/support/failing_memory.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"

namespace {

using namespace test_support;
using faults::polls;
using faults::request_interruption;

class faulty : public recipe_fixture {
 protected:
  ~faulty() override {
    fail_allocation(0);
    request_interruption(0);
  }
  void make() {
    make_small_tree(3);
  }
  void make_and_mount() {
    make();
    ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  }
  std::string check_with_failure(uint32_t flags, uint64_t number) {
    initialize();
    fail_allocation(number);
    const int32_t result = check(flags);
    fail_allocation(0);
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
    return (result == 0 ? "" : "result -1: ") + check_output();
  }
};

using interrupted_check = faulty;
using check_without_memory = faulty;
using allocation_without_memory = faulty;
using collection_without_memory = faulty;
using steps_without_memory = faulty;

TEST_F(interrupted_check, stops_at_every_block_of_both_passes_and_every_file_of_the_two_steps) {
  // Three blocks twice, and the entries 1 to 3 at the duplicates and at the broken lists. Entry 4
  // is known by its name alone, which is read later.
  const int expected_polls = 3 + 3 + 3 + 3;
  for (const uint32_t flags : {flashfs_check_quick, flashfs_check_full}) {
    for (int n = 1; n <= expected_polls; n++) {
      make();
      initialize();
      request_interruption(n);
      errno = 0;
      EXPECT_EQ(check(flags), -1) << n;
      EXPECT_EQ(errno, EIO);
      EXPECT_EQ(check_output(), "flashfs[0]: filesystem check interrupted!\n");
      EXPECT_EQ(polls(), n);
      EXPECT_EQ(fs()->ready, 0U);
      EXPECT_EQ(fs()->file_map, nullptr);
      EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
    }
    request_interruption(0);
    EXPECT_EQ(check_of_recipe(flags), quiet_check);
    EXPECT_EQ(polls(), expected_polls);
  }
}

TEST_F(check_without_memory, the_pool_of_list_entries_comes_first) {
  make();
  EXPECT_EQ(check_with_failure(flashfs_check_quick, 1),
            "result -1: flashfs[0]: unable to allocate chunk of memory.\n");
}

TEST_F(check_without_memory, then_the_sector_buffer) {
  make();
  EXPECT_EQ(check_with_failure(flashfs_check_quick, 2),
            "result -1: flashfs[0]: unable to allocate sector buffer\n");
}

TEST_F(check_without_memory, the_file_map_and_its_lists_are_told_as_out_of_memory) {
  make();
  // The root's list entry, its page of the index and its map entry.
  for (const uint64_t n : {3, 4, 5}) {
    EXPECT_EQ(check_with_failure(flashfs_check_quick, n), "result -1: flashfs[0]: out of memory\n")
        << n;
  }
}

TEST_F(check_without_memory, an_orphan_that_cannot_be_listed_fails_the_check) {
  make();
  data(9, "1.1");
  std::string told;
  for (uint64_t n = 1; told.find("out of memory error.") == std::string::npos; n++) {
    ASSERT_LT(n, 60U);
    told = check_with_failure(flashfs_check_quick, n);
  }
  EXPECT_EQ(told, "result -1: flashfs[0]: out of memory error.\n");
}

TEST_F(check_without_memory, any_failing_allocation_harms_nothing_and_the_next_check_succeeds) {
  bool reached = true;
  uint64_t n = 1;
  for (; reached; n++) {
    make();
    data(9, "1.1");
    names({"0:0.0/4 7<8 below-an-orphan/"});
    initialize();
    fail_allocation(n);
    const int32_t result = check(flashfs_check_full);
    reached = allocations() >= n;
    fail_allocation(0);
    if (reached && result == 0) {
      // Relinking alone may fail without ending the check, and a look-up in it without harm.
      EXPECT_TRUE(check_output().find("error accessing/creating /lost+found") !=
                      std::string::npos ||
                  check_output().find("unable to allocate sector buffer") != std::string::npos)
          << n << check_output();
    }
    ASSERT_EQ(check(flashfs_check_full), 0) << n << check_output();
    EXPECT_EQ(path_lookup(fs(), "f"), 2) << n;
    EXPECT_EQ(path_lookup(fs(), "d/x"), 4) << n;
    // Everything has a path, though not always the same one: a "/lost+found" that was written and
    // could not be listed comes back at the next check, in the place of the one made after it.
    char path[path_size_max];
    EXPECT_EQ(flashfs_build_path(fs(), 9, path, sizeof(path)), 0) << n;
    EXPECT_EQ(path_lookup(fs(), path), 9) << n << path;
    EXPECT_EQ(flashfs_build_path(fs(), 7, path, sizeof(path)), 0) << n;
    EXPECT_EQ(path_lookup(fs(), path), 7) << n << path;
    EXPECT_EQ(list_text(fs(), 9), "0:1.1/255") << n;
  }
  EXPECT_GT(n, 30U);
}

TEST_F(check_without_memory, a_name_that_could_not_be_looked_up_is_not_given_twice) {
  bool reached = true;
  for (uint64_t n = 1; reached; n++) {
    make();
    names({"3:0.0/4 5<1 lost+found/", "0:0.0/5 6<5 00009"});
    data(9, "1.1");
    initialize();
    fail_allocation(n);
    check(flashfs_check_quick);
    reached = allocations() >= n;
    fail_allocation(0);
    ASSERT_EQ(check(flashfs_check_quick), 0) << n << check_output();
    EXPECT_EQ(path_lookup(fs(), "lost+found/00009"), 9) << n;
    EXPECT_EQ(sctr_list_length(entry(5)->sctr_list), 1U) << n;
  }
}

TEST_F(allocation_without_memory, slots_of_a_new_sector_that_cannot_be_listed_are_left_out) {
  make_and_mount();
  uint8_t slot_no = 0;
  while (fs()->available_slots != nullptr) {
    available_slot_take(fs(), &slot_no);
  }
  flashfs_sctr_ptr pointer = {};
  // Slots 0 and 1.
  fail_allocation(3, true);
  EXPECT_EQ(flashfs_alloc_slot(fs(), &pointer, &slot_no, 0), 0);
  fail_allocation(0);
  EXPECT_EQ(slot_no, 1);
  EXPECT_EQ(fs()->num_available_slots, 1U);
}

TEST_F(allocation_without_memory, a_new_sector_without_any_slot_listed_is_a_failure) {
  make_and_mount();
  uint8_t slot_no = 0;
  while (fs()->available_slots != nullptr) {
    available_slot_take(fs(), &slot_no);
  }
  flashfs_sctr_ptr pointer = {};
  fail_allocation(1, true);
  EXPECT_EQ(flashfs_alloc_slot(fs(), &pointer, &slot_no, 0), 1);
  fail_allocation(0);
  EXPECT_EQ(pointer.block_num, -1);
}

TEST_F(allocation_without_memory, a_file_grows_as_far_as_the_pool_allows) {
  make_and_mount();
  fail_allocation(2);
  EXPECT_EQ(extend_sctr_list(fs(), entry(4), 3 * 2048), 2048);
  fail_allocation(0);
  EXPECT_EQ(list_text(fs(), 4), "0:1.1/254");
  EXPECT_EQ(fs()->num_available_sectors, 4U);
}

TEST_F(allocation_without_memory, dating_an_entry_needs_a_buffer) {
  make_and_mount();
  fail_allocation(1);
  errno = 0;
  output_of([&] { EXPECT_EQ(flashfs_touch(fs(), entry(3), 0), -1); });
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
  EXPECT_EQ(list_text(fs(), 1), "0:0.0/0 1:0.0/1 2:0.0/2");
  fail_allocation(2, true);  // and nothing else
  EXPECT_EQ(flashfs_touch(fs(), entry(3), 0), 0);
  fail_allocation(0);
}

TEST_F(collection_without_memory, a_move_that_cannot_be_noted_ends_compaction) {
  // Only deleted slots are left to collect, and two slots have to move.
  const auto make_slots = [&] {
    make_blocks({2, 2, 2});
    image().headers(2);
    names({"0:0.0/0 1<1"});
    delete_slots("0.0/1-31");
    names({"1:0.1/0 2<1 f", "2:0.1/1 3<1 g"});
    delete_slots("0.1/2-31");
    data(2, "1.0 1.1");
    ASSERT_EQ(check_of_recipe(flashfs_check_quick), quiet_check);
  };
  std::string told;
  int failures = 0;
  for (uint64_t n = 1;; n++) {
    make_slots();
    flashfs_sctr_ptr pointer = {5, 5};
    int result = 0;
    fail_allocation(n);
    const std::string output = output_of([&] { result = flashfs_alloc_sector(fs(), &pointer, 1); });
    const bool reached = allocations() >= n;
    fail_allocation(0);
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
    if (!reached) {
      EXPECT_EQ(result, 0);
      break;
    }
    EXPECT_EQ(result, 1) << n << output;
    EXPECT_EQ(pointer.block_num, -1);
    failures++;
    if (output.find("garbage") != std::string::npos) {
      told += output;
    }
    EXPECT_EQ(check(flashfs_check_full), 0) << n << check_output();
    EXPECT_EQ(path_lookup(fs(), "f"), 2) << n;
  }
  EXPECT_GT(failures, 60);
  // Once for each slot that moves; nothing is erased or written after it.
  const std::string line =
      " wS2 wS2 eS0 wS0 wS2flashfs[0]: out of memory during flash garbage collection.\n";
  EXPECT_EQ(told, line + line);
}

TEST_F(steps_without_memory, a_moved_entry_that_cannot_be_listed_is_enomem) {
  make_and_mount();
  int of_lists = 0;
  for (uint64_t n = 1;; n++) {
    make_and_mount();
    fail_allocation(n);
    errno = 0;
    int32_t result = 0;
    output_of([&] { result = flashfs_rename_entry(fs(), entry(2), entry(3), "g"); });
    const bool reached = allocations() >= n;
    fail_allocation(0);
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
    if (!reached) {
      EXPECT_EQ(result, 0);
      break;
    }
    EXPECT_EQ(result, -1);
    const int error = errno;
    EXPECT_TRUE(error == ENOMEM || error == EIO);
    // The fresh slot stays on flash, and the next check finds the entry under its new name.
    ASSERT_EQ(check(flashfs_check_quick), 0);
    if (path_lookup(fs(), "d/g") == 2) {  // it was the list's entry
      of_lists++;
      EXPECT_EQ(error, ENOMEM);
      EXPECT_EQ(path_lookup(fs(), "f"), 0);
    }
  }
  EXPECT_EQ(of_lists, 1);
}

TEST_F(steps_without_memory, every_step_gives_its_buffers_back) {
  make_and_mount();
  const std::function<int()> steps[] = {
      [&] { return flashfs_rename_entry(fs(), entry(2), entry(1), "g"); },
      [&] { return flashfs_change_mode(fs(), entry(2), 1); },
      [&] { return flashfs_verify_entry(fs(), entry(2)); },
      [&] { return flashfs_remove_entry(fs(), entry(2)); },
      [&] { return flashfs_ensure_root_slot(fs()); },
      [&] { return fsck_check_dir(fs(), 1); },
      [&] { return flashfs_reclaim_block(fs(), 0, 1); },
  };
  for (const auto& step : steps) {
    make_and_mount();
    fail_allocation(1, true);
    int result = 0;
    output_of([&] { result = step(); });
    fail_allocation(0);
    EXPECT_NE(result, 0);
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
    EXPECT_EQ(entry(2)->writer, 0U);
    EXPECT_EQ(entry(1)->writer, 0U);
  }
}

TEST_F(steps_without_memory, what_only_obsoletes_needs_none) {
  make_and_mount();
  fail_allocation(1, true);
  EXPECT_EQ(fsck_resolve_duplicates(fs(), entry(2)), 0);
  EXPECT_EQ(flashfs_truncate_entry(fs(), entry(2)), 0);
  fail_allocation(0);
  EXPECT_EQ(entry(2)->sctr_list, nullptr);
  EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
}

}  // namespace
