// A small flash that is written record by record, damaged, rescued and then looked at.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "image/rescue.h"
#include "tests/support/image_builder.h"
#include "tests/support/ram_flash.h"

namespace image_tests {

constexpr uint32_t rescued_blocks = 6;
constexpr uint32_t rescued_sectors = 6;  // of a block
constexpr uint32_t rescued_block_size = 32 + rescued_sectors * 2056;

class rescued_flash {
 public:
  // Block 0 is the spare, the others are in use; the root has a slot, the last one of the first
  // directory sector, which is sector 0 of block 1.
  rescued_flash();

  test_support::ram_flash& device() {
    return flash_;
  }
  test_support::image_builder& builder() {
    return builder_;
  }
  // A slot of the first directory sector, of the root unless its fields say otherwise.
  void name(int slot, uint16_t entry, const std::string& name, uint16_t number,
            uint32_t date = 1800000000, uint16_t directory = 1, uint16_t mode = 0x8700);
  void data(int block, int sector, uint16_t owner, uint16_t number, std::string_view bytes);
  // A sector's owner, or the directory of a slot of the first directory sector, as programmed.
  void set_owner(int block, int sector, uint16_t owner);
  void set_directory(int slot, uint16_t directory);
  void set_state(int block, uint8_t state);

  // Rescues the flash and tries what must hold of every rescue: the steps can be programmed and
  // leave what the plan says, a second rescue has nothing to do, and the full check says nothing
  // but its closing line and changes nothing. Whatever does not hold is a failure of the test.
  image::rescue_plan rescue(const image::rescue_options& options = {});

  // What stands after the rescue: contents by path, "/" for directories.
  const std::map<std::string, std::string>& files() const {
    return files_;
  }

 private:
  void mount();

  test_support::ram_flash flash_;
  test_support::image_builder builder_;
  std::map<std::string, std::string> files_;
};

// Whether a plan has a decision with this code.
bool has_decision(const image::rescue_plan& plan, const std::string& code);

// Letters that differ from place to place and seed to seed.
std::string bytes_of(size_t length, uint32_t seed);

}  // namespace image_tests
