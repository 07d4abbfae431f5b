// Reading and changing the on-flash records in memory: states, checksums, names. What reaches
// flash, and when, is io.cpp.
#include "flashfs/format.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr uint8_t state_mask = 0x0F;
constexpr uint32_t blkheader_crc_start = offsetof(flashfs_blkheader, timestamp);
constexpr uint32_t blkheader_crc_covered = sizeof(flashfs_blkheader::timestamp);
constexpr uint32_t sector_crc_covered = offsetof(flashfs_sector, checksum);
constexpr uint32_t slot_crc_covered = offsetof(flashfs_dir_slot, checksum);

// Bytes that must not stand in a name, besides those of 0x80 and above.
constexpr char illegal_name_chars[] =
    "\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0A\x0B\x0C\x0D\x0E\x0F\x10"
    "\x11\x12\x13\x14\x15\x16\x17\x18\x19\x1A\x1B\x1C\x1D\x1E\x1F"
    "\x7F \"'`\\/:;";
static_assert(sizeof(illegal_name_chars) == 41);

const char* block_state_name(uint32_t state) {
  switch (state) {
    case block_available:
      return "available";
    case block_invalid1:
      return "invalid1";
    case block_committed:
      return "committed";
    case block_invalid2:
      return "invalid2";
    case block_in_use:
      return "in_use";
    default:
      return "unknown";
  }
}

const uint8_t* bytes_of(const void* record) {
  return static_cast<const uint8_t*>(record);
}

}  // namespace

uint8_t blkheader_state(const flashfs_blkheader* header) {
  return header->state & state_mask;
}

void blkheader_set_state(flashfs_blkheader* header, uint8_t state) {
  header->state = static_cast<uint8_t>((header->state & ~state_mask) | (state & state_mask));
}

const char* block_state_text(uint32_t state) {
  static char text[sizeof("available[0xf]")];
  state &= state_mask;
  snprintf(text, sizeof(text), "%s[0x%x]", block_state_name(state), static_cast<unsigned>(state));
  return text;
}

void blkheader_set_checksum(flashfs_blkheader* header) {
  header->checksum = static_cast<uint16_t>(
      generate_crc(blkheader_crc_covered, bytes_of(header) + blkheader_crc_start));
}

uint32_t blkheader_crc(const flashfs_blkheader* header) {
  return generate_crc(blkheader_crc_covered + sizeof(header->checksum),
                      bytes_of(header) + blkheader_crc_start);
}

uint16_t sector_set_checksum(flashfs_sector* sector) {
  sector->checksum = static_cast<uint16_t>(generate_crc(sector_crc_covered, sector));
  return sector->checksum;
}

uint16_t dir_slot_set_checksum(flashfs_dir_slot* slot) {
  slot->checksum = static_cast<uint16_t>(generate_crc(slot_crc_covered, slot));
  return slot->checksum;
}

uint32_t sector_crc(const flashfs_sector* sector) {
  return generate_crc(sizeof(*sector), sector);
}

uint32_t dir_slot_crc(const flashfs_dir_slot* slot) {
  return generate_crc(sizeof(*slot), slot);
}

int filename_illegal_char(const char* name) {
  for (; *name != '\0'; name++) {
    const auto value = static_cast<signed char>(*name);
    if (value < 0 || strchr(illegal_name_chars, *name) != nullptr) {
      return value;
    }
  }
  return 0;
}

bool is_erased(const void* record, size_t size_bytes) {
  // A run of equal bytes equals itself moved by one, and that comparison is the library's fastest.
  const uint8_t* bytes = bytes_of(record);
  return size_bytes == 0 ||
         (bytes[0] == flash_erased_byte && memcmp(bytes, bytes + 1, size_bytes - 1) == 0);
}

uint32_t sector_bytes_used(const flashfs_sector* sector) {
  const uint32_t count = sector->count;
  return count < sector_data_size ? count : sector_data_size;
}

bool is_file_sector(uint16_t fileid) {
  return fileid >= fileid_first && fileid <= fileid_last;
}

bool is_live(uint16_t fileid) {
  return fileid != fileid_invalidated && fileid != fileid_available;
}

bool is_directory_mode(ppc_mode_t mode) {
  return (mode & ppc_mode_type_mask) == ppc_mode_directory;
}

bool is_regular_mode(ppc_mode_t mode) {
  return (mode & ppc_mode_type_mask) == ppc_mode_regular;
}

void dir_slot_set_name(flashfs_dir_slot* slot, const char* name) {
  memset(slot->name, 0, sizeof(slot->name));
  memcpy(slot->name, name, strnlen(name, filename_max));
}

void dir_slot_get_name(const flashfs_dir_slot* slot, char name[filename_buffer_size]) {
  memcpy(name, slot->name, filename_size);
  name[filename_size] = '\0';
}

bool dir_slot_name_equals(const flashfs_dir_slot* slot, const char* name) {
  const size_t length = strnlen(slot->name, filename_size);
  return strlen(name) == length && memcmp(slot->name, name, length) == 0;
}
