// What is told of a check: each thing that one can do to an image.
#include "image/check_report.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "flashfs/check_flags.h"
#include "image/mounted.h"
#include "tests/support/image_builder.h"
#include "tests/support/stored_image.h"

namespace {

using image::finding;
using image::geometry;

constexpr uint32_t block_size = 32 + 6 * 2056;
constexpr uint32_t blocks = 4;

struct told {
  std::vector<std::string> codes;  // with block, sector, slot and path; without the check's lines
  bool loses;
};

// Runs a check on a copy of the bytes and tells the difference.
told check_of(std::vector<uint8_t> bytes, const geometry& layout, uint32_t flags) {
  std::vector<uint8_t> copy = bytes;
  image::mounted system(copy, layout);
  const bool passed = system.check(flags);
  const std::vector<std::string> lines = system.said();
  const image::records before = image::read_records(bytes, layout);
  const image::records after = image::read_records(copy, layout);
  const std::vector<finding> report =
      image::report_check({before, after, passed, lines, &system.files()});
  told all{{}, image::check_loses(report)};
  for (const finding& each : report) {
    if (std::string(each.code) == "check-message") {
      continue;
    }
    std::string text = each.code;
    text += each.block ? " " + std::to_string(*each.block) : "";
    text += each.sector ? "." + std::to_string(*each.sector) : "";
    text += each.slot ? "." + std::to_string(*each.slot) : "";
    text += each.path.empty() ? "" : " " + each.path;
    all.codes.push_back(text);
  }
  return all;
}

// Four blocks of six sectors, the first the spare; 1.0 is the directory sector, and file 2, "/a",
// is of the two sectors 2.0 and 2.1.
class check_report : public testing::Test {
 protected:
  using texts = std::vector<std::string>;

  check_report() : bytes(blocks * block_size, 0xFF), builder(bytes.data(), blocks, block_size) {
    builder.headers(0);
    builder.slot(1, 0, 31, {.seq_no = 0, .entry_fileid = 1, .mode = 0x4600, .name = ""});
    builder.slot(1, 0, 30, {.seq_no = 1, .entry_fileid = 2, .name = "a"});
    builder.file(2, 0, 2, std::string(3000, 'x'));
  }
  told check(uint32_t flags = flashfs_check_full) const {
    return check_of(bytes, {{{blocks, block_size}}, blocks}, flags);
  }

  std::vector<uint8_t> bytes;
  test_support::image_builder builder;
};

std::vector<uint8_t> stored(const char* name) {
  const std::string image = test_support::read_stored_image(name);
  return {image.begin(), image.end()};
}

}  // namespace

TEST_F(check_report, tells_nothing_of_a_sound_image) {
  EXPECT_EQ(check().codes, texts{});
  EXPECT_EQ(check(flashfs_check_quick).codes, texts{});
  EXPECT_FALSE(check().loses);
}

TEST_F(check_report, a_file_with_a_gap_is_dropped) {
  builder.data_sector(2, 1, 2, 2, "x");
  EXPECT_EQ(check().codes, texts{"check-file-dropped /a"});
  EXPECT_TRUE(check().loses);
}

TEST_F(check_report, a_half_written_sector_costs_the_file_in_the_quick_check_only) {
  uint8_t* claimed = builder.sector_at(2, 2);
  claimed[0] = 0;
  claimed[1] = 2;
  EXPECT_EQ(check(flashfs_check_quick).codes, texts{"check-file-dropped /a"});
  EXPECT_TRUE(check(flashfs_check_quick).loses);
  EXPECT_EQ(check().codes, texts{"check-sector-obsolete 2.2 /a"});
  EXPECT_FALSE(check().loses);
}

TEST_F(check_report, a_block_with_a_bad_header_is_erased_with_what_is_in_it) {
  builder.header(2, {.state = 0, .good_checksum = false});
  EXPECT_EQ(check().codes, texts{"check-block-lost 2"});
  EXPECT_TRUE(check().loses);
}

TEST_F(check_report, a_block_with_a_bad_header_and_nothing_in_it_is_no_loss) {
  builder.header(3, {.state = 0, .good_checksum = false});
  EXPECT_EQ(check().codes, texts{"check-block-erased 3"});
  EXPECT_FALSE(check().loses);
}

TEST_F(check_report, an_unfinished_copy_is_no_loss) {
  std::memcpy(builder.sector_at(3, 0), builder.sector_at(2, 0), 2056);
  std::memcpy(builder.sector_at(3, 1), builder.sector_at(1, 0), 2056);
  builder.header(3, {.state = 7});
  EXPECT_EQ(check().codes, texts{"check-block-erased 3"});
  EXPECT_FALSE(check().loses);
}

TEST_F(check_report, a_finished_copy_changes_its_state) {
  builder.header(3, {.state = 3});
  EXPECT_EQ(check().codes, texts{"check-block-state 3"});
  EXPECT_FALSE(check().loses);
}

TEST_F(check_report, an_orphan_gets_a_name) {
  builder.data_sector(2, 3, 9, 0, "orphan");
  const told all = check();
  EXPECT_EQ(all.codes, (texts{"check-slot-deleted 1.0.31 /", "check-slot-added 1.0.26 /lost+found",
                              "check-slot-added 1.0.27 /lost+found/00009",
                              "check-slot-added 1.0.28 /", "check-file-dated /",
                              "check-file-added /lost+found", "check-relinked /lost+found/00009"}));
  EXPECT_FALSE(all.loses);
}

TEST_F(check_report, a_duplicate_goes) {
  builder.data_sector(3, 0, 2, 1, "newer");
  EXPECT_EQ(check().codes, texts{"check-sector-obsolete 2.1 /a"});
  EXPECT_FALSE(check().loses);
}

TEST_F(check_report, a_damaged_slot_goes_and_takes_a_name_with_it) {
  builder.slot(1, 0, 30, {.seq_no = 1, .entry_fileid = 2, .name = "a", .good_checksum = false});
  const told all = check();
  ASSERT_FALSE(all.codes.empty());
  EXPECT_EQ(all.codes.front(), "check-slot-deleted 1.0.30");
  EXPECT_EQ(all.codes.back(), "check-relinked /lost+found/00002");
}

TEST_F(check_report, a_name_that_only_the_quick_check_believes_is_told) {
  builder.slot(1, 0, 29, {.seq_no = 2, .entry_fileid = 3, .name = "torn", .good_checksum = false});
  EXPECT_EQ(check(flashfs_check_quick).codes, texts{"check-file-added /torn"});
  EXPECT_EQ(check().codes, texts{"check-slot-deleted 1.0.29"});
}

TEST_F(check_report, a_file_that_only_the_quick_check_believes_cannot_be_read) {
  builder.sector_at(2, 1)[100] = 0;
  EXPECT_EQ(check(flashfs_check_quick).codes, texts{"check-file-unreadable /a"});
  EXPECT_EQ(check().codes, texts{"check-sector-obsolete 2.1 /a"});
}

TEST_F(check_report, a_good_sector_that_goes_is_a_loss) {
  // Torn, the owner reads as another file's, and the quick check believes it.
  builder.slot(1, 0, 29, {.seq_no = 2, .entry_fileid = 4, .name = "b"});
  builder.file(3, 0, 4, std::string(3000, 'y'));
  builder.data_sector(3, 2, 4, 1, "torn", -1, false);
  const told all = check(flashfs_check_quick);
  EXPECT_EQ(all.codes, (texts{"check-sector-lost 3.1 /b", "check-file-changed /b",
                              "check-file-unreadable /b"}));
  EXPECT_TRUE(all.loses);
}

TEST_F(check_report, a_check_that_fails_is_told) {
  builder.header(0, {.state = 0});
  EXPECT_EQ(check().codes, texts{"check-fails"});
  EXPECT_FALSE(check().loses);
}

TEST_F(check_report, blank_blocks_get_headers) {
  bytes.assign(bytes.size(), 0xFF);
  EXPECT_EQ(check().codes, (texts{"check-block-header 0", "check-block-header 1",
                                  "check-block-header 2", "check-block-header 3"}));
  EXPECT_FALSE(check().loses);
}

TEST(check_report_of_images, is_what_these_images_lose) {
  const auto loses = [](const char* name) {
    return check_of(stored(name), image::default_geometry(), flashfs_check_full).loses;
  };
  EXPECT_FALSE(loses("basic"));
  EXPECT_FALSE(loses("interrupted_copy"));
  EXPECT_FALSE(loses("committed_erased"));
  EXPECT_FALSE(loses("orphans"));
  EXPECT_TRUE(loses("gap_in_file"));
}
