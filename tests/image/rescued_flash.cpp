#include "tests/image/rescued_flash.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "flashfs/format.h"
#include "image/console.h"
#include "tests/support/flashfs_fixture.h"
#include "volume/volume.h"

namespace image_tests {

rescued_flash::rescued_flash()
    : flash_(test_support::ram_blocks(rescued_blocks, rescued_block_size)), builder_(flash_) {
  builder_.headers(0);
  name(31, 1, "", 0, 1800000000, 1, 0x4600);
}

void rescued_flash::name(int slot, uint16_t entry, const std::string& name, uint16_t number,
                         uint32_t date, uint16_t directory, uint16_t mode) {
  builder_.slot(1, 0, slot,
                {.seq_no = number,
                 .dir_fileid = directory,
                 .entry_fileid = entry,
                 .mode = mode,
                 .date = date,
                 .name = name});
}

void rescued_flash::data(int block, int sector, uint16_t owner, uint16_t number,
                         std::string_view bytes) {
  builder_.data_sector(block, sector, owner, number, bytes);
}

void rescued_flash::set_owner(int block, int sector, uint16_t owner) {
  reinterpret_cast<flashfs_sector*>(builder_.sector_at(block, sector))->fileid = owner;
}

void rescued_flash::set_directory(int slot, uint16_t directory) {
  reinterpret_cast<flashfs_dir_slot*>(builder_.slot_at(1, 0, slot))->dir_fileid = directory;
}

void rescued_flash::set_state(int block, uint8_t state) {
  auto* header = reinterpret_cast<flashfs_blkheader*>(builder_.header_at(block));
  header->state = static_cast<uint8_t>(0xF0 | state);
}

image::rescue_plan rescued_flash::rescue(const image::rescue_options& options) {
  image::rescue_plan plan = image::plan_rescue(flash_.flash().snapshot(), flash_.blocks(), options);
  EXPECT_TRUE(plan.complete);
  for (const image::rescue_step& each : plan.steps) {
    if (each.is_erase) {
      flash_.erase(each.offset);
    } else {
      EXPECT_EQ(0U, each.offset % 2);
      EXPECT_EQ(0U, each.bytes.size() % 2);
      flash_.write(each.offset, static_cast<uint32_t>(each.bytes.size()), each.bytes.data());
    }
  }
  EXPECT_EQ(0U, flash_.deviations());
  EXPECT_TRUE(flash_.flash().snapshot() == plan.mended);
  EXPECT_TRUE(image::plan_rescue(plan.mended, flash_.blocks(), options).steps.empty());
  mount();
  EXPECT_TRUE(flash_.flash().snapshot() == plan.mended) << "the check has changed the flash";
  return plan;
}

void rescued_flash::mount() {
  volume::file_system mounted;
  image::console_take();
  EXPECT_EQ(0, mounted.mount({test_support::device_of(flash_)}, flashfs_check_full));
  const std::vector<std::string> said = image::console_take();
  EXPECT_EQ(1U, said.size());
  for (const std::string& line : said) {
    EXPECT_EQ(0U, line.find("flashfs fsck took")) << line;
  }
  std::vector<volume::entry> entries;
  EXPECT_EQ(0, mounted.walk("", &entries));
  files_.clear();
  for (const volume::entry& each : entries) {
    files_[each.path] = each.is_directory() ? "/" : test_support::contents_of(mounted, each.path);
  }
}

bool has_decision(const image::rescue_plan& plan, const std::string& code) {
  return std::any_of(plan.decisions.begin(), plan.decisions.end(),
                     [&](const image::rescue_decision& each) { return each.code == code; });
}

std::string bytes_of(size_t length, uint32_t seed) {
  std::string bytes(length, '\0');
  uint32_t state = seed * 2654435761U + 1;
  for (char& byte : bytes) {
    state = state * 1664525U + 1013904223U;
    byte = static_cast<char>('a' + (state >> 24) % 26);
  }
  return bytes;
}

}  // namespace image_tests
