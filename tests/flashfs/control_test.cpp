// The control codes of a file system and of a descriptor - format, verify, check, highest id,
// names and paths. Truncation is in truncate_test.cpp.
#include "flashfs/control.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <string>

#include "flashfs/check_flags.h"
#include "flashfs/control_codes.h"
#include "flashfs/filemap.h"
#include "flashfs/log.h"
#include "tests/flashfs/operations_fixture.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"

namespace {

using namespace test_support;

class control_format : public operations_fixture {};
class control_verify : public operations_fixture {};
class control_check : public operations_fixture {};
class control_highest : public operations_fixture {};
class control_codes : public operations_fixture {};
class control_name : public operations_fixture {};
class control_path : public operations_fixture {};

constexpr uint32_t format_codes[] = {flashfs_ioctl_format, flashfs_ioctl_format_too};

}  // namespace

// --- codes ---

TEST_F(control_codes, unknown_ones_are_invalid) {
  make();
  put("a", "text");
  uint32_t word = 0;
  for (const uint32_t code : {0U, 1U, 5U, 8U, 9U, 12U, 35U, 37U, 0xFFFFFFFFU}) {
    EXPECT_EQ(error_of(ioctl("a", code, &word)), EINVAL) << code;
  }
  const int32_t fd = open("a");
  for (const uint32_t code : {0U, 2U, 3U, 5U, 6U, 11U, 13U, 14U, 16U, 0xFFFFFFFFU}) {
    EXPECT_EQ(error_of(fioctl(fd, code, &word)), EINVAL) << code;
  }
  EXPECT_EQ(close(fd), 0);
  EXPECT_EQ(fs()->ready, 1U);
}

TEST_F(control_codes, a_missing_argument_is_invalid) {
  make();
  put("a", "text");
  EXPECT_EQ(error_of(ioctl("", flashfs_ioctl_check, nullptr)), EINVAL);
  EXPECT_EQ(error_of(ioctl("", flashfs_ioctl_highest_fileid, nullptr)), EINVAL);
  const int32_t fd = open("a", open_rw);
  for (const uint32_t code :
       {flashfs_fioctl_truncate, flashfs_fioctl_name, flashfs_fioctl_path_and_size}) {
    EXPECT_EQ(error_of(fioctl(fd, code, nullptr)), EINVAL) << code;
  }
  EXPECT_EQ(close(fd), 0);
}

TEST_F(control_codes, only_format_and_check_serve_a_file_system_that_is_not_ready) {
  make();
  put("a", "text");
  const int32_t fd = open("a", open_rw);
  flashfs_file_info info;
  fs()->ready = 0;
  for (const uint32_t code : {flashfs_fioctl_truncate, flashfs_fioctl_verify, flashfs_fioctl_name,
                              flashfs_fioctl_path_and_size, 99U}) {
    EXPECT_EQ(error_of(fioctl(fd, code, &info)), EINVAL) << code;
  }
  EXPECT_EQ(close(fd), 0);
  uint32_t word = flashfs_check_full;
  for (const uint32_t code : {flashfs_ioctl_verify, flashfs_ioctl_highest_fileid, 99U}) {
    EXPECT_EQ(error_of(ioctl("a", code, &word)), EINVAL) << code;
  }
  EXPECT_EQ(ioctl("", flashfs_ioctl_check, &word), 0);
  EXPECT_EQ(get("a"), "text");
  for (const uint32_t code : format_codes) {
    fs()->ready = 0;
    EXPECT_EQ(ioctl("", code, nullptr), 0);
    EXPECT_EQ(fs()->ready, 1U);
  }
}

TEST_F(control_codes, a_failing_verification_truncation_or_look_up_of_a_name_marks_down) {
  int32_t fd = -1;
  const auto prepare = [&] {
    make();
    ASSERT_EQ(mkdir("d"), 0);
    put("d/a", pattern(5000));
    fd = open("d/a", open_rw);
  };
  expect_that_flash_failures_mark_down(
      prepare, [&] { return ifs_fioctl(fd, flashfs_fioctl_verify, nullptr); });
  expect_that_flash_failures_mark_down(prepare, [&] {
    flashfs_file_name record;
    return ifs_fioctl(fd, flashfs_fioctl_name, &record);
  });
  expect_that_flash_failures_mark_down(prepare, [&] {
    flashfs_file_info record;
    return ifs_fioctl(fd, flashfs_fioctl_path_and_size, &record);
  });
  for (uint32_t length : {0U, 100U, 2048U, 4999U, 5000U}) {
    SCOPED_TRACE(length);
    expect_that_flash_failures_mark_down(
        prepare, [&] { return ifs_fioctl(fd, flashfs_fioctl_truncate, &length); });
  }
}

// --- format ---

TEST_F(control_format, both_codes_leave_an_empty_file_system) {
  for (const uint32_t code : format_codes) {
    make();
    ASSERT_EQ(mkdir("d"), 0);
    put("d/a", pattern(5000));
    EXPECT_EQ(ioctl("", code, nullptr), 0);
    EXPECT_EQ(names_in("/"), "");
    ppc_statfs space{};
    EXPECT_EQ(statfs(&space), 0);
    EXPECT_EQ(space.files, 1U);
    EXPECT_EQ(space.free_blocks, 22U);
    EXPECT_TRUE(flash_is_consistent());
  }
}

TEST_F(control_format, blocks_in_use_are_erased_with_their_counts_and_available_ones_stay) {
  make_blocks({4, 4, 4});
  image().header(0, {.erase_count = 7, .state = 0x0});
  image().header(1, {.erase_count = 9, .state = 0x0});
  image().header(2, {.erase_count = 11, .state = 0xF});
  names({"0:0.0/0 1<1", "1:0.0/1 2<1 a"});
  mount_recipe();
  EXPECT_EQ(ioctl("", flashfs_ioctl_format_too, nullptr), 0);
  EXPECT_EQ(output().substr(0, 20), " eS0 wS0 eS1 wS1 wS2");
  // The check then takes block 0 as the spare and block 1 or 2 for the root's slot.
  EXPECT_EQ(header_on_flash(0).erase_count, 8U);
  EXPECT_EQ(header_on_flash(1).erase_count, 10U);
  EXPECT_EQ(header_on_flash(2).erase_count, 11U);
}

TEST_F(control_format, an_available_block_that_is_not_erased_is_erased) {
  make_root(3);
  mount_recipe();
  // The spare, dirtied behind the file system's back.
  image().sector_at(2, 1)[5] = 0;
  EXPECT_EQ(ioctl("", flashfs_ioctl_format, nullptr), 0);
  EXPECT_NE(output().find("flashfs[0]: found corrupted block[2] (byte 5, sector 1), fixing...\n"),
            std::string::npos);
  EXPECT_TRUE(flash_is_consistent());
}

TEST_F(control_format, an_erased_device_is_formatted_without_a_check_before) {
  make_blocks({4, 4, 4});
  ASSERT_EQ(initialize(), 0);
  EXPECT_EQ(ioctl("", flashfs_ioctl_format, nullptr), 0);
  EXPECT_EQ(names_in("/"), "");
  EXPECT_TRUE(flash_is_consistent());
}

TEST_F(control_format, it_is_refused_while_any_file_is_open) {
  make();
  put("a", "text");
  const int32_t fd = open("a");
  for (const uint32_t code : format_codes) {
    EXPECT_EQ(error_of(ioctl("", code, nullptr)), EBUSY);
  }
  fs()->ready = 0;
  EXPECT_EQ(error_of(ioctl("", flashfs_ioctl_format, nullptr)), EBUSY);
  fs()->ready = 1;
  EXPECT_EQ(read_text(fd, 10), "text");
  EXPECT_EQ(close(fd), 0);
}

TEST_F(control_format, a_failing_flash_marks_down_before_the_check) {
  for (uint64_t n = 1; n <= 10; n++) {
    make();
    put("a", "text");
    device().fail(flash_call::any, n, flash_operation_failed);
    EXPECT_EQ(error_of(ioctl("", flashfs_ioctl_format, nullptr)), EIO) << n;
    EXPECT_NE(output().find(down_line), std::string::npos) << n << output();
    EXPECT_EQ(fs()->ready, 0U);
    EXPECT_EQ(fs()->sctr_ptr_chunk, nullptr);
  }
}

TEST_F(control_format, a_check_that_fails_discards_the_state) {
  make();
  put("a", "text");
  device().fail(flash_call::any, 60, flash_operation_failed, true);
  EXPECT_EQ(error_of(ioctl("", flashfs_ioctl_format, nullptr)), EIO);
  EXPECT_EQ(output().find(down_line), std::string::npos);
  EXPECT_EQ(fs()->ready, 0U);
  EXPECT_EQ(fs()->sctr_ptr_chunk, nullptr);
  EXPECT_EQ(fs()->file_map, nullptr);
  device().fail(flash_call::any, 0, flash_ok);
  EXPECT_EQ(ioctl("", flashfs_ioctl_format, nullptr), 0);
}

// --- check ---

TEST_F(control_check, the_two_low_bits_are_its_options) {
  make();
  put("a", "text");
  const auto checked = [&](uint32_t flags) {
    device().clear_counts();
    EXPECT_EQ(ioctl("", flashfs_ioctl_check, &flags), 0);
    const ram_flash_counts counts = device().counts();
    EXPECT_EQ(get("a"), "text");
    return counts;
  };
  const ram_flash_counts full = checked(flashfs_check_full);
  const ram_flash_counts quick = checked(flashfs_check_quick);
  // The block in use has eight sectors, of which two are not erased: a quick check reads only those
  // whole.
  EXPECT_GT(full.bytes_read, quick.bytes_read + 5 * 2056);
  EXPECT_EQ(full.erases, 0U);
  EXPECT_EQ(quick.erases, 0U);
  EXPECT_EQ(checked(0xFFFFFFFC).bytes_read, full.bytes_read);
  EXPECT_GT(checked(flashfs_check_full | flashfs_check_reclaim_all).erases, 0U);
  EXPECT_GT(checked(flashfs_check_quick | flashfs_check_reclaim_all).erases, 0U);
}

TEST_F(control_check, it_is_refused_while_any_file_is_open) {
  make();
  put("a", "text");
  const int32_t fd = open("a");
  uint32_t word = flashfs_check_full;
  EXPECT_EQ(error_of(ioctl("", flashfs_ioctl_check, &word)), EBUSY);
  EXPECT_EQ(fs()->ready, 1U);
  EXPECT_EQ(close(fd), 0);
  EXPECT_EQ(ioctl("", flashfs_ioctl_check, &word), 0);
}

TEST_F(control_check, it_is_refused_while_a_descriptor_stands_whatever_the_count_says) {
  make();
  put("a", "text");
  const int32_t standing = open("a");
  const int32_t failed = open("a");
  ifs_descriptor* entry = ifs_fd_get_entry(failed);
  entry->flags = -1;
  // The switch only counts the closing of a failed descriptor, each time.
  EXPECT_EQ(close(failed), 0);
  EXPECT_EQ(close(failed), 0);
  uint32_t word = flashfs_check_full;
  EXPECT_EQ(error_of(ioctl("", flashfs_ioctl_check, &word)), EBUSY);
  EXPECT_EQ(error_of(ioctl("", flashfs_ioctl_format, nullptr)), EBUSY);
  EXPECT_EQ(error_of(open("...", open_rw)), EBUSY);
  EXPECT_EQ(read_text(standing, 10), "text");
  entry->flags = 0;
  ifs_open_file_increment(fs()->fsid);
  ifs_open_file_increment(fs()->fsid);
  EXPECT_EQ(close(failed), 0);
  EXPECT_EQ(close(standing), 0);
  EXPECT_EQ(ioctl("", flashfs_ioctl_check, &word), 0);
}

TEST_F(control_check, a_failure_discards_the_state) {
  make();
  put("a", "text");
  uint32_t word = flashfs_check_full;
  device().fail(flash_call::read, 20, flash_operation_failed, true);
  EXPECT_EQ(error_of(ioctl("", flashfs_ioctl_check, &word)), EIO);
  EXPECT_EQ(fs()->ready, 0U);
  EXPECT_EQ(fs()->sctr_ptr_chunk, nullptr);
  EXPECT_EQ(fs()->file_map, nullptr);
  EXPECT_EQ(fs()->available_slots, nullptr);
  device().fail(flash_call::any, 0, flash_ok);
  EXPECT_EQ(ioctl("", flashfs_ioctl_check, &word), 0);
  EXPECT_EQ(get("a"), "text");
}

TEST_F(control_check, it_brings_a_file_system_up_that_went_down) {
  make();
  put("a", "text");
  flashfs_mark_down(fs());
  EXPECT_EQ(error_of(open("a")), EINVAL);
  uint32_t word = flashfs_check_quick;
  EXPECT_EQ(ioctl("", flashfs_ioctl_check, &word), 0);
  EXPECT_EQ(get("a"), "text");
}

// --- verify ---

TEST_F(control_verify, a_path_an_empty_path_and_no_path) {
  make();
  ASSERT_EQ(mkdir("d"), 0);
  put("d/a", pattern(5000));
  for (const char* name : {"", "/", "d", "d/a"}) {
    EXPECT_EQ(ioctl(name, flashfs_ioctl_verify, nullptr), 0) << name;
  }
  EXPECT_EQ(flashfs_vctr_ioctl(fs()->fsid, nullptr, flashfs_ioctl_verify, nullptr), 0);
  EXPECT_EQ(error_of(ioctl("missing", flashfs_ioctl_verify, nullptr)), ENOENT);
  EXPECT_EQ(fs()->ready, 1U);
}

TEST_F(control_verify, a_missing_record_is_a_failure) {
  make();
  put("a", "text");
  filemap_remove(fs(), entry(fileid_of("a")));
  EXPECT_EQ(error_of(ioctl("a", flashfs_ioctl_verify, nullptr)), EIO);
  EXPECT_EQ(output(), down_line);
  EXPECT_EQ(fs()->ready, 0U);
}

TEST_F(control_verify, a_wrong_checksum_marks_down) {
  make();
  put("a", pattern(5000));
  const flashfs_sctr_ptr last = entry(fileid_of("a"))->sctr_list->next->next->sctr_ptr;
  image().sector_at(last.block_num, last.sctr_num)[4] = 0;
  EXPECT_EQ(error_of(ioctl("a", flashfs_ioctl_verify, nullptr)), EIO);
  EXPECT_EQ(output(), down_line);
}

TEST_F(control_verify, a_slot_with_a_wrong_checksum_marks_down) {
  make();
  put("a", "text");
  const flashfs_sctr_list_ordered* slot = entry(1)->sctr_list->next;
  image().slot_at(slot->sctr_ptr.block_num, slot->sctr_ptr.sctr_num, slot->slot_no)[9] = 0;
  EXPECT_EQ(error_of(ioctl("", flashfs_ioctl_verify, nullptr)), EIO);
  EXPECT_EQ(output(), down_line);
}

TEST_F(control_verify, a_file_without_a_slot_says_so) {
  make();
  put("a", "text");
  const int32_t fd = open("a");
  entry(fileid_of("a"))->parent_fileid = 77;
  EXPECT_EQ(error_of(fioctl(fd, flashfs_fioctl_verify, nullptr)), EIO);
  EXPECT_EQ(output(), "flashfs[0]: doverify, unable to lookup filemap for fileid 77\n" + down_line);
  EXPECT_EQ(close(fd), 0);
}

TEST_F(control_verify, an_open_file_is_verified_through_its_descriptor) {
  make();
  put("a", pattern(5000));
  put("empty", "");
  for (const char* name : {"a", "empty", "/"}) {
    const int32_t fd = open(name);
    EXPECT_EQ(fioctl(fd, flashfs_fioctl_verify, nullptr), 0) << name;
    EXPECT_EQ(close(fd), 0);
  }
  EXPECT_EQ(error_of(fioctl(3, flashfs_fioctl_verify, nullptr)), EBADF);
}

TEST_F(control_verify, a_failing_flash_marks_down) {
  for (const char* name : {"bootflash:", "bootflash:a"}) {
    expect_that_flash_failures_mark_down(
        [&] {
          make();
          put("a", pattern(5000));
        },
        [&] { return ifs_ioctl(name, flashfs_ioctl_verify, nullptr); });
  }
}

// --- highest file id ---

TEST_F(control_highest, it_is_that_of_the_last_record) {
  make();
  uint32_t fileid = 0;
  EXPECT_EQ(ioctl("", flashfs_ioctl_highest_fileid, &fileid), 0);
  EXPECT_EQ(fileid, 1U);
  put("a", "");
  put("b", "");
  EXPECT_EQ(ioctl("any path", flashfs_ioctl_highest_fileid, &fileid), 0);
  EXPECT_EQ(fileid, 3U);
  EXPECT_EQ(remove("a"), 0);
  EXPECT_EQ(ioctl("", flashfs_ioctl_highest_fileid, &fileid), 0);
  EXPECT_EQ(fileid, 3U);
  EXPECT_EQ(remove("b"), 0);
  EXPECT_EQ(ioctl("", flashfs_ioctl_highest_fileid, &fileid), 0);
  EXPECT_EQ(fileid, 1U);
}

TEST_F(control_highest, an_empty_map_has_none) {
  make();
  filemap_remove(fs(), entry(1));
  uint32_t fileid = 5;
  EXPECT_EQ(error_of(ioctl("", flashfs_ioctl_highest_fileid, &fileid)), EINVAL);
  EXPECT_EQ(fileid, 5U);
}

// --- the name of an open file ---

TEST_F(control_name, it_follows_the_leading_word_of_the_record) {
  make();
  ASSERT_EQ(mkdir("d"), 0);
  const std::string longest(45, 'n');
  put("d/" + longest, "text");
  flashfs_file_name record = {0xA5A5A5A5, {}};
  const int32_t fd = open("d/" + longest);
  EXPECT_EQ(fioctl(fd, flashfs_fioctl_name, &record), 0);
  EXPECT_EQ(record.reserved, 0xA5A5A5A5U);
  EXPECT_EQ(record.name, longest);
  EXPECT_EQ(close(fd), 0);
  const int32_t directory = open("d");
  EXPECT_EQ(fioctl(directory, flashfs_fioctl_name, &record), 0);
  EXPECT_STREQ(record.name, "d");
  EXPECT_EQ(close(directory), 0);
  const int32_t root = open("/");
  EXPECT_EQ(fioctl(root, flashfs_fioctl_name, &record), 0);
  EXPECT_STREQ(record.name, "");
  EXPECT_EQ(close(root), 0);
}

TEST_F(control_name, a_name_without_a_terminator_ends_with_its_field) {
  make_root(2);
  names({"1:0.0/1 2<1 " + std::string(46, 'n')});
  mount_recipe();
  const int32_t fd = open(std::string(46, 'n'));
  flashfs_file_name record;
  EXPECT_EQ(fioctl(fd, flashfs_fioctl_name, &record), 0);
  EXPECT_EQ(record.name, std::string(46, 'n'));
  EXPECT_EQ(close(fd), 0);
}

// --- path and size of an open file ---

TEST_F(control_path, absolute_paths_and_sizes_of_files_and_directories) {
  make();
  ASSERT_EQ(mkdir("d"), 0);
  ASSERT_EQ(mkdir("d/e"), 0);
  put("d/e/f", pattern(5000));
  const struct {
    const char* name;
    const char* path;
    uint32_t size;
  } cases[] = {{"/", "/", 128}, {"d", "/d", 64}, {"d/e", "/d/e", 64}, {"d/e/f", "/d/e/f", 5000}};
  for (const auto& one : cases) {
    flashfs_file_info info;
    memset(&info, 0xA5, sizeof info);
    const int32_t fd = open(one.name);
    EXPECT_EQ(fioctl(fd, flashfs_fioctl_path_and_size, &info), 0);
    EXPECT_STREQ(info.path, one.path);
    EXPECT_EQ(info.size, one.size);
    EXPECT_EQ(info.reserved, 0U);
    EXPECT_EQ(close(fd), 0);
  }
}

TEST_F(control_path, a_path_of_319_bytes_fits_and_one_of_320_is_too_long) {
  make({16, 16, 16});
  std::string path;
  for (int i = 0; i < 6; i++) {
    path += std::string(45, static_cast<char>('a' + i));
    ASSERT_EQ(mkdir(path), 0);
    path += "/";
  }
  flashfs_file_info info;
  const std::string fitting = path + std::string(42, 'x');
  put(fitting, "");
  int32_t fd = open(fitting);
  EXPECT_EQ(fioctl(fd, flashfs_fioctl_path_and_size, &info), 0);
  EXPECT_EQ("/" + fitting, info.path);
  EXPECT_EQ(strlen(info.path), 319U);
  EXPECT_EQ(close(fd), 0);
  const std::string too_long = path + std::string(43, 'x');
  put(too_long, "");
  fd = open(too_long);
  EXPECT_EQ(error_of(fioctl(fd, flashfs_fioctl_path_and_size, &info)), ENAMETOOLONG);
  EXPECT_EQ(close(fd), 0);
  EXPECT_EQ(fs()->ready, 1U);
}

TEST_F(control_path, damaged_parents_are_a_bad_descriptor) {
  make();
  ASSERT_EQ(mkdir("d"), 0);
  put("d/a", "text");
  const int32_t fd = open("d/a");
  flashfs_file_info info;
  const uint16_t directory = fileid_of("d");
  entry(directory)->parent_fileid = directory;
  EXPECT_EQ(error_of(fioctl(fd, flashfs_fioctl_path_and_size, &info)), EBADF);
  entry(directory)->parent_fileid = 99;
  EXPECT_EQ(error_of(fioctl(fd, flashfs_fioctl_path_and_size, &info)), EBADF);
  entry(directory)->parent_fileid = 1;
  EXPECT_EQ(fioctl(fd, flashfs_fioctl_path_and_size, &info), 0);
  EXPECT_EQ(close(fd), 0);
}
