// What a tree takes, held against what the file system can really store.
#include "image/space.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "image/volume_tree.h"
#include "tests/image/tree_text.h"
#include "tests/support/flashfs_fixture.h"
#include "tests/support/output_capture.h"

namespace image_test {
namespace {

using image::space_fault;
using image::space_for;

TEST(space, counts_sectors_of_data_and_of_names) {
  EXPECT_EQ(space_for(tree_of({})).sectors(), 2U);  // the root's slot, and the reserve
  const image::tree planned = tree_of({file_entry("a", ""), file_entry("b", std::string(2048, 'x')),
                                       folder_entry("c"), file_entry("d", std::string(2049, 'x'))});
  EXPECT_EQ(space_for(planned).data_sectors, 3U);
  EXPECT_EQ(space_for(planned).slots, 5U);
  EXPECT_EQ(space_for(planned).slot_sectors, 1U);
}

TEST(space, is_that_of_all_blocks_but_the_largest) {
  EXPECT_EQ(image::sectors_of_blocks(std::vector<uint32_t>(216, 0x20000)), 215U * 63);
  EXPECT_EQ(image::sectors_of_blocks(std::vector<uint32_t>{8192, 65536, 8192}), 6U);
  EXPECT_EQ(image::sectors_of_blocks({}), 0U);
}

TEST(space, is_told_with_the_figures_when_it_is_short) {
  const std::vector<uint32_t> blocks(2, 0x20000);  // 63 sectors
  image::tree planned = tree_of({file_entry("a", "")});
  planned.entries[0].size = 61 * 2048;
  EXPECT_EQ(space_fault(planned, blocks), "");
  planned.entries[0].size++;
  EXPECT_EQ(space_fault(planned, blocks),
            "it takes 64 sectors of 2048 bytes (62 for data, 1 for names, 1 in reserve), but "
            "there are 63");
  planned.entries[0].size = uint64_t{1} << 40;
  EXPECT_EQ(space_fault(planned, blocks), "a has 1099511627776 bytes, more than a file can have");
}

class space_of_a_flash : public test_support::flashfs_fixture {
 protected:
  // Whether a tree can really be written to so many blocks of 32 KiB (15 sectors).
  bool fits(const image::tree& planned, size_t blocks) {
    mount_new(blocks, 0x8000);
    const test_support::output_capture dropped;
    return image::write_volume(planned, files()).empty();
  }
  static std::vector<uint32_t> sizes(size_t blocks) {
    return std::vector<uint32_t>(blocks, 0x8000);
  }
};

// One file takes what the others leave; it is written first or last.
image::tree tree_with(size_t files, size_t folders, size_t bytes_of_each,
                      const std::string& name_of_large, uint64_t bytes_of_large) {
  std::vector<image::tree_entry> entries;
  for (size_t i = 0; i < folders; ++i) {
    entries.push_back(folder_entry("d" + std::to_string(i)));
  }
  for (size_t i = 0; i < files; ++i) {
    const std::string folder = folders == 0 ? "" : "d" + std::to_string(i % folders) + "/";
    entries.push_back(
        file_entry(folder + "f" + std::to_string(i), std::string(bytes_of_each, 'x')));
  }
  entries.push_back(
      file_entry(name_of_large, std::string(static_cast<size_t>(bytes_of_large), 'x')));
  return tree_of(std::move(entries));
}

class full_flash : public space_of_a_flash {
 protected:
  void try_to_fill(size_t blocks, size_t files, size_t folders, const std::string& large) {
    const size_t each = files % 3 == 0 ? 0 : 100;
    const image::tree small = tree_with(files, folders, each, large, 0);
    if (!space_fault(small, sizes(blocks)).empty()) {
      return;
    }
    const uint64_t left =
        (image::sectors_of_blocks(sizes(blocks)) - image::space_for(small).sectors()) * 2048;
    const image::tree full = tree_with(files, folders, each, large, left);
    EXPECT_EQ(space_fault(full, sizes(blocks)), "");
    EXPECT_TRUE(fits(full, blocks));
    const image::tree beyond = tree_with(files, folders, each, large, left + 1);
    EXPECT_NE(space_fault(beyond, sizes(blocks)), "");
    EXPECT_FALSE(fits(beyond, blocks));
  }
};

TEST_F(full_flash, holds_each_tree_that_is_said_to_fit_and_none_that_is_not) {
  for (const size_t blocks : {3, 6}) {
    for (const size_t files : {0, 1, 14, 29, 30, 31, 62, 80, 150}) {
      for (const size_t folders : {0, 1, 7}) {
        for (const char* large : {"a", "z"}) {
          SCOPED_TRACE(std::to_string(blocks) + " blocks, " + std::to_string(files) + " files, " +
                       std::to_string(folders) + " folders, " + large);
          try_to_fill(blocks, files, folders, large);
        }
      }
    }
  }
}

}  // namespace
}  // namespace image_test
