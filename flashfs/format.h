// The on-flash format: a block header at the start of every erase block, sectors that fill the rest
// of it, and directory slots packed 32 to a directory sector. Every multi-byte field is big-endian.
// Erased flash is all ones and programming only clears bits, so "empty" is 0xFF everywhere and
// every change in place clears bits.
//
//   erase block:  header (32) | sector 0 (2056) | sector 1 | ... | sector n-1 | spare bytes
//   sector:       fileid | count | data or 32 slots (2048) | seq_no | checksum
#pragma once

#include <cstddef>
#include <cstdint>

#include "flashfs/big_endian.h"  // IWYU pragma: export
#include "ifs/ifs.h"

constexpr uint8_t flash_erased_byte = 0xFF;

// The CRC of any record together with its stored checksum, when the record is good.
constexpr uint32_t flashfs_good_crc = 0xE2F0;

// Owners of a sector.
constexpr uint16_t fileid_invalidated = 0;
constexpr uint16_t fileid_root = 1;  // the root directory; as a sector's owner: a directory sector
constexpr uint16_t fileid_first = 2;
constexpr uint16_t fileid_last = 65534;
constexpr uint16_t fileid_available = 0xFFFF;

constexpr uint32_t sector_data_size = 2048;  // bytes
constexpr uint32_t slots_per_sector = 32;
constexpr uint32_t filename_size = 46;  // bytes of a slot's name field
constexpr uint32_t filename_max = 45;   // characters

// Block states, as the low nibble of a header's state byte. Each one clears one more bit than the
// one before it, so a block moves down this list without an erase.
enum block_state : uint8_t {
  block_available = 0xF,
  block_invalid1 = 0x7,
  block_committed = 0x3,
  block_invalid2 = 0x1,
  block_in_use = 0x0,
};

struct flashfs_blkheader {
  be32 erase_count;  // not covered by the checksum
  be32 timestamp;    // when the header was last written after an erase
  be16 checksum;     // over the timestamp
  be16 block_num;    // not covered by the checksum
  uint8_t state;     // low nibble: block_state; high nibble: erased
  uint8_t reserved[19];
};
static_assert(sizeof(flashfs_blkheader) == 32 && alignof(flashfs_blkheader) == 1);
static_assert(offsetof(flashfs_blkheader, checksum) == 8);
static_assert(offsetof(flashfs_blkheader, block_num) == 10);
static_assert(offsetof(flashfs_blkheader, state) == 12);

struct flashfs_dir_slot {
  be16 seq_no;
  be16 dir_fileid;    // the directory that holds the entry; 0 deleted, 0xFFFF available
  be16 entry_fileid;  // the file or directory that the entry names
  be16 mode;
  be32 date;
  uint8_t reserved[4];       // left erased, carried along
  char name[filename_size];  // padded with zeros; on damaged flash perhaps not terminated
  be16 checksum;             // over the 62 bytes before it
};
static_assert(sizeof(flashfs_dir_slot) == 64 && alignof(flashfs_dir_slot) == 1);
static_assert(offsetof(flashfs_dir_slot, mode) == 6);
static_assert(offsetof(flashfs_dir_slot, date) == 8);
static_assert(offsetof(flashfs_dir_slot, name) == 16);
static_assert(offsetof(flashfs_dir_slot, checksum) == 62);

struct flashfs_sector {
  be16 fileid;
  be16 count;  // bytes of data in use
  union {
    uint8_t data[sector_data_size];
    flashfs_dir_slot slots[slots_per_sector];  // when fileid is 1
  };
  be16 seq_no;    // place of the sector in its file
  be16 checksum;  // over the 2054 bytes before it; unused in a directory sector
};
static_assert(sizeof(flashfs_sector) == 2056 && alignof(flashfs_sector) == 1);
static_assert(offsetof(flashfs_sector, data) == 4);
static_assert(offsetof(flashfs_sector, seq_no) == 2052);
static_assert(offsetof(flashfs_sector, checksum) == 2054);

uint8_t blkheader_state(const flashfs_blkheader* header);
void blkheader_set_state(flashfs_blkheader* header, uint8_t state);
// The printed form of a state nibble, in one buffer that the next call overwrites.
const char* block_state_text(uint32_t state);
// Computes and stores a header's checksum.
void blkheader_set_checksum(flashfs_blkheader* header);
// The CRC over the timestamp and its checksum: flashfs_good_crc when the header is good.
uint32_t blkheader_crc(const flashfs_blkheader* header);

// Compute a record's checksum, store it in the record and return it.
uint16_t sector_set_checksum(flashfs_sector* sector);
uint16_t dir_slot_set_checksum(flashfs_dir_slot* slot);
// The CRC over the whole record: flashfs_good_crc when it is good.
uint32_t sector_crc(const flashfs_sector* sector);
uint32_t dir_slot_crc(const flashfs_dir_slot* slot);

// The first byte of a name that must not stand in one, as a signed char, or 0.
int filename_illegal_char(const char* name);

// Whether all bytes of a record are erased.
bool is_erased(const void* record, size_t size_bytes);
// Bytes of data in use; a damaged count is cut to the data area.
uint32_t sector_bytes_used(const flashfs_sector* sector);
bool is_file_sector(uint16_t fileid);
// Whether a sector with this owner holds anything: it is neither invalidated nor available.
bool is_live(uint16_t fileid);
bool is_directory_mode(ppc_mode_t mode);
bool is_regular_mode(ppc_mode_t mode);
// Zeroes a slot's name field and copies at most 45 characters of the name into it.
void dir_slot_set_name(flashfs_dir_slot* slot, const char* name);
// Copies a slot's name, terminated whatever the flash holds, into 47 bytes.
constexpr uint32_t filename_buffer_size = filename_size + 1;
void dir_slot_get_name(const flashfs_dir_slot* slot, char name[filename_buffer_size]);
bool dir_slot_name_equals(const flashfs_dir_slot* slot, const char* name);
