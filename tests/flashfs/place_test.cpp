// A place in a file's list, and what an open file remembers of it.
#include "flashfs/place.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <ext/alloc_traits.h>
#include <initializer_list>
#include <vector>

namespace {

constexpr uint8_t written = slot_of_sector;
constexpr uint8_t reserved = slot_of_reserved_sector;

// A file whose list has an entry for each slot index given.
class listed_file {
 public:
  explicit listed_file(const std::vector<uint8_t>& slot_numbers) : entries_(slot_numbers.size()) {
    for (size_t i = 0; i < entries_.size(); i++) {
      entries_[i] = {i + 1 < entries_.size() ? &entries_[i + 1] : nullptr,
                     static_cast<uint16_t>(i),
                     slot_numbers[i],
                     {}};
    }
    map_.sctr_list = entries_.empty() ? nullptr : entries_.data();
  }

  const flashfs_sctr_map* map() const {
    return &map_;
  }
  flashfs_sctr_list_ordered* at(size_t index) {
    return &entries_[index];
  }

 private:
  std::vector<flashfs_sctr_list_ordered> entries_;
  flashfs_sctr_map map_ = {};
};

}  // namespace

TEST(list_place, a_place_is_found_by_its_index) {
  listed_file file({written, written, written});
  const list_place found = list_place().find(file.map(), 1);
  EXPECT_EQ(found.entry(), file.at(1));
  EXPECT_EQ(found.index(), 1U);
}

TEST(list_place, behind_the_end_there_is_no_entry_and_the_index_is_the_length) {
  listed_file file({written, written, written});
  const list_place found = list_place().find(file.map(), 7);
  EXPECT_EQ(found.entry(), nullptr);
  EXPECT_EQ(found.index(), 3U);
  EXPECT_EQ(list_place().find(listed_file({}).map(), 0).entry(), nullptr);
}

TEST(list_place, the_last_entry_is_found_from_anywhere) {
  listed_file file({written, written, written});
  for (const list_place& from : {list_place(), list_place(file.at(0)), list_place(file.at(1), 1),
                                 list_place(file.at(2), 2)}) {
    EXPECT_EQ(from.find_last(file.map()).entry(), file.at(2));
    EXPECT_EQ(from.find_last(file.map()).index(), 2U);
  }
  EXPECT_EQ(list_place().find_last(listed_file({}).map()).entry(), nullptr);
}

TEST(list_place, a_walk_begins_at_what_is_remembered_unless_it_must_begin_before) {
  listed_file file({written, written, written});
  const list_place remembered(file.at(1), 1);
  EXPECT_EQ(remembered.start(file.map(), 2).entry(), file.at(1));
  EXPECT_EQ(remembered.start(file.map(), 1).entry(), file.at(1));
  EXPECT_EQ(remembered.start(file.map(), 0).entry(), file.at(0));
  EXPECT_EQ(list_place().start(file.map(), 2).entry(), file.at(0));
}

TEST(list_place, what_is_remembered_can_be_forgotten) {
  listed_file file({written, written});
  list_place remembered(file.at(1), 1);
  remembered.forget();
  EXPECT_EQ(remembered.entry(), nullptr);
  EXPECT_EQ(remembered.index(), 0U);
}

TEST(list_place, a_reserved_sector_is_not_remembered) {
  listed_file file({written, reserved});
  list_place remembered(file.at(0));
  remembered.remember(remembered.find(file.map(), 1));
  EXPECT_EQ(remembered.entry(), file.at(0));
}

TEST(list_place, nothing_behind_a_reserved_sector_is_remembered) {
  listed_file file({written, reserved, written});
  list_place remembered(file.at(0));
  remembered.remember(remembered.find(file.map(), 2));
  EXPECT_EQ(remembered.entry(), file.at(0));
  remembered.remember(remembered.find_last(file.map()));
  EXPECT_EQ(remembered.entry(), file.at(0));
}

TEST(list_place, a_sector_that_a_walk_has_filled_no_longer_keeps_it_from_being_remembered) {
  listed_file file({written, reserved, written});
  list_place remembered(file.at(0));
  list_place walk = remembered.find(file.map(), 1);
  walk.entry()->slot_no = written;
  walk.advance();
  remembered.remember(walk);
  EXPECT_EQ(remembered.entry(), file.at(2));
  EXPECT_EQ(remembered.index(), 2U);
}

TEST(list_place, the_end_of_a_list_is_nowhere) {
  listed_file file({written});
  list_place remembered(file.at(0));
  remembered.remember(list_place(nullptr, 1));
  EXPECT_EQ(remembered.entry(), nullptr);
}
