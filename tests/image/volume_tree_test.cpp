// Trees in a mounted file system and back.
#include "image/volume_tree.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "image/clock.h"
#include "tests/image/tree_text.h"
#include "tests/support/flashfs_fixture.h"
#include "tests/support/output_capture.h"

namespace image_test {
namespace {

class volume_tree : public test_support::flashfs_fixture {
 protected:
  void SetUp() override {
    flashfs_fixture::SetUp();
    mount_new();
  }
};

TEST_F(volume_tree, is_read_as_it_was_written) {
  image::tree from = manifold_tree();
  from.root_mtime = 1111111111;
  ASSERT_EQ(image::write_volume(from, files()), "");
  const image::tree back = image::read_volume(files());
  EXPECT_EQ(tree_text(back), tree_text(from));
  EXPECT_EQ(problems_text(back.errors), "");
  EXPECT_EQ(back.root_mtime, 1111111111U);
  EXPECT_TRUE(flash_is_consistent());
  remount();
  EXPECT_EQ(tree_text(image::read_volume(files())), tree_text(from));
}

TEST_F(volume_tree, is_read_from_a_folder_on_and_of_one_file) {
  const image::tree from =
      tree_of({folder_entry("a"), folder_entry("a/b"), file_entry("a/b/c", "1"),
               file_entry("a/d", "2"), file_entry("e", "3")});
  ASSERT_EQ(image::write_volume(from, files()), "");
  EXPECT_EQ(tree_text(image::read_volume(files(), "/a/")),
            "b/ 755 1\n"
            "b/c 644 1 [1]\n"
            "d 644 1 [2]\n");
  EXPECT_EQ(tree_text(image::read_volume(files(), "a/b/c")), "c 644 1 [1]\n");
  EXPECT_EQ(problems_text(image::read_volume(files(), "none").errors),
            "none: no such file or directory\n");
  const image::tree sizes = image::read_volume(files(), "a/b", false);
  ASSERT_EQ(sizes.entries.size(), 1U);
  EXPECT_EQ(sizes.entries[0].contents, "");
  EXPECT_EQ(sizes.entries[0].size, 1U);
}

TEST_F(volume_tree, gives_the_same_flash_for_the_same_tree) {
  const image::tree from = manifold_tree();
  image::clock_set(1);
  mount_new();
  ASSERT_EQ(image::write_volume(from, files()), "");
  const std::string first(reinterpret_cast<const char*>(device().bytes()), 8 * 0x20000);
  image::clock_set(1);
  mount_new();
  ASSERT_EQ(image::write_volume(from, files()), "");
  EXPECT_EQ(memcmp(first.data(), device().bytes(), first.size()), 0);
}

TEST_F(volume_tree, says_what_could_not_be_written) {
  const image::tree from = tree_of({file_entry("big", std::string(2 << 20, 'x'))});
  const test_support::output_capture dropped;
  EXPECT_EQ(image::write_volume(from, files()), "big: no space left in the image");
  remount();
  EXPECT_EQ(image::write_volume(tree_of({file_entry("a/b", "x")}), files()),
            "a/b: no such file or directory");
}

TEST_F(volume_tree, dates_what_is_named_and_nothing_else) {
  const image::tree from = tree_of({folder_entry("a"), file_entry("a/b", "x")});
  ASSERT_EQ(image::write_volume(from, files()), "");
  ASSERT_EQ(files().set_date("a", 77), 0);
  EXPECT_EQ(tree_text(image::read_volume(files())),
            "a/ 755 77\n"
            "a/b 644 1 [x]\n");
  EXPECT_EQ(files().set_date("none", 77), -1);
  EXPECT_EQ(files().set_date("a", 0), -1);
  unmount();
  EXPECT_EQ(files().set_date("a", 77), -1);
}

}  // namespace
}  // namespace image_test
