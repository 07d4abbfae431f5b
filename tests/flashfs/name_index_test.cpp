// The index of a directory's names: alone, and followed by every change of the file system.
#include "flashfs/name_index.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "flashfs/check_flags.h"
#include "flashfs/control_codes.h"
#include "flashfs/filemap.h"
#include "flashfs/path.h"
#include "tests/flashfs/operations_fixture.h"
#include "tests/flashfs/unchecked_fixture.h"
#include "tests/support/image_builder.h"
#include "tests/support/plain_walk.h"
#include "tests/support/ram_flash.h"

using namespace test_support;

namespace {

flashfs_dir_slot slot_named(const std::string& name) {
  flashfs_dir_slot slot = {};
  std::memcpy(slot.name, name.data(), name.size());
  return slot;
}

// Slots in the list of directory 30, in memory alone.
class names_in_memory : public unchecked_fixture {
 protected:
  flashfs_sctr_list_ordered* enter(uint16_t seq_no, const std::string& name) {
    flashfs_dir_slot slot = slot_named(name);
    slot.dir_fileid = 30;
    slot.entry_fileid = static_cast<uint16_t>(100 + seq_no);
    slot.seq_no = seq_no;
    return filemap_add_slot(fs(), {0, 0}, 0, slot);
  }
  flashfs_sctr_map* directory() {
    return filemap_lookup(fs(), 30);
  }
  void remove(flashfs_sctr_list_ordered* entry) {
    sctr_list_remove(fs(), directory(), entry);
  }
  void rename(flashfs_sctr_list_ordered* entry, const std::string& name) {
    flashfs_dir_slot slot = slot_named(name);
    slot.dir_fileid = 30;
    slot.entry_fileid = as_listed_slot(entry)->entry_fileid;
    filemap_redirect_slot(fs(), directory(), entry, {1, 1}, 1, slot);
  }
  // The numbers of the entries that a search gives.
  std::vector<int> search(const std::string& name) {
    std::vector<int> numbers;
    name_search found(directory(), name.c_str());
    while (const listed_slot* slot = found.next()) {
      numbers.push_back(slot->seq_no);
    }
    return numbers;
  }
  // So many that an index is worth its while; their numbers begin with 1000.
  void enter_others(uint16_t count) {
    for (uint16_t i = 0; i < count; i++) {
      enter(static_cast<uint16_t>(1000 + i), "other" + std::to_string(i));
    }
  }
  bool has_index() {
    return static_cast<filemap_record*>(directory())->names != nullptr;
  }
};

class damaged_directories : public operations_fixture {};

class equal_names : public operations_fixture {
 protected:
  // Forty entries of one name in the root, file ids 2 to 41, the later the lower its number, and
  // some others.
  void SetUp() override {
    make_blocks({8, 8, 8, 8});
    image().headers(3);
    image().slot(0, 0, 0, {.entry_fileid = 1, .mode = 0x4700, .name = ""});
    for (int i = 0; i < equals; i++) {
      image().slot(0, (1 + i) / 32, (1 + i) % 32,
                   {.seq_no = static_cast<uint16_t>(100 - i),
                    .entry_fileid = static_cast<uint16_t>(2 + i),
                    .name = "same"});
    }
    mount_recipe();
  }
  uint16_t found(const char* path = "same") {
    EXPECT_EQ(difference_to_a_walk(fs()), "");
    return path_lookup(fs(), path);
  }
  static constexpr int equals = 40;
};

}  // namespace

TEST(name_hashes, are_those_of_the_name_up_to_its_end_or_that_of_its_field) {
  for (const std::string& name : {std::string(), std::string("a"), std::string(45, 'q')}) {
    EXPECT_EQ(slot_name_hash(slot_named(name)), name_hash(name.c_str())) << name;
  }
  flashfs_dir_slot full = slot_named(std::string(46, 'q'));
  std::memset(&full.checksum, 'q', sizeof full.checksum);
  EXPECT_EQ(slot_name_hash(full), name_hash(std::string(46, 'q').c_str()));
  EXPECT_NE(name_hash("a"), name_hash("b"));
  EXPECT_NE(name_hash("ab"), name_hash("ba"));
}

TEST(name_hashes, differ_for_all_names_that_a_full_device_can_have_in_a_row) {
  std::vector<uint32_t> hashes;
  for (int i = 0; i < 13102; i++) {
    hashes.push_back(name_hash(("file" + std::to_string(i)).c_str()));
  }
  std::sort(hashes.begin(), hashes.end());
  EXPECT_EQ(std::adjacent_find(hashes.begin(), hashes.end()), hashes.end());
}

TEST_F(names_in_memory, a_short_list_has_no_index_and_a_long_one_gets_it_with_the_first_search) {
  enter(0, "same");
  enter_others(name_index::worthwhile_entries - 1);
  EXPECT_EQ(search("same"), std::vector<int>{0});
  EXPECT_FALSE(has_index());
  enter(1, "more");
  EXPECT_FALSE(has_index());
  EXPECT_EQ(search("same"), std::vector<int>{0});
  EXPECT_TRUE(has_index());
}

TEST_F(names_in_memory, equal_names_come_in_the_order_of_the_list) {
  for (const uint16_t others : {uint16_t{0}, uint16_t{100}}) {
    filemap_clear(fs());
    enter(5, "same");
    enter_others(others);
    enter(3, "same");
    EXPECT_EQ(search("same"), (std::vector<int>{3, 5})) << others;
    enter(9, "same");
    flashfs_sctr_list_ordered* lowest = enter(1, "same");
    enter(4, "same");
    EXPECT_EQ(search("same"), (std::vector<int>{1, 3, 4, 5, 9})) << others;
    remove(lowest);
    EXPECT_EQ(search("same"), (std::vector<int>{3, 4, 5, 9})) << others;
    EXPECT_EQ(search("none"), std::vector<int>{}) << others;
  }
}

TEST_F(names_in_memory, a_new_name_takes_the_place_of_the_old_one) {
  for (const uint16_t others : {uint16_t{0}, uint16_t{100}}) {
    filemap_clear(fs());
    enter_others(others);
    enter(2, "one");
    flashfs_sctr_list_ordered* changed = enter(3, "two");
    enter(4, "one");
    EXPECT_EQ(search("two"), std::vector<int>{3});
    rename(changed, "one");
    EXPECT_EQ(search("two"), std::vector<int>{});
    EXPECT_EQ(search("one"), (std::vector<int>{2, 3, 4}));
    EXPECT_EQ(changed->sctr_ptr, (flashfs_sctr_ptr{1, 1}));
    EXPECT_EQ(changed->slot_no, 1);
  }
}

TEST_F(names_in_memory, equal_numbers_count_in_the_order_of_the_list_too) {
  enter_others(20);
  enter(0, "same");
  EXPECT_EQ(search("same"), std::vector<int>{0});
  flashfs_sctr_list_ordered* newer = enter(0, "same");
  flashfs_sctr_list_ordered* changed = enter(0, "else");
  rename(changed, "same");
  name_search found(directory(), "same");
  EXPECT_EQ(found.next(), changed);
  EXPECT_EQ(found.next(), newer);
  EXPECT_NE(found.next(), nullptr);
  EXPECT_EQ(found.next(), nullptr);
}

TEST_F(names_in_memory, an_index_grows_with_its_list) {
  enter_others(20);
  EXPECT_EQ(search("other3"), std::vector<int>{1003});
  enter_others(5000);
  for (int i = 20; i < 5000; i += 7) {
    ASSERT_EQ(search("other" + std::to_string(i)), std::vector<int>{1000 + i});
  }
  EXPECT_EQ(search("other3").size(), 2U);
}

TEST_F(names_in_memory, a_list_that_is_taken_apart_leaves_nothing_to_be_found) {
  enter_others(100);
  EXPECT_EQ(search("other50"), std::vector<int>{1050});
  while (directory()->sctr_list != nullptr) {
    remove(directory()->sctr_list);
  }
  EXPECT_EQ(search("other50"), std::vector<int>{});
  enter_others(3);
  EXPECT_EQ(search("other2"), std::vector<int>{1002});
  sctr_list_clear(fs(), directory());
  EXPECT_EQ(search("other2"), std::vector<int>{});
}

// --- through the file system ---

TEST_F(equal_names, the_first_in_the_order_of_the_list_is_found) {
  EXPECT_EQ(found(), 41);
  ASSERT_EQ(remove("same"), 0);
  EXPECT_EQ(found(), 40);
  ASSERT_EQ(rename("same", "another"), 0);
  EXPECT_EQ(found(), 39);
  EXPECT_EQ(found("another"), 40);
  ASSERT_EQ(mkdir("d"), 0);
  ASSERT_EQ(rename("same", "d/same"), 0);
  EXPECT_EQ(found(), 38);
  EXPECT_EQ(found("d/same"), 39);
  ASSERT_EQ(chmod("same", 0x1FF), 0);
  EXPECT_EQ(found(), 38) << "its new slot has the place of the old one";
  EXPECT_EQ(error_of(rename("another", "same")), EEXIST);
  EXPECT_EQ(error_of(mkdir("same")), EEXIST);
}

TEST_F(equal_names, are_all_removed_one_by_one) {
  for (int left = equals; left > 0; left--) {
    EXPECT_EQ(found(), 1 + left);
    ASSERT_EQ(remove("same"), 0) << left;
  }
  EXPECT_EQ(found(), 0);
  put("same", "text");
  EXPECT_NE(found(), 0);
}

TEST_F(equal_names, are_found_after_any_check_as_before) {
  ASSERT_EQ(remove("same"), 0);
  for (const uint32_t flags :
       {flashfs_check_quick, flashfs_check_full, flashfs_check_full | flashfs_check_reclaim_all}) {
    ASSERT_EQ(check(flags), 0);
    EXPECT_EQ(found(), 40) << flags;
  }
}

TEST_F(damaged_directories, are_searched_as_by_a_walk_whatever_happens_to_them) {
  for (uint32_t seed = 1; seed <= 12; seed++) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    uint32_t random = seed * 2654435761U;
    const auto below = [&](uint32_t limit) {
      random = random * 1664525U + 1013904223U;
      return static_cast<int>((random >> 8) % limit);
    };
    const auto name = [&] { return "n" + std::to_string(below(12)); };
    const auto path = [&] { return (below(3) == 0 ? name() + "/" : std::string()) + name(); };
    make_blocks({6, 6, 6, 6});
    image().headers(3);
    image().slot(0, 0, 0, {.entry_fileid = 1, .mode = 0x4700, .name = ""});
    for (int i = 1; i < 32 * 4; i++) {
      image().slot(i / 64, i / 32 % 2, i % 32,
                   {.seq_no = static_cast<uint16_t>(below(200)),
                    .dir_fileid = static_cast<uint16_t>(below(4) != 0 ? 1 : below(8) + 1),
                    .entry_fileid = static_cast<uint16_t>(below(150) + 1),
                    .mode = static_cast<uint16_t>(below(6) == 0 ? 0x4700 : 0x8700),
                    .name = name()});
    }
    image().data_sector(2, 1, static_cast<uint16_t>(below(20) + 1), 0, "strays among the names");
    image().data_sector(2, 2, static_cast<uint16_t>(below(20) + 1), static_cast<uint16_t>(below(9)),
                        "strays");
    if (check_of_recipe(flashfs_check_full), fs()->ready == 0) {
      continue;
    }
    ASSERT_EQ(difference_to_a_walk(fs()), "");
    for (int i = 0; i < 60 && fs()->ready != 0; i++) {
      const std::string from = path();
      const std::string to = path();
      const int kind = below(7);
      SCOPED_TRACE(std::to_string(kind) + " " + from + " " + to);
      switch (kind) {
        case 0:
          remove(from);
          break;
        case 1:
          rename(from, to);
          break;
        case 2:
          mkdir(from);
          break;
        case 3:
          rmdir(from);
          break;
        case 4:
          chmod(from, 0x1FF);
          break;
        case 5:
          if (const int32_t fd = open(from, open_new); fd >= 0) {
            write(fd, to);
            close(fd);
          }
          break;
        default:
          if (below(10) == 0) {
            check_of_recipe(below(2) == 0 ? flashfs_check_quick : flashfs_check_full);
          }
      }
      if (fs()->ready != 0) {
        ASSERT_EQ(difference_to_a_walk(fs()), "");
      }
    }
  }
}
