// Block and sector input/output. Every step that changes flash notes it.
#include "flashfs/io.h"

#include <cstdio>
#include <cstring>

#include "flashfs/log.h"
#include "window/clock.h"

namespace {

constexpr uint32_t flash_return_codes = 8;

constexpr record_part only_state = {offsetof(flashfs_blkheader, state), 2};

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

// A place on a device that a message may have to name.
struct record_place {
  const flashfs_block& block;
  uint32_t offset;          // of the record, in bytes from the start of the device
  uint32_t length;          // of the record, in bytes
  const char* length_word;  // how the message of a failed write calls it
};

record_place header_place(const flashfs_block& block) {
  // The one write whose message has a colon there.
  return {block, block.offset, sizeof(flashfs_blkheader), "length:"};
}

record_place block_place(const flashfs* fs, int16_t block_num) {
  const flashfs_block& block = fs->flashfs_blocks[block_num];
  return {block, block.offset, block_size(fs, block_num), "length"};
}

record_place sector_place(const flashfs* fs, flashfs_sctr_ptr pointer) {
  const flashfs_block& block = fs->flashfs_blocks[pointer.block_num];
  const auto sectors_before =
      static_cast<uint32_t>(sizeof(flashfs_blkheader) + sizeof(flashfs_sector) * pointer.sctr_num);
  return {block, block.offset + sectors_before, sizeof(flashfs_sector), "length"};
}

int read_part(const flashfs* fs, const record_place& record, record_part part, void* out) {
  const flashfs_block& block = record.block;
  const flash_return_code code = fs->fdi[block.device].read(
      fs->handle[block.device], record.offset + part.offset, part.length, out);
  if (code == flash_ok) {
    return 0;
  }
  flashfs_log(fs, "reading from flash handle 0x%x, device %d, offset 0x%x: %s",
              printed_handle(fs, block), block.device, static_cast<unsigned>(record.offset),
              flash_return_code_text(static_cast<uint32_t>(code)));
  return 1;
}

// The offset printed is the block's, also when a sector was to be written.
int write_part(const flashfs* fs, const record_place& record, record_part part, const void* bytes) {
  const flashfs_block& block = record.block;
  note_flash_change();
  const flash_return_code code = fs->fdi[block.device].write(
      fs->handle[block.device], record.offset + part.offset, part.length, bytes);
  if (code == flash_ok) {
    return 0;
  }
  flashfs_log(fs, "writing to flash handle 0x%x, device %d, offset 0x%x, %s 0x%x: %s",
              printed_handle(fs, block), block.device, static_cast<unsigned>(block.offset),
              record.length_word, static_cast<unsigned>(record.length),
              flash_return_code_text(static_cast<uint32_t>(code)));
  return 1;
}

// The words of flash that fill a machine word are looked at together: writing looks at all there
// is.
using machine_word = size_t;
constexpr machine_word lowest_bits = ~machine_word{0} / 0xFFFF;  // of each of its words
constexpr machine_word highest_bits = lowest_bits << 15;
static_assert(sizeof(machine_word) % word_size == 0);

machine_word load_machine_word(const uint8_t* bytes) {
  machine_word value = 0;
  memcpy(&value, bytes, sizeof(value));
  return value;
}

// Not 0 if one of the words is. To take one off a word whose highest bit is clear sets that bit
// only if the word is 0, or if one behind it is, which borrows.
constexpr machine_word zero_words_of(machine_word words) {
  return (words - lowest_bits) & ~words & highest_bits;
}
static_assert(zero_words_of(lowest_bits) == 0 && zero_words_of(highest_bits) == 0);
static_assert(zero_words_of(lowest_bits - 1) != 0 && zero_words_of(0) != 0);

// Of long runs many words are looked at together, of short ones a few.
constexpr uint32_t long_stride = 16 * sizeof(machine_word);  // bytes
constexpr uint32_t short_stride = 4 * sizeof(machine_word);

// What stands in a part of a record, and what shall stand there.
class part_change {
 public:
  // `held` may be null: the part is erased.
  part_change(const void* held, const void* wanted, uint32_t length)
      : held_(static_cast<const uint8_t*>(held)),
        wanted_(static_cast<const uint8_t*>(wanted)),
        length_(length) {}

  // The next run of words that differ, from an offset on; of length 0 at the end of the part.
  record_part next_run(uint32_t offset) const {
    while (holds_machine_word(offset) && difference(offset) == 0) {
      offset += sizeof(machine_word);
    }
    while (offset < length_ && !differs(offset)) {
      offset += word_size;
    }
    const uint32_t start = offset;
    while (all_differ<long_stride>(offset)) {
      offset += long_stride;
    }
    while (all_differ<short_stride>(offset)) {
      offset += short_stride;
    }
    while (offset < length_ && differs(offset)) {
      offset += word_size;
    }
    return {start, offset - start};
  }
  // From the first word that differs to the last one.
  record_part span() const {
    const record_part first = next_run(0);
    uint32_t end = length_;
    while (end > first.offset && !differs(end - word_size)) {
      end -= word_size;
    }
    return {first.offset, end - first.offset};
  }
  bool sets_a_bit() const {
    if (held_ == nullptr) {
      return false;
    }
    machine_word set = 0;
    uint32_t i = 0;
    for (; holds_machine_word(i); i += sizeof(machine_word)) {
      set |= load_machine_word(wanted_ + i) & ~load_machine_word(held_ + i);
    }
    for (; i < length_; i++) {
      set |= static_cast<machine_word>(wanted_[i] & ~held_[i]);
    }
    return set != 0;
  }
  const uint8_t* wanted(uint32_t offset) const {
    return wanted_ + offset;
  }

 private:
  bool holds_machine_word(uint32_t offset) const {
    return length_ >= sizeof(machine_word) && offset <= length_ - sizeof(machine_word);
  }
  // Whether there is a whole stride, and no word in it is as it shall be. The loops are such that a
  // compiler makes wider steps of them, where the machine has any.
  template <uint32_t stride>
  bool all_differ(uint32_t offset) const {
    if (length_ < stride || offset > length_ - stride) {
      return false;
    }
    const uint8_t* wanted = wanted_ + offset;
    machine_word zero_words = 0;
    if (held_ == nullptr) {
      for (uint32_t i = 0; i < stride; i += sizeof(machine_word)) {
        zero_words |= zero_words_of(~load_machine_word(wanted + i));
      }
    } else {
      const uint8_t* held = held_ + offset;
      for (uint32_t i = 0; i < stride; i += sizeof(machine_word)) {
        zero_words |= zero_words_of(load_machine_word(wanted + i) ^ load_machine_word(held + i));
      }
    }
    return zero_words == 0;
  }
  // The bits that differ.
  machine_word difference(uint32_t offset) const {
    const machine_word held =
        held_ == nullptr ? ~machine_word{0} : load_machine_word(held_ + offset);
    return load_machine_word(wanted_ + offset) ^ held;
  }
  uint8_t held(uint32_t i) const {
    return held_ == nullptr ? flash_erased_byte : held_[i];
  }
  bool differs(uint32_t offset) const {
    return wanted_[offset] != held(offset) || wanted_[offset + 1] != held(offset + 1);
  }

  const uint8_t* held_;
  const uint8_t* wanted_;
  uint32_t length_;
};

// Programs the words of a part that differ, each run of them in one call. Where a bit would have to
// be set the driver gets all of them at once, to refuse them before any is programmed.
int update_part(const flashfs* fs, const record_place& record, uint32_t offset,
                const part_change& change) {
  const auto program = [&](record_part run) {
    return write_part(fs, record, {offset + run.offset, run.length}, change.wanted(run.offset));
  };
  if (change.sets_a_bit()) {
    return program(change.span());
  }
  for (record_part run = change.next_run(0); run.length != 0;
       run = change.next_run(run.offset + run.length)) {
    if (program(run) != 0) {
      return 1;
    }
  }
  return 0;
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

// Where a sector to be written lies; a bad address ends the program.
record_place require_sector(const flashfs* fs, flashfs_sctr_ptr pointer) {
  if (!check_sector_address(fs, pointer, "write")) {
    crashpoint();
  }
  return sector_place(fs, pointer);
}

// The end of a write to a sector; a failure has been told but for the sector.
int sector_written(const flashfs* fs, flashfs_sctr_ptr pointer, int result) {
  if (result != 0) {
    flashfs_log(fs, "sector ptr: {0x%0x, 0x%x}", static_cast<unsigned>(pointer.block_num),
                static_cast<unsigned>(pointer.sctr_num));
  }
  return result;
}

int read_sector_bytes(const flashfs* fs, flashfs_sctr_ptr pointer, record_part part, void* out) {
  return check_sector_address(fs, pointer, "read")
             ? read_part(fs, sector_place(fs, pointer), part, out)
             : 1;
}

int update_sector_bytes(const flashfs* fs, flashfs_sctr_ptr pointer, record_part part,
                        const void* held, const void* wanted) {
  const record_place place = require_sector(fs, pointer);
  return sector_written(
      fs, pointer, update_part(fs, place, part.offset, part_change(held, wanted, part.length)));
}

constexpr record_part whole_slot(uint32_t slot_no) {
  return {static_cast<uint32_t>(offsetof(flashfs_sector, slots) +
                                slot_no % slots_per_sector * sizeof(flashfs_dir_slot)),
          sizeof(flashfs_dir_slot)};
}

constexpr record_part slot_directory(uint32_t slot_no) {
  return {
      static_cast<uint32_t>(whole_slot(slot_no).offset + offsetof(flashfs_dir_slot, dir_fileid)),
      sizeof(be16)};
}

// Reads one word of a sector.
int read_word(const flashfs* fs, flashfs_sctr_ptr pointer, record_part part, uint16_t* value) {
  be16 word = {};
  if (read_sector_bytes(fs, pointer, part, &word) != 0) {
    return 1;
  }
  *value = word;
  return 0;
}

// Programs the word of a sector that makes it, or a slot of it, obsolete.
int clear_word(const flashfs* fs, flashfs_sctr_ptr pointer, record_part part, uint16_t value) {
  be16 held = {};
  held = value;
  constexpr be16 cleared = {};
  return update_sector_bytes(fs, pointer, part, &held, &cleared);
}

void count_obsolete_sector(flashfs* fs, flashfs_sctr_ptr pointer, uint16_t fileid) {
  if (fileid != fileid_invalidated) {
    fs->flashfs_blocks[pointer.block_num].invalid_sectors++;
  }
}

void count_deleted_slot(flashfs* fs, flashfs_sctr_ptr pointer, uint16_t dir_fileid) {
  if (dir_fileid != fileid_invalidated) {
    fs->flashfs_blocks[pointer.block_num].invalid_slots++;
  }
}

// The deleted slots are counted as one invalid sector from now on. Slots that a check has not
// counted yet cannot be taken off again.
void uncount_deleted_slots(flashfs* fs, flashfs_sctr_ptr pointer) {
  flashfs_block& block = fs->flashfs_blocks[pointer.block_num];
  block.invalid_slots = static_cast<uint16_t>(
      block.invalid_slots > slots_per_sector ? block.invalid_slots - slots_per_sector : 0);
}

// Whether all slots but one are deleted. Reads no further than to the first that is not.
int others_are_deleted(const flashfs* fs, flashfs_sctr_ptr pointer, uint32_t slot_no,
                       bool* deleted) {
  *deleted = true;
  for (uint32_t k = 0; k < slots_per_sector && *deleted; k++) {
    uint16_t dir_fileid = fileid_invalidated;
    if (k != slot_no && read_word(fs, pointer, slot_directory(k), &dir_fileid) != 0) {
      return 1;
    }
    *deleted = dir_fileid == fileid_invalidated;
  }
  return 0;
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

int read_blkheader(flashfs* fs, int16_t block_num, flashfs_blkheader* header, record_part part) {
  const flashfs_block& block =
      require_block(fs, "Trying to read a block header not in the  flash device!.", block_num);
  return read_part(fs, header_place(block), part, reinterpret_cast<uint8_t*>(header) + part.offset);
}

int update_blkheader(flashfs* fs, int16_t block_num, const flashfs_blkheader& held,
                     flashfs_blkheader* wanted) {
  const flashfs_block& block =
      require_block(fs, "Trying to write a block header not in the  flash device!.", block_num);
  wanted->block_num = static_cast<uint16_t>(block_num);
  console_print(" wS%d", block_num);
  return update_part(fs, header_place(block), 0, part_change(&held, wanted, sizeof(held)));
}

int read_block(flashfs* fs, int16_t block_num, record_part part, void* buffer) {
  static_cast<void>(
      require_block(fs, "Trying to read a block not in the  flash device!.", block_num));
  return read_part(fs, block_place(fs, block_num), part, buffer);
}

int write_block(flashfs* fs, int16_t block_num, const void* buffer) {
  static_cast<void>(
      require_block(fs, "Trying to write a block not in the  flash device!.", block_num));
  console_print(" wS%d", block_num);
  return write_part(fs, block_place(fs, block_num), {0, block_size(fs, block_num)}, buffer);
}

int erase_whole_block(flashfs* fs, int16_t block_num) {
  const flashfs_block& block =
      require_block(fs, "Trying to read a block header not in the  flash device!.", block_num);
  console_print(" eS%d", block_num);
  note_flash_change();
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
  if (read_blkheader(fs, block_num, &header, only_state) != 0) {
    return 1;
  }
  *state = blkheader_state(&header);
  return 0;
}

int set_block_state(flashfs* fs, int16_t block_num, block_state state) {
  flashfs_blkheader header = {};
  return read_blkheader(fs, block_num, &header, number_and_state) == 0
             ? change_block_state(fs, block_num, &header, state)
             : 1;
}

int change_block_state(flashfs* fs, int16_t block_num, flashfs_blkheader* header,
                       block_state state) {
  const flashfs_blkheader held = *header;
  blkheader_set_state(header, state);
  return update_blkheader(fs, block_num, held, header);
}

int read_sector(flashfs* fs, flashfs_sctr_ptr pointer, flashfs_sector* sector, record_part part) {
  return read_sector_bytes(fs, pointer, part, reinterpret_cast<uint8_t*>(sector) + part.offset);
}

int write_sector(flashfs* fs, flashfs_sctr_ptr pointer, const flashfs_sector* sector,
                 record_part part) {
  record_place place = require_sector(fs, pointer);
  place.length = part.length;
  return sector_written(
      fs, pointer,
      write_part(fs, place, part, reinterpret_cast<const uint8_t*>(sector) + part.offset));
}

int update_sector(flashfs* fs, flashfs_sctr_ptr pointer, const flashfs_sector* held,
                  const flashfs_sector* wanted) {
  return update_sector_bytes(fs, pointer, whole_sector, held, wanted);
}

int update_claimed_sector(flashfs* fs, flashfs_sctr_ptr pointer, uint16_t held_fileid,
                          const flashfs_sector* wanted) {
  if (held_fileid == wanted->fileid) {
    return update_sector_bytes(fs, pointer, all_but_fileid, nullptr,
                               reinterpret_cast<const uint8_t*>(wanted) + all_but_fileid.offset);
  }
  flashfs_sector held;
  memset(&held, flash_erased_byte, sizeof(held));
  held.fileid = held_fileid;
  return update_sector(fs, pointer, &held, wanted);
}

int write_sector_copy(flashfs* fs, flashfs_sctr_ptr pointer, const flashfs_sector* sector) {
  flashfs_sector held;
  const record_part changed = part_change(nullptr, sector, sizeof(*sector)).next_run(0);
  if (changed.length == sizeof(*sector)) {
    return write_sector(fs, pointer, sector, whole_sector);
  }
  return read_sector(fs, pointer, &held, whole_sector) == 0
             ? update_sector(fs, pointer, &held, sector)
             : 1;
}

int read_slot(flashfs* fs, flashfs_sctr_ptr pointer, uint8_t slot_no, flashfs_dir_slot* slot) {
  return read_sector_bytes(fs, pointer, whole_slot(slot_no), slot);
}

int update_slot(flashfs* fs, flashfs_sctr_ptr pointer, uint8_t slot_no,
                const flashfs_dir_slot* held, const flashfs_dir_slot* wanted) {
  return update_sector_bytes(fs, pointer, whole_slot(slot_no), held, wanted);
}

void invalidate_sector_buf(flashfs* fs, flashfs_sctr_ptr pointer, flashfs_sector* sector) {
  count_obsolete_sector(fs, pointer, sector->fileid);
  sector->fileid = fileid_invalidated;
}

void delete_slot_buf(flashfs* fs, flashfs_sctr_ptr pointer, flashfs_sector* sector,
                     uint32_t slot_no) {
  flashfs_dir_slot& slot = sector->slots[slot_no % slots_per_sector];
  count_deleted_slot(fs, pointer, slot.dir_fileid);
  slot.dir_fileid = fileid_invalidated;
  for (const flashfs_dir_slot& each : sector->slots) {
    if (each.dir_fileid != fileid_invalidated) {
      return;
    }
  }
  invalidate_sector_buf(fs, pointer, sector);
  uncount_deleted_slots(fs, pointer);
}

int obsolete_sector(flashfs* fs, flashfs_sctr_ptr pointer, uint16_t fileid) {
  count_obsolete_sector(fs, pointer, fileid);
  return clear_word(fs, pointer, only_fileid, fileid);
}

int obsolete_slot(flashfs* fs, flashfs_sctr_ptr pointer, uint8_t slot_no, uint16_t dir_fileid) {
  bool last = false;
  uint16_t owner = fileid_invalidated;
  if (others_are_deleted(fs, pointer, slot_no, &last) != 0 ||
      (last && read_word(fs, pointer, only_fileid, &owner) != 0)) {
    return 1;
  }
  count_deleted_slot(fs, pointer, dir_fileid);
  if (last) {
    // The sector's owner stands before its slots, and so goes first.
    const int failure = obsolete_sector(fs, pointer, owner);
    uncount_deleted_slots(fs, pointer);
    if (failure != 0) {
      return 1;
    }
  }
  return clear_word(fs, pointer, slot_directory(slot_no), dir_fileid);
}

int obsolete_on_flash(flashfs* fs, flashfs_sctr_ptr pointer, uint8_t slot_no) {
  const bool is_slot = is_slot_index(slot_no);
  uint16_t held = fileid_invalidated;
  if (read_word(fs, pointer, is_slot ? slot_directory(slot_no) : only_fileid, &held) != 0) {
    return 1;
  }
  return is_slot ? obsolete_slot(fs, pointer, slot_no, held) : obsolete_sector(fs, pointer, held);
}
