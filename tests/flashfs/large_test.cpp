// The file system at the size of the real device: as much as it takes, and many names.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

#include "flashfs/flashfs.h"
#include "tests/support/flashfs_fixture.h"
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

}  // namespace
}  // namespace test_support
