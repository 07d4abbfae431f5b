// Block and sector input/output: the only way in which the file system touches flash. Turns block
// and sector numbers into device offsets and driver failures into messages. Nothing is retried.
// Steps return 0, or 1 after a message.
#pragma once

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

// Header and whole-block access; a block number out of range ends the program. Writes and erases
// leave a mark on standard output, " wS<block>" or " eS<block>". A header that is written gets the
// number of its block first.
[[nodiscard]] int read_blkheader(flashfs* fs, int16_t block_num, flashfs_blkheader* header);
[[nodiscard]] int write_blkheader(flashfs* fs, int16_t block_num, flashfs_blkheader* header);
[[nodiscard]] int read_block(flashfs* fs, int16_t block_num, void* buffer);
[[nodiscard]] int write_block(flashfs* fs, int16_t block_num, const void* buffer);
// Erases a whole block; nothing is carried over (that is erase_block).
[[nodiscard]] int erase_whole_block(flashfs* fs, int16_t block_num);
// A block's state as its header has it.
[[nodiscard]] int read_block_state(flashfs* fs, int16_t block_num, uint8_t* state);
// Reads the header, sets its state and writes it back.
[[nodiscard]] int set_block_state(flashfs* fs, int16_t block_num, block_state state);

constexpr uint32_t whole_sector = 0;
constexpr uint32_t only_fileid = sizeof(be16);
// Read or write the first `length` bytes of a sector (0: all of it). A bad address is a failure of
// the read and the end of the program for the write.
[[nodiscard]] int read_sector(flashfs* fs, flashfs_sctr_ptr pointer, flashfs_sector* sector,
                              uint32_t length);
[[nodiscard]] int write_sector(flashfs* fs, flashfs_sctr_ptr pointer, const flashfs_sector* sector,
                               uint32_t length);
// Reads one slot of a directory sector. Fails as read_sector does.
[[nodiscard]] int read_slot(flashfs* fs, flashfs_sctr_ptr pointer, uint8_t slot_no,
                            flashfs_dir_slot* slot);
// Reads a sector whole unless the buffer holds it: slots that share a sector are one read.
[[nodiscard]] int read_sector_once(flashfs* fs, flashfs_sctr_ptr pointer, sector_buffer& buffer);

// Change only the buffer and the block's counters; the caller writes the sector back.
void invalidate_sector_buf(flashfs* fs, flashfs_sctr_ptr pointer, flashfs_sector* sector);
void delete_slot_buf(flashfs* fs, flashfs_sctr_ptr pointer, flashfs_sector* sector,
                     uint32_t slot_no);
// Makes what a list entry points at obsolete on flash: its slot, or the whole sector when the index
// is no slot's. Uses the buffer to read, change and write the sector.
[[nodiscard]] int obsolete_on_flash(flashfs* fs, flashfs_sctr_ptr pointer, uint8_t slot_no,
                                    flashfs_sector* buffer);
