// Diagnostic dumps of the file system's state, for a person debugging it. They change nothing, on
// flash or in memory. No command prints them.
#include <cstdint>

#include "flashfs/buffer.h"
#include "flashfs/claim.h"
#include "flashfs/filemap.h"
#include "flashfs/flashfs.h"
#include "flashfs/io.h"
#include "flashfs/log.h"

namespace {

const char* verdict(bool good) {
  return good ? "good" : "bad";
}

void print_checksum(uint32_t crc) {
  if (crc == flashfs_good_crc) {
    console_print("%sChecksum is good (%d)%s", flashfs_log_prefix,
                  static_cast<int>(flashfs_good_crc), flashfs_log_suffix);
  } else {
    console_print("%sChecksum bad (%d != %d)%s", flashfs_log_prefix, static_cast<int>(crc),
                  static_cast<int>(flashfs_good_crc), flashfs_log_suffix);
  }
}

// Prints one pointer of a list. False when the checksum of what it points at is bad. A data sector
// astray in a directory's list has no slot to judge: its index lies outside the record.
bool print_reference(const flashfs_sctr_list_ordered* entry, bool directory,
                     const flashfs_sector* sector) {
  const flashfs_sctr_ptr& pointer = entry->sctr_ptr;
  if (!directory) {
    console_print("(%d,%d) ", pointer.block_num, pointer.sctr_num);
    return sector_crc(sector) == flashfs_good_crc;
  }
  console_print("(%d,%d,%d) ", pointer.block_num, pointer.sctr_num, entry->slot_no);
  return !is_slot_index(entry->slot_no) ||
         dir_slot_crc(&sector->slots[entry->slot_no]) == flashfs_good_crc;
}

void print_available(const flashfs_sctr_list_unordered* entry, bool slots) {
  for (; entry != nullptr; entry = entry->next) {
    const flashfs_sctr_ptr& pointer = entry->sctr_ptr;
    if (slots) {
      console_print("(%d,%d,%d) ", pointer.block_num, pointer.sctr_num, entry->slot_no);
    } else {
      console_print("(%d,%d) ", pointer.block_num, pointer.sctr_num);
    }
  }
}

void print_blocks(const flashfs* fs) {
  console_print("%s---Block---  ---Sectors---  ---Inv Sctrs---  ---Inv Slots---%s",
                flashfs_log_prefix, flashfs_log_suffix);
  for (int16_t b = 0; b < fs->num_blocks; b++) {
    process_may_suspend();
    const flashfs_block& block = fs->flashfs_blocks[b];
    console_print("%s   %-5d        %-7d          %-7d          %-7d%s", flashfs_log_prefix, b,
                  block.num_sectors, block.invalid_sectors, block.invalid_slots,
                  flashfs_log_suffix);
  }
}

void print_slot(const flashfs_dir_slot* slot) {
  char name[filename_buffer_size];
  dir_slot_get_name(slot, name);
  console_print("%sseq_no: %d\ndir_fileid: %d\nentry_fileid: %d\nmode: %d\ndate: %d\nname: %s%s",
                flashfs_log_prefix, static_cast<uint16_t>(slot->seq_no),
                static_cast<uint16_t>(slot->dir_fileid), static_cast<uint16_t>(slot->entry_fileid),
                static_cast<uint16_t>(slot->mode),
                static_cast<int32_t>(static_cast<uint32_t>(slot->date)), name, flashfs_log_suffix);
}

}  // namespace

void flashfs_dump_file_list(flashfs* fs, uint16_t fileid) {
  const flashfs_sctr_map* file = filemap_lookup(fs, fileid);
  if (file == nullptr) {
    return;
  }
  const bool directory = is_directory_mode(file->mode);
  bool checksums_good = true;
  int count = 0;
  bool read_failed = false;
  {
    sector_buffer buffer(fs);
    if (!buffer) {
      return;
    }
    for (const auto* entry = file->sctr_list; entry != nullptr; entry = entry->next) {
      process_may_suspend();
      if (read_sector(fs, entry->sctr_ptr, buffer.get(), whole_sector) != 0) {
        read_failed = true;
        break;
      }
      if (!print_reference(entry, directory, buffer.view())) {
        checksums_good = false;
      }
      count++;
    }
  }
  if (read_failed) {
    // The lock is given back here although the caller holds it; it is given back twice then.
    flashfs_unlock(fs);
    return;
  }
  console_print("%sFileid: %d, %d %s (sequence nos. %s) (cksums %s)%s", flashfs_log_prefix, fileid,
                count, directory ? "slots" : "sectors",
                verdict(sctr_list_is_contiguous_bad(file->sctr_list) == 0), verdict(checksums_good),
                flashfs_log_suffix);
}

void flashfs_dump_file_list_lock(flashfs* fs, uint16_t fileid) {
  const flashfs_lock_guard lock(fs);
  flashfs_dump_file_list(fs, fileid);
}

void flashfs_dump_file_map(flashfs* fs) {
  const flashfs_lock_guard lock(fs);
  console_print("\n%sAvailable_sectors: ", flashfs_log_prefix);
  print_available(fs->available_sectors, false);
  console_print("%s\n%sAvailable_slots: ", flashfs_log_suffix, flashfs_log_prefix);
  print_available(fs->available_slots, true);
  console_print("%s", flashfs_log_suffix);
  console_print("%s\nAvailable Block: %d\n%s", flashfs_log_prefix, fs->available_block,
                flashfs_log_suffix);
  print_blocks(fs);
  console_print("\n");
}

void flashfs_dump_sctr(flashfs* fs, int16_t block_num, uint16_t sctr_num) {
  const flashfs_lock_guard lock(fs);
  sector_buffer buffer(fs);
  if (!buffer || read_sector(fs, {block_num, sctr_num}, buffer.get(), whole_sector) != 0) {
    return;
  }
  const uint16_t fileid = buffer->fileid;
  console_print("%sContents of sector %d in block %d:%s", flashfs_log_prefix, sctr_num, block_num,
                flashfs_log_suffix);
  console_print("%sFileid: %d\nCount: %d\nseq_no: %d%s", flashfs_log_prefix, fileid,
                static_cast<uint16_t>(buffer->count), static_cast<uint16_t>(buffer->seq_no),
                flashfs_log_suffix);
  if (is_file_sector(fileid)) {
    print_checksum(sector_crc(buffer.view()));
  }
  console_print("\n");
}

void flashfs_dump_slot(flashfs* fs, int16_t block_num, uint16_t sctr_num, uint8_t slot_no) {
  {
    const flashfs_lock_guard lock(fs);
    sector_buffer buffer(fs);
    if (!buffer || read_sector(fs, {block_num, sctr_num}, buffer.get(), whole_sector) != 0) {
      return;
    }
    const uint16_t fileid = buffer->fileid;
    if (fileid != fileid_root) {
      console_print("%sSlot %d in sector %d in block %d is not valid (%d != %d).%s",
                    flashfs_log_prefix, slot_no, sctr_num, block_num, fileid, fileid_root,
                    flashfs_log_suffix);
    } else {
      const flashfs_dir_slot& slot = buffer->slots[slot_no % slots_per_sector];
      console_print("%sContents of slot %d in sector %d in block %d:%s", flashfs_log_prefix,
                    slot_no, sctr_num, block_num, flashfs_log_suffix);
      print_slot(&slot);
      // The guard of the checksum line is the sector's file id, which is 1 here: an available or
      // deleted slot gets one as well.
      print_checksum(dir_slot_crc(&slot));
    }
  }
  console_print("\n");
}
