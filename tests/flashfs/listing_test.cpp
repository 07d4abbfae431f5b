// What a listing asks for: the entries of directories, and the status operations. What these say is
// in status_test.cpp.
#include "flashfs/listing.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "flashfs/filemap.h"
#include "tests/flashfs/flashfs_recipe.h"
#include "tests/flashfs/operations_fixture.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"

namespace {

using namespace test_support;

class listing_stat : public operations_fixture {};
class listing_fstat : public operations_fixture {};
class listing_istat : public operations_fixture {};
class listing_statfs : public operations_fixture {};

class listing_getdents : public operations_fixture {
 protected:
  // The names that one call of so many bytes gives, with their next positions.
  std::string listed(int32_t fd, uint32_t length) {
    std::vector<uint8_t> buffer(length + 1, 0xA5);
    const int32_t result = getdents(fd, buffer.data(), length);
    if (result < 0) {
      return "<errno " + std::to_string(errno) + ">";
    }
    EXPECT_EQ(result % 76, 0);
    EXPECT_LE(static_cast<uint32_t>(result), length);
    std::vector<std::string> words;
    for (int32_t at = 0; at < result; at += 76) {
      ppc_dirent record;
      memcpy(&record, buffer.data() + at, sizeof record);
      EXPECT_EQ(record.record_length, 76);
      words.push_back(std::string(record.name) + "#" + std::to_string(record.fileid) + "@" +
                      std::to_string(record.next_position));
    }
    EXPECT_EQ(buffer[static_cast<size_t>(result)], 0xA5);  // nothing behind the records
    return joined(words);
  }
};

// A tree of a root with the file "a" (2), the directory "d" (3) and in it the file "b" (4) and the
// directory "e" (5).
constexpr const char* tree_map = "1<1 2<1 3<1 4<3 5<3";

bool same(const ppc_stat& one, const ppc_stat& other) {
  return one.fsid == other.fsid && one.link_count == other.link_count && one.owner == other.owner &&
         one.group == other.group && one.fileid == other.fileid && one.mode == other.mode &&
         one.size == other.size && one.access_date == other.access_date &&
         one.modification_date == other.modification_date && one.change_date == other.change_date;
}

}  // namespace

// --- getdents ---

TEST_F(listing_getdents, records_of_a_directory_in_the_order_of_its_list) {
  make();
  put("a", "");
  ASSERT_EQ(mkdir("d"), 0);
  put("d/b", "");
  ASSERT_EQ(mkdir("d/e"), 0);
  ASSERT_EQ(map_text(fs()), tree_map);
  const int32_t root = open("/");
  EXPECT_EQ(listed(root, 1000), "a#2@64 d#3@128");
  EXPECT_EQ(listed(root, 1000), "");
  EXPECT_EQ(close(root), 0);
  const int32_t fd = open("d");
  EXPECT_EQ(listed(fd, 1000), "b#4@64 e#5@128");
  EXPECT_EQ(close(fd), 0);
}

TEST_F(listing_getdents, an_entry_that_names_its_own_directory_is_passed_over) {
  make();
  ASSERT_EQ(mkdir("d"), 0);
  put("d/b", "");
  put("d/c", "");
  const uint16_t d = fileid_of("d");
  const flashfs_sctr_list_ordered* first = entry(d)->sctr_list;
  auto* slot = reinterpret_cast<flashfs_dir_slot*>(
      image().slot_at(first->sctr_ptr.block_num, first->sctr_ptr.sctr_num, first->slot_no));
  slot->entry_fileid = d;
  const int32_t fd = open("d");
  EXPECT_EQ(listed(fd, 1000), "c#4@64");
  EXPECT_EQ(close(fd), 0);
}

TEST_F(listing_getdents, a_buffer_gives_as_many_records_as_it_holds_whole) {
  make();
  for (int i = 0; i < 5; i++) {
    put("f" + std::to_string(i), "");
  }
  const int32_t fd = open("/");
  EXPECT_EQ(listed(fd, 0), "<errno 22>");
  EXPECT_EQ(listed(fd, 75), "<errno 22>");
  EXPECT_EQ(listed(fd, 76), "f0#2@64");
  EXPECT_EQ(seek(fd, 0, ifs_seek_current), 64);
  EXPECT_EQ(listed(fd, 151), "f1#3@128");
  EXPECT_EQ(listed(fd, 152), "f2#4@192 f3#5@256");
  EXPECT_EQ(listed(fd, 10000), "f4#6@320");
  EXPECT_EQ(listed(fd, 76), "");
  EXPECT_EQ(close(fd), 0);
}

TEST_F(listing_getdents, a_position_is_sought_in_steps_of_64) {
  make();
  for (int i = 0; i < 3; i++) {
    put("f" + std::to_string(i), "");
  }
  const int32_t fd = open("/");
  EXPECT_EQ(seek(fd, 128), 128);
  EXPECT_EQ(listed(fd, 76), "f2#4@192");
  EXPECT_EQ(seek(fd, 0), 0);
  EXPECT_EQ(listed(fd, 76), "f0#2@64");
  for (const int32_t position : {192, 256, 64 * 1000, INT_MAX - 63}) {
    EXPECT_EQ(seek(fd, position), position);
    EXPECT_EQ(listed(fd, 76), "") << position;
  }
  for (const int32_t position : {1, 63, 65}) {
    EXPECT_EQ(seek(fd, position), position);
    EXPECT_EQ(listed(fd, 76), "<errno 2>") << position;
  }
  EXPECT_EQ(close(fd), 0);
}

TEST_F(listing_getdents, refusals_come_in_their_order) {
  make();
  put("a", "");
  const int32_t file = open("a", 0);
  EXPECT_EQ(seek(file, 1), 1);
  EXPECT_EQ(listed(file, 10), "<errno 22>");
  EXPECT_EQ(listed(file, 76), "<errno 20>");
  EXPECT_EQ(close(file), 0);
  const int32_t unreadable = open("/", 0);
  EXPECT_EQ(seek(unreadable, 1), 1);
  EXPECT_EQ(listed(unreadable, 76), "<errno 2>");
  EXPECT_EQ(seek(unreadable, 0), 0);
  EXPECT_EQ(listed(unreadable, 76), "<errno 9>");
  EXPECT_EQ(close(unreadable), 0);
}

TEST_F(listing_getdents, the_root_slot_is_no_entry_wherever_it_stands) {
  make_blocks({4, 4});
  image().headers(1);
  names({"0:0.0/0 2<1 a", "1:0.0/1 1<1", "2:0.0/2 3<1 b"});
  mount_recipe();
  const int32_t fd = open("/");
  EXPECT_EQ(listed(fd, 76), "a#2@64");
  EXPECT_EQ(listed(fd, 76), "b#3@128");
  EXPECT_EQ(listed(fd, 76), "");
  EXPECT_EQ(seek(fd, 64), 64);
  EXPECT_EQ(listed(fd, 76), "b#3@128");
  EXPECT_EQ(close(fd), 0);
}

TEST_F(listing_getdents, names_without_a_terminator_and_data_sectors_in_the_list_are_survived) {
  make_root(2);
  names({"1:0.0/1 5<1 d/", "1:0.0/2 6<5 " + std::string(46, 'n')});
  image().data_sector(0, 1, 5, 0, "astray");
  mount_recipe();
  const int32_t fd = open("d");
  EXPECT_EQ(listed(fd, 1000), std::string(46, 'n') + "#6@64");
  EXPECT_EQ(listed(fd, 1000), "");
  EXPECT_EQ(seek(fd, 0), 0);
  EXPECT_EQ(listed(fd, 76), std::string(46, 'n') + "#6@64");
  EXPECT_EQ(close(fd), 0);
}

TEST_F(listing_getdents, a_failing_flash_marks_down) {
  for (const int32_t position : {0, 64}) {
    int32_t fd = -1;
    uint8_t records[760];
    expect_that_flash_failures_mark_down(
        [&] {
          make();
          put("a", "");
          put("b", "");
          fd = open("/");
          ASSERT_EQ(seek(fd, position), position);
        },
        [&] { return ifs_getdents(fd, records, sizeof records); });
  }
}

TEST_F(listing_getdents, a_long_directory_is_listed_without_starting_over) {
  make({40, 40, 40, 40});
  std::string expected;
  for (int i = 0; i < 640; i++) {
    ASSERT_EQ(close(open("f" + std::to_string(i), open_new)), 0);
    expected += (i == 0 ? "f" : " f") + std::to_string(i);
  }
  device().clear_counts();
  EXPECT_EQ(names_in("/"), expected);
  EXPECT_LT(device().counts().reads, 2000U);
}

// --- stat ---

TEST_F(listing_stat, a_name_without_a_record_marks_down) {
  make();
  put("a", "text");
  filemap_remove(fs(), entry(fileid_of("a")));
  ppc_stat status;
  EXPECT_EQ(error_of(stat("a", &status)), EIO);
  EXPECT_EQ(output(), down_line);
}

TEST_F(listing_stat, a_failing_flash_marks_down) {
  expect_that_flash_failures_mark_down(
      [&] {
        make();
        ASSERT_EQ(mkdir("d"), 0);
        put("d/a", "text");
      },
      [&] {
        ppc_stat status;
        return ifs_stat("bootflash:d/a", &status);
      });
}

// --- fstat ---

TEST_F(listing_fstat, it_tells_the_same_as_stat) {
  make();
  put("a", pattern(3000));
  for (const char* name : {"a", "/"}) {
    ppc_stat by_name{};
    ppc_stat by_descriptor{};
    const int32_t fd = open(name);
    EXPECT_EQ(stat(name, &by_name), 0);
    EXPECT_EQ(fstat(fd, &by_descriptor), 0);
    EXPECT_TRUE(same(by_name, by_descriptor)) << name;
    EXPECT_EQ(close(fd), 0);
  }
}

TEST_F(listing_fstat, it_sees_what_its_descriptor_has_written) {
  make();
  const int32_t fd = open("a", open_new);
  ppc_stat status{};
  for (uint32_t i = 1; i <= 5; i++) {
    ASSERT_EQ(write(fd, pattern(1000)), 1000);
    EXPECT_EQ(fstat(fd, &status), 0);
    EXPECT_EQ(status.size, i * 1000);
  }
  EXPECT_EQ(close(fd), 0);
}

TEST_F(listing_fstat, a_failing_flash_marks_down) {
  int32_t fd = -1;
  ppc_stat status;
  expect_that_flash_failures_mark_down(
      [&] {
        make();
        put("a", "text");
        fd = open("a");
      },
      [&] { return ifs_fstat(fd, &status); });
}

// --- istat ---

TEST_F(listing_istat, a_file_id_tells_the_same_as_its_name) {
  make();
  ASSERT_EQ(mkdir("d"), 0);
  put("d/a", pattern(3000));
  for (const char* name : {"/", "d", "d/a"}) {
    ppc_stat by_name{};
    ppc_stat by_id{};
    EXPECT_EQ(stat(name, &by_name), 0);
    EXPECT_EQ(istat("any path", by_name.fileid, &by_id), 0);
    EXPECT_TRUE(same(by_name, by_id)) << name;
  }
}

TEST_F(listing_istat, an_unknown_id_fails_and_leaves_the_file_system_up) {
  make();
  ppc_stat status;
  for (const uint32_t fileid : {0U, 2U, 65535U, 65536U, 65537U, 0xFFFFFFFFU}) {
    EXPECT_EQ(error_of(istat("a", fileid, &status)), EIO) << fileid;
    EXPECT_EQ(output(), "");
  }
  EXPECT_EQ(fs()->ready, 1U);
}

TEST_F(listing_istat, a_failing_flash_marks_down) {
  ppc_stat status;
  expect_that_flash_failures_mark_down(
      [&] {
        make();
        put("a", "text");
      },
      [&] { return ifs_istat("bootflash:x", 2, &status); });
}

// --- statfs ---

TEST_F(listing_statfs, a_failing_flash_marks_down) {
  ppc_statfs status;
  expect_that_flash_failures_mark_down([&] { make(); },
                                       [&] { return ifs_statfs("bootflash:", &status); });
}
