// The file system at the size of the real device: as much as it takes, and many names.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

#include "flashfs/filemap.h"
#include "flashfs/flashfs.h"
#include "flashfs/path.h"
#include "tests/support/flashfs_fixture.h"
#include "tests/support/image_builder.h"
#include "tests/support/ram_flash.h"

namespace test_support {
namespace {

class real_size : public flashfs_fixture {
 protected:
  real_size() {
    make_flash(ram_blocks_of_ppc());
    mount();
  }
};

// Different in every sector and not periodic within one.
std::string big_piece(size_t length, uint32_t seed) {
  std::string bytes(length, '\0');
  uint32_t state = seed;
  for (char& byte : bytes) {
    state = state * 1664525U + 1013904223U;
    byte = static_cast<char>(state >> 24);
  }
  return bytes;
}

TEST_F(real_size, one_file_takes_all_there_is_and_is_read_back_after_a_remount) {
  constexpr size_t piece_size = 1 << 20;
  ppc_statfs space;
  ASSERT_EQ(ifs_statfs("bootflash:", &space), 0);
  const uint32_t free_bytes = space.block_size * space.free_blocks;
  int32_t fd = ifs_open("bootflash:all", ifs_open_write | ifs_open_create, 0);
  uint32_t written = 0;
  int32_t result = 0;
  while ((result = ifs_write(fd, big_piece(piece_size, written).data(), piece_size)) > 0) {
    written += static_cast<uint32_t>(result);
  }
  EXPECT_EQ(result, -1);
  EXPECT_EQ(errno, ENOSPC);
  ifs_close(fd);
  // All but the reserve and what the directory's slots took.
  EXPECT_GE(written, free_bytes - 3 * sector_data_size);

  remount();
  EXPECT_EQ(ifs_file_size("bootflash:all"), static_cast<int32_t>(written));
  fd = ifs_open("bootflash:all", ifs_open_read, 0);
  for (uint32_t at = 0; at < written; at += piece_size) {
    std::string got(piece_size, '\0');
    const int32_t length = ifs_read_until(fd, got.data(), piece_size);
    ASSERT_EQ(length, static_cast<int32_t>(std::min<size_t>(piece_size, written - at)));
    got.resize(static_cast<size_t>(length));
    ASSERT_EQ(got, big_piece(piece_size, at).substr(0, got.size())) << at;
  }
  ifs_close(fd);
}

TEST_F(real_size, a_full_device_still_overwrites_two_bytes) {
  const int32_t fd = ifs_open("bootflash:all", ifs_open_write | ifs_open_create, 0);
  const std::string piece = big_piece(1 << 20, 1);
  while (ifs_write(fd, piece.data(), static_cast<uint32_t>(piece.size())) > 0) {
  }
  ASSERT_EQ(errno, ENOSPC);
  ASSERT_EQ(ifs_lseek(fd, 5000, ifs_seek_set), 5000);
  EXPECT_EQ(ifs_write(fd, "OK", 2), 2);
  ifs_close(fd);
  EXPECT_EQ(read_file("all").substr(4999, 4), piece[4999] + std::string("OK") + piece[5002]);
}

TEST_F(real_size, two_thousand_files_in_one_directory_are_all_listed_and_found) {
  constexpr int files = 2000;
  for (int i = 0; i < files; i++) {
    const std::string path = "bootflash:file" + std::to_string(i);
    const int32_t fd = ifs_open(path.c_str(), ifs_open_write | ifs_open_create, 0);
    ASSERT_GE(fd, 0) << path;
    ifs_close(fd);
  }
  remount();
  std::set<std::string> listed;
  const int32_t fd = ifs_open("bootflash:/", ifs_open_read, 0);
  ppc_dirent entry;
  while (ifs_getdents(fd, &entry, sizeof(entry)) == sizeof(entry)) {
    listed.insert(entry.name);
  }
  ifs_close(fd);
  EXPECT_EQ(listed.size(), size_t{files});
  ppc_stat status;
  EXPECT_EQ(ifs_stat("bootflash:file0", &status), 0);
  EXPECT_EQ(ifs_stat("bootflash:file1999", &status), 0);
  EXPECT_EQ(ifs_stat("bootflash:file2000", &status), -1);
}

// 65,533 slots of one name, the most that one directory can hold with a file each, and the root's.
TEST(damaged_real_size, slots_of_one_name_are_mounted_found_and_removed_without_a_walk) {
  class flash : public flashfs_fixture {
   public:
    void TestBody() override {}
    using flashfs_fixture::device;
    using flashfs_fixture::fs;
    using flashfs_fixture::make_flash;
    using flashfs_fixture::mount;
  } flash;
  constexpr int slots = 65534;
  constexpr int slots_of_block = 63 * 32;
  flash.make_flash(ram_blocks_of_ppc());
  image_builder image(flash.device());
  image.headers(215);
  image.slot(0, 0, 0, {.entry_fileid = 1, .mode = 0x4700, .name = ""});
  for (int i = 1; i < slots; i++) {
    image.slot(i / slots_of_block, i % slots_of_block / 32, i % 32,
               {.seq_no = static_cast<uint16_t>(i),
                .entry_fileid = static_cast<uint16_t>(1 + i),
                .name = "same"});
  }
  flash.mount();
  for (uint16_t fileid = 2; fileid < 300; fileid++) {
    flash.device().clear_counts();
    ASSERT_EQ(path_lookup(flash.fs(), "same"), fileid);
    ASSERT_EQ(flash.device().counts().bytes_read, 64U);
    ASSERT_EQ(ifs_remove("bootflash:same"), 0);
  }
  // What is entered first in the list is found; the others stay behind it.
  ASSERT_EQ(ifs_rename("bootflash:same", "bootflash:else"), 0);
  EXPECT_EQ(path_lookup(flash.fs(), "else"), 300);
  EXPECT_EQ(path_lookup(flash.fs(), "same"), 301);
  ASSERT_EQ(ifs_chmod("bootflash:same", 0), 0);
  EXPECT_EQ(path_lookup(flash.fs(), "same"), 301);
}

TEST_F(real_size, a_look_up_reads_one_slot_for_each_component_however_large_the_directories_are) {
  ASSERT_EQ(ifs_mkdir("bootflash:d", 0), 0);
  for (int i = 0; i < 600; i++) {
    ASSERT_EQ(write_file("d/file" + std::to_string(i), ""), 0);
  }
  for (int i = 0; i < 600; i += 57) {
    device().clear_counts();
    ASSERT_NE(path_lookup(fs(), ("d/file" + std::to_string(i)).c_str()), 0);
    EXPECT_EQ(device().counts().reads, 2U);
    EXPECT_EQ(device().counts().bytes_read, 2U * 64);
  }
  device().clear_counts();
  EXPECT_EQ(path_lookup(fs(), "d/missing"), 0);
  EXPECT_EQ(device().counts().bytes_read, 64U);
}

}  // namespace
}  // namespace test_support
