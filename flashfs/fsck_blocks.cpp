// The check's work on blocks.
#include "flashfs/fsck_blocks.h"

#include "flashfs/buffer.h"
#include "flashfs/erase.h"
#include "flashfs/io.h"
#include "flashfs/log.h"

namespace {

struct spare_search {
  int16_t available = no_block;  // the first full-size available block
  int16_t committed = no_block;  // the last committed block
};

int find_spare(flashfs* fs, spare_search* found) {
  for (int16_t b = 0; b < fs->num_blocks; b++) {
    process_suspend();
    uint8_t state = 0;
    if (read_block_state(fs, b, &state) != 0) {
      return 1;
    }
    if (state == block_available && fs->flashfs_blocks[b].num_sectors == fs->largest_block_size) {
      found->available = b;
      return 0;
    }
    if (state == block_committed) {
      found->committed = b;
    }
  }
  return 0;
}

bool has_pointer_into(const flashfs_sctr_map* file, int16_t block_num) {
  for (const auto* entry = file->sctr_list; entry != nullptr; entry = entry->next) {
    if (entry->sctr_ptr.block_num == block_num) {
      return true;
    }
  }
  return false;
}

// Whether some file has nothing in the block.
bool is_without_some_file(const flashfs* fs, int16_t block_num) {
  for (const flashfs_sctr_map* file = fs->file_map; file != nullptr; file = file->next) {
    if (!has_pointer_into(file, block_num)) {
      return true;
    }
  }
  return false;
}

struct given_up_block {
  int16_t block_num = no_block;
  bool available = false;
};

int choose_block_to_give_up(flashfs* fs, given_up_block* chosen) {
  for (int16_t b = 0; b < fs->num_blocks; b++) {
    process_suspend();
    uint8_t state = 0;
    if (read_block_state(fs, b, &state) != 0) {
      return 1;
    }
    if ((state != block_available && state != block_in_use) || !is_without_some_file(fs, b)) {
      continue;
    }
    if (chosen->block_num == no_block ||
        fs->flashfs_blocks[b].num_sectors > fs->flashfs_blocks[chosen->block_num].num_sectors) {
      *chosen = {b, state == block_available};
    }
  }
  return chosen->block_num == no_block ? 1 : 0;
}

int count_live_sectors(flashfs* fs, int16_t block_num, flashfs_sector* buffer, uint32_t* count) {
  *count = 0;
  for (uint16_t s = 0; s < fs->flashfs_blocks[block_num].num_sectors; s++) {
    process_suspend();
    if (read_sector(fs, {block_num, s}, buffer, only_fileid) != 0) {
      return 1;
    }
    *count += is_live(buffer->fileid) ? 1 : 0;
  }
  return 0;
}

void redirect_sector(flashfs* fs, flashfs_sctr_ptr from, flashfs_sctr_ptr to) {
  for (flashfs_sctr_map* file = fs->file_map; file != nullptr; file = file->next) {
    for (auto* entry = file->sctr_list; entry != nullptr; entry = entry->next) {
      if (entry->sctr_ptr == from) {
        entry->sctr_ptr = to;
      }
    }
  }
}

// Packs the live sectors of a block into the first sectors of another.
int pack_live_sectors(flashfs* fs, int16_t from, int16_t to, flashfs_sector* buffer) {
  uint16_t target = 0;
  for (uint16_t s = 0; s < fs->flashfs_blocks[from].num_sectors; s++) {
    process_suspend();
    if (read_sector(fs, {from, s}, buffer, only_fileid) != 0) {
      return 1;
    }
    if (!is_live(buffer->fileid)) {
      continue;
    }
    if (read_sector(fs, {from, s}, buffer, all_but_fileid) != 0 ||
        write_sector_copy(fs, {to, target}, buffer) != 0) {
      return 1;
    }
    redirect_sector(fs, {from, s}, {to, target});
    target++;
  }
  return 0;
}

// Empties a full-size committed block into a smaller one, so that it can be the spare.
int free_committed_block(flashfs* fs, int16_t committed, int16_t smaller) {
  sector_buffer buffer(fs);
  uint32_t live = 0;
  if (!buffer || count_live_sectors(fs, committed, buffer.get(), &live) != 0 ||
      fs->flashfs_blocks[smaller].num_sectors < live ||
      set_block_state(fs, smaller, block_invalid1) != 0 ||
      pack_live_sectors(fs, committed, smaller, buffer.get()) != 0) {
    return 1;
  }
  // In use before its source goes: a block left invalid1 would be erased by the next check.
  if (set_block_state(fs, smaller, block_in_use) != 0 ||
      set_block_state(fs, committed, block_invalid2) != 0 ||
      erase_block(fs, committed, true, false) != 0) {
    return 1;
  }
  fs->available_block = committed;
  return 0;
}

}  // namespace

int fsck_check_header(flashfs* fs, int16_t block_num, flashfs_blkheader* header, bool fix) {
  const uint32_t crc = blkheader_crc(header);
  if (header->block_num != static_cast<uint16_t>(block_num)) {
    flashfs_log(fs, "Checking block %d...bad block number (%d)", block_num,
                static_cast<uint16_t>(header->block_num));
  } else if (crc != flashfs_good_crc) {
    flashfs_log(fs, "Checking block %d...bad checksum (%d != %d)", block_num,
                static_cast<int>(flashfs_good_crc), static_cast<int>(crc));
  } else {
    return 0;
  }
  if (!fix) {
    return 1;
  }
  flashfs_log_open(fs, "erasing block %d...", block_num);
  if (erase_block(fs, block_num, true, false) != 0) {
    return 1;
  }
  console_print("done.%s", flashfs_log_suffix);
  return read_blkheader(fs, block_num, header, all_but_erase_count);
}

int fsck_scrub_block(flashfs* fs, int16_t block_num) {
  sector_buffer buffer(fs);
  if (!buffer) {
    console_print("Unable to alloc sctr\n");
    return 1;
  }
  const auto* bytes = reinterpret_cast<const uint8_t*>(buffer.view());
  for (uint16_t s = 0; s < fs->flashfs_blocks[block_num].num_sectors; s++) {
    if (read_sector(fs, {block_num, s}, buffer.get(), whole_sector) != 0) {
      console_print("Failed on sector read\n");
      return 1;
    }
    process_suspend();
    if (is_erased(buffer.view(), sizeof(flashfs_sector))) {
      continue;
    }
    int byte = 0;
    while (bytes[byte] == flash_erased_byte) {
      byte++;
    }
    flashfs_log(fs, "found corrupted block[%d] (byte %d, sector %d), fixing...", block_num, byte,
                s);
    return erase_block(fs, block_num, true, false);
  }
  return 0;
}

int fsck_establish_spare(flashfs* fs) {
  spare_search found;
  if (find_spare(fs, &found) != 0) {
    return 1;
  }
  if (found.available != no_block) {
    fs->available_block = found.available;
    return fsck_scrub_block(fs, found.available);
  }
  if (found.committed == no_block ||
      fs->flashfs_blocks[found.committed].num_sectors != fs->largest_block_size) {
    return 1;
  }
  given_up_block chosen;
  if (choose_block_to_give_up(fs, &chosen) != 0) {
    return 1;
  }
  if (!chosen.available && erase_block(fs, chosen.block_num, true, false) != 0) {
    return 1;
  }
  if (fs->flashfs_blocks[chosen.block_num].num_sectors == fs->largest_block_size) {
    fs->available_block = chosen.block_num;
    return 0;
  }
  return free_committed_block(fs, found.committed, chosen.block_num);
}
