// Block and sector input/output: the only way in which the file system touches flash. Turns block
// and sector numbers into device offsets and driver failures into messages. Nothing is retried.
// Steps return 0, or 1 after a message.
#pragma once

#include <cstddef>
#include <cstdint>

#include "flashfs/buffer.h"
#include "flashfs/flashfs.h"

// The text of a code, in one buffer; from 8 on the text of the call before.
const char* flash_return_code_text(uint32_t code);
// The time for records, in seconds since the epoch.
sys_timestamp flashfs_timestamp();
// The handle of a block's device, as messages print it.
unsigned printed_handle(const flashfs* fs, const flashfs_block& block);

// What a block of this many bytes holds.
uint16_t block_sector_count(uint32_t block_size_bytes);
uint32_t block_spare_bytes(uint32_t block_size_bytes);
// Bytes of a block of this file system.
uint32_t block_size(const flashfs* fs, int16_t block_num);

// A part of a record, in bytes from the record's start; even where it is to be written, as flash
// has words. A step on a part takes the whole record in memory, and reads or writes the part's
// place in it.
struct record_part {
  uint32_t offset;
  uint32_t length;
};
constexpr record_part whole_header = {0, sizeof(flashfs_blkheader)};
constexpr record_part only_erase_count = {0, sizeof(be32)};
// All but the state: what is written after an erase.
constexpr record_part only_history = {0, offsetof(flashfs_blkheader, state)};
// What a change of state may change.
constexpr record_part number_and_state = {offsetof(flashfs_blkheader, block_num), 4};
// What a check judges: timestamp, checksum, number and state.
constexpr record_part all_but_erase_count = {offsetof(flashfs_blkheader, timestamp), 10};
constexpr record_part whole_sector = {0, sizeof(flashfs_sector)};
constexpr record_part only_fileid = {0, sizeof(be16)};
constexpr record_part all_but_fileid = {sizeof(be16), sizeof(flashfs_sector) - sizeof(be16)};
constexpr record_part only_count = {offsetof(flashfs_sector, count), sizeof(be16)};
constexpr record_part only_seq_no = {offsetof(flashfs_sector, seq_no), sizeof(be16)};

// Flash has words of so many bytes. The driver can read odd bytes, too, but does so with a word
// each and tells of it.
constexpr uint32_t word_size = sizeof(uint16_t);
constexpr uint32_t round_down_to_words(uint32_t bytes) {
  return bytes / word_size * word_size;
}
constexpr uint32_t round_up_to_words(uint32_t bytes) {
  return round_down_to_words(bytes + word_size - 1);
}

// Header and whole-block access; a block number out of range ends the program. Writes and erases
// leave a mark on standard output, " wS<block>" or " eS<block>", also where nothing changes.
[[nodiscard]] int read_blkheader(flashfs* fs, int16_t block_num, flashfs_blkheader* header,
                                 record_part part);
// Programs what differs between a header as it stands and as it shall be, which gets the number of
// its block first. What was not read is equal in both.
[[nodiscard]] int update_blkheader(flashfs* fs, int16_t block_num, const flashfs_blkheader& held,
                                   flashfs_blkheader* wanted);
// Reads a part of a block. `part` counts from the block's start; it goes to the start of `buffer`.
[[nodiscard]] int read_block(flashfs* fs, int16_t block_num, record_part part, void* buffer);
[[nodiscard]] int write_block(flashfs* fs, int16_t block_num, const void* buffer);
// Erases a whole block; nothing is carried over (that is erase_block).
[[nodiscard]] int erase_whole_block(flashfs* fs, int16_t block_num);
// A block's state as its header has it.
[[nodiscard]] int read_block_state(flashfs* fs, int16_t block_num, uint8_t* state);
// Gives a block a state; the second one of a header whose number_and_state has been read, which
// then has it, too.
[[nodiscard]] int set_block_state(flashfs* fs, int16_t block_num, block_state state);
[[nodiscard]] int change_block_state(flashfs* fs, int16_t block_num, flashfs_blkheader* header,
                                     block_state state);

// Sector access. A bad address is a failure of a read and the end of the program for a write.
[[nodiscard]] int read_sector(flashfs* fs, flashfs_sctr_ptr pointer, flashfs_sector* sector,
                              record_part part);
// Hands a part to the driver as it is.
[[nodiscard]] int write_sector(flashfs* fs, flashfs_sctr_ptr pointer, const flashfs_sector* sector,
                               record_part part);
// Programs the words in which a sector as it stands (`held`; null: erased) differs from what it
// shall be, from the first to the last; nothing more once one has failed.
[[nodiscard]] int update_sector(flashfs* fs, flashfs_sctr_ptr pointer, const flashfs_sector* held,
                                const flashfs_sector* wanted);
// Writes a whole sector to a place that ought to be erased. Nobody has looked, so it does where
// words would be left out.
[[nodiscard]] int write_sector_copy(flashfs* fs, flashfs_sctr_ptr pointer,
                                    const flashfs_sector* sector);
// The same for a sector that was claimed: erased but for its owner, which is the one read there.
[[nodiscard]] int update_claimed_sector(flashfs* fs, flashfs_sctr_ptr pointer, uint16_t held_fileid,
                                        const flashfs_sector* wanted);
// Reads one slot of a directory sector; updates it as update_sector.
[[nodiscard]] int read_slot(flashfs* fs, flashfs_sctr_ptr pointer, uint8_t slot_no,
                            flashfs_dir_slot* slot);
[[nodiscard]] int update_slot(flashfs* fs, flashfs_sctr_ptr pointer, uint8_t slot_no,
                              const flashfs_dir_slot* held, const flashfs_dir_slot* wanted);

// Change only the buffer and the block's counters; the caller writes the sector back.
void invalidate_sector_buf(flashfs* fs, flashfs_sctr_ptr pointer, flashfs_sector* sector);
void delete_slot_buf(flashfs* fs, flashfs_sctr_ptr pointer, flashfs_sector* sector,
                     uint32_t slot_no);
// Make a sector whose owner is known, or a slot whose directory is, obsolete on flash and in the
// block's counters. With its last slot a directory sector goes, too.
[[nodiscard]] int obsolete_sector(flashfs* fs, flashfs_sctr_ptr pointer, uint16_t fileid);
[[nodiscard]] int obsolete_slot(flashfs* fs, flashfs_sctr_ptr pointer, uint8_t slot_no,
                                uint16_t dir_fileid);
// The same for what a list entry points at: its slot, or the whole sector when the index is no
// slot's. Reads the word that decides, and nothing else.
[[nodiscard]] int obsolete_on_flash(flashfs* fs, flashfs_sctr_ptr pointer, uint8_t slot_no);
