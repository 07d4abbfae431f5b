// The walk over the slots of a directory, and the search for the one that names a file.
#include "flashfs/slots.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <numeric>
#include <string>
#include <vector>

#include "flashfs/filemap.h"
#include "flashfs/io.h"
#include "tests/flashfs/flashfs_test_tools.h"
#include "tests/flashfs/unchecked_fixture.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"

using namespace test_support;

namespace {

class slot_search : public unchecked_fixture {
 protected:
  void SetUp() override {
    unchecked_fixture::SetUp();
    image_builder image(device());
    for (int k = 0; k < 20; k++) {
      image.slot(1, 4, k,
                 {.seq_no = static_cast<uint16_t>(k), .entry_fileid = entry_id(k), .name = "n"});
    }
    for (int k = 0; k < 5; k++) {
      image.slot(
          2, 8, k,
          {.seq_no = static_cast<uint16_t>(20 + k), .entry_fileid = entry_id(20 + k), .name = "n"});
    }
    for (const flashfs_sctr_ptr pointer : {flashfs_sctr_ptr{1, 4}, flashfs_sctr_ptr{2, 8}}) {
      ASSERT_EQ(read_sector(fs(), pointer, &sector_, whole_sector), 0);
      ASSERT_EQ(filemap_add_sector_all(fs(), pointer, &sector_), 0);
    }
    device().clear_counts();
  }
  static uint16_t entry_id(int number) {
    return static_cast<uint16_t>(100 + number);
  }
  flashfs_sctr_map* entry(uint16_t fileid, uint16_t parent = 1) {
    return filemap_insert(fs(), fileid, parent, 0x8000);
  }
  // A slot of sector 8 of block 2, as it stands on flash then.
  flashfs_dir_slot make_slot(uint8_t slot_no, const image_slot& contents) {
    image_builder(device()).slot(2, 8, slot_no, contents);
    flashfs_dir_slot slot{};
    EXPECT_EQ(read_slot(fs(), {2, 8}, slot_no, &slot), 0);
    device().clear_counts();
    return slot;
  }
};

class walk_over_slots : public slot_search {
 protected:
  flashfs_sctr_list_ordered* head() {
    return filemap_lookup(fs(), fileid_root)->sctr_list;
  }
  flashfs_sctr_list_ordered* at(int index) {
    flashfs_sctr_list_ordered* each = head();
    while (index-- > 0) {
      each = each->next;
    }
    return each;
  }
  // The numbers of the entries that the rest of a walk finds: those of entry_id.
  static std::vector<int> numbers_of(slot_walk& walk) {
    std::vector<int> numbers;
    while (walk.next()) {
      EXPECT_EQ(walk.slot().seq_no, walk.entry()->seq_no);
      EXPECT_EQ(walk.rest(), walk.entry()->next);
      numbers.push_back(walk.slot().entry_fileid - entry_id(0));
    }
    return numbers;
  }
  static std::vector<int> numbers_from(int first, int behind_last) {
    std::vector<int> numbers(static_cast<size_t>(behind_last - first));
    std::iota(numbers.begin(), numbers.end(), first);
    return numbers;
  }
};

}  // namespace

// --- walking over slots ---

TEST_F(walk_over_slots, gives_every_slot_in_the_order_of_the_list) {
  sector_buffer buffer(fs());
  slot_walk walk(fs(), head(), buffer, slot_walk_yields::no);
  EXPECT_EQ(numbers_of(walk), numbers_from(0, 25));
  EXPECT_FALSE(walk.failed());
  EXPECT_EQ(walk.rest(), nullptr);
  EXPECT_FALSE(walk.next()) << "the end stays the end";
}

TEST_F(walk_over_slots, begins_where_it_is_told_to) {
  sector_buffer buffer(fs());
  slot_walk walk(fs(), at(17), buffer, slot_walk_yields::no);
  EXPECT_EQ(numbers_of(walk), numbers_from(17, 25));
}

TEST_F(walk_over_slots, of_an_empty_list_ends_at_once) {
  sector_buffer buffer(fs());
  slot_walk walk(fs(), nullptr, buffer, slot_walk_yields::yes);
  EXPECT_FALSE(walk.next());
  EXPECT_FALSE(walk.failed());
  EXPECT_EQ(device().counts().reads, 0U);
}

TEST_F(walk_over_slots, passes_over_strays_without_a_look_at_their_address) {
  for (const uint8_t stray : {uint8_t{32}, slot_of_reserved_sector, slot_of_sector}) {
    for (const int index : {0, 7, 8, 24}) {
      at(index)->slot_no = stray;
      at(index)->sctr_ptr = {no_block, 0};
    }
    sector_buffer buffer(fs());
    slot_walk walk(fs(), head(), buffer, slot_walk_yields::no);
    std::vector<int> expected = numbers_from(1, 7);
    const std::vector<int> rest = numbers_from(9, 24);
    expected.insert(expected.end(), rest.begin(), rest.end());
    EXPECT_EQ(output_of([&] { EXPECT_EQ(numbers_of(walk), expected); }), "");
    EXPECT_FALSE(walk.failed());
  }
}

TEST_F(walk_over_slots, reads_each_slot_and_nothing_else) {
  sector_buffer buffer(fs());
  slot_walk walk(fs(), head(), buffer, slot_walk_yields::no);
  numbers_of(walk);
  EXPECT_EQ(device().counts().reads, 25U);
  EXPECT_EQ(device().counts().bytes_read, 25U * 64);
}

TEST_F(walk_over_slots, goes_on_when_its_buffer_was_used_on_the_way) {
  sector_buffer buffer(fs());
  slot_walk walk(fs(), head(), buffer, slot_walk_yields::no);
  ASSERT_TRUE(walk.next());
  std::memset(buffer.get(), 0, sizeof(flashfs_sector));
  EXPECT_EQ(numbers_of(walk), numbers_from(1, 25));
  EXPECT_EQ(device().counts().reads, 25U);
}

TEST_F(walk_over_slots, that_the_flash_ends_has_failed) {
  device().fail(flash_call::read, 21, flash_busy);
  sector_buffer buffer(fs());
  slot_walk walk(fs(), head(), buffer, slot_walk_yields::no);
  EXPECT_EQ(output_of([&] { EXPECT_EQ(numbers_of(walk), numbers_from(0, 20)); }),
            "flashfs[0]: reading from flash handle " + handle_text(device()) +
                ", device 0, offset " + hex(2 * 0x20000 + 32 + 8 * 2056) + ": Busy\n");
  EXPECT_TRUE(walk.failed());
}

// --- finding slots ---

TEST_F(slot_search, finds_the_parents_list_entry_that_names_the_file) {
  const flashfs_sctr_list_ordered* found = filemap_find_slot(fs(), entry(entry_id(23)));
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->slot_no, 3);
  EXPECT_EQ(found->sctr_ptr, (flashfs_sctr_ptr{2, 8}));
  EXPECT_EQ(found->seq_no, 23);
}

TEST_F(slot_search, reads_the_slot_that_fits_and_nothing_else) {
  const flashfs_sctr_map* file = entry(entry_id(19));
  for (uint64_t times = 1; times <= 2; times++) {
    ASSERT_NE(filemap_find_slot(fs(), file), nullptr);
    EXPECT_EQ(device().counts().reads, times);
    EXPECT_EQ(device().counts().bytes_read, 64 * times);
  }
  ASSERT_NE(filemap_find_slot(fs(), entry(entry_id(24))), nullptr);
  EXPECT_EQ(device().counts().reads, 2U + 1);
}

TEST_F(slot_search, leaves_the_slot_in_its_place_of_the_buffer) {
  sector_buffer buffer(fs());
  const found_slot found = filemap_find_slot_in(fs(), entry(entry_id(23)), buffer);
  ASSERT_NE(found.entry, nullptr);
  EXPECT_EQ(buffer->slots[3].entry_fileid, entry_id(23));
  EXPECT_EQ(buffer->slots[3].seq_no, 23);
}

TEST_F(slot_search, passes_over_a_slot_that_is_not_what_memory_says) {
  // Two entries of the list name the file; the flash has changed by itself below the first.
  const flashfs_dir_slot other = make_slot(6, {.seq_no = 30, .entry_fileid = entry_id(3)});
  ASSERT_NE(filemap_add_slot(fs(), {2, 8}, 6, other), nullptr);
  const flashfs_sctr_map* file = entry(entry_id(3));
  EXPECT_EQ(filemap_find_slot(fs(), file)->seq_no, 3) << "the first in the order of the list";
  image_builder(device()).slot(1, 4, 3, {.seq_no = 3, .entry_fileid = 999, .name = "n"});
  EXPECT_EQ(filemap_find_slot(fs(), file)->seq_no, 30);
  make_slot(6, {.seq_no = 30, .entry_fileid = 999});
  EXPECT_EQ(filemap_find_slot(fs(), file), nullptr);
}

TEST_F(slot_search, finds_the_first_in_the_order_of_the_list_also_when_it_came_later) {
  const flashfs_sctr_map* file = entry(entry_id(24));
  ASSERT_EQ(filemap_find_slot(fs(), file)->seq_no, 24);
  const flashfs_dir_slot other = make_slot(6, {.seq_no = 7, .entry_fileid = entry_id(24)});
  flashfs_sctr_list_ordered* added = filemap_add_slot(fs(), {2, 8}, 6, other);
  EXPECT_EQ(filemap_find_slot(fs(), file), added);
  sctr_list_remove(fs(), filemap_lookup(fs(), fileid_root), added);
  EXPECT_EQ(filemap_find_slot(fs(), file)->seq_no, 24);
}

TEST_F(slot_search, follows_an_entry_to_another_parent) {
  flashfs_sctr_map* file = entry(entry_id(4));
  ASSERT_EQ(filemap_find_slot(fs(), file)->seq_no, 4);
  const flashfs_dir_slot other =
      make_slot(6, {.seq_no = 9, .dir_fileid = 30, .entry_fileid = entry_id(4)});
  flashfs_sctr_list_ordered* added = filemap_add_slot(fs(), {2, 8}, 6, other);
  EXPECT_EQ(filemap_find_slot(fs(), file)->seq_no, 4) << "only the parent's list counts";
  file->parent_fileid = 30;
  EXPECT_EQ(filemap_find_slot(fs(), file), added);
  file->parent_fileid = 1;
  EXPECT_EQ(filemap_find_slot(fs(), file)->seq_no, 4);
  filemap_set_parent(file, 30, added);
  EXPECT_EQ(filemap_find_slot(fs(), file), added);
}

TEST_F(slot_search, gives_null_for_a_file_that_its_parent_does_not_name) {
  EXPECT_EQ(filemap_find_slot(fs(), entry(999)), nullptr);
}

TEST_F(slot_search, gives_null_without_a_read_when_the_parent_is_missing) {
  EXPECT_EQ(filemap_find_slot(fs(), entry(entry_id(3), 50)), nullptr);
  EXPECT_EQ(filemap_find_slot(fs(), entry(entry_id(4), 0)), nullptr);
  EXPECT_EQ(device().counts().reads, 0U);
  EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
}

TEST_F(slot_search, gives_null_and_its_buffer_back_when_the_flash_fails) {
  device().fail(flash_call::read, 1, flash_busy);
  output_of([&] { EXPECT_EQ(filemap_find_slot(fs(), entry(entry_id(23))), nullptr); });
  EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
  EXPECT_EQ(device().counts().reads, 1U);
}

TEST_F(slot_search, tells_a_failure_from_a_slot_that_is_not_there) {
  sector_buffer buffer(fs());
  found_slot found = filemap_find_slot_in(fs(), entry(999), buffer);
  EXPECT_EQ(found.entry, nullptr);
  EXPECT_FALSE(found.failed);
  device().fail(flash_call::read, 1, flash_busy);
  output_of([&] { found = filemap_find_slot_in(fs(), entry(entry_id(1)), buffer); });
  EXPECT_EQ(found.entry, nullptr);
  EXPECT_TRUE(found.failed);
}

TEST_F(slot_search, passes_over_data_sectors_in_a_directorys_list) {
  // Damaged flash: sectors owned by a directory's id.
  for (const uint16_t seq_no : u16s{0, 30}) {
    sector_.fileid = 30;
    sector_.seq_no = seq_no;
    ASSERT_EQ(filemap_add_sector(fs(), {0, seq_no}, &sector_, slot_of_sector), 0);
  }
  filemap_lookup(fs(), 30)->mode = 0x4600;
  filemap_lookup(fs(), 30)->sctr_list->slot_no = slot_of_reserved_sector;
  EXPECT_EQ(filemap_find_slot(fs(), entry(0xFFFE, 30)), nullptr);
  EXPECT_EQ(device().counts().reads, 0U);
}

TEST_F(slot_search, without_a_sector_buffer_gives_null) {
  chunk_pool* pool = fs()->sctr_buf_chunk;
  fs()->sctr_buf_chunk = nullptr;
  output_of([&] { EXPECT_EQ(filemap_find_slot(fs(), entry(entry_id(3))), nullptr); });
  fs()->sctr_buf_chunk = pool;
}
