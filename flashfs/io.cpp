// Block and sector input/output. Every step that changes flash makes the sector buffers forget.
#include "flashfs/io.h"

#include <cstdio>

#include "flashfs/log.h"
#include "window/clock.h"

namespace {

constexpr uint32_t flash_return_codes = 8;

bool block_in_range(const flashfs* fs, int16_t block_num) {
  return block_num >= 0 && block_num < fs->num_blocks;
}

void log_block_out_of_range(const flashfs* fs, const char* what, int16_t block_num) {
  flashfs_log(fs, "%s", what);
  flashfs_log(fs, "block_num (%d) not in range between 0 and %d.", block_num, fs->num_blocks - 1);
}

// Ends the program when the in-memory maps name a block that does not exist: going on could destroy
// good data.
flashfs_block& require_block(const flashfs* fs, const char* what, int16_t block_num) {
  if (!block_in_range(fs, block_num)) {
    log_block_out_of_range(fs, what, block_num);
    crashpoint();
  }
  return fs->flashfs_blocks[block_num];
}

int read_device(const flashfs* fs, const flashfs_block& block, uint32_t offset, uint32_t length,
                void* buffer) {
  const flash_return_code code =
      fs->fdi[block.device].read(fs->handle[block.device], offset, length, buffer);
  if (code == flash_ok) {
    return 0;
  }
  flashfs_log(fs, "reading from flash handle 0x%x, device %d, offset 0x%x: %s",
              printed_handle(fs, block), block.device, static_cast<unsigned>(offset),
              flash_return_code_text(static_cast<uint32_t>(code)));
  return 1;
}

// The offset printed is the block's, also when a sector was to be written.
int write_device(const flashfs* fs, const flashfs_block& block, uint32_t offset, uint32_t length,
                 const void* buffer, const char* length_word) {
  sector_buffers_forget();
  const flash_return_code code =
      fs->fdi[block.device].write(fs->handle[block.device], offset, length, buffer);
  if (code == flash_ok) {
    return 0;
  }
  flashfs_log(fs, "writing to flash handle 0x%x, device %d, offset 0x%x, %s 0x%x: %s",
              printed_handle(fs, block), block.device, static_cast<unsigned>(block.offset),
              length_word, static_cast<unsigned>(length),
              flash_return_code_text(static_cast<uint32_t>(code)));
  return 1;
}

uint32_t sector_offset(const flashfs_block& block, uint16_t sctr_num) {
  return block.offset + static_cast<uint32_t>(sizeof(flashfs_blkheader)) +
         static_cast<uint32_t>(sizeof(flashfs_sector)) * sctr_num;
}

uint32_t transfer_length(uint32_t length) {
  return length == whole_sector ? static_cast<uint32_t>(sizeof(flashfs_sector)) : length;
}

// Whether the address lies in the file system, after the messages if not. `verb` is "read" or
// "write".
bool check_sector_address(const flashfs* fs, flashfs_sctr_ptr pointer, const char* verb) {
  if (!block_in_range(fs, pointer.block_num)) {
    char what[sizeof("Trying to write a sector not in the flash device!.")];
    snprintf(what, sizeof(what), "Trying to %s a sector not in the flash device!.", verb);
    log_block_out_of_range(fs, what, pointer.block_num);
    return false;
  }
  const flashfs_block& block = fs->flashfs_blocks[pointer.block_num];
  if (pointer.sctr_num >= block.num_sectors) {
    flashfs_log(fs, "Trying to %s a sector from block %d, with an invalid sector number!!!", verb,
                pointer.block_num);
    flashfs_log(fs, "The sector number (%d) is not between 0 and %d.", pointer.sctr_num,
                block.num_sectors - 1);
    return false;
  }
  return true;
}

}  // namespace

const char* flash_return_code_text(uint32_t code) {
  static const char* const texts[flash_return_codes] = {
      "[OK]",
      "Not Found",
      "No Resources",
      "Operation Failed",
      "Illegal Operation -- setting bit(s) with write operation",
      "Read Verify Failed",
      "Busy",
      "Poll Timeout",
  };
  static char text[sizeof("Illegal Operation -- setting bit(s) with write operation")];
  // An unknown code leaves the text of the call before standing.
  if (code < flash_return_codes) {
    snprintf(text, sizeof(text), "%s", texts[code]);
  }
  return text;
}

sys_timestamp flashfs_timestamp() {
  return static_cast<sys_timestamp>(unix_time());
}

unsigned printed_handle(const flashfs* fs, const flashfs_block& block) {
  return static_cast<unsigned>(reinterpret_cast<uintptr_t>(fs->handle[block.device]));
}

uint16_t block_sector_count(uint32_t block_size_bytes) {
  if (block_size_bytes < sizeof(flashfs_blkheader)) {
    return 0;
  }
  return static_cast<uint16_t>((block_size_bytes - sizeof(flashfs_blkheader)) /
                               sizeof(flashfs_sector));
}

uint32_t block_spare_bytes(uint32_t block_size_bytes) {
  if (block_size_bytes < sizeof(flashfs_blkheader)) {
    return 0;
  }
  return static_cast<uint32_t>((block_size_bytes - sizeof(flashfs_blkheader)) %
                               sizeof(flashfs_sector));
}

uint32_t block_size(const flashfs* fs, int16_t block_num) {
  const flashfs_block& block = fs->flashfs_blocks[block_num];
  return static_cast<uint32_t>(block.num_sectors * sizeof(flashfs_sector) +
                               sizeof(flashfs_blkheader) + block.spare_bytes);
}

int read_blkheader(flashfs* fs, int16_t block_num, flashfs_blkheader* header) {
  const flashfs_block& block =
      require_block(fs, "Trying to read a block header not in the  flash device!.", block_num);
  return read_device(fs, block, block.offset, sizeof(*header), header);
}

int write_blkheader(flashfs* fs, int16_t block_num, flashfs_blkheader* header) {
  const flashfs_block& block =
      require_block(fs, "Trying to write a block header not in the  flash device!.", block_num);
  header->block_num = static_cast<uint16_t>(block_num);
  console_print(" wS%d", block_num);
  // The one write whose message has a colon there.
  return write_device(fs, block, block.offset, sizeof(*header), header, "length:");
}

int read_block(flashfs* fs, int16_t block_num, void* buffer) {
  const flashfs_block& block =
      require_block(fs, "Trying to read a block not in the  flash device!.", block_num);
  return read_device(fs, block, block.offset, block_size(fs, block_num), buffer);
}

int write_block(flashfs* fs, int16_t block_num, const void* buffer) {
  const flashfs_block& block =
      require_block(fs, "Trying to write a block not in the  flash device!.", block_num);
  console_print(" wS%d", block_num);
  return write_device(fs, block, block.offset, block_size(fs, block_num), buffer, "length");
}

int erase_whole_block(flashfs* fs, int16_t block_num) {
  const flashfs_block& block =
      require_block(fs, "Trying to read a block header not in the  flash device!.", block_num);
  console_print(" eS%d", block_num);
  sector_buffers_forget();
  const flash_return_code code =
      fs->fdi[block.device].erase(fs->handle[block.device], block.offset);
  if (code == flash_ok) {
    return 0;
  }
  flashfs_log(fs, "erasing block, flash handle 0x%x, device %d, offset 0x%x: %s",
              printed_handle(fs, block), block.device, static_cast<unsigned>(block.offset),
              flash_return_code_text(static_cast<uint32_t>(code)));
  return 1;
}

int read_block_state(flashfs* fs, int16_t block_num, uint8_t* state) {
  flashfs_blkheader header;
  if (read_blkheader(fs, block_num, &header) != 0) {
    return 1;
  }
  *state = blkheader_state(&header);
  return 0;
}

int set_block_state(flashfs* fs, int16_t block_num, block_state state) {
  flashfs_blkheader header;
  if (read_blkheader(fs, block_num, &header) != 0) {
    return 1;
  }
  blkheader_set_state(&header, state);
  return write_blkheader(fs, block_num, &header);
}

int read_sector(flashfs* fs, flashfs_sctr_ptr pointer, flashfs_sector* sector, uint32_t length) {
  if (!check_sector_address(fs, pointer, "read")) {
    return 1;
  }
  const flashfs_block& block = fs->flashfs_blocks[pointer.block_num];
  return read_device(fs, block, sector_offset(block, pointer.sctr_num), transfer_length(length),
                     sector);
}

int write_sector(flashfs* fs, flashfs_sctr_ptr pointer, const flashfs_sector* sector,
                 uint32_t length) {
  if (!check_sector_address(fs, pointer, "write")) {
    crashpoint();
  }
  const flashfs_block& block = fs->flashfs_blocks[pointer.block_num];
  if (write_device(fs, block, sector_offset(block, pointer.sctr_num), transfer_length(length),
                   sector, "length") == 0) {
    return 0;
  }
  flashfs_log(fs, "sector ptr: {0x%0x, 0x%x}", static_cast<unsigned>(pointer.block_num),
              static_cast<unsigned>(pointer.sctr_num));
  return 1;
}

int read_slot(flashfs* fs, flashfs_sctr_ptr pointer, uint8_t slot_no, flashfs_dir_slot* slot) {
  if (!check_sector_address(fs, pointer, "read")) {
    return 1;
  }
  const flashfs_block& block = fs->flashfs_blocks[pointer.block_num];
  const uint32_t offset = sector_offset(block, pointer.sctr_num) +
                          static_cast<uint32_t>(offsetof(flashfs_sector, slots) +
                                                slot_no % slots_per_sector * sizeof(*slot));
  return read_device(fs, block, offset, sizeof(*slot), slot);
}

int read_sector_once(flashfs* fs, flashfs_sctr_ptr pointer, sector_buffer& buffer) {
  if (buffer.holds(pointer)) {
    return 0;
  }
  if (read_sector(fs, pointer, buffer.get(), whole_sector) != 0) {
    return 1;
  }
  buffer.set_held(pointer);
  return 0;
}

void invalidate_sector_buf(flashfs* fs, flashfs_sctr_ptr pointer, flashfs_sector* sector) {
  if (sector->fileid != fileid_invalidated) {
    fs->flashfs_blocks[pointer.block_num].invalid_sectors++;
    sector->fileid = fileid_invalidated;
  }
}

void delete_slot_buf(flashfs* fs, flashfs_sctr_ptr pointer, flashfs_sector* sector,
                     uint32_t slot_no) {
  flashfs_block& block = fs->flashfs_blocks[pointer.block_num];
  flashfs_dir_slot& slot = sector->slots[slot_no % slots_per_sector];
  if (slot.dir_fileid != fileid_invalidated) {
    block.invalid_slots++;
  }
  slot.dir_fileid = fileid_invalidated;
  for (const flashfs_dir_slot& each : sector->slots) {
    if (each.dir_fileid != fileid_invalidated) {
      return;
    }
  }
  // The deleted slots are counted as one invalid sector from now on. Slots that a check has not
  // counted yet cannot be taken off again.
  invalidate_sector_buf(fs, pointer, sector);
  block.invalid_slots = static_cast<uint16_t>(
      block.invalid_slots > slots_per_sector ? block.invalid_slots - slots_per_sector : 0);
}

int obsolete_on_flash(flashfs* fs, flashfs_sctr_ptr pointer, uint8_t slot_no,
                      flashfs_sector* buffer) {
  if (read_sector(fs, pointer, buffer, whole_sector) != 0) {
    return 1;
  }
  if (is_slot_index(slot_no)) {
    delete_slot_buf(fs, pointer, buffer, slot_no);
  } else {
    invalidate_sector_buf(fs, pointer, buffer);
  }
  return write_sector(fs, pointer, buffer, whole_sector);
}
