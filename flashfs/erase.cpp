// Erasing a block with its history, and the destructive test of a block.
#include "flashfs/erase.h"

#include <cstdio>

#include "flashfs/buffer.h"
#include "flashfs/io.h"
#include "flashfs/log.h"

namespace {

int test_block_is_erased(flashfs* fs, int16_t block_num, flashfs_sector* buffer) {
  const flashfs_block& block = fs->flashfs_blocks[block_num];
  const auto* bytes = reinterpret_cast<const uint8_t*>(buffer);
  for (uint16_t s = 0; s < block.num_sectors; s++) {
    if (read_sector(fs, {block_num, s}, buffer, whole_sector) != 0) {
      return 1;
    }
    if (is_erased(buffer, sizeof(*buffer))) {
      continue;
    }
    size_t j = 0;
    while (bytes[j] == flash_erased_byte) {
      j++;
    }
    flashfs_log(fs,
                "testing block, 0x%x != 0xff, flash handle 0x%x, device %d, block %d, sector %d, "
                "byte %d",
                bytes[j], printed_handle(fs, block), block.device, block_num, s,
                static_cast<int>(j));
    return 1;
  }
  return 0;
}

uint8_t checkerboard(uint32_t pass, uint32_t sctr_num, uint32_t byte) {
  return ((byte ^ sctr_num ^ pass) & 1) == 0 ? 0x5A : 0xA5;
}

int test_block_write_pattern(flashfs* fs, int16_t block_num, uint32_t pass,
                             flashfs_sector* buffer) {
  auto* bytes = reinterpret_cast<uint8_t*>(buffer);
  for (uint16_t s = 0; s < fs->flashfs_blocks[block_num].num_sectors; s++) {
    for (uint32_t j = 0; j < sizeof(*buffer); j++) {
      bytes[j] = checkerboard(pass, s, j);
    }
    if (write_sector(fs, {block_num, s}, buffer, whole_sector) != 0) {
      return 1;
    }
  }
  return 0;
}

int test_block_compare_pattern(flashfs* fs, int16_t block_num, uint32_t pass,
                               flashfs_sector* buffer) {
  const flashfs_block& block = fs->flashfs_blocks[block_num];
  const auto* bytes = reinterpret_cast<const uint8_t*>(buffer);
  for (uint16_t s = 0; s < block.num_sectors; s++) {
    if (read_sector(fs, {block_num, s}, buffer, whole_sector) != 0) {
      return 1;
    }
    for (uint32_t j = 0; j < sizeof(*buffer); j++) {
      const uint8_t expected = checkerboard(pass, s, j);
      if (bytes[j] != expected) {
        flashfs_log(fs,
                    "testing block, 0x%x != 0x%x, flash handle 0x%x, device %d, block %d, "
                    "sector %d, byte %d",
                    expected, bytes[j], printed_handle(fs, block), block.device, block_num, s,
                    static_cast<int>(j));
        return 1;
      }
    }
  }
  return 0;
}

int write_fresh_header(flashfs* fs, int16_t block_num, uint32_t erase_count) {
  flashfs_blkheader held = {};
  if (read_blkheader(fs, block_num, &held, only_history) != 0) {
    return 1;
  }
  flashfs_blkheader header = held;
  header.erase_count = erase_count;
  header.timestamp = flashfs_timestamp();
  blkheader_set_checksum(&header);
  return update_blkheader(fs, block_num, held, &header);
}

}  // namespace

int erase_block(flashfs* fs, int16_t block_num, bool keep_header, bool test) {
  flashfs_blkheader header;
  uint32_t erase_count = 0;
  if (keep_header) {
    if (read_blkheader(fs, block_num, &header, only_erase_count) != 0) {
      return 1;
    }
    erase_count = header.erase_count;
  }
  if (erase_whole_block(fs, block_num) != 0 ||
      (test && test_block(fs, block_num, keep_header ? &erase_count : nullptr) != 0) ||
      (keep_header && write_fresh_header(fs, block_num, erase_count + 1) != 0)) {
    return 1;
  }
  flashfs_block& block = fs->flashfs_blocks[block_num];
  block.invalid_sectors = 0;
  block.invalid_slots = 0;
  return 0;
}

int test_block(flashfs* fs, int16_t block_num, uint32_t* erase_count) {
  constexpr uint32_t passes = 2;
  sector_buffer buffer(fs);
  if (!buffer) {
    return 1;
  }
  char erased_text[sizeof("...erased 0x12345678 times")] = "";
  if (erase_count != nullptr) {
    snprintf(erased_text, sizeof(erased_text), "...erased 0x%x times",
             static_cast<unsigned>(*erase_count));
  }
  flashfs_log(fs, "testing block %d%s", block_num, erased_text);
  if (test_block_is_erased(fs, block_num, buffer.get()) != 0) {
    return 1;
  }
  for (uint32_t pass = 0; pass < passes; pass++) {
    if (test_block_write_pattern(fs, block_num, pass, buffer.get()) != 0 ||
        test_block_compare_pattern(fs, block_num, pass, buffer.get()) != 0 ||
        erase_whole_block(fs, block_num) != 0) {
      return 1;
    }
    if (erase_count != nullptr) {
      (*erase_count)++;
    }
    if (test_block_is_erased(fs, block_num, buffer.get()) != 0) {
      return 1;
    }
  }
  return 0;
}
