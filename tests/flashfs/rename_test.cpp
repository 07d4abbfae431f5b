// Renaming: within a directory and between directories, what is refused and in which order.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <initializer_list>
#include <string>

#include "flashfs/check_flags.h"
#include "flashfs/filemap.h"
#include "flashfs/flashfs.h"
#include "sim/power.h"
#include "tests/flashfs/flashfs_recipe.h"
#include "tests/flashfs/operations_fixture.h"
#include "tests/support/output_capture.h"

namespace {

using namespace test_support;

class namespace_rename : public operations_fixture {};

}  // namespace

TEST_F(namespace_rename, a_new_name_in_the_same_directory_keeps_the_sequence_number) {
  make();
  put("a", "text");
  put("b", "other");
  const std::string numbers = list_text(fs(), 1);
  EXPECT_EQ(rename("a", "z"), 0);
  EXPECT_EQ(names_in("/"), "z b");
  EXPECT_EQ(get("z"), "text");
  EXPECT_EQ(error_of(open("a")), ENOENT);
  EXPECT_EQ(list_text(fs(), 1).substr(0, 2), numbers.substr(0, 2));
  remount();
  EXPECT_EQ(names_in("/"), "z b");
  EXPECT_TRUE(flash_is_consistent());
}

TEST_F(namespace_rename, a_rename_in_one_directory_takes_no_claims) {
  make();
  put("a", "text");
  const int32_t file = open("a", open_rw);
  const int32_t directory = open("/");
  EXPECT_EQ(rename("a", "b"), 0);
  EXPECT_EQ(read_text(file, 10), "text");
  EXPECT_EQ(close(file), 0);
  EXPECT_EQ(close(directory), 0);
  EXPECT_EQ(get("b"), "text");
}

TEST_F(namespace_rename, no_date_is_committed) {
  make();
  ASSERT_EQ(mkdir("d"), 0);
  put("a", "text");
  set_clock(recipe_time + 50);
  EXPECT_EQ(rename("a", "d/b"), 0);
  EXPECT_EQ(rename("d/b", "d/c"), 0);
  ppc_stat status{};
  for (const char* name : {"/", "d", "d/c"}) {
    ASSERT_EQ(stat(name, &status), 0);
    EXPECT_EQ(status.modification_date, recipe_time) << name;
  }
}

TEST_F(namespace_rename, a_file_moves_to_the_next_number_of_the_other_directory) {
  make();
  ASSERT_EQ(mkdir("d"), 0);
  put("d/x", "x");
  put("a", "text");
  EXPECT_EQ(rename("a", "d/y"), 0);
  EXPECT_EQ(names_in("/"), "d");
  EXPECT_EQ(names_in("d"), "x y");
  EXPECT_EQ(get("d/y"), "text");
  EXPECT_EQ(entry(fileid_of("d"))->sctr_list->next->seq_no, 1);
  EXPECT_EQ(claims(), 0U);
  remount();
  EXPECT_EQ(get("d/y"), "text");
  EXPECT_TRUE(flash_is_consistent());
}

TEST_F(namespace_rename, a_directory_moves_with_everything_below_it) {
  make();
  ASSERT_EQ(mkdir("d"), 0);
  ASSERT_EQ(mkdir("d/e"), 0);
  ASSERT_EQ(mkdir("g"), 0);
  put("d/e/f", "text");
  EXPECT_EQ(rename("d", "g/h"), 0);
  EXPECT_EQ(get("g/h/e/f"), "text");
  EXPECT_EQ(rename("g/h/e", "top"), 0);
  EXPECT_EQ(get("top/f"), "text");
  remount();
  EXPECT_EQ(get("top/f"), "text");
  EXPECT_EQ(names_in("g/h"), "");
  EXPECT_TRUE(flash_is_consistent());
}

TEST_F(namespace_rename, the_old_path_is_tested_first) {
  make();
  put("b", "text");
  EXPECT_EQ(error_of(rename("missing", "b")), ENOENT);
  EXPECT_EQ(error_of(rename("/", "b")), EINVAL);
  EXPECT_EQ(error_of(rename("/", "x")), EINVAL);
}

TEST_F(namespace_rename, an_entry_or_directory_without_a_record_does_not_exist) {
  make();
  put("a", "text");
  const uint16_t fileid = fileid_of("a");
  entry(fileid)->parent_fileid = 99;
  EXPECT_EQ(error_of(rename("a", "b")), ENOENT);
  filemap_remove(fs(), entry(fileid));
  EXPECT_EQ(error_of(rename("a", "b")), ENOENT);
  EXPECT_EQ(fs()->ready, 1U);
}

TEST_F(namespace_rename, an_existing_new_name_is_refused) {
  make();
  put("a", "text");
  put("b", "other");
  ASSERT_EQ(mkdir("d"), 0);
  EXPECT_EQ(error_of(rename("a", "b")), EEXIST);
  EXPECT_EQ(error_of(rename("a", "a")), EEXIST);
  EXPECT_EQ(error_of(rename("a", "d")), EEXIST);
  EXPECT_EQ(error_of(rename("a", "d/")), EEXIST);
  EXPECT_EQ(error_of(rename("a", "/")), EEXIST);
  EXPECT_EQ(get("a"), "text");
  EXPECT_EQ(get("b"), "other");
}

TEST_F(namespace_rename, a_missing_new_directory_is_answered_like_an_existing_name) {
  make();
  put("a", "text");
  put("f", "");
  EXPECT_EQ(error_of(rename("a", "x/b")), EEXIST);
  EXPECT_EQ(error_of(rename("a", "f/x/b")), EEXIST);
}

TEST_F(namespace_rename, a_new_directory_without_a_record_marks_down) {
  make();
  put("a", "text");
  ASSERT_EQ(mkdir("d"), 0);
  filemap_remove(fs(), entry(fileid_of("d")));
  EXPECT_EQ(error_of(rename("a", "d/b")), EIO);
  EXPECT_EQ(output(), down_line);
  EXPECT_EQ(fs()->ready, 0U);
}

TEST_F(namespace_rename, what_creation_refuses_is_refused_in_its_order) {
  make();
  put("a", "text");
  put("f", "");
  const std::string long_bad_name = std::string(45, 'n') + " ";
  EXPECT_EQ(error_of(rename("a", "f/" + long_bad_name)), ENOTDIR);
  EXPECT_EQ(output(), "");
  EXPECT_EQ(error_of(rename("a", long_bad_name)), ENAMETOOLONG);
  EXPECT_EQ(output(), "flashfs[0]: Cannot accept filenames longer than 45 characters.\n");
  EXPECT_EQ(error_of(rename("a", "b:c")), EINVAL);
  EXPECT_EQ(output(), "");
  EXPECT_EQ(error_of(rename("a", std::string(320, '/') + "b")), ENAMETOOLONG);
  EXPECT_EQ(output(), "");
  EXPECT_EQ(rename("a", std::string(45, 'n')), 0);
  EXPECT_EQ(get(std::string(45, 'n')), "text");
}

TEST_F(namespace_rename, a_directory_does_not_move_into_its_own_subtree) {
  make();
  ASSERT_EQ(mkdir("d"), 0);
  ASSERT_EQ(mkdir("d/e"), 0);
  ASSERT_EQ(mkdir("d/e/f"), 0);
  EXPECT_EQ(error_of(rename("d", "d/x")), EINVAL);
  EXPECT_EQ(error_of(rename("d", "d/e/x")), EINVAL);
  EXPECT_EQ(error_of(rename("d", "d/e/f/x")), EINVAL);
  EXPECT_EQ(error_of(rename("d/e", "d/e/f/x")), EINVAL);
  EXPECT_EQ(claims(), 0U);
  EXPECT_EQ(rename("d/e/f", "f"), 0);
  EXPECT_EQ(rename("d/e", "f/e"), 0);
  EXPECT_EQ(names_in("f"), "e");
}

TEST_F(namespace_rename, the_walk_to_the_root_ends_where_damaged_parents_form_a_loop) {
  make();
  ASSERT_EQ(mkdir("d"), 0);
  ASSERT_EQ(mkdir("d/e"), 0);
  ASSERT_EQ(mkdir("m"), 0);
  entry(fileid_of("d"))->parent_fileid = fileid_of("d/e");
  EXPECT_EQ(rename("m", "d/e/m"), 0);
  EXPECT_EQ(names_in("d/e"), "m");
}

TEST_F(namespace_rename, a_move_claims_both_directories) {
  make();
  ASSERT_EQ(mkdir("d"), 0);
  ASSERT_EQ(mkdir("e"), 0);
  put("d/a", "text");
  for (const char* name : {"d", "e"}) {
    const int32_t fd = open(name);
    EXPECT_EQ(error_of(rename("d/a", "e/a")), EBUSY) << name;
    EXPECT_EQ(close(fd), 0);
    EXPECT_EQ(claims(), 0U);
  }
  const int32_t file = open("d/a", open_rw);
  EXPECT_EQ(rename("d/a", "e/a"), 0);  // the moved file itself may be open
  EXPECT_EQ(close(file), 0);
  EXPECT_EQ(get("e/a"), "text");
}

TEST_F(namespace_rename, a_failing_flash_marks_down) {
  for (const char* target : {"bootflash:b", "bootflash:d/b"}) {
    expect_that_flash_failures_mark_down(
        [&] {
          make();
          ASSERT_EQ(mkdir("d"), 0);
          put("a", "text");
        },
        [&] { return ifs_rename("bootflash:a", target); });
  }
}

TEST_F(namespace_rename, a_power_cut_leaves_the_old_or_the_new_name) {
  for (const char* target : {"b", "d/b"}) {
    for (const auto kind : {sim::cut_kind::before, sim::cut_kind::during, sim::cut_kind::after}) {
      for (uint64_t n = 1;; n++) {
        make();
        ASSERT_EQ(mkdir("d"), 0);
        put("a", "text");
        supply().restore();
        supply().cut_at(n, kind, n);
        rename("a", target);
        const bool cut = supply().dead();
        supply().restore();
        unmount();
        mount(flashfs_check_full);
        const std::string old_text = get("a");
        const std::string new_text = get(target);
        EXPECT_TRUE(old_text == "text" || new_text == "text") << target << " " << n;
        if (!cut) {
          EXPECT_EQ(new_text, "text");
          break;
        }
      }
    }
  }
}
