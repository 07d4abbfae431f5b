// Operations on names: changing modes, removing files and directories, making directories. Renaming
// is in rename_test.cpp.
#include "flashfs/namespace.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "flashfs/filemap.h"
#include "flashfs/io.h"
#include "flashfs/slots.h"
#include "tests/flashfs/flashfs_recipe.h"
#include "tests/flashfs/operations_fixture.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"

namespace {

using namespace test_support;

class namespace_chmod : public operations_fixture {};
class namespace_remove : public operations_fixture {};
class namespace_rmdir : public operations_fixture {};
class namespace_mkdir : public operations_fixture {};

constexpr uint16_t mode_of(const ppc_stat& status) {
  return status.mode;
}

}  // namespace

// --- chmod ---

TEST_F(namespace_chmod, the_low_nine_bits_change_and_the_others_stay) {
  make();
  put("a", "text");
  ASSERT_EQ(mkdir("d"), 0);
  ppc_stat status{};
  EXPECT_EQ(chmod("a", 0xFFFF), 0);
  ASSERT_EQ(stat("a", &status), 0);
  EXPECT_EQ(mode_of(status), 0x87FF);
  EXPECT_EQ(chmod("d", 0x1A4), 0);
  ASSERT_EQ(stat("d", &status), 0);
  EXPECT_EQ(mode_of(status), 0x47A4);
  EXPECT_EQ(chmod("a", 0), 0);
  remount();
  ASSERT_EQ(stat("a", &status), 0);
  EXPECT_EQ(mode_of(status), 0x8600);
  ASSERT_EQ(stat("d", &status), 0);
  EXPECT_EQ(mode_of(status), 0x47A4);
  EXPECT_EQ(get("a"), "text");
  EXPECT_TRUE(flash_is_consistent());
}

TEST_F(namespace_chmod, the_date_stays) {
  make();
  put("a", "text");
  set_clock(recipe_time + 50);
  EXPECT_EQ(chmod("a", 1), 0);
  ppc_stat status{};
  ASSERT_EQ(stat("a", &status), 0);
  EXPECT_EQ(status.modification_date, recipe_time);
}

TEST_F(namespace_chmod, the_root_is_refused) {
  make();
  EXPECT_EQ(error_of(chmod("/", 0)), EINVAL);
  EXPECT_EQ(error_of(chmod("//", 0)), EINVAL);
}

TEST_F(namespace_chmod, a_name_without_a_record_does_not_exist) {
  make();
  put("a", "text");
  filemap_remove(fs(), entry(fileid_of("a")));
  EXPECT_EQ(error_of(chmod("a", 0)), ENOENT);
  EXPECT_EQ(fs()->ready, 1U);
}

TEST_F(namespace_chmod, an_open_file_may_change) {
  make();
  put("a", "text");
  const int32_t fd = open("a", open_rw);
  EXPECT_EQ(chmod("a", 0x1FF), 0);
  EXPECT_EQ(close(fd), 0);
}

TEST_F(namespace_chmod, a_failing_flash_marks_down) {
  expect_that_flash_failures_mark_down(
      [&] {
        make();
        put("a", "text");
      },
      [&] { return ifs_chmod("bootflash:a", 0); });
}

// --- remove ---

TEST_F(namespace_remove, a_file_goes_with_all_its_sectors) {
  make();
  put("a", pattern(5000));
  put("b", "text");
  const uint16_t fileid = fileid_of("a");
  ppc_statfs before{};
  ppc_statfs after{};
  ASSERT_EQ(statfs(&before), 0);
  set_clock(recipe_time + 3);
  EXPECT_EQ(remove("a"), 0);
  ASSERT_EQ(statfs(&after), 0);
  EXPECT_EQ(after.free_blocks, before.free_blocks + 3);
  EXPECT_EQ(after.files, before.files - 1);
  EXPECT_EQ(entry(fileid), nullptr);
  EXPECT_EQ(error_of(open("a")), ENOENT);
  EXPECT_EQ(names_in("/"), "b");
  // The directory is dated.
  ppc_stat status{};
  ASSERT_EQ(stat("/", &status), 0);
  EXPECT_EQ(status.modification_date, recipe_time + 3);
  EXPECT_TRUE(flash_is_consistent());
}

TEST_F(namespace_remove, a_directory_is_refused) {
  make();
  ASSERT_EQ(mkdir("d"), 0);
  EXPECT_EQ(error_of(remove("d")), EISDIR);
  EXPECT_EQ(error_of(remove("/")), EISDIR);
  EXPECT_EQ(names_in("/"), "d");
}

TEST_F(namespace_remove, an_open_file_and_one_in_an_open_directory_are_busy) {
  make();
  put("a", "text");
  const int32_t fd = open("a");
  EXPECT_EQ(error_of(remove("a")), EBUSY);
  EXPECT_EQ(close(fd), 0);
  const int32_t directory = open("/");
  EXPECT_EQ(error_of(remove("a")), EBUSY);
  EXPECT_EQ(close(directory), 0);
  EXPECT_EQ(claims(), 0U);
  EXPECT_EQ(remove("a"), 0);
}

TEST_F(namespace_remove, a_name_without_a_record_marks_down) {
  make();
  put("a", "text");
  filemap_remove(fs(), entry(fileid_of("a")));
  EXPECT_EQ(error_of(remove("a")), EIO);
  EXPECT_EQ(output(), down_line);
  EXPECT_EQ(fs()->ready, 0U);
}

TEST_F(namespace_remove, a_failing_flash_marks_down) {
  expect_that_flash_failures_mark_down(
      [&] {
        make();
        put("a", pattern(5000));
      },
      [&] { return ifs_remove("bootflash:a"); });
}

TEST_F(namespace_remove, a_file_id_is_used_again) {
  make();
  put("a", "");
  put("b", "");
  const uint16_t fileid = fileid_of("a");
  EXPECT_EQ(remove("a"), 0);
  put("c", "");
  EXPECT_EQ(fileid_of("c"), fileid);
}

// --- rmdir ---

TEST_F(namespace_rmdir, an_empty_directory_goes) {
  make();
  ASSERT_EQ(mkdir("d"), 0);
  put("d/a", "text");
  EXPECT_EQ(error_of(rmdir("d")), ENOTEMPTY);
  EXPECT_EQ(remove("d/a"), 0);
  EXPECT_EQ(rmdir("d"), 0);
  EXPECT_EQ(names_in("/"), "");
  EXPECT_TRUE(flash_is_consistent());
}

TEST_F(namespace_rmdir, a_file_is_no_directory) {
  make();
  put("a", "text");
  EXPECT_EQ(error_of(rmdir("a")), ENOTDIR);
  EXPECT_EQ(get("a"), "text");
}

TEST_F(namespace_rmdir, the_root_is_never_empty) {
  make();
  EXPECT_EQ(error_of(rmdir("/")), ENOTEMPTY);
}

TEST_F(namespace_rmdir, a_name_without_a_record_does_not_exist_and_marks_nothing_down) {
  make();
  ASSERT_EQ(mkdir("d"), 0);
  filemap_remove(fs(), entry(fileid_of("d")));
  EXPECT_EQ(error_of(rmdir("d")), ENOENT);
  EXPECT_EQ(fs()->ready, 1U);
}

TEST_F(namespace_rmdir, an_open_directory_is_busy) {
  make();
  ASSERT_EQ(mkdir("d"), 0);
  const int32_t fd = open("d");
  EXPECT_EQ(error_of(rmdir("d")), EBUSY);
  EXPECT_EQ(close(fd), 0);
  EXPECT_EQ(rmdir("d"), 0);
}

TEST_F(namespace_rmdir, a_data_sector_in_the_list_is_no_entry_and_goes_too) {
  make_root(3);
  names({"1:0.0/1 5<1 d/"});
  image().data_sector(0, 1, 5, 0, "astray");
  mount_recipe();
  EXPECT_EQ(rmdir("d"), 0);
  EXPECT_EQ(fileid_at(0, 1), 0);
  EXPECT_TRUE(flash_is_consistent());
}

TEST_F(namespace_rmdir, a_failing_flash_marks_down) {
  expect_that_flash_failures_mark_down(
      [&] {
        make();
        ASSERT_EQ(mkdir("d"), 0);
      },
      [&] { return ifs_rmdir("bootflash:d"); });
}

// --- mkdir ---

TEST_F(namespace_mkdir, a_new_directory_has_the_low_nine_mode_bits_and_0x4700) {
  make();
  ppc_stat status{};
  EXPECT_EQ(mkdir("d", 0xFFFF), 0);
  ASSERT_EQ(stat("d", &status), 0);
  EXPECT_EQ(mode_of(status), 0x47FF);
  EXPECT_EQ(status.size, 0U);
  EXPECT_EQ(mkdir("d/e", 0), 0);
  ASSERT_EQ(stat("d/e", &status), 0);
  EXPECT_EQ(mode_of(status), 0x4700);
  remount();
  EXPECT_EQ(names_in("d"), "e");
  EXPECT_TRUE(flash_is_consistent());
}

TEST_F(namespace_mkdir, the_errors_of_creation_pass_through) {
  make();
  put("f", "text");
  ASSERT_EQ(mkdir("d"), 0);
  EXPECT_EQ(error_of(mkdir("d")), EEXIST);
  EXPECT_EQ(error_of(mkdir("f")), EEXIST);
  EXPECT_EQ(error_of(mkdir("/")), EEXIST);
  EXPECT_EQ(error_of(mkdir("x/y")), ENOENT);
  EXPECT_EQ(error_of(mkdir("f/y")), ENOTDIR);
  EXPECT_EQ(error_of(mkdir("x y")), EINVAL);
  EXPECT_EQ(error_of(mkdir(std::string(320, 'n'))), ENAMETOOLONG);
  EXPECT_EQ(output(), "");
  EXPECT_EQ(error_of(mkdir(std::string(46, 'n'))), ENAMETOOLONG);
  EXPECT_EQ(output(), "flashfs[0]: Cannot accept filenames longer than 45 characters.\n");
  const int32_t fd = open("d");
  EXPECT_EQ(error_of(mkdir("d/e")), EBUSY);
  EXPECT_EQ(close(fd), 0);
  EXPECT_EQ(fs()->ready, 1U);
}

TEST_F(namespace_mkdir, a_failing_flash_marks_down) {
  expect_that_flash_failures_mark_down([&] { make(); },
                                       [&] { return ifs_mkdir("bootflash:d", 0); });
}

TEST_F(namespace_mkdir, directories_nest_40_deep) {
  make({16, 16, 16});
  std::string path;
  for (int i = 0; i < 40; i++) {
    path += "d";
    ASSERT_EQ(mkdir(path), 0) << i;
    path += "/";
  }
  put(path + "f", "deep");
  EXPECT_EQ(get(path + "f"), "deep");
  EXPECT_TRUE(flash_is_consistent());
  for (int i = 0; i < 40; i++) {
    path.pop_back();
    EXPECT_EQ(error_of(rmdir(path)), ENOTEMPTY);
    path.pop_back();
  }
}

// --- flash that loses bits under a mounted file system ---

class slot_of_another_directory : public operations_fixture {
 protected:
  // The slot of `name` comes to say that it is of another directory.
  void lose(const std::string& name, uint16_t dir_fileid) {
    const auto* entry = filemap_find_slot(fs(), filemap_lookup(fs(), fileid_of(name)));
    ASSERT_NE(entry, nullptr);
    flashfs_dir_slot held;
    ASSERT_EQ(read_slot(fs(), entry->sctr_ptr, entry->slot_no, &held), 0);
    flashfs_dir_slot lost = held;
    lost.dir_fileid = dir_fileid;
    ASSERT_EQ(update_slot(fs(), entry->sctr_ptr, entry->slot_no, &held, &lost), 0);
  }
  // In a directory with so many names that they are indexed, id 3, beside another such one.
  void rename_what_has_lost(uint16_t dir_fileid) {
    make({16, 16, 16, 16});
    ASSERT_EQ(mkdir("other"), 0);
    ASSERT_EQ(mkdir("d"), 0);
    ASSERT_EQ(fileid_of("d"), 3);
    for (int i = 0; i < 20; i++) {
      put("d/" + std::to_string(i), "text");
      put(std::to_string(i), "text");
    }
    lose("d/5", dir_fileid);
    ASSERT_EQ(rename("d/5", "d/moved"), 0);
    ppc_stat status;
    EXPECT_EQ(stat("d/moved", &status), 0);
    EXPECT_EQ(error_of(stat("d/5", &status)), ENOENT);
    EXPECT_EQ(get("5"), "text");
    EXPECT_EQ(chmod("d/moved", 0x300), 0);
    EXPECT_EQ(remove("d/moved"), 0);
    EXPECT_EQ(error_of(stat("d/moved", &status)), ENOENT);
  }
};

TEST_F(slot_of_another_directory, is_renamed_where_memory_has_it) {
  rename_what_has_lost(fileid_root);
}

TEST_F(slot_of_another_directory, is_renamed_where_memory_has_it_when_it_names_none) {
  rename_what_has_lost(fileid_invalidated);
}

class name_of_nobody : public operations_fixture {
 protected:
  // The slot of `name` comes to name the id 0.
  void make_nobody(const std::string& name) {
    const auto* entry = filemap_find_slot(fs(), filemap_lookup(fs(), fileid_of(name)));
    ASSERT_NE(entry, nullptr);
    flashfs_sector sector;
    ASSERT_EQ(read_sector(fs(), entry->sctr_ptr, &sector, whole_sector), 0);
    sector.slots[entry->slot_no].entry_fileid = 0;
    ASSERT_EQ(write_sector(fs(), entry->sctr_ptr, &sector, whole_sector), 0);
  }
};

TEST_F(name_of_nobody, is_not_there) {
  make();
  put("a", "text");
  make_nobody("a");
  ppc_stat status;
  EXPECT_EQ(error_of(stat("a", &status)), ENOENT);
  EXPECT_EQ(error_of(open("a")), ENOENT);
}

TEST_F(name_of_nobody, is_no_directory_to_make_or_move_something_in) {
  make();
  put("a", "text");
  ASSERT_EQ(mkdir("d"), 0);
  make_nobody("d");
  EXPECT_EQ(error_of(mkdir("d/x")), ENOENT);
  EXPECT_EQ(error_of(rename("a", "d/x")), EEXIST);
  EXPECT_EQ(fs()->ready, 1U);
}
