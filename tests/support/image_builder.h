// Writes the on-flash format straight into the bytes of a flash, good or damaged, to make images
// that the file system would not write itself. It shares no code with the product; its checksum is
// its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/ram_flash.h"

namespace test_support {

// CRC-16/GENIBUS, bit by bit.
uint16_t image_crc(const void* data, size_t length);

struct image_header {
  uint32_t erase_count = 0;
  uint32_t timestamp = 1800000000;
  uint16_t block_num = 0xFFFF;  // 0xFFFF: the block's own number
  uint8_t state = 0xF;          // low nibble; 0xF available, 7, 3, 1, 0 in use
  bool good_checksum = true;
};

struct image_slot {
  uint16_t seq_no = 0;
  uint16_t dir_fileid = 1;
  uint16_t entry_fileid = 2;
  uint16_t mode = 0x8700;
  uint32_t date = 1800000000;
  std::string name = {};  // at most 46 bytes; padded with zeros
  bool good_checksum = true;
};

class image_builder {
 public:
  // Over the usable blocks of a device, which are numbered from `first_block` on.
  explicit image_builder(ram_flash& device, int first_block = 0);
  // Over the bytes of a flash with `count` equal blocks from offset 0 on.
  image_builder(uint8_t* bytes, size_t count, uint32_t block_size);

  void header(int block, const image_header& fields = {});
  // Good headers on all blocks that follow: block `spare` available, the others in use.
  void headers(int spare);
  // A data sector. `count` below 0: the length of the data. What the data leaves is erased.
  void data_sector(int block, int sector, uint16_t fileid, uint16_t seq_no, std::string_view data,
                   int count = -1, bool good_checksum = true);
  // A slot; its sector becomes a directory sector when it is erased.
  void slot(int block, int sector, int slot_no, const image_slot& fields);
  // A file of one slot and as many sectors as its data needs, from `sector` of `block` on, all in
  // that block. Returns the number of sectors.
  int file(int block, int sector, uint16_t fileid, std::string_view data);

  // Their first bytes on flash.
  uint8_t* header_at(int block);
  uint8_t* sector_at(int block, int sector);
  uint8_t* slot_at(int block, int sector, int slot_no);
  // Recompute a checksum after bytes were changed by hand.
  void fix_sector_checksum(int block, int sector);
  void fix_slot_checksum(int block, int sector, int slot_no);

  int block_count() const {
    return static_cast<int>(offsets_.size());
  }
  int sector_count(int block) const;

 private:
  uint8_t* bytes_;
  int first_block_ = 0;
  std::vector<uint32_t> offsets_;
  std::vector<uint32_t> sizes_;
};

}  // namespace test_support
