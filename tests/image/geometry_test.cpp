// Geometries that are said, and those that an image tells by itself.
#include "image/geometry.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/image_builder.h"
#include "tests/support/ram_flash.h"
#include "tests/support/stored_image.h"

using image::block_count;
using image::default_geometry;
using image::detect_geometry;
using image::geometry;
using image::geometry_text;
using image::parse_geometry;

namespace {

std::string parsed(const std::string& text) {
  std::string why;
  const std::optional<geometry> layout = parse_geometry(text, &why);
  return layout ? geometry_text(*layout) : "refused: " + why;
}

std::vector<test_support::ram_block> blocks_of(const geometry& layout) {
  std::vector<test_support::ram_block> blocks;
  for (const flash_block_info& block : block_table(layout)) {
    blocks.push_back({block.size, block.skip != 0});
  }
  return blocks;
}

// A flash of this geometry with good headers, the first its spare.
class formatted_flash {
 public:
  explicit formatted_flash(const geometry& layout)
      : size_(size_bytes(layout)), flash_(blocks_of(layout)), builder(flash_) {
    builder.headers(0);
  }
  std::span<const uint8_t> bytes() {
    return {flash_.bytes(), static_cast<size_t>(size_)};
  }

 private:
  uint64_t size_;
  test_support::ram_flash flash_;

 public:
  test_support::image_builder builder;
};

geometry geometry_of(const std::string& text) {
  std::string why;
  return parse_geometry(text, &why).value();
}

std::string detected(std::span<const uint8_t> bytes) {
  const std::optional<geometry> layout = detect_geometry(bytes);
  return layout ? geometry_text(*layout) : "nothing";
}

std::span<const uint8_t> bytes_of(const std::string& image) {
  return {reinterpret_cast<const uint8_t*>(image.data()), image.size()};
}

}  // namespace

TEST(geometry, of_a_complex_has_its_last_40_blocks_kept_from_the_file_system) {
  const geometry layout = default_geometry();
  EXPECT_EQ(size_bytes(layout), 32U << 20);
  const std::vector<flash_block_info> blocks = block_table(layout);
  ASSERT_EQ(blocks.size(), 256U);
  EXPECT_EQ(blocks[215].offset, 215U * 0x20000);
  EXPECT_EQ(blocks[215].skip, 0);
  EXPECT_EQ(blocks[216].skip, 1);
  EXPECT_EQ(blocks[255].size, 0x20000U);
}

TEST(geometry, is_read_from_runs_of_count_and_size) {
  EXPECT_EQ(parsed("4x8192"), "4x8192");
  EXPECT_EQ(parsed("8x8192,31x65536"), "8x8192,31x65536");
  EXPECT_EQ(parsed("8x8K,3x1M"), "8x8192,3x1048576");
  EXPECT_EQ(geometry_of("8x8K,3x1M").usable_blocks, 11U);
}

TEST(geometry, that_is_said_and_is_a_complexes_is_that) {
  EXPECT_EQ(geometry_of("256x128K"), default_geometry());
  EXPECT_EQ(geometry_of("216x128K"), image::raw_image_geometry());
}

TEST(geometry, of_another_form_is_refused) {
  for (const char* text :
       {"", "4", "4x", "x8192", "4x8192,", "4x8192;", "-1x8192", "4x8192,,4x8192", " 4x8192",
        "4x8192 ", "4x99999999999", "4xK", "4x8192KK"}) {
    EXPECT_EQ(parsed(text).find("refused: "), 0U) << text;
  }
}

TEST(geometry, of_no_flash_is_refused) {
  EXPECT_EQ(parsed("0x8192"), "refused: a run has at least one block");
  EXPECT_EQ(parsed("4x2086"), "refused: a block has room for its header and a sector, 2088 bytes");
  EXPECT_EQ(parsed("4x8191"), "refused: a block has an even number of bytes");
  EXPECT_EQ(parsed("32768x8192"), "refused: a flash has at most 32767 blocks");
  EXPECT_EQ(parsed("4294967295x8192"), "refused: a flash has at most 32767 blocks");
  EXPECT_EQ(parsed("2x4095M"), "refused: a block has at most 65535 sectors");
  EXPECT_EQ(parsed("64x128M"), "refused: a flash has less than 4 GiB");
}

TEST(geometry, of_every_stored_image_is_a_complexes) {
  for (const char* name : {"bad_headers", "basic", "blank", "committed_erased", "gap_in_file",
                           "interrupted_copy", "many", "no_spare", "orphans"}) {
    const std::string image = test_support::read_stored_image(name);
    EXPECT_EQ(detect_geometry(bytes_of(image)), default_geometry()) << name;
    // The file system's raw image of it.
    const std::span<const uint8_t> usable = bytes_of(image).first(216U * 0x20000);
    EXPECT_EQ(detect_geometry(usable), image::raw_image_geometry()) << name;
  }
}

TEST(geometry, is_told_by_headers) {
  for (const char* text : {"4x8192", "16x65536", "300x4112", "512x65536", "8x8192,31x65536",
                           "3x65536,8x8192", "2x4112,3x10280,2x6168"}) {
    formatted_flash flash(geometry_of(text));
    EXPECT_EQ(detected(flash.bytes()), text);
  }
}

TEST(geometry, is_told_by_what_headers_are_left) {
  formatted_flash flash(geometry_of("16x65536"));
  for (const int block : {0, 1, 2, 5, 7, 8, 15}) {
    memset(flash.builder.header_at(block), 0, 32);
  }
  EXPECT_EQ(detected(flash.bytes()), "16x65536");
}

TEST(geometry, is_not_told_by_a_flash_within_a_file) {
  formatted_flash flash(geometry_of("8x65536"));
  for (int sector = 0; sector < 20; ++sector) {
    test_support::image_header inner;
    inner.block_num = static_cast<uint16_t>(sector);
    flash.builder.header(1, inner);
    const std::string header(reinterpret_cast<char*>(flash.builder.header_at(1)), 32);
    flash.builder.data_sector(2, sector, 2, static_cast<uint16_t>(sector), header);
  }
  flash.builder.headers(0);
  EXPECT_EQ(detected(flash.bytes()), "8x65536");
}

TEST(geometry, is_not_guessed_from_anything_else) {
  EXPECT_EQ(detected(std::vector<uint8_t>()), "nothing");
  EXPECT_EQ(detected(std::vector<uint8_t>(20)), "nothing");
  EXPECT_EQ(detected(std::vector<uint8_t>(65536, 0xFF)), "nothing");
  EXPECT_EQ(detected(std::vector<uint8_t>(65536, 0)), "nothing");
}
