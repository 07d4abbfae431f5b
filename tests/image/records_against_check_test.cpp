// The reader of records believes what the file system believes: over flash that is damaged in all
// ways, what it finds before a full check is what the check leaves standing, and afterwards it
// finds no fault any more and the same tree as the mounted file system.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "image/records.h"
#include "tests/support/flashfs_fixture.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"
#include "volume/volume.h"

namespace {

constexpr uint32_t block_size = 32 + 6 * 2056;
constexpr uint32_t blocks = 8;
const image::geometry layout = {{{blocks, block_size}}, blocks};

// Paths with a digest of their contents; directories end in a slash and have none.
using file_tree = std::map<std::string, std::string>;

std::string digest(const std::string& contents) {
  return std::to_string(contents.size()) + ":" +
         std::to_string(generate_crc(static_cast<uint32_t>(contents.size()), contents.data()));
}

class damaged_flash {
 public:
  explicit damaged_flash(uint32_t seed)
      : random_(seed), flash_(test_support::ram_blocks(blocks, block_size)), builder_(flash_) {}

  // What the file system would have written, and then records of which nearly all is by chance: two
  // for one thing, gaps, loops, orphans, torn words, states.
  void fill() {
    builder_.headers(below(blocks));
    builder_.slot(1, 0, 31, {.seq_no = 0, .entry_fileid = 1, .mode = 0x4600, .name = ""});
    const int records = below(60);
    for (int i = 0; i < records; ++i) {
      below(3) == 0 ? add_sector() : add_slot();
    }
    const int changes = below(6);
    for (int i = 0; i < changes; ++i) {
      change();
    }
  }

  image::records read() {
    return image::read_records({flash_.bytes(), size_t{blocks} * block_size}, layout);
  }

  bool check() {
    const test_support::output_capture dropped;
    return volume_.mount({test_support::device_of(flash_)}, flashfs_check_full) == 0;
  }

  // Files that own slots as well cannot be read: an attempt marks the file system down.
  file_tree mounted_tree(bool with_contents) {
    file_tree tree;
    std::vector<volume::entry> found;
    EXPECT_EQ(volume_.walk("/", &found), 0);
    for (const volume::entry& each : found) {
      if (each.is_directory()) {
        tree["/" + each.path + "/"] = "";
        continue;
      }
      std::string contents;
      if (with_contents) {
        EXPECT_EQ(volume_.read_file(each.path, &contents), 0) << each.path;
      }
      tree["/" + each.path] = with_contents ? digest(contents) : "";
    }
    return tree;
  }

 private:
  int below(int limit) {
    return static_cast<int>(random_() % static_cast<unsigned>(limit));
  }
  uint16_t id() {
    return static_cast<uint16_t>(1 + below(8));
  }
  void add_slot() {
    const uint16_t named = static_cast<uint16_t>(2 + below(16));
    builder_.slot(
        below(blocks), 0, below(32),
        {.seq_no = static_cast<uint16_t>(below(12)),
         .dir_fileid = below(2) == 0 ? uint16_t{1} : id(),
         .entry_fileid = named,
         .mode = below(3) == 0 ? uint16_t{0x4700} : uint16_t{0x8700},
         .name = std::string(1, static_cast<char>('a' + below(26))) + std::to_string(named),
         .good_checksum = below(12) != 0});
  }
  // A first sector is full: reading a file with a short one in its middle depends on the pieces.
  void add_sector() {
    const uint16_t number = static_cast<uint16_t>(below(2));
    builder_.data_sector(below(blocks), 1 + below(5), static_cast<uint16_t>(7 + below(11)), number,
                         std::string(number == 0 ? 2048 : static_cast<size_t>(below(2049)), 'x'),
                         -1, below(12) != 0);
  }
  void change() {
    const int block = below(blocks);
    switch (below(5)) {
      case 0:
        builder_.header(block,
                        {.state = static_cast<uint8_t>(below(16)), .good_checksum = below(8) != 0});
        return;
      case 1:
        builder_.header(block, {.block_num = static_cast<uint16_t>(below(blocks)), .state = 0});
        return;
      case 2:  // a torn word
        flash_.bytes()[random_() % (blocks * block_size)] &= static_cast<uint8_t>(random_());
        return;
      case 3:
        builder_.sector_at(block, below(6))[1] &= static_cast<uint8_t>(random_());
        return;
      default:
        builder_.slot_at(block, 0, below(32))[3] &= static_cast<uint8_t>(random_());
    }
  }

  std::mt19937 random_;
  test_support::ram_flash flash_;
  test_support::image_builder builder_;
  volume::file_system volume_;
};

file_tree tree_of(const image::records& all, bool with_contents) {
  file_tree tree;
  for (const auto& [id, entry] : all.entries) {
    const std::string path = path_of(all, id);
    if (id == fileid_root || path.empty()) {
      continue;
    }
    tree[path + (entry.is_directory ? "/" : "")] =
        entry.is_directory || !with_contents ? "" : digest(contents_of(all, entry));
  }
  return tree;
}

// Without what stands in /lost+found.
file_tree without_relinked(file_tree tree) {
  std::erase_if(tree, [](const auto& each) { return each.first.starts_with("/lost+found/"); });
  return tree;
}

bool has_code(const image::records& all, std::string_view code) {
  return std::any_of(all.findings.begin(), all.findings.end(),
                     [&](const image::finding& each) { return each.code == code; });
}

// Whether some id has sectors of data and slots, which stand in one list for the check: it leaves
// faults for the next one then.
bool mixes_sectors_and_slots(const image::records& all) {
  return std::any_of(all.entries.begin(), all.entries.end(), [](const auto& each) {
    const image::entry_record& entry = each.second;
    return !(entry.sectors.empty() && entry.other_sectors.empty()) &&
           !(entry.slots.empty() && entry.other_slots.empty());
  });
}

}  // namespace

TEST(records_against_check, both_believe_the_same) {
  int mounted = 0;
  for (uint32_t seed = 0; seed < 1000; ++seed) {
    damaged_flash flash(seed);
    flash.fill();
    const image::records before = flash.read();
    if (mixes_sectors_and_slots(before)) {
      continue;
    }
    const bool readable = !has_code(before, "slots-in-file");
    const file_tree tree = tree_of(before, readable);
    if (!flash.check()) {
      EXPECT_TRUE(has_errors(before.findings)) << "seed " << seed;
      continue;
    }
    mounted++;
    const image::records after = flash.read();
    const file_tree shown = flash.mounted_tree(readable);
    ASSERT_EQ(tree, without_relinked(shown)) << "seed " << seed;
    // The check hides what it reaches twice through an orphan; flash keeps it.
    ASSERT_TRUE(tree_of(after, readable) == shown || has_code(before, "orphan")) << "seed " << seed;
    for (const image::finding& each : after.findings) {
      // What names say of kinds is not looked at by a check.
      const std::string code = each.code;
      ASSERT_TRUE(each.severity != image::severity::error || code == "slots-in-file" ||
                  code == "file-in-directory")
          << "seed " << seed << ": " << each.code;
    }
    ASSERT_TRUE(has_code(before, "orphan") || !has_code(after, "orphan")) << "seed " << seed;
  }
  EXPECT_GT(mounted, 400);
}
