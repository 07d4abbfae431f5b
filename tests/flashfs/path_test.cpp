// Paths: names looked up in directories, the parts of a path, and the making of new names.
#include "flashfs/path.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "flashfs/alloc.h"
#include "flashfs/check_flags.h"
#include "flashfs/claim.h"
#include "flashfs/entry.h"
#include "flashfs/filemap.h"
#include "flashfs/flashfs.h"
#include "flashfs/io.h"
#include "flashfs/slots.h"
#include "sim/flash.h"
#include "sim/power.h"
#include "tests/flashfs/flashfs_recipe.h"
#include "tests/flashfs/flashfs_test_tools.h"
#include "tests/flashfs/unchecked_fixture.h"
#include "tests/support/flashfs_fixture.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"

using namespace test_support;

namespace {

constexpr uint32_t new_file = 0x8000;
constexpr uint32_t new_directory = 0x4000;
constexpr int errno_before = 12345;
const std::string log_start = "flashfs[0]: ";

using create_step = recipe_fixture;

class paths : public flashfs_fixture {
 protected:
  void SetUp() override {
    mount_new(4);
  }
  // Creates an entry that must be accepted; returns its id.
  uint16_t create(const std::string& path, uint32_t mode = new_file) {
    const flashfs_sctr_map* entry = flashfs_create_entry(fs(), path.c_str(), mode);
    EXPECT_NE(entry, nullptr) << path;
    return entry == nullptr ? uint16_t{0} : entry->fileid;
  }
  // The errno with which a creation is refused, and that it changes nothing in memory.
  int refusal(const char* path, uint32_t mode = new_file) {
    const uint32_t files = fs()->num_files;
    errno = errno_before;
    EXPECT_EQ(flashfs_create_entry(fs(), path, mode), nullptr);
    const int error = errno;
    EXPECT_EQ(fs()->num_files, files);
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
    for (const auto* entry = fs()->file_map; entry != nullptr; entry = entry->next) {
      EXPECT_EQ(entry->readers, 0U) << entry->fileid;
      EXPECT_EQ(entry->writer, 0U) << entry->fileid;
    }
    return error;
  }
  uint16_t lookup(const std::string& path) {
    errno = errno_before;
    return path_lookup(fs(), path.c_str());
  }
  flashfs_sctr_map* entry(uint16_t fileid) {
    return filemap_lookup(fs(), fileid);
  }
  // The slot that names an entry, as it is on flash.
  flashfs_dir_slot slot_of(uint16_t fileid) {
    flashfs_sector sector{};
    const flashfs_sctr_list_ordered* found = filemap_find_slot(fs(), entry(fileid));
    if (found == nullptr || read_sector(fs(), found->sctr_ptr, &sector, whole_sector) != 0) {
      ADD_FAILURE() << "no slot for " << fileid;
      return sector.slots[0];
    }
    return sector.slots[found->slot_no];
  }
  held_clock clock_{0x60000000};
};

std::string basename_of(const std::string& path) {
  std::vector<char> work(path.size() + 1);
  return path_basename(path.c_str(), work.data());
}

std::string dirname_of(const std::string& path) {
  std::vector<char> work(path.size() + 1);
  char* result = path_dirname(path.c_str(), work.data());
  EXPECT_EQ(result, work.data());
  return result;
}

}  // namespace

// --- the parts of a path ---

TEST(path_parts, the_last_component_is_what_follows_the_last_slash_that_is_not_trailing) {
  EXPECT_EQ(basename_of("a/b/c//"), "c");
  EXPECT_EQ(basename_of("a/b/c"), "c");
  EXPECT_EQ(basename_of("abc"), "abc");
  EXPECT_EQ(basename_of("/abc"), "abc");
  EXPECT_EQ(basename_of("a//b/"), "b");
}

TEST(path_parts, slashes_alone_have_an_empty_last_component) {
  EXPECT_EQ(basename_of("/"), "");
  EXPECT_EQ(basename_of("///"), "");
  EXPECT_EQ(basename_of(""), "");
  char work[2];
  EXPECT_EQ(path_basename("/", work), work);
}

TEST(path_parts, the_directory_part_is_what_is_before_it) {
  EXPECT_EQ(dirname_of("a/b/c"), "a/b");
  EXPECT_EQ(dirname_of("a//b/"), "a");
  EXPECT_EQ(dirname_of("/a/b"), "/a");
  EXPECT_EQ(dirname_of("a///b///c///"), "a///b");
}

TEST(path_parts, a_single_component_has_an_empty_directory_part) {
  EXPECT_EQ(dirname_of("abc"), "");
  EXPECT_EQ(dirname_of("/abc"), "");
  EXPECT_EQ(dirname_of("//abc/"), "");
  EXPECT_EQ(dirname_of("/"), "");
  EXPECT_EQ(dirname_of(""), "");
}

TEST(path_parts, may_be_of_any_length) {
  const std::string name(5000, 'n');
  EXPECT_EQ(basename_of("d/" + name), name);
  EXPECT_EQ(dirname_of(name + "/" + name), name);
}

// --- looking up ---

TEST_F(paths, the_empty_path_and_slashes_alone_are_the_root) {
  for (const char* path : {"", "/", "//", "/////"}) {
    EXPECT_EQ(lookup(path), 1) << path;
  }
}

TEST_F(paths, empty_components_are_skipped) {
  const uint16_t directory = create("a", new_directory);
  const uint16_t file = create("a/b");
  for (const char* path : {"a/b", "a//b", "/a/b", "//a///b//"}) {
    EXPECT_EQ(lookup(path), file) << path;
  }
  EXPECT_EQ(lookup("a/"), directory);
}

TEST_F(paths, a_name_that_is_missing_is_enoent) {
  create("a", new_directory);
  for (const char* path : {"b", "a/b", "a/b/c", "A", "aa"}) {
    EXPECT_EQ(lookup(path), 0) << path;
    EXPECT_EQ(errno, ENOENT) << path;
  }
}

TEST_F(paths, a_name_in_a_file_is_enotdir) {
  const uint16_t file = create("f");
  EXPECT_EQ(lookup("f/x"), 0);
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_EQ(lookup("f/x/y"), 0);
  EXPECT_EQ(errno, ENOTDIR) << "the walk stops there";
  errno = 0;
  EXPECT_EQ(dir_lookup(fs(), file, "x"), 0);
  EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(paths, a_directory_that_is_not_in_the_map_is_enoent) {
  for (const uint16_t fileid : u16s{0, 77, 0xFFFF}) {
    errno = 0;
    EXPECT_EQ(dir_lookup(fs(), fileid, "x"), 0);
    EXPECT_EQ(errno, ENOENT);
  }
  EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
}

TEST_F(paths, names_are_looked_up_byte_by_byte) {
  const uint16_t lower = create("name");
  const uint16_t upper = create("NAME");
  EXPECT_NE(lower, upper);
  EXPECT_EQ(lookup("name"), lower);
  EXPECT_EQ(lookup("NAME"), upper);
  EXPECT_EQ(lookup("Name"), 0);
}

TEST_F(paths, dots_are_names_like_others) {
  EXPECT_EQ(lookup("."), 0);
  EXPECT_EQ(lookup(".."), 0);
  const uint16_t file = create("..");
  EXPECT_EQ(lookup(".."), file);
}

TEST_F(paths, a_path_of_319_bytes_is_looked_up_and_one_of_320_is_not) {
  const uint16_t file = create("f");
  EXPECT_EQ(lookup(std::string(318, '/') + "f"), file);
  EXPECT_EQ(lookup(std::string(318, '/') + "g"), 0);
  EXPECT_EQ(errno, ENOENT);
  device().clear_counts();
  for (const size_t slashes : {319U, 320U, 5000U}) {
    EXPECT_EQ(lookup(std::string(slashes, '/') + "f"), 0);
    EXPECT_EQ(errno, errno_before) << "left as it was";
  }
  EXPECT_EQ(lookup(std::string(320, '/')), 0) << "not even the root";
  EXPECT_EQ(device().counts().calls(), 0U);
}

TEST_F(paths, the_path_itself_is_not_changed_by_a_look_up) {
  create("a", new_directory);
  create("a/b");
  const std::string path = "/a//b/";
  std::string given = path;
  lookup(given);
  EXPECT_EQ(given, path);
}

TEST_F(paths, a_path_may_go_through_damaged_directories_that_contain_themselves) {
  const uint16_t directory = create("d", new_directory);
  flashfs_sector sector;
  std::memset(&sector, 0xFF, sizeof sector);
  flashfs_sctr_ptr pointer;
  uint8_t slot_no = 0;
  ASSERT_EQ(flashfs_alloc_slot(fs(), &pointer, &slot_no, 0), 0);
  ASSERT_EQ(
      flashfs_write_new_slot(fs(), pointer, slot_no, entry(directory), directory, 0x4700, "d"), 0);
  std::string path = "d";
  while (path.size() + 2 < 320) {
    path += "/d";
  }
  EXPECT_EQ(lookup(path), directory);
}

TEST_F(paths, without_a_sector_buffer_nothing_is_found) {
  create("f");
  chunk_pool* pool = fs()->sctr_buf_chunk;
  fs()->sctr_buf_chunk = nullptr;
  output_of([&] {
    EXPECT_EQ(lookup("f"), 0);
    EXPECT_EQ(errno, EINVAL) << "as the allocation of the buffer left it";
    errno = 0;
    EXPECT_EQ(dir_lookup(fs(), 77, "f"), 0);
    EXPECT_EQ(errno, EINVAL) << "the buffer comes before the directory's entry";
    EXPECT_EQ(flashfs_create_entry(fs(), "g", new_file), nullptr);
    EXPECT_EQ(errno, EINVAL);
  });
  fs()->sctr_buf_chunk = pool;
}

// --- looking up in directories made by hand ---

class crafted_directory : public unchecked_fixture {
 protected:
  // 32 names in sector 0 and 32 in sector 1 of block 1, the numbers rising.
  void SetUp() override {
    unchecked_fixture::SetUp();
    image_builder image(device());
    for (int i = 0; i < 64; i++) {
      image.slot(1, i / 32, i % 32, named(i, "n" + std::to_string(i)));
    }
  }
  static image_slot named(int number, const std::string& name) {
    return {.seq_no = static_cast<uint16_t>(number),
            .entry_fileid = static_cast<uint16_t>(100 + number),
            .name = name};
  }
  void load() {
    flashfs_sector sector;
    for (uint16_t s = 0; s < 2; s++) {
      ASSERT_EQ(read_sector(fs(), {1, s}, &sector, whole_sector), 0);
      ASSERT_EQ(filemap_add_sector_all(fs(), {1, s}, &sector), 0);
    }
    device().clear_counts();
  }
};

TEST_F(crafted_directory, the_slot_that_fits_is_read_and_nothing_else) {
  load();
  EXPECT_EQ(dir_lookup(fs(), 1, "n31"), 131);
  EXPECT_EQ(device().counts().reads, 1U);
  EXPECT_EQ(device().counts().bytes_read, 64U);
  EXPECT_EQ(dir_lookup(fs(), 1, "n32"), 132);
  EXPECT_EQ(device().counts().reads, 1U + 1);
  EXPECT_EQ(dir_lookup(fs(), 1, "missing"), 0);
  EXPECT_EQ(device().counts().reads, 1U + 1) << "for a name that is not there none";
  EXPECT_EQ(device().counts().calls(), device().counts().reads);
}

TEST_F(crafted_directory, of_two_equal_names_the_one_with_the_lower_number_is_found) {
  image_builder image(device());
  image_slot low = named(70, "n63");
  low.seq_no = 3;
  image.slot(1, 0, 3, low);
  load();
  EXPECT_EQ(dir_lookup(fs(), 1, "n63"), 170);
}

TEST_F(crafted_directory, a_name_without_its_terminator_ends_with_its_field) {
  image_builder image(device());
  image_slot slot = named(5, std::string(46, 'q'));
  image.slot(1, 0, 5, slot);
  load();
  EXPECT_EQ(dir_lookup(fs(), 1, std::string(46, 'q').c_str()), 105);
  EXPECT_EQ(dir_lookup(fs(), 1, std::string(45, 'q').c_str()), 0);
  EXPECT_EQ(dir_lookup(fs(), 1, std::string(47, 'q').c_str()), 0);
  EXPECT_EQ(dir_lookup(fs(), 1, std::string(300, 'q').c_str()), 0);
}

TEST_F(crafted_directory, an_unterminated_name_in_the_last_slot_is_compared_inside_the_sector) {
  image_builder image(device());
  image.slot(1, 0, 31, named(31, std::string(46, 'q')));
  std::memset(image.slot_at(1, 0, 31) + 62, 'q', 2);  // and on into what follows the slots
  std::memset(image.sector_at(1, 0) + 2052, 'q', 4);
  load();
  EXPECT_EQ(dir_lookup(fs(), 1, std::string(46, 'q').c_str()), 131);
  EXPECT_EQ(dir_lookup(fs(), 1, std::string(52, 'q').c_str()), 0);
}

TEST_F(crafted_directory, data_sectors_in_a_directorys_list_are_passed_over) {
  load();
  flashfs_sector sector;
  std::memset(&sector, 0xFF, sizeof sector);
  sector.fileid = 50;
  sector.seq_no = 0;
  ASSERT_EQ(filemap_add_sector(fs(), {2, 0}, &sector, slot_of_sector), 0);
  ASSERT_EQ(filemap_add_sector(fs(), {2, 1}, &sector, slot_of_sector), 0);
  filemap_lookup(fs(), 50)->mode = 0x4700;
  filemap_lookup(fs(), 50)->sctr_list->slot_no = slot_of_reserved_sector;
  filemap_lookup(fs(), 50)->sctr_list->next->slot_no = 32;
  errno = 0;
  EXPECT_EQ(dir_lookup(fs(), 50, "x"), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(device().counts().reads, 0U);
}

TEST_F(crafted_directory, a_failing_read_gives_nothing_and_the_buffer_back) {
  load();
  device().fail(flash_call::read, 1, flash_busy);
  errno = 0;
  output_of([&] { EXPECT_EQ(dir_lookup(fs(), 1, "n40"), 0); });
  EXPECT_EQ(errno, EIO) << "not a name that is missing";
  EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
}

TEST_F(crafted_directory, a_pointer_outside_the_flash_is_a_failing_read) {
  load();
  filemap_lookup(fs(), 1)->sctr_list->sctr_ptr = {99, 0};
  errno = 0;
  const std::string output = output_of([&] { EXPECT_EQ(dir_lookup(fs(), 1, "n0"), 0); });
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(output, log_start + "Trying to read a sector not in the flash device!.\n" + log_start +
                        "block_num (99) not in range between 0 and 2.\n");
}

TEST_F(crafted_directory, a_deep_path_reads_each_directory_once) {
  image_builder image(device());
  for (int i = 0; i < 3; i++) {
    image_slot slot = named(i, "d");
    slot.dir_fileid = static_cast<uint16_t>(i == 0 ? 1 : 100 + i - 1);
    slot.mode = 0x4700;
    image.slot(1, 0, i, slot);
  }
  load();
  for (const uint16_t fileid : u16s{100, 101}) {
    filemap_lookup(fs(), fileid)->mode = 0x4700;
  }
  EXPECT_EQ(path_lookup(fs(), "d/d/d"), 102);
  EXPECT_EQ(device().counts().reads, 3U);
}

// --- places for new names ---

class place_for_name : public recipe_fixture {
 protected:
  // The file "f" (2), the directory "d" (3), in it "x" (4), and "ghost", a directory of which
  // nothing but the name is known.
  void SetUp() override {
    make_small_tree(3);
    names({"3:0.0/4 5<1 ghost/"});
    mount_recipe();
    filemap_remove(fs(), entry(5));
  }
  name_place find(const std::string& path, const name_rules& rules) {
    name_place place = {};
    const found_name existing = path_find(fs(), path.c_str());
    output_ =
        output_of([&] { place = find_place_for_name(fs(), path.c_str(), existing, work_, rules); });
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
    return place;
  }

  static constexpr name_rules creation_ = {true, ENOENT, ENOTDIR};
  static constexpr name_rules renaming_ = {false, EEXIST, EIO};
  const std::string too_long_ = std::string(46, 'n');
  char work_[path_size_max];
  std::string output_;
};

TEST_F(place_for_name, is_its_directory_and_its_last_component) {
  const std::string longest(45, 'n');
  const struct {
    std::string path;
    uint16_t directory;
    std::string name;
  } places[] = {
      {"new", 1, "new"},        {"/new", 1, "new"},           {"d/new", 3, "new"},
      {"//d//new//", 3, "new"}, {"d/" + longest, 3, longest}, {"d/..", 3, ".."},
  };
  for (const name_rules& rules : {creation_, renaming_}) {
    for (const auto& expected : places) {
      const name_place place = find(expected.path, rules);
      EXPECT_EQ(place.error, 0) << expected.path;
      EXPECT_EQ(place.directory, entry(expected.directory)) << expected.path;
      EXPECT_STREQ(place.name, expected.name.c_str());
      EXPECT_EQ(output_, "");
    }
  }
}

TEST_F(place_for_name, the_first_thing_in_the_way_is_the_error) {
  const struct {
    std::string path;
    int creation;
    int renaming;
  } refusals[] = {
      // taken
      {"f", EEXIST, EEXIST},
      {"d/x/", EEXIST, EEXIST},
      {"ghost", EEXIST, EEXIST},
      {"", EEXIST, EEXIST},
      {"//", EEXIST, EEXIST},
      // longer than a path can be
      {std::string(320, 'n'), ENAMETOOLONG, ENAMETOOLONG},
      {std::string(319, '/') + "n", ENAMETOOLONG, ENAMETOOLONG},
      // the name alone
      {too_long_, ENAMETOOLONG, ENAMETOOLONG},
      {"d/new name", EINVAL, EINVAL},
      {too_long_ + " ", ENAMETOOLONG, ENAMETOOLONG},
      // the directory alone
      {"missing/new", ENOENT, EEXIST},
      {"missing/d/new", ENOENT, EEXIST},
      {"f/new", ENOTDIR, ENOTDIR},
      {"f/d/new", ENOENT, EEXIST},
      {"ghost/new", ENOTDIR, EIO},
      {"ghost/d/new", ENOENT, EEXIST},
      // both
      {"missing/" + too_long_, ENAMETOOLONG, EEXIST},
      {"missing/new name", EINVAL, EEXIST},
      {"f/" + too_long_, ENAMETOOLONG, ENOTDIR},
      {"f/new name", EINVAL, ENOTDIR},
      {"ghost/new name", EINVAL, EIO},
  };
  for (const auto& refusal : refusals) {
    EXPECT_EQ(find(refusal.path, creation_).error, refusal.creation) << refusal.path;
    EXPECT_EQ(find(refusal.path, renaming_).error, refusal.renaming) << refusal.path;
  }
}

TEST_F(place_for_name, a_name_that_is_too_long_is_told_when_it_is_the_error) {
  const std::string told = "flashfs[0]: Cannot accept filenames longer than 45 characters.\n";
  find("d/" + too_long_, creation_);
  EXPECT_EQ(output_, told);
  find("d/" + too_long_, renaming_);
  EXPECT_EQ(output_, told);
  find("missing/" + too_long_, creation_);
  EXPECT_EQ(output_, told);
  find("missing/" + too_long_, renaming_);
  EXPECT_EQ(output_, "");
}

TEST_F(place_for_name, a_search_that_the_flash_has_ended_is_no_missing_name_or_directory) {
  for (const name_rules& rules : {creation_, renaming_}) {
    for (uint64_t n = 1; n <= 2; n++) {  // "d" for the path and for its directory
      device().fail(flash_call::read, n, flash_operation_failed);
      name_place place = {};
      output_of([&] { place = find("d/new", rules); });
      EXPECT_EQ(place.error, EIO) << n;
    }
    device().fail(flash_call::any, 0, flash_ok);
  }
}

// --- creating ---

TEST_F(paths, a_created_file_is_found_and_in_its_directory) {
  const uint16_t file = create("f");
  EXPECT_EQ(lookup("f"), file);
  EXPECT_GE(file, 2);
  EXPECT_EQ(entry(file)->parent_fileid, 1);
  EXPECT_EQ(entry(file)->sctr_list, nullptr);
  EXPECT_EQ(entry(file)->readers + entry(file)->writer, 0U);
  EXPECT_EQ(entry(1)->writer, 0U) << "the directory is released";
  remount();
  EXPECT_EQ(lookup("f"), file);
  EXPECT_TRUE(flash_is_consistent());
}

TEST_F(paths, creating_is_silent) {
  EXPECT_EQ(output_of([&] { create("f"); }), "");
}

TEST_F(paths, a_created_entry_always_has_0x0700_in_its_mode) {
  EXPECT_EQ(entry(create("a", 0x8000))->mode, 0x8700);
  EXPECT_EQ(entry(create("b", 0x81FF))->mode, 0x87FF);
  EXPECT_EQ(entry(create("c", 0x4000))->mode, 0x4700);
  EXPECT_EQ(entry(create("d", 0x8F24))->mode, 0x8F24);
  const uint16_t file = create("e", 0x12348001);
  EXPECT_EQ(entry(file)->mode, 0x8701) << "16 bits of what the caller passed";
  EXPECT_EQ(slot_of(file).mode, 0x8701);
}

TEST_F(paths, a_created_entrys_slot_has_all_its_fields) {
  const uint16_t directory = create("dir", new_directory);
  clock_.set(0x61020304);
  const uint16_t file = create("/dir//some.file", 0x8124);
  const flashfs_dir_slot slot = slot_of(file);
  EXPECT_EQ(slot.seq_no, 0);
  EXPECT_EQ(slot.dir_fileid, directory);
  EXPECT_EQ(slot.entry_fileid, file);
  EXPECT_EQ(slot.mode, 0x8724);
  EXPECT_EQ(slot.date, 0x61020304U);
  EXPECT_EQ(std::string(slot.reserved, slot.reserved + 4), "\xFF\xFF\xFF\xFF");
  EXPECT_EQ(std::string(slot.name, slot.name + 46), "some.file" + std::string(37, '\0'));
  EXPECT_EQ(dir_slot_crc(&slot), flashfs_good_crc);
}

TEST_F(paths, the_slots_of_a_directory_are_numbered_and_listed_in_order) {
  const uint16_t directory = create("dir", new_directory);
  for (int i = 0; i < 40; i++) {
    EXPECT_EQ(slot_of(create("dir/" + std::to_string(i))).seq_no, i);
  }
  EXPECT_EQ(sctr_list_length(entry(directory)->sctr_list), 40U);
  EXPECT_EQ(sctr_list_is_contiguous_bad(entry(directory)->sctr_list), 0);
}

TEST_F(paths, creating_dates_the_directory) {
  const uint16_t directory = create("dir", new_directory);
  EXPECT_EQ(slot_of(directory).date, 0x60000000U);
  clock_.set(0x60000010);
  create("dir/file");
  EXPECT_EQ(slot_of(directory).date, 0x60000010U);
  EXPECT_EQ(slot_of(1).date, 0x60000000U) << "not the one above it";
  clock_.set(0x60000020);
  create("file");
  EXPECT_EQ(slot_of(1).date, 0x60000020U);
  EXPECT_EQ(slot_of(directory).date, 0x60000010U);
}

TEST_F(paths, every_creation_has_a_fresh_id) {
  const uint16_t first = create("a");
  const uint16_t second = create("b", new_directory);
  const uint16_t third = create("b/c");
  EXPECT_EQ(second, first + 1);
  EXPECT_EQ(third, second + 1);
}

TEST_F(paths, no_path_at_all_is_enoent) {
  EXPECT_EQ(refusal(nullptr), ENOENT);
  EXPECT_EQ(refusal(""), ENOENT);
}

TEST_F(paths, what_exists_is_eexist) {
  create("f");
  create("d", new_directory);
  for (const char* path : {"f", "/f", "f/", "d", "/", "//"}) {
    EXPECT_EQ(refusal(path), EEXIST) << path;
  }
  EXPECT_EQ(refusal("d", new_directory), EEXIST);
}

TEST_F(paths, a_name_of_45_characters_is_created) {
  const std::string name(45, 'x');
  const uint16_t file = create(name);
  EXPECT_EQ(lookup(name), file);
  const flashfs_dir_slot slot = slot_of(file);
  EXPECT_EQ(std::string(slot.name, slot.name + 46), name + std::string(1, '\0'));
}

TEST_F(paths, a_name_of_46_characters_is_refused_with_a_message) {
  const std::string name(46, 'x');
  device().clear_counts();
  for (const std::string& path : {name, "/" + name + "/", "missing/" + name, name + "y"}) {
    EXPECT_EQ(output_of([&] { EXPECT_EQ(refusal(path.c_str()), ENAMETOOLONG); }),
              log_start + "Cannot accept filenames longer than 45 characters.\n");
  }
  EXPECT_EQ(device().counts().writes, 0U);
  EXPECT_EQ(lookup(name.substr(0, 45)), 0);
}

TEST_F(paths, a_name_with_an_illegal_character_is_einval) {
  device().clear_counts();
  for (const char* path : {"a b", "a:b", "a;b", "\x7F", "caf\xE9", "missing/a b", "a\tb"}) {
    EXPECT_EQ(output_of([&] { EXPECT_EQ(refusal(path), EINVAL) << path; }), "");
  }
  EXPECT_EQ(device().counts().writes, 0U);
}

TEST_F(paths, the_length_of_a_name_is_tested_before_its_characters) {
  EXPECT_EQ(output_of([&] { EXPECT_EQ(refusal(std::string(46, ' ').c_str()), ENAMETOOLONG); }),
            log_start + "Cannot accept filenames longer than 45 characters.\n");
}

TEST_F(paths, creating_in_a_missing_directory_is_enoent) {
  EXPECT_EQ(refusal("d/x"), ENOENT);
  EXPECT_EQ(refusal("d/e/x"), ENOENT);
}

TEST_F(paths, creating_in_a_file_is_enotdir) {
  create("f");
  EXPECT_EQ(refusal("f/x"), ENOTDIR);
}

TEST_F(paths, creating_below_a_name_in_a_file_is_enoent) {
  create("f");
  EXPECT_EQ(refusal("f/g/x"), ENOENT) << "the directory part leads nowhere";
}

TEST_F(paths, creating_in_a_directory_that_is_in_use_is_ebusy) {
  const uint16_t directory = create("d", new_directory);
  device().clear_counts();
  entry(directory)->writer = 1;
  errno = 0;
  EXPECT_EQ(flashfs_create_entry(fs(), "d/x", new_file), nullptr);
  EXPECT_EQ(errno, EBUSY);
  EXPECT_EQ(entry(directory)->writer, 1U) << "the other writer keeps it";
  entry(directory)->writer = 0;
  entry(directory)->readers = 2;
  errno = 0;
  EXPECT_EQ(flashfs_create_entry(fs(), "d/x", new_file), nullptr);
  EXPECT_EQ(errno, EBUSY);
  EXPECT_EQ(entry(directory)->readers, 2U);
  entry(directory)->readers = 0;
  EXPECT_EQ(device().counts().writes, 0U);
  EXPECT_NE(create("d/x"), 0);
}

TEST_F(paths, a_path_of_320_bytes_cannot_be_created) {
  create(std::string(316, '/') + "abc");
  EXPECT_NE(lookup("abc"), 0);
  device().clear_counts();
  for (const size_t slashes : {317U, 318U, 5000U}) {
    const std::string path = std::string(slashes, '/') + "def";
    EXPECT_EQ(output_of([&] { EXPECT_EQ(refusal(path.c_str()), ENAMETOOLONG); }), "");
  }
  EXPECT_EQ(device().counts().calls(), 0U);
}

TEST_F(paths, without_a_free_id_nothing_is_created_or_written) {
  for (uint32_t fileid = 2; fileid <= 65534; fileid++) {
    filemap_insert(fs(), static_cast<uint16_t>(fileid), 1, 0x8600);
  }
  const uint32_t slots = fs()->num_available_slots;
  device().clear_counts();
  EXPECT_EQ(refusal("x"), ENOSPC);
  EXPECT_EQ(device().counts().writes, 0U);
  EXPECT_EQ(fs()->num_available_slots, slots);
}

TEST_F(paths, without_a_slot_creating_is_enospc) {
  // One sector: 32 slots, of which the root has one and one is the reserve. Each creation takes
  // two, the name's and the one with the directory's new date, and 16 deleted slots are too few to
  // be collected.
  make_flash(ram_blocks(2, 32 + 2056));
  mount();
  int created = 0;
  int error = 0;
  output_of([&] {
    while (created < 40 &&
           flashfs_create_entry(fs(), std::to_string(created).c_str(), new_file) != nullptr) {
      created++;
    }
    error = errno;
  });
  EXPECT_EQ(error, ENOSPC);
  EXPECT_EQ(created, 15);
  EXPECT_EQ(fs()->num_available_slots, 1U) << "the reserve stays";
  output_of([&] { EXPECT_EQ(refusal("more"), ENOSPC); });
  EXPECT_EQ(lookup("14"), 16);
  EXPECT_TRUE(flash_is_consistent());
}

TEST_F(paths, creating_fails_with_eio_at_any_of_its_flash_calls) {
  create("d", new_directory);
  create("d/first");
  const auto image = device().flash().snapshot();
  remount();
  device().clear_counts();
  create("d/second");
  const uint64_t calls = device().counts().calls();
  ASSERT_GT(calls, 5U);
  for (uint64_t n = 1; n <= calls; n++) {
    unmount();
    device().flash().restore(image);
    mount();
    device().fail(flash_call::any, n, flash_operation_failed, true);
    errno = 0;
    output_of([&] { EXPECT_EQ(flashfs_create_entry(fs(), "d/second", new_file), nullptr) << n; });
    EXPECT_EQ(errno, EIO) << n;
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
    for (const auto* each = fs()->file_map; each != nullptr; each = each->next) {
      EXPECT_EQ(each->writer, 0U) << "the directory is released";
    }
    device().fail(flash_call::any, 0, flash_ok);
    // What it left behind is repaired, and then there is nothing to repair.
    remount(flashfs_check_full);
    EXPECT_NE(lookup("d/first"), 0) << n;
    EXPECT_TRUE(flash_is_consistent()) << n;
  }
}

TEST_F(paths, a_slot_that_was_written_stays_when_the_directory_cannot_be_dated) {
  device().clear_counts();
  create("a");
  const uint64_t writes = device().counts().writes;
  ASSERT_GE(writes, 3U) << "the new slot, the directory's new slot, its old slot";
  device().fail(flash_call::write, writes - 1, flash_operation_failed, true);
  output_of([&] { EXPECT_EQ(flashfs_create_entry(fs(), "b", new_file), nullptr); });
  device().fail(flash_call::any, 0, flash_ok);
  remount();
  EXPECT_NE(lookup("b"), 0);
}

TEST_F(paths, a_cut_at_any_mutation_leaves_a_directory_with_or_without_the_name) {
  create("d", new_directory);
  create("d/first");
  unmount();
  const auto image = device().flash().snapshot();
  mount();
  const uint64_t before = supply().mutations();
  create("d/second");
  const uint64_t mutations = supply().mutations() - before;
  unmount();
  for (uint64_t n = 1; n <= mutations; n++) {
    for (const auto kind : {sim::cut_kind::before, sim::cut_kind::during, sim::cut_kind::after}) {
      device().flash().restore(image);
      supply().restore();
      mount();
      supply().cut_at(n, kind, n);
      output_of([&] { (void)flashfs_create_entry(fs(), "d/second", new_file); });
      unmount();
      supply().restore();
      mount(flashfs_check_full);
      EXPECT_NE(lookup("d/first"), 0) << n;
      EXPECT_TRUE(flash_is_consistent()) << n;
    }
  }
}

TEST_F(create_step, forty_five_characters_are_accepted_and_forty_six_refused) {
  make_small_tree(3);
  mount_recipe();
  const std::string longest(45, 'n');
  const flashfs_sctr_map* made = flashfs_create_entry(fs(), longest.c_str(), 0x8000);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(path_lookup(fs(), longest.c_str()), made->fileid);
  errno = 0;
  EXPECT_EQ(output_of([&] {
              EXPECT_EQ(flashfs_create_entry(fs(), (longest + "n").c_str(), 0x8000), nullptr);
            }),
            "flashfs[0]: Cannot accept filenames longer than 45 characters.\n");
  EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(create_step, a_claimed_directory_is_busy) {
  make_small_tree(3);
  mount_recipe();
  for (const uint32_t mode : {acquire_read, acquire_write}) {
    ASSERT_EQ(flashfs_file_acquire(entry(3), mode), 0);
    errno = 0;
    EXPECT_EQ(flashfs_create_entry(fs(), "d/new", 0x8000), nullptr);
    EXPECT_EQ(errno, EBUSY);
    flashfs_file_release(entry(3));
  }
  EXPECT_NE(flashfs_create_entry(fs(), "d/new", 0x8000), nullptr);
  EXPECT_EQ(entry(3)->writer, 0U);
}
