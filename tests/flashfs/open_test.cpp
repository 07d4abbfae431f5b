// Opening of files: paths, claims, creation, truncation, and the order of refusals. The raw device
// is in raw_test.cpp.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "flashfs/file.h"
#include "flashfs/flashfs.h"
#include "sim/flash.h"
#include "tests/flashfs/flashfs_recipe.h"
#include "tests/flashfs/operations_fixture.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"

namespace {

using namespace test_support;

class file_open : public operations_fixture {};

constexpr uint32_t create_exclusive = ifs_open_create | ifs_open_exclusive;

}  // namespace

// --- open: the path ---

TEST_F(file_open, leading_slashes_are_skipped) {
  make();
  put("a", "text");
  for (const char* name : {"a", "/a", "//a", "////a"}) {
    EXPECT_EQ(get(name), "text") << name;
  }
}

TEST_F(file_open, slashes_alone_are_the_root_directory) {
  make();
  put("a", "text");
  EXPECT_EQ(names_in("/"), "a");
  EXPECT_EQ(names_in("//"), "a");
}

TEST_F(file_open, an_unknown_fsid_fails_with_errno_untouched) {
  make();
  errno = ERANGE;
  EXPECT_EQ(flashfs_vctr_open(9, "a", ifs_open_read, 0), -1);
  EXPECT_EQ(errno, ERANGE);
}

TEST_F(file_open, a_file_system_that_is_not_ready_is_invalid) {
  make();
  fs()->ready = 0;
  EXPECT_EQ(error_of(open("a")), EINVAL);
  EXPECT_EQ(error_of(open("")), EINVAL);
  EXPECT_EQ(error_of(open("...")), EINVAL);
}

TEST_F(file_open, an_empty_path_does_not_exist) {
  make();
  EXPECT_EQ(error_of(open("")), ENOENT);
  EXPECT_EQ(error_of(open("", open_new)), ENOENT);
}

TEST_F(file_open, two_and_four_dots_are_ordinary_names) {
  make();
  EXPECT_EQ(error_of(open("..")), ENOENT);
  EXPECT_EQ(error_of(open("....")), ENOENT);
  put("..", "two");
  put("....", "four");
  EXPECT_EQ(get(".."), "two");
  EXPECT_EQ(get("...."), "four");
}

TEST_F(file_open, a_missing_name_or_directory_does_not_exist) {
  make();
  EXPECT_EQ(error_of(open("a")), ENOENT);
  EXPECT_EQ(error_of(open("d/a")), ENOENT);
}

TEST_F(file_open, a_component_on_the_way_that_is_a_file_does_not_exist) {
  make();
  put("f", "text");
  EXPECT_EQ(error_of(open("f/a")), ENOENT);
  EXPECT_EQ(error_of(open("f/a", open_rw)), ENOENT);
}

TEST_F(file_open, paths_of_319_bytes_are_opened_and_of_320_refused_silently) {
  make({16, 16, 16});
  std::string path;
  for (int i = 0; i < 6; i++) {
    path += std::string(45, static_cast<char>('a' + i));
    ASSERT_EQ(mkdir(path), 0);
    path += "/";
  }
  ASSERT_EQ(path.size(), 276U);
  const std::string of_319 = path + std::string(43, 'x');
  const std::string of_320 = path + std::string(44, 'x');
  put(of_319, "at the limit");
  EXPECT_EQ(get(of_319), "at the limit");
  EXPECT_EQ(error_of(open(of_320, open_new)), ENAMETOOLONG);
  EXPECT_EQ(output(), "");
  EXPECT_EQ(error_of(open(of_320)), ENOENT);
  EXPECT_EQ(open_descriptors(), 0);
}

// --- open: claims ---

TEST_F(file_open, any_number_of_readers_share_a_file) {
  make();
  put("a", "text");
  std::vector<int32_t> readers;
  for (int i = 0; i < 10; i++) {
    readers.push_back(open("a"));
    ASSERT_GE(readers.back(), 0);
  }
  for (const int32_t fd : readers) {
    EXPECT_EQ(read_text(fd, 100), "text");
    EXPECT_EQ(close(fd), 0);
  }
  EXPECT_EQ(claims(), 0U);
}

TEST_F(file_open, a_writer_excludes_all_others) {
  make();
  const int32_t writer = open("a", open_new);
  ASSERT_GE(writer, 0);
  EXPECT_EQ(error_of(open("a")), EBUSY);
  EXPECT_EQ(error_of(open("a", ifs_open_write)), EBUSY);
  EXPECT_EQ(error_of(open("a", ifs_open_truncate)), EBUSY);
  EXPECT_EQ(close(writer), 0);
  EXPECT_EQ(get("a"), "");
}

TEST_F(file_open, a_reader_excludes_writers) {
  make();
  put("a", "text");
  const int32_t reader = open("a");
  EXPECT_EQ(error_of(open("a", ifs_open_write)), EBUSY);
  EXPECT_EQ(error_of(open("a", ifs_open_read | ifs_open_truncate)), EBUSY);
  EXPECT_EQ(get("a"), "text");
  EXPECT_EQ(close(reader), 0);
  EXPECT_EQ(close(open("a", ifs_open_write)), 0);
}

TEST_F(file_open, write_and_truncate_claim_for_writing_and_the_other_flags_for_reading) {
  make();
  put("a", "");
  const uint16_t fileid = fileid_of("a");
  for (const uint32_t flags : {0x000U, 0x001U, 0x008U, 0x100U, 0x109U}) {
    const int32_t fd = open("a", flags);
    ASSERT_GE(fd, 0) << flags;
    EXPECT_EQ(entry(fileid)->readers, 1U) << flags;
    EXPECT_EQ(entry(fileid)->writer, 0U) << flags;
    EXPECT_EQ(close(fd), 0);
  }
  for (const uint32_t flags : {0x002U, 0x200U, 0x202U, 0x303U, 0x30AU}) {
    const int32_t fd = open("a", flags);
    ASSERT_GE(fd, 0) << flags;
    EXPECT_EQ(entry(fileid)->readers, 0U) << flags;
    EXPECT_EQ(entry(fileid)->writer, 1U) << flags;
    EXPECT_EQ(close(fd), 0);
  }
}

TEST_F(file_open, a_new_file_is_claimed_for_writing_whatever_the_flags) {
  make();
  const int32_t fd = open("a", ifs_open_create | ifs_open_read);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(error_of(open("a")), EBUSY);
  EXPECT_EQ(error_of(write(fd, "text")), EBADF);
  EXPECT_EQ(close(fd), 0);
}

TEST_F(file_open, a_directory_is_opened_for_reading_only) {
  make();
  ASSERT_EQ(mkdir("d"), 0);
  for (const uint32_t flags : {0x002U, 0x200U, 0x202U, 0x303U, 0x702U}) {
    EXPECT_EQ(error_of(open("d", flags)), EISDIR) << flags;
    EXPECT_EQ(error_of(open("/", flags)), EISDIR) << flags;
  }
  const int32_t fd = open("d");
  EXPECT_GE(fd, 0);
  EXPECT_EQ(close(fd), 0);
}

// --- open: creation ---

TEST_F(file_open, a_new_file_has_the_low_nine_mode_bits_and_0x8700) {
  make();
  const struct {
    const char* name;
    uint32_t mode;
    uint16_t stored;
  } cases[] = {{"a", 0, 0x8700},
               {"b", 0x1FF, 0x87FF},
               {"c", 0x1A4, 0x87A4},
               {"d", 0xFFFF, 0x87FF},
               {"e", 0x4000, 0x8700}};
  for (const auto& one : cases) {
    ASSERT_EQ(close(open(one.name, open_new, one.mode)), 0);
    ppc_stat status{};
    ASSERT_EQ(stat(one.name, &status), 0);
    EXPECT_EQ(status.mode, one.stored) << one.name;
    EXPECT_EQ(status.size, 0U);
    EXPECT_EQ(status.modification_date, recipe_time);
  }
}

TEST_F(file_open, create_opens_an_existing_file_as_it_is) {
  make();
  put("a", "text");
  const int32_t fd = open("a", open_new);
  EXPECT_EQ(read_text(fd, 10), "text");
  EXPECT_EQ(close(fd), 0);
}

TEST_F(file_open, create_exclusive_refuses_an_existing_file_and_makes_a_missing_one) {
  make();
  put("a", "text");
  EXPECT_EQ(error_of(open("a", open_rw | create_exclusive)), EEXIST);
  EXPECT_EQ(error_of(open("a", ifs_open_read | create_exclusive)), EEXIST);
  EXPECT_EQ(get("a"), "text");
  EXPECT_EQ(close(open("b", open_rw | create_exclusive)), 0);
  EXPECT_EQ(get("b"), "");
}

TEST_F(file_open, exclusive_without_create_means_nothing) {
  make();
  put("a", "text");
  EXPECT_EQ(close(open("a", ifs_open_read | ifs_open_exclusive)), 0);
  EXPECT_EQ(error_of(open("b", ifs_open_read | ifs_open_exclusive)), ENOENT);
}

TEST_F(file_open, the_errors_of_creation_pass_through) {
  make();
  put("f", "text");
  EXPECT_EQ(error_of(open("f/a", open_new)), ENOTDIR);
  EXPECT_EQ(error_of(open("d/a", open_new)), ENOENT);
  EXPECT_EQ(error_of(open("a b", open_new)), EINVAL);
  EXPECT_EQ(output(), "");
  EXPECT_EQ(error_of(open(std::string(46, 'n'), open_new)), ENAMETOOLONG);
  EXPECT_EQ(output(), "flashfs[0]: Cannot accept filenames longer than 45 characters.\n");
  EXPECT_EQ(close(open(std::string(45, 'n'), open_new)), 0);
  const int32_t reader = open("/");
  EXPECT_EQ(error_of(open("a", open_new)), EBUSY);
  EXPECT_EQ(close(reader), 0);
  EXPECT_EQ(open_descriptors(), 0);
  EXPECT_EQ(claims(), 0U);
  EXPECT_EQ(fs()->ready, 1U);
}

TEST_F(file_open, creation_without_space_for_a_slot_is_no_space) {
  make({2, 2, 2});
  int made = 0;
  while (close(open("f" + std::to_string(made), open_new)) == 0) {
    made++;
    ASSERT_LT(made, 1000);
  }
  EXPECT_EQ(error_of(open("g", open_new)), ENOSPC);
  EXPECT_GT(made, 30);
  EXPECT_EQ(fs()->ready, 1U);
  EXPECT_EQ(open_descriptors(), 0);
  EXPECT_TRUE(flash_is_consistent());
}

TEST_F(file_open, a_failing_creation_marks_down) {
  expect_that_flash_failures_mark_down(
      [&] {
        make();
        put("a", "text");
      },
      [&] { return ifs_open(on_bootflash("b").c_str(), open_new, 0) < 0 ? -1 : 0; });
}

TEST_F(file_open, a_look_up_that_the_flash_fails_never_creates) {
  make();
  put("a", "text");
  const std::vector<uint8_t> before = device().flash().snapshot();
  device().fail(flash_call::read, 1, flash_operation_failed);
  EXPECT_EQ(error_of(open("b", open_new)), EIO);
  EXPECT_NE(output().find(down_line), std::string::npos);
  EXPECT_EQ(device().flash().snapshot(), before);
  EXPECT_EQ(open_descriptors(), 0);
}

// --- open: the order of refusals, and what failing paths give back ---

TEST_F(file_open, refusals_come_in_their_order) {
  make();
  ASSERT_EQ(mkdir("d"), 0);
  put("a", "text");
  const int32_t writer = open("a", open_rw);
  // The raw handle while others are open, before the descriptor; then the descriptor.
  std::vector<int32_t> fillers;
  while (open_descriptors() < ifs_max_descriptors) {
    fillers.push_back(open("d"));
    ASSERT_GE(fillers.back(), 0);
  }
  EXPECT_EQ(error_of(open("...")), EBUSY);
  EXPECT_EQ(error_of(open("")), ENOENT);
  EXPECT_EQ(error_of(open("d", open_rw)), ENFILE);
  for (const int32_t fd : fillers) {
    EXPECT_EQ(close(fd), 0);
  }
  // A directory for writing, before the claim and the existence.
  const int32_t reader = open("d");
  EXPECT_EQ(error_of(open("d", open_rw | create_exclusive)), EISDIR);
  EXPECT_EQ(close(reader), 0);
  // The claim before the existence.
  EXPECT_EQ(error_of(open("a", open_rw | create_exclusive)), EBUSY);
  EXPECT_EQ(close(writer), 0);
  EXPECT_EQ(error_of(open("a", open_rw | create_exclusive)), EEXIST);
}

TEST_F(file_open, the_129th_open_file_finds_no_descriptor) {
  make();
  put("a", "text");
  for (int i = 0; i < ifs_max_descriptors; i++) {
    ASSERT_EQ(open("a"), i);
  }
  EXPECT_EQ(error_of(open("a")), ENFILE);
  EXPECT_EQ(error_of(open("new", open_new)), ENFILE);
  EXPECT_EQ(entry(fileid_of("a"))->readers, 128U);
  EXPECT_EQ(close(5), 0);
  EXPECT_EQ(open("a"), 5);
  EXPECT_EQ(error_of(open("new")), ENFILE);
}

TEST_F(file_open, every_refused_open_gives_back_claim_and_descriptor) {
  make();
  put("a", "text");
  ASSERT_EQ(mkdir("d"), 0);
  const int before = open_count();
  EXPECT_EQ(error_of(open("a", open_rw | create_exclusive)), EEXIST);
  EXPECT_EQ(error_of(open("a", ifs_open_read | create_exclusive)), EEXIST);
  EXPECT_EQ(error_of(open("d", open_rw)), EISDIR);
  EXPECT_EQ(error_of(open("x")), ENOENT);
  EXPECT_EQ(error_of(open("a:b", open_new)), EINVAL);
  EXPECT_EQ(open_descriptors(), 0);
  EXPECT_EQ(claims(), 0U);
  EXPECT_EQ(open_count(), before);
  EXPECT_EQ(remove("a"), 0);
  EXPECT_EQ(rmdir("d"), 0);
}

// --- open: truncation ---

TEST_F(file_open, truncation_frees_all_sectors_and_dates_the_file) {
  make();
  put("a", pattern(5000));
  set_clock(recipe_time + 100);
  const int32_t fd = open("a", ifs_open_truncate | ifs_open_write);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(entry(fileid_of("a"))->sctr_list, nullptr);
  EXPECT_EQ(close(fd), 0);
  ppc_stat status{};
  EXPECT_EQ(stat("a", &status), 0);
  EXPECT_EQ(status.size, 0U);
  EXPECT_EQ(status.modification_date, recipe_time + 100);
  EXPECT_TRUE(flash_is_consistent());
}

TEST_F(file_open, truncation_needs_no_write_flag) {
  make();
  put("a", pattern(5000));
  const int32_t fd = open("a", ifs_open_truncate);
  EXPECT_EQ(error_of(write(fd, "x")), EBADF);
  EXPECT_EQ(error_of(read(fd, nullptr, 0)), EBADF);
  EXPECT_EQ(close(fd), 0);
  EXPECT_EQ(size_of("a"), 0U);
}

TEST_F(file_open, a_new_file_with_truncate_is_dated_once) {
  make();
  put("a", "x");
  flash_recorder recorder(fs());
  EXPECT_EQ(close(open("b", open_new)), 0);
  const std::string without = recorder.text();
  EXPECT_EQ(remove("b"), 0);
  const size_t before = recorder.text().size();
  EXPECT_EQ(close(open("b", open_new | ifs_open_truncate)), 0);
  const std::string with = recorder.text().substr(before + 1);
  EXPECT_EQ(std::count(with.begin(), with.end(), ' '),
            std::count(without.begin(), without.end(), ' '));
}

TEST_F(file_open, a_failing_truncation_marks_down) {
  expect_that_flash_failures_mark_down(
      [&] {
        make();
        put("a", pattern(5000));
      },
      [&] {
        return ifs_open(on_bootflash("a").c_str(), ifs_open_truncate | ifs_open_write, 0) < 0 ? -1
                                                                                              : 0;
      });
}
