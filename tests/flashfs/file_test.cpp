// Reading, seeking and closing of files, and opening by file id. Opening by path is in
// open_test.cpp, writing in write_test.cpp.
#include "flashfs/file.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <initializer_list>
#include <string>

#include "flashfs/control.h"
#include "flashfs/control_codes.h"
#include "flashfs/listing.h"
#include "flashfs/operations.h"
#include "flashfs/write.h"
#include "tests/flashfs/operations_fixture.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"

namespace {

using namespace test_support;

class file_read : public operations_fixture {};
class file_close : public operations_fixture {};
class file_seek : public operations_fixture {};
class file_by_id : public operations_fixture {};

constexpr uint32_t create_exclusive = ifs_open_create | ifs_open_exclusive;

}  // namespace

// --- read ---

TEST_F(file_read, pieces_of_all_sizes_give_the_contents) {
  make();
  const std::string text = pattern(3 * 2048 + 700);
  put("a", text);
  for (const uint32_t piece : {1U, 7U, 511U, 2047U, 2048U, 2049U, 4096U, 100000U}) {
    const int32_t fd = open("a");
    std::string all;
    for (;;) {
      const std::string part = read_text(fd, piece);
      if (part.empty()) {
        break;
      }
      EXPECT_LE(part.size(), piece);
      all += part;
    }
    EXPECT_TRUE(all == text) << piece;
    EXPECT_EQ(seek(fd, 0, ifs_seek_current), static_cast<int32_t>(text.size()));
    EXPECT_EQ(close(fd), 0);
  }
}

TEST_F(file_read, odd_offsets_and_lengths_around_sector_limits) {
  make();
  const std::string text = pattern(3 * 2048);
  put("a", text);
  const int32_t fd = open("a");
  for (const int32_t offset : {0, 1, 2047, 2048, 2049, 4095, 4096, 6143}) {
    for (const uint32_t length : {0U, 1U, 2047U, 2048U, 2049U, 5000U}) {
      ASSERT_EQ(seek(fd, offset), offset);
      EXPECT_TRUE(read_text(fd, length) == text.substr(static_cast<size_t>(offset), length))
          << offset << " " << length;
    }
  }
  EXPECT_EQ(close(fd), 0);
}

TEST_F(file_read, at_and_behind_the_end_nothing_is_read) {
  make();
  put("a", pattern(2048));
  put("empty", "");
  const int32_t fd = open("a");
  for (const int32_t offset : {2048, 2049, 4096, 1000000, INT_MAX}) {
    ASSERT_EQ(seek(fd, offset), offset);
    EXPECT_EQ(read_text(fd, 10), "");
    EXPECT_EQ(seek(fd, 0, ifs_seek_current), offset);
  }
  EXPECT_EQ(close(fd), 0);
  const int32_t empty = open("empty");
  EXPECT_EQ(read_text(empty, 10), "");
  EXPECT_EQ(close(empty), 0);
}

TEST_F(file_read, each_sector_is_one_flash_read) {
  make();
  put("a", pattern(5 * 2048));
  const int32_t fd = open("a");
  device().clear_counts();
  EXPECT_EQ(read_text(fd, 5 * 2048).size(), 5U * 2048);
  EXPECT_EQ(device().counts().reads, 5U);
  EXPECT_EQ(close(fd), 0);
}

TEST_F(file_read, a_file_system_that_is_not_ready_is_invalid) {
  make();
  put("a", "text");
  const int32_t fd = open("a", 0);
  fs()->ready = 0;
  EXPECT_EQ(error_of(read(fd, nullptr, 0)), EINVAL);
  fs()->ready = 1;
  EXPECT_EQ(close(fd), 0);
}

TEST_F(file_read, a_directory_is_refused_also_without_the_read_flag) {
  make();
  const int32_t fd = open("/");
  char byte = 0;
  EXPECT_EQ(error_of(read(fd, &byte, 1)), EISDIR);
  EXPECT_EQ(close(fd), 0);
  const int32_t unreadable = open("/", 0);
  EXPECT_EQ(error_of(read(unreadable, &byte, 1)), EISDIR);
  EXPECT_EQ(close(unreadable), 0);
}

TEST_F(file_read, without_the_read_flag_the_descriptor_is_bad) {
  make();
  const int32_t fd = open("a", ifs_open_write | ifs_open_create);
  char byte = 0;
  EXPECT_EQ(error_of(read(fd, &byte, 1)), EBADF);
  EXPECT_EQ(close(fd), 0);
}

TEST_F(file_read, a_descriptor_from_outside_the_table_is_bad) {
  make();
  char byte = 0;
  ppc_stat status;
  for (const int32_t fd : {-1, 0, 127, 128, INT_MAX, INT_MIN}) {
    EXPECT_EQ(error_of(flashfs_vctr_read(fd, &byte, 1)), EBADF) << fd;
    EXPECT_EQ(error_of(flashfs_vctr_write(fd, &byte, 1)), EBADF) << fd;
    EXPECT_EQ(error_of(flashfs_vctr_close(fd)), EBADF) << fd;
    EXPECT_EQ(error_of(flashfs_vctr_lseek(fd, 0, 0)), EBADF) << fd;
    EXPECT_EQ(error_of(flashfs_vctr_getdents(fd, &byte, 1)), EBADF) << fd;
    EXPECT_EQ(error_of(flashfs_vctr_fstat(fd, &status)), EBADF) << fd;
    EXPECT_EQ(error_of(flashfs_vctr_fioctl(fd, flashfs_fioctl_verify, nullptr)), EBADF) << fd;
  }
}

TEST_F(file_read, a_sector_with_a_wrong_checksum_is_a_read_failure) {
  make();
  put("a", pattern(3 * 2048));
  const flashfs_sctr_ptr second = entry(fileid_of("a"))->sctr_list->next->sctr_ptr;
  const int32_t fd = open("a");
  image().sector_at(second.block_num, second.sctr_num)[100] = 0;
  std::string buffer(3 * 2048, '#');
  EXPECT_EQ(error_of(read(fd, buffer.data(), 3 * 2048)), EIO);
  EXPECT_EQ(output(), down_line);
  // Nothing of the sector is delivered.
  EXPECT_EQ(buffer.substr(2048), std::string(4096, '#'));
  EXPECT_EQ(error_of(read(fd, buffer.data(), 1)), EINVAL);
  EXPECT_EQ(close(fd), 0);
}

TEST_F(file_read, a_failing_flash_marks_down_and_leaves_the_position) {
  int32_t fd = -1;
  std::string buffer(5000, '#');
  expect_that_flash_failures_mark_down(
      [&] {
        make();
        put("a", pattern(5000));
        fd = open("a");
      },
      [&] {
        const int32_t result = ifs_read(fd, buffer.data(), 5000);
        const auto* open = static_cast<const flashfs_open_file*>(ifs_fd_get_entry(fd)->fd_context);
        EXPECT_EQ(open->filepos, result < 0 ? 0U : 5000U);
        return result;
      });
}

TEST_F(file_read, a_short_sector_in_the_middle_gives_what_it_has) {
  make_root(2);
  names({"1:0.0/1 2<1 a"});
  image().data_sector(0, 1, 2, 0, std::string(100, 'a'));
  image().data_sector(0, 2, 2, 1, std::string(2048, 'b'));
  image().data_sector(0, 3, 2, 2, std::string(10, 'c'));
  mount_recipe();
  EXPECT_EQ(size_of("a"), 4106U);
  const int32_t fd = open("a");
  EXPECT_EQ(read_text(fd, 5000), std::string(100, 'a') + std::string(2048, 'b') + "cccccccccc");
  EXPECT_EQ(seek(fd, 0, ifs_seek_current), 2158);
  // Behind its count the sector has nothing: the next one goes on at its beginning.
  EXPECT_EQ(seek(fd, 200), 200);
  EXPECT_EQ(read_text(fd, 5), "bbbbb");
  EXPECT_EQ(close(fd), 0);
}

TEST_F(file_read, a_damaged_count_is_cut_to_the_data_area) {
  make_root(2);
  names({"1:0.0/1 2<1 a"});
  image().data_sector(0, 1, 2, 0, std::string(2048, 'a'), 60000);
  mount_recipe();
  EXPECT_EQ(size_of("a"), 2048U);
  EXPECT_EQ(get("a"), std::string(2048, 'a'));
}

// --- close ---

TEST_F(file_close, the_claim_the_record_and_the_descriptor_are_given_back) {
  make();
  put("a", "text");
  const int32_t fd = open("a");
  EXPECT_EQ(open_count(), 1);
  EXPECT_EQ(close(fd), 0);
  EXPECT_EQ(open_count(), 0);
  EXPECT_EQ(claims(), 0U);
  EXPECT_EQ(error_of(close(fd)), EBADF);
}

TEST_F(file_close, a_file_system_that_is_down_keeps_its_claims_until_the_check) {
  make();
  put("a", "text");
  const int32_t fd = open("a");
  fs()->ready = 0;
  EXPECT_EQ(close(fd), 0);
  EXPECT_EQ(claims(), 1U);
  ASSERT_EQ(check(), 0);
  EXPECT_EQ(claims(), 0U);
  EXPECT_EQ(remove("a"), 0);
}

// --- lseek ---

TEST_F(file_seek, positions_are_set_added_and_counted_from_the_end) {
  make();
  put("a", pattern(5000));
  const int32_t fd = open("a");
  EXPECT_EQ(seek(fd, 100, ifs_seek_set), 100);
  EXPECT_EQ(seek(fd, 50, ifs_seek_current), 150);
  EXPECT_EQ(seek(fd, -150, ifs_seek_current), 0);
  EXPECT_EQ(seek(fd, 0, ifs_seek_end), 5000);
  EXPECT_EQ(seek(fd, -1, ifs_seek_end), 4999);
  EXPECT_EQ(read_text(fd, 10), pattern(5000).substr(4999));
  EXPECT_EQ(close(fd), 0);
}

TEST_F(file_seek, another_whence_is_invalid) {
  make();
  put("a", "text");
  const int32_t fd = open("a");
  EXPECT_EQ(seek(fd, 3), 3);
  EXPECT_EQ(error_of(seek(fd, 0, 3)), EINVAL);
  EXPECT_EQ(error_of(seek(fd, 0, -1)), EINVAL);
  EXPECT_EQ(seek(fd, 0, ifs_seek_current), 3);
  EXPECT_EQ(close(fd), 0);
}

TEST_F(file_seek, a_negative_position_is_invalid_and_changes_nothing) {
  make();
  put("a", "text");
  const int32_t fd = open("a");
  EXPECT_EQ(seek(fd, 3), 3);
  EXPECT_EQ(error_of(seek(fd, -1)), EINVAL);
  EXPECT_EQ(error_of(seek(fd, -4, ifs_seek_current)), EINVAL);
  EXPECT_EQ(error_of(seek(fd, -5, ifs_seek_end)), EINVAL);
  EXPECT_EQ(error_of(seek(fd, INT_MIN)), EINVAL);
  EXPECT_EQ(seek(fd, 0, ifs_seek_current), 3);
  EXPECT_EQ(close(fd), 0);
}

TEST_F(file_seek, a_position_past_31_bits_is_invalid_and_changes_nothing) {
  make();
  put("a", "text");
  const int32_t fd = open("a");
  EXPECT_EQ(seek(fd, INT_MAX), INT_MAX);
  EXPECT_EQ(error_of(seek(fd, 1, ifs_seek_current)), EINVAL);
  EXPECT_EQ(error_of(seek(fd, INT_MAX - 3, ifs_seek_end)), EINVAL);
  EXPECT_EQ(seek(fd, 0, ifs_seek_current), INT_MAX);
  EXPECT_EQ(seek(fd, INT_MAX - 4, ifs_seek_end), INT_MAX);
  EXPECT_EQ(close(fd), 0);
}

TEST_F(file_seek, seeking_behind_the_end_changes_no_size) {
  make();
  put("a", "text");
  const int32_t fd = open("a", open_rw);
  EXPECT_EQ(seek(fd, 10000), 10000);
  EXPECT_EQ(close(fd), 0);
  EXPECT_EQ(size_of("a"), 4U);
}

TEST_F(file_seek, a_file_system_that_is_not_ready_is_invalid) {
  make();
  put("a", "text");
  const int32_t fd = open("a");
  fs()->ready = 0;
  EXPECT_EQ(error_of(seek(fd, 0)), EINVAL);
  fs()->ready = 1;
  EXPECT_EQ(close(fd), 0);
}

TEST_F(file_seek, a_failing_status_marks_down) {
  int32_t fd = -1;
  expect_that_flash_failures_mark_down(
      [&] {
        make();
        put("a", pattern(5000));
        fd = open("a");
      },
      [&] { return ifs_lseek(fd, 0, ifs_seek_end); });
}

TEST_F(file_seek, a_file_without_a_slot_marks_down) {
  make();
  put("a", "text");
  const int32_t fd = open("a");
  entry(fileid_of("a"))->parent_fileid = 77;
  EXPECT_EQ(error_of(seek(fd, 0, ifs_seek_end)), EIO);
  EXPECT_EQ(output(), "flashfs[0]: dostat, unable to lookup filemap for fileid 77\n" + down_line);
  EXPECT_EQ(close(fd), 0);
}

// --- open by file id ---

TEST_F(file_by_id, files_and_directories_at_any_depth) {
  make();
  ASSERT_EQ(mkdir("d"), 0);
  ASSERT_EQ(mkdir("d/e"), 0);
  put("a", "in the root");
  put("d/e/f", "deep");
  const int32_t a = open_by_fileid(fileid_of("a"));
  EXPECT_EQ(read_text(a, 100), "in the root");
  EXPECT_EQ(close(a), 0);
  const int32_t f = open_by_fileid(fileid_of("d/e/f"));
  EXPECT_EQ(read_text(f, 100), "deep");
  EXPECT_EQ(close(f), 0);
  ppc_dirent record;
  const int32_t e = open_by_fileid(fileid_of("d/e"));
  EXPECT_EQ(getdents(e, &record, sizeof record), 76);
  EXPECT_STREQ(record.name, "f");
  EXPECT_EQ(close(e), 0);
  const int32_t root = open_by_fileid(1);
  EXPECT_EQ(getdents(root, &record, sizeof record), 76);
  EXPECT_STREQ(record.name, "d");
  EXPECT_EQ(close(root), 0);
}

TEST_F(file_by_id, the_flags_are_those_of_open) {
  make();
  ASSERT_EQ(mkdir("d"), 0);
  put("a", "text");
  EXPECT_EQ(error_of(open_by_fileid(fileid_of("d"), open_rw)), EISDIR);
  EXPECT_EQ(error_of(open_by_fileid(fileid_of("a"), open_rw | create_exclusive)), EEXIST);
  const int32_t fd = open_by_fileid(fileid_of("a"), open_rw | ifs_open_truncate);
  EXPECT_EQ(error_of(open_by_fileid(2)), 0);  // the directory
  EXPECT_EQ(error_of(open_by_fileid(fileid_of("a"))), EBUSY);
  EXPECT_EQ(close(fd), 0);
  EXPECT_EQ(size_of("a"), 0U);
}

TEST_F(file_by_id, an_unknown_id_is_a_bad_descriptor) {
  make();
  put("a", "text");
  for (const uint32_t fileid : {0U, 3U, 65534U, 65535U, 65537U, 65538U, 0xFFFFFFFFU}) {
    EXPECT_EQ(error_of(open_by_fileid(fileid)), EBADF) << fileid;
  }
  EXPECT_EQ(fs()->ready, 1U);
}

TEST_F(file_by_id, a_missing_parent_or_slot_is_a_bad_descriptor) {
  make();
  ASSERT_EQ(mkdir("d"), 0);
  put("d/a", "text");
  const uint16_t fileid = fileid_of("d/a");
  entry(fileid)->parent_fileid = 50;
  EXPECT_EQ(error_of(open_by_fileid(fileid)), EBADF);
  entry(fileid)->parent_fileid = 1;
  EXPECT_EQ(error_of(open_by_fileid(fileid)), EBADF);
}

TEST_F(file_by_id, parents_that_form_a_loop_are_a_bad_descriptor) {
  make({16, 16, 16});
  ASSERT_EQ(mkdir("one"), 0);
  ASSERT_EQ(mkdir("two"), 0);
  for (int i = 0; i < 80; i++) {
    put("f" + std::to_string(i), "");
  }
  const uint16_t one = fileid_of("one");
  const uint16_t two = fileid_of("two");
  entry(one)->parent_fileid = two;
  entry(two)->parent_fileid = one;
  EXPECT_EQ(error_of(open_by_fileid(one)), EBADF);
  entry(one)->parent_fileid = one;
  EXPECT_EQ(error_of(open_by_fileid(one)), EBADF);
}

TEST_F(file_by_id, a_path_of_189_bytes_fits_and_one_of_190_is_too_long) {
  make({16, 16, 16});
  std::string path;
  for (int i = 0; i < 4; i++) {
    path += std::string(45, static_cast<char>('a' + i));
    ASSERT_EQ(mkdir(path), 0);
    path += "/";
  }
  ASSERT_EQ(path.size(), 184U);
  put(path + "1234", "fits");
  put(path + "12345", "does not");
  const int32_t fd = open_by_fileid(fileid_of(path + "1234"));
  EXPECT_EQ(read_text(fd, 10), "fits");
  EXPECT_EQ(close(fd), 0);
  EXPECT_EQ(error_of(open_by_fileid(fileid_of(path + "12345"))), ENAMETOOLONG);
}

TEST_F(file_by_id, a_file_system_that_is_not_there_or_not_ready_is_refused) {
  make();
  errno = ERANGE;
  EXPECT_EQ(flashfs_vctr_open_by_fileid(9, 0, 1, ifs_open_read, 0), -1);
  EXPECT_EQ(errno, ERANGE);
  fs()->ready = 0;
  EXPECT_EQ(error_of(open_by_fileid(1)), EINVAL);
}

TEST_F(file_by_id, a_failing_flash_marks_down) {
  expect_that_flash_failures_mark_down(
      [&] {
        make();
        ASSERT_EQ(mkdir("d"), 0);
        put("d/a", "text");
      },
      [&] { return flashfs_vctr_open_by_fileid(fs()->fsid, 0, 3, ifs_open_read, 0) < 0 ? -1 : 0; });
}
