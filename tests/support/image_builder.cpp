// Places records in the on-flash format, field by field.
#include "tests/support/image_builder.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "flashfs/flash_driver.h"

namespace test_support {

namespace {

constexpr size_t header_size = 32;
constexpr size_t sector_size = 2056;
constexpr size_t data_offset = 4;
constexpr size_t data_size = 2048;
constexpr size_t seq_no_offset = 2052;
constexpr size_t sector_checksum_offset = 2054;
constexpr size_t slot_size = 64;
constexpr size_t name_offset = 16;
constexpr size_t name_size = 46;
constexpr size_t slot_checksum_offset = 62;

void put16(uint8_t* at, uint16_t value) {
  at[0] = static_cast<uint8_t>(value >> 8);
  at[1] = static_cast<uint8_t>(value);
}

void put32(uint8_t* at, uint32_t value) {
  put16(at, static_cast<uint16_t>(value >> 16));
  put16(at + 2, static_cast<uint16_t>(value));
}

void put_checksum(uint8_t* record, size_t first, size_t end, bool good) {
  const uint16_t checksum = image_crc(record + first, end - first);
  put16(record + end, good ? checksum : static_cast<uint16_t>(~checksum));
}

}  // namespace

uint16_t image_crc(const void* data, size_t length) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  uint32_t remainder = 0xFFFF;
  for (size_t i = 0; i < length; ++i) {
    for (int bit = 7; bit >= 0; --bit) {
      const uint32_t incoming = ((bytes[i] >> bit) & 1U) ^ (remainder >> 15);
      remainder = ((remainder << 1) & 0xFFFF) ^ (incoming != 0 ? 0x1021 : 0);
    }
  }
  return static_cast<uint16_t>(~remainder);
}

image_builder::image_builder(ram_flash& device, int first_block)
    : bytes_(device.bytes()), first_block_(first_block) {
  for (const flash_block_info& block : device.blocks()) {
    if (block.skip == 0) {
      offsets_.push_back(block.offset);
      sizes_.push_back(block.size);
    }
  }
}

image_builder::image_builder(uint8_t* bytes, size_t count, uint32_t block_size) : bytes_(bytes) {
  for (size_t block = 0; block < count; ++block) {
    offsets_.push_back(static_cast<uint32_t>(block) * block_size);
    sizes_.push_back(block_size);
  }
}

int image_builder::sector_count(int block) const {
  const uint32_t size = sizes_.at(static_cast<size_t>(block - first_block_));
  return size < header_size ? 0 : static_cast<int>((size - header_size) / sector_size);
}

uint8_t* image_builder::header_at(int block) {
  return bytes_ + offsets_.at(static_cast<size_t>(block - first_block_));
}

uint8_t* image_builder::sector_at(int block, int sector) {
  assert(sector >= 0 && sector < sector_count(block));
  return header_at(block) + header_size + static_cast<size_t>(sector) * sector_size;
}

uint8_t* image_builder::slot_at(int block, int sector, int slot_no) {
  assert(slot_no >= 0 && slot_no < 32);
  return sector_at(block, sector) + data_offset + static_cast<size_t>(slot_no) * slot_size;
}

void image_builder::header(int block, const image_header& fields) {
  uint8_t* at = header_at(block);
  std::memset(at, 0xFF, header_size);
  put32(at, fields.erase_count);
  put32(at + 4, fields.timestamp);
  put_checksum(at, 4, 8, fields.good_checksum);
  put16(at + 10, fields.block_num == 0xFFFF ? static_cast<uint16_t>(block) : fields.block_num);
  at[12] = static_cast<uint8_t>(0xF0 | fields.state);
}

void image_builder::headers(int spare) {
  for (int block = first_block_; block < first_block_ + block_count(); ++block) {
    image_header fields;
    fields.state = block == spare ? 0xF : 0x0;
    header(block, fields);
  }
}

void image_builder::data_sector(int block, int sector, uint16_t fileid, uint16_t seq_no,
                                std::string_view data, int count, bool good_checksum) {
  uint8_t* at = sector_at(block, sector);
  std::memset(at, 0xFF, sector_size);
  put16(at, fileid);
  put16(at + 2, static_cast<uint16_t>(count < 0 ? static_cast<int>(data.size()) : count));
  std::memcpy(at + data_offset, data.data(), std::min(data.size(), data_size));
  put16(at + seq_no_offset, seq_no);
  put_checksum(at, 0, sector_checksum_offset, good_checksum);
}

void image_builder::slot(int block, int sector, int slot_no, const image_slot& fields) {
  uint8_t* owner = sector_at(block, sector);
  if (owner[0] == 0xFF && owner[1] == 0xFF) {
    put16(owner, 1);
  }
  uint8_t* at = slot_at(block, sector, slot_no);
  std::memset(at, 0xFF, slot_size);
  put16(at, fields.seq_no);
  put16(at + 2, fields.dir_fileid);
  put16(at + 4, fields.entry_fileid);
  put16(at + 6, fields.mode);
  put32(at + 8, fields.date);
  std::memset(at + name_offset, 0, name_size);
  std::memcpy(at + name_offset, fields.name.data(), std::min(fields.name.size(), name_size));
  put_checksum(at, 0, slot_checksum_offset, fields.good_checksum);
}

int image_builder::file(int block, int sector, uint16_t fileid, std::string_view data) {
  int sectors = 0;
  for (; !data.empty(); ++sectors) {
    const std::string_view part = data.substr(0, data_size);
    data_sector(block, sector + sectors, fileid, static_cast<uint16_t>(sectors), part);
    data.remove_prefix(part.size());
  }
  return sectors;
}

void image_builder::fix_sector_checksum(int block, int sector) {
  put_checksum(sector_at(block, sector), 0, sector_checksum_offset, true);
}

void image_builder::fix_slot_checksum(int block, int sector, int slot_no) {
  put_checksum(slot_at(block, sector, slot_no), 0, slot_checksum_offset, true);
}

}  // namespace test_support
