// The owner that a checksum remembers.
#include "image/record_fit.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <random>

#include "tests/support/image_builder.h"

namespace {

constexpr uint32_t block_size = 32 + 2 * 2056;

class record_fit : public testing::Test {
 protected:
  record_fit() : bytes(block_size, 0xFF), builder(bytes.data(), 1, block_size) {}
  flashfs_sector& sector() {
    return *reinterpret_cast<flashfs_sector*>(builder.sector_at(0, 0));
  }
  flashfs_dir_slot& slot() {
    return *reinterpret_cast<flashfs_dir_slot*>(builder.slot_at(0, 0, 5));
  }

  std::vector<uint8_t> bytes;
  test_support::image_builder builder;
};

}  // namespace

TEST_F(record_fit, an_invalidated_sector_remembers_its_owner) {
  for (const uint16_t owner : std::initializer_list<uint16_t>{2, 3, 255, 256, 4097, 32768, 65534}) {
    builder.data_sector(0, 0, owner, 7, "some data");
    EXPECT_EQ(image::fitting_owner(sector()), owner);
    sector().fileid = fileid_invalidated;
    EXPECT_EQ(image::fitting_owner(sector()), owner);
    sector().fileid = 0x1234;
    EXPECT_EQ(image::fitting_owner(sector()), owner);
  }
}

TEST_F(record_fit, a_deleted_slot_remembers_its_directory) {
  for (const uint16_t directory : std::initializer_list<uint16_t>{1, 2, 77, 512, 40000}) {
    builder.slot(0, 0, 5, {.seq_no = 3, .dir_fileid = directory, .name = "name"});
    EXPECT_EQ(image::fitting_directory(slot()), directory);
    slot().dir_fileid = fileid_invalidated;
    EXPECT_EQ(image::fitting_directory(slot()), directory);
  }
}

TEST_F(record_fit, exactly_one_value_fits_whatever_the_record_holds) {
  std::mt19937 random(1);
  for (int i = 0; i < 20; ++i) {
    auto* noise = reinterpret_cast<uint8_t*>(&slot());
    for (size_t at = 0; at < sizeof(flashfs_dir_slot); ++at) {
      noise[at] = static_cast<uint8_t>(random());
    }
    const uint16_t fitting = image::fitting_directory(slot());
    int fits = 0;
    for (uint32_t directory = 0; directory <= UINT16_MAX; directory += i == 0 ? 1 : 257) {
      slot().dir_fileid = static_cast<uint16_t>(directory);
      const bool good = dir_slot_crc(&slot()) == flashfs_good_crc;
      EXPECT_EQ(good, directory == fitting);
      fits += good ? 1 : 0;
    }
    EXPECT_TRUE(i > 0 || fits == 1);
  }
}
