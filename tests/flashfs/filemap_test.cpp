// The file map, the list of each file, and the numbers for what is new.
#include "flashfs/filemap.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "flashfs/flashfs.h"
#include "tests/flashfs/flashfs_test_tools.h"
#include "tests/flashfs/unchecked_fixture.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"

using namespace test_support;

namespace {

class file_map : public unchecked_fixture {
 protected:
  void SetUp() override {
    unchecked_fixture::SetUp();
    std::memset(&sector_, 0xFF, sizeof sector_);
  }
  // The buffer becomes a data sector.
  const flashfs_sector* data_sector(uint16_t fileid, uint16_t seq_no) {
    sector_.fileid = fileid;
    sector_.seq_no = seq_no;
    return &sector_;
  }
  // The buffer becomes a directory sector with this slot in it.
  const flashfs_sector* slot(uint8_t slot_no, uint16_t dir_fileid, uint16_t seq_no) {
    sector_.fileid = fileid_root;
    sector_.slots[slot_no].dir_fileid = dir_fileid;
    sector_.slots[slot_no].seq_no = seq_no;
    return &sector_;
  }
  std::vector<uint16_t> fileids() {
    std::vector<uint16_t> ids;
    for (const auto* entry = fs()->file_map; entry != nullptr; entry = entry->next) {
      ids.push_back(entry->fileid);
    }
    EXPECT_EQ(fs()->num_files, ids.size());
    return ids;
  }
  // "seq@block.sector" or "seq@block.sector/slot" for each entry of a file's list.
  std::string list_of(uint16_t fileid) {
    const flashfs_sctr_map* file = filemap_lookup(fs(), fileid);
    std::string text;
    for (const auto* each = file == nullptr ? nullptr : file->sctr_list; each != nullptr;
         each = each->next) {
      text += (text.empty() ? "" : " ") + std::to_string(each->seq_no) + "@" +
              std::to_string(each->sctr_ptr.block_num) + "." +
              std::to_string(each->sctr_ptr.sctr_num);
      if (each->slot_no != slot_of_sector) {
        text += "/" + std::to_string(each->slot_no);
      }
    }
    return text;
  }
};

// Lists that need no file system.
template <size_t count>
std::array<flashfs_sctr_list_ordered, count> linked(const uint16_t (&seq_nos)[count]) {
  std::array<flashfs_sctr_list_ordered, count> list{};
  for (size_t i = 0; i < count; i++) {
    list[i].seq_no = seq_nos[i];
  }
  return list;
}

template <size_t count>
int contiguous_bad(const uint16_t (&seq_nos)[count]) {
  auto list = linked(seq_nos);
  for (size_t i = 0; i + 1 < count; i++) {
    list[i].next = &list[i + 1];
  }
  return sctr_list_is_contiguous_bad(list.data());
}

// The number for the next slot of a directory with slots of these numbers, and that it is the same
// however often it is asked for.
class next_slot_seq_no : public unchecked_fixture {
 protected:
  uint16_t after(std::initializer_list<uint16_t> numbers) {
    filemap_clear(fs());
    flashfs_sctr_map* directory = filemap_insert(fs(), 30, 1, 0x4700);
    for (const uint16_t number : numbers) {
      enter(directory, number);
    }
    const uint16_t next = flashfs_next_slot_seq_no(directory);
    EXPECT_EQ(flashfs_next_slot_seq_no(directory), next);
    return next;
  }
  flashfs_sctr_list_ordered* enter(const flashfs_sctr_map* directory, uint16_t number) {
    flashfs_dir_slot slot = {};
    slot.dir_fileid = directory->fileid;
    slot.seq_no = number;
    return filemap_add_slot(fs(), {0, 0}, 0, slot);
  }
};

class next_fileid : public unchecked_fixture {
 protected:
  uint16_t after(std::initializer_list<uint16_t> ids) {
    filemap_clear(fs());
    for (const uint16_t id : ids) {
      filemap_insert(fs(), id, 1, 0x8700);
    }
    return flashfs_next_fileid(fs());
  }
};

}  // namespace

TEST_F(file_map, an_id_that_is_not_in_the_map_gives_null) {
  EXPECT_EQ(filemap_lookup(fs(), 7), nullptr) << "an empty map";
  for (const uint16_t fileid : u16s{9, 2, 5}) {
    ASSERT_NE(filemap_insert(fs(), fileid, 1, 0x8000), nullptr);
  }
  EXPECT_EQ(filemap_lookup(fs(), 7), nullptr);
  EXPECT_EQ(filemap_lookup(fs(), 1), nullptr);
  EXPECT_EQ(filemap_lookup(fs(), 10), nullptr);
  EXPECT_EQ(filemap_lookup(fs(), 65534), nullptr);
  EXPECT_EQ(filemap_lookup(fs(), 0), nullptr);
  EXPECT_EQ(filemap_lookup(fs(), 0xFFFF), nullptr);
  for (const uint16_t fileid : u16s{2, 5, 9}) {
    ASSERT_NE(filemap_lookup(fs(), fileid), nullptr);
    EXPECT_EQ(filemap_lookup(fs(), fileid)->fileid, fileid);
  }
}

TEST_F(file_map, a_new_entry_holds_its_arguments_and_else_nothing) {
  const flashfs_sctr_map* entry = filemap_insert(fs(), 40, 3, 0x81FF);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->fileid, 40);
  EXPECT_EQ(entry->parent_fileid, 3);
  EXPECT_EQ(entry->mode, 0x81FF);
  EXPECT_EQ(entry->readers, 0U);
  EXPECT_EQ(entry->writer, 0U);
  EXPECT_EQ(entry->sctr_list, nullptr);
  EXPECT_EQ(entry->next, nullptr);
}

TEST_F(file_map, entries_stand_in_ascending_order_however_they_come) {
  for (const uint16_t fileid : u16s{300, 2, 65534, 255, 256, 1, 511, 512, 40000}) {
    ASSERT_NE(filemap_insert(fs(), fileid, 0, 0x8000), nullptr) << fileid;
  }
  EXPECT_EQ(fileids(), (std::vector<uint16_t>{1, 2, 255, 256, 300, 511, 512, 40000, 65534}));
  EXPECT_EQ(filemap_last(fs())->fileid, 65534);
}

TEST_F(file_map, reserved_ids_are_refused) {
  EXPECT_EQ(filemap_insert(fs(), 0, 1, 0x8000), nullptr);
  EXPECT_EQ(filemap_insert(fs(), 0xFFFF, 1, 0x8000), nullptr);
  EXPECT_EQ(fileids(), std::vector<uint16_t>{});
}

TEST_F(file_map, an_id_that_is_taken_is_refused_and_the_map_stays) {
  filemap_insert(fs(), 5, 1, 0x8000);
  flashfs_sctr_map* entry = filemap_insert(fs(), 7, 1, 0x8000);
  filemap_insert(fs(), 9, 1, 0x8000);
  EXPECT_EQ(filemap_insert(fs(), 7, 2, 0x4000), nullptr);
  EXPECT_EQ(filemap_lookup(fs(), 7), entry);
  EXPECT_EQ(entry->parent_fileid, 1);
  EXPECT_EQ(entry->mode, 0x8000);
  EXPECT_EQ(fileids(), (std::vector<uint16_t>{5, 7, 9}));
}

TEST_F(file_map, a_removed_entry_is_gone_and_its_list_too) {
  for (const uint16_t fileid : u16s{5, 300, 9}) {
    (void)filemap_add_sector(fs(), {0, fileid}, data_sector(fileid, 0), slot_of_sector);
  }
  filemap_remove(fs(), filemap_lookup(fs(), 9));
  EXPECT_EQ(fileids(), (std::vector<uint16_t>{5, 300}));
  filemap_remove(fs(), filemap_lookup(fs(), 5));
  filemap_remove(fs(), filemap_lookup(fs(), 300));
  EXPECT_EQ(fileids(), std::vector<uint16_t>{});
  EXPECT_EQ(filemap_lookup(fs(), 300), nullptr);
  EXPECT_EQ(filemap_last(fs()), nullptr);
  EXPECT_NE(filemap_insert(fs(), 9, 1, 0x8000), nullptr) << "the id is free again";
}

// --- adding sectors ---

TEST_F(file_map, a_data_sector_of_an_unknown_file_makes_its_entry) {
  EXPECT_EQ(filemap_add_sector(fs(), {1, 4}, data_sector(12, 0), slot_of_sector), 0);
  const flashfs_sctr_map* entry = filemap_lookup(fs(), 12);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->mode, 0x8600);
  EXPECT_EQ(entry->parent_fileid, 0);
  EXPECT_EQ(entry->readers + entry->writer, 0U);
  EXPECT_EQ(list_of(12), "0@1.4");
  EXPECT_EQ(entry->sctr_list->slot_no, 255);
}

TEST_F(file_map, a_data_sector_has_no_slot_index_whatever_the_caller_says) {
  EXPECT_EQ(filemap_add_sector(fs(), {1, 4}, data_sector(12, 0), 7), 0);
  EXPECT_EQ(filemap_lookup(fs(), 12)->sctr_list->slot_no, 255);
}

TEST_F(file_map, a_slot_of_an_unknown_directory_makes_the_directorys_entry) {
  sector_.slots[3].entry_fileid = 77;
  EXPECT_EQ(filemap_add_sector(fs(), {1, 4}, slot(3, 4, 6), 3), 0);
  const flashfs_sctr_map* entry = filemap_lookup(fs(), 4);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->mode, 0x4600);
  EXPECT_EQ(entry->parent_fileid, 0);
  EXPECT_EQ(list_of(4), "6@1.4/3");
  EXPECT_EQ(fileids(), std::vector<uint16_t>{4}) << "the entry that the slot names is not made";
}

TEST_F(file_map, a_known_owner_keeps_its_mode_and_parent) {
  filemap_insert(fs(), 12, 3, 0x81FF);
  EXPECT_EQ(filemap_add_sector(fs(), {1, 4}, data_sector(12, 0), slot_of_sector), 0);
  EXPECT_EQ(filemap_lookup(fs(), 12)->mode, 0x81FF);
  EXPECT_EQ(filemap_lookup(fs(), 12)->parent_fileid, 3);
}

TEST_F(file_map, a_new_duplicate_stands_before_the_old_one) {
  (void)filemap_add_sector(fs(), {0, 0}, data_sector(12, 0), slot_of_sector);
  (void)filemap_add_sector(fs(), {0, 3}, data_sector(12, 3), slot_of_sector);
  (void)filemap_add_sector(fs(), {0, 5}, data_sector(12, 5), slot_of_sector);
  EXPECT_EQ(filemap_add_sector(fs(), {2, 9}, data_sector(12, 3), slot_of_sector), 0);
  EXPECT_EQ(list_of(12), "0@0.0 3@2.9 3@0.3 5@0.5");
}

TEST_F(file_map, a_new_duplicate_of_the_head_becomes_the_head) {
  (void)filemap_add_sector(fs(), {0, 0}, data_sector(12, 1), slot_of_sector);
  (void)filemap_add_sector(fs(), {0, 1}, data_sector(12, 1), slot_of_sector);
  EXPECT_EQ(list_of(12), "1@0.1 1@0.0");
}

TEST_F(file_map, sectors_stand_in_ascending_order_however_they_come) {
  for (const uint16_t seq_no : u16s{500, 2, 65535, 0, 3, 1}) {
    (void)filemap_add_sector(fs(), {0, seq_no}, data_sector(12, seq_no), slot_of_sector);
  }
  EXPECT_EQ(list_of(12), "0@0.0 1@0.1 2@0.2 3@0.3 500@0.500 65535@0.65535");
}

TEST_F(file_map, a_sector_of_a_reserved_owner_is_refused) {
  EXPECT_EQ(filemap_add_sector(fs(), {0, 0}, data_sector(0, 0), slot_of_sector), 1);
  EXPECT_EQ(filemap_add_sector(fs(), {0, 0}, data_sector(0xFFFF, 0), slot_of_sector), 1);
  EXPECT_EQ(filemap_add_sector(fs(), {0, 0}, slot(2, 0, 0), 2), 1);
  EXPECT_EQ(filemap_add_sector(fs(), {0, 0}, slot(2, 0xFFFF, 0), 2), 1);
  EXPECT_EQ(fileids(), std::vector<uint16_t>{});
}

TEST_F(file_map, adding_all_of_a_data_sector_adds_it_as_a_sector) {
  EXPECT_EQ(filemap_add_sector_all(fs(), {2, 7}, data_sector(12, 4)), 0);
  EXPECT_EQ(list_of(12), "4@2.7");
  EXPECT_EQ(filemap_lookup(fs(), 12)->sctr_list->slot_no, 255);
}

TEST_F(file_map, adding_all_of_a_directory_sector_adds_its_live_slots) {
  slot(0, 1, 5);
  slot(7, 1, 2);
  slot(8, 30, 0);
  slot(31, 1, 9);
  slot(4, 0, 1);
  slot(5, 0, 1);
  fs()->flashfs_blocks[2].invalid_slots = 10;
  EXPECT_EQ(filemap_add_sector_all(fs(), {2, 7}, &sector_), 0);
  EXPECT_EQ(list_of(1), "2@2.7/7 5@2.7/0 9@2.7/31");
  EXPECT_EQ(list_of(30), "0@2.7/8");
  EXPECT_EQ(fs()->flashfs_blocks[2].invalid_slots, 12) << "two deleted slots";
  EXPECT_EQ(fs()->flashfs_blocks[2].invalid_sectors, 0);
  EXPECT_EQ(fs()->available_slots, nullptr) << "available slots are not this step's";
}

TEST_F(file_map, the_first_failure_ends_the_walk_over_the_slots) {
  EXPECT_EQ(filemap_add_sector_all(fs(), {2, 7}, data_sector(0xFFFF, 4)), 1);
  EXPECT_EQ(filemap_collect_sector_all(fs(), {2, 7}, data_sector(0, 4)), 1);
}

TEST_F(file_map, collecting_and_sorting_gives_the_lists_that_adding_gives) {
  // Numbers that repeat, from many sectors, in an order that is none.
  std::string added;
  std::string collected;
  for (const bool collect : {false, true}) {
    filemap_clear(fs());
    uint32_t random = 1;
    for (uint16_t i = 0; i < 500; i++) {
      random = random * 1103515245 + 12345;
      const auto seq_no = static_cast<uint16_t>((random >> 16) % 100);
      const auto* sector = data_sector(static_cast<uint16_t>(2 + i % 2), seq_no);
      const flashfs_sctr_ptr pointer = {1, i};
      ASSERT_EQ(collect ? filemap_collect_sector_all(fs(), pointer, sector)
                        : filemap_add_sector_all(fs(), pointer, sector),
                0);
    }
    if (collect) {
      filemap_sort_lists(fs());
    }
    (collect ? collected : added) = list_of(2) + "\n" + list_of(3);
  }
  EXPECT_EQ(collected, added);
}

TEST_F(file_map, collecting_all_of_a_directory_sector_counts_its_deleted_slots) {
  slot(3, 0, 1);
  slot(4, 1, 8);
  slot(9, 1, 2);
  EXPECT_EQ(filemap_collect_sector_all(fs(), {2, 7}, &sector_), 0);
  filemap_sort_lists(fs());
  EXPECT_EQ(list_of(1), "2@2.7/9 8@2.7/4");
  EXPECT_EQ(fs()->flashfs_blocks[2].invalid_slots, 1);
}

// --- lists ---

TEST(sector_list, an_entry_is_found_by_block_sector_and_slot) {
  flashfs_sctr_list_ordered list[4] = {};
  list[0] = {&list[1], 0, 5, {1, 2}};
  list[1] = {&list[2], 0, 6, {1, 2}};
  list[2] = {&list[3], 0, 6, {2, 2}};
  list[3] = {nullptr, 9, 6, {1, 2}};
  EXPECT_EQ(sctr_list_find(list, 1, 2, 5), &list[0]);
  EXPECT_EQ(sctr_list_find(list, 1, 2, 6), &list[1]) << "the first one of two";
  EXPECT_EQ(sctr_list_find(&list[2], 1, 2, 6), &list[3]) << "from the given head";
  EXPECT_EQ(sctr_list_find(list, 2, 2, 6), &list[2]);
  EXPECT_EQ(sctr_list_find(list, 1, 3, 5), nullptr);
  EXPECT_EQ(sctr_list_find(list, 2, 2, 5), nullptr);
  EXPECT_EQ(sctr_list_find(list, 1, 2, 255), nullptr);
  EXPECT_EQ(sctr_list_find(nullptr, 1, 2, 5), nullptr);
}

TEST(sector_list, numbers_from_0_without_a_gap_are_contiguous) {
  EXPECT_EQ(sctr_list_is_contiguous_bad(nullptr), 0);
  EXPECT_EQ(contiguous_bad({0}), 0);
  EXPECT_EQ(contiguous_bad({0, 1, 2}), 0);
}

TEST(sector_list, a_list_that_does_not_begin_at_0_or_has_a_gap_or_a_duplicate_is_bad) {
  EXPECT_EQ(contiguous_bad({1, 2, 3}), 1);
  EXPECT_EQ(contiguous_bad({0, 2}), 1);
  EXPECT_EQ(contiguous_bad({1}), 1);
  EXPECT_EQ(contiguous_bad({0, 0}), 1);
  EXPECT_EQ(contiguous_bad({0, 1, 1}), 1);
  EXPECT_EQ(contiguous_bad({0, 1, 0}), 1);
}

TEST_F(file_map, a_file_can_have_all_65536_sector_numbers) {
  flashfs_sctr_map* file = filemap_insert(fs(), 12, 1, 0x8000);
  for (uint32_t i = 0; i <= 0xFFFF; i++) {
    ASSERT_EQ(filemap_collect_sector_all(fs(), {0, 0}, data_sector(12, static_cast<uint16_t>(i))),
              0);
  }
  filemap_sort_lists(fs());
  EXPECT_EQ(sctr_list_length(file->sctr_list), 65536U);
  EXPECT_EQ(sctr_list_is_contiguous_bad(file->sctr_list), 0);
}

TEST_F(file_map, entries_are_taken_out_of_a_list_one_by_one_or_all_at_once) {
  for (uint16_t seq_no = 0; seq_no < 4; seq_no++) {
    (void)filemap_add_sector(fs(), {0, seq_no}, data_sector(12, seq_no), slot_of_sector);
  }
  flashfs_sctr_map* file = filemap_lookup(fs(), 12);
  sctr_list_remove(fs(), file, file->sctr_list->next);
  EXPECT_EQ(list_of(12), "0@0.0 2@0.2 3@0.3");
  sctr_list_remove(fs(), file, file->sctr_list);
  EXPECT_EQ(list_of(12), "2@0.2 3@0.3");
  EXPECT_EQ(sctr_list_length(file->sctr_list), 2U);
  sctr_list_clear(fs(), file);
  EXPECT_EQ(file->sctr_list, nullptr);
  EXPECT_EQ(sctr_list_length(file->sctr_list), 0U);
}

TEST_F(file_map, deleted_slots_of_a_copy_become_available_again) {
  std::memset(&sector_, 0x11, sizeof sector_);
  sector_.fileid = fileid_root;
  sector_.slots[0].dir_fileid = 0;
  sector_.slots[17].dir_fileid = 0;
  sector_.slots[31].dir_fileid = 0;
  sector_.slots[16].dir_fileid = 0xFFFF;
  flashfs_sector expected = sector_;
  for (const size_t k : {0U, 17U, 31U}) {
    std::memset(&expected.slots[k], 0xFF, 64);
  }
  EXPECT_EQ(dir_sector_clear_deleted(&sector_), 32);
  EXPECT_EQ(std::memcmp(&sector_, &expected, sizeof expected), 0);
}

TEST_F(file_map, the_entry_behind_another_is_taken_out_and_given_back) {
  // An entry that were not given back would be found as a leak when the program ends.
  for (uint16_t seq_no = 0; seq_no < 4; seq_no++) {
    ASSERT_EQ(filemap_add_sector(fs(), {0, seq_no}, data_sector(12, seq_no), slot_of_sector), 0);
  }
  flashfs_sctr_list_ordered* head = filemap_lookup(fs(), 12)->sctr_list;
  sctr_list_remove_behind(fs(), filemap_lookup(fs(), 12), head->next);
  EXPECT_EQ(list_of(12), "0@0.0 1@0.1 3@0.3");
  sctr_list_remove_behind(fs(), filemap_lookup(fs(), 12), head->next);
  EXPECT_EQ(list_of(12), "0@0.0 1@0.1") << "the last one";
  sctr_list_remove_behind(fs(), filemap_lookup(fs(), 12), head);
  EXPECT_EQ(list_of(12), "0@0.0");
  EXPECT_EQ(filemap_lookup(fs(), 12)->sctr_list, head);
}

// --- discarding everything ---

TEST_F(file_map, clearing_the_maps_discards_what_was_built) {
  mount_new(4);
  ASSERT_EQ(write_file("one", std::string(5000, 'x')), 0);
  fs()->flashfs_blocks[1].invalid_sectors = 3;
  fs()->flashfs_blocks[1].invalid_slots = 3;
  flashfs_clear_maps(fs());
  EXPECT_EQ(fs()->file_map, nullptr);
  EXPECT_EQ(fs()->available_sectors, nullptr);
  EXPECT_EQ(fs()->available_slots, nullptr);
  EXPECT_EQ(fs()->sctr_ptr_chunk, nullptr);
  EXPECT_EQ(fs()->ready, 0U);
  for (int b = 0; b < 4; b++) {
    EXPECT_EQ(fs()->flashfs_blocks[b].invalid_sectors, 0);
    EXPECT_EQ(fs()->flashfs_blocks[b].invalid_slots, 0);
  }
  ASSERT_EQ(check(), 0) << "the check builds them again";
  EXPECT_EQ(read_file("one"), std::string(5000, 'x'));
}

TEST_F(file_map, clearing_maps_that_were_never_built_does_no_harm) {
  make_flash(ram_blocks(2, 0x20000));
  ASSERT_EQ(initialize(), 0);
  fs()->flashfs_blocks[1].invalid_slots = 3;
  flashfs_clear_maps(fs());
  flashfs_clear_maps(fs());
  EXPECT_EQ(fs()->flashfs_blocks[1].invalid_slots, 0);
  EXPECT_EQ(fs()->ready, 0U);
}

// --- numbers for what is new ---

TEST_F(next_slot_seq_no, is_0_for_an_empty_directory_and_one_that_does_not_begin_with_0) {
  EXPECT_EQ(after({}), 0);
  EXPECT_EQ(after({1, 2}), 0);
}

TEST_F(next_slot_seq_no, follows_the_unbroken_run_from_0) {
  EXPECT_EQ(after({0}), 1);
  EXPECT_EQ(after({0, 1, 2}), 3);
  EXPECT_EQ(after({0, 1, 3, 4}), 2);
  EXPECT_EQ(after({0, 65535}), 1);
  EXPECT_EQ(after({0, 0, 1}), 1);
}

TEST_F(next_slot_seq_no, has_16_bits) {
  flashfs_sctr_map* directory = filemap_insert(fs(), 30, 1, 0x4700);
  flashfs_sctr_list_ordered* last = nullptr;
  for (uint32_t i = 0; i <= 0xFFFF; i++) {
    ASSERT_EQ(flashfs_next_slot_seq_no(directory), i);
    last = enter(directory, static_cast<uint16_t>(i));
  }
  EXPECT_EQ(flashfs_next_slot_seq_no(directory), 0);
  sctr_list_remove(fs(), directory, last);
  EXPECT_EQ(flashfs_next_slot_seq_no(directory), 65535);
}

TEST_F(next_slot_seq_no, is_the_same_as_by_a_walk_whatever_is_entered_and_taken_out) {
  flashfs_sctr_map* directory = filemap_insert(fs(), 30, 1, 0x4700);
  const auto by_a_walk = [&] {
    uint16_t next = 0;
    for (const auto* each = directory->sctr_list; each != nullptr && each->seq_no == next;
         each = each->next) {
      next++;
    }
    return next;
  };
  uint32_t random = 1;
  const auto below = [&](uint32_t limit) {
    random = random * 1664525U + 1013904223U;
    return (random >> 8) % limit;
  };
  for (int i = 0; i < 5000; i++) {
    const uint32_t length = sctr_list_length(directory->sctr_list);
    const uint32_t kind = below(4);
    if (kind < 2) {
      enter(directory, kind == 0 ? by_a_walk() : static_cast<uint16_t>(below(40)));
    } else if (length > 0) {
      flashfs_sctr_list_ordered* entry = directory->sctr_list;
      for (uint32_t skipped = below(length); skipped > 0; skipped--) {
        entry = entry->next;
      }
      sctr_list_remove(fs(), directory, entry);
    }
    if (below(3) != 0) {
      ASSERT_EQ(flashfs_next_slot_seq_no(directory), by_a_walk()) << i;
    }
  }
}

TEST_F(next_fileid, is_2_for_an_empty_map) {
  EXPECT_EQ(after({}), 2);
}

TEST_F(next_fileid, follows_the_unbroken_run_at_the_beginning_of_the_map) {
  EXPECT_EQ(after({1}), 2);
  EXPECT_EQ(after({1, 2, 3, 5}), 4);
  EXPECT_EQ(after({5, 6, 9}), 7);
}

TEST_F(next_fileid, says_65535_when_none_is_left_behind_the_run) {
  EXPECT_EQ(after({65533, 65534}), 65535);
  EXPECT_EQ(after({65533}), 65534);
}

TEST_F(next_fileid, says_65535_when_every_id_is_taken) {
  for (uint32_t id = fileid_root; id <= fileid_last; id++) {
    filemap_insert(fs(), static_cast<uint16_t>(id), 1, 0x8700);
  }
  EXPECT_EQ(flashfs_next_fileid(fs()), 65535);
  filemap_remove(fs(), filemap_lookup(fs(), 40000));
  EXPECT_EQ(flashfs_next_fileid(fs()), 40000);
}
