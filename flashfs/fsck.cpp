// The check: rebuilds the in-memory state from flash and repairs what a power cut or an interrupted
// operation left. Blocks, headers, duplicated and broken sector lists, and the spare are dealt with
// here; the directory tree and its orphans in fsck_tree.cpp.
#include <cerrno>
#include <cstdio>

#include "flashfs/flashfs.h"
#include "flashfs/fsck_tree.h"
#include "window/clock.h"

namespace {

constexpr uint32_t sctr_ptr_chunk_elements = 512;

bool check_interrupted(const flashfs* fs) {
  if (intr_req() == 0) {
    return false;
  }
  flashfs_log(fs, "filesystem check interrupted!");
  return true;
}

// Enters one sector into the file map; unless the check is quick it is validated first.
int scan_sector(flashfs* fs, flashfs_sctr_ptr pointer, bool quick, flashfs_sector* buffer) {
  flashfs_block& block = fs->flashfs_blocks[pointer.block_num];
  process_may_suspend();
  if (read_sector(fs, pointer, buffer, quick ? only_fileid : whole_sector) != 0) {
    return 1;
  }
  if (!quick) {
    // Validation counts what it invalidates, and what stands in the sector afterwards is counted
    // below: once is enough.
    const flashfs_block counted = block;
    if (flashfs_check_sector(fs, pointer, buffer) != 0) {
      return 1;
    }
    block = counted;
  }
  if (buffer->fileid == fileid_invalidated) {
    block.invalid_sectors++;
    return 0;
  }
  if (buffer->fileid == fileid_available) {
    return 0;
  }
  if (quick && read_sector(fs, pointer, buffer, whole_sector) != 0) {
    return 1;
  }
  if (filemap_collect_sector_all(fs, pointer, buffer) != 0) {
    flashfs_log(fs, "out of memory");
    return 1;
  }
  return 0;
}

int scan_sectors(flashfs* fs, int16_t block_num, bool quick, flashfs_sector* buffer) {
  for (uint16_t s = 0; s < fs->flashfs_blocks[block_num].num_sectors; s++) {
    if (scan_sector(fs, {block_num, s}, quick, buffer) != 0) {
      return 1;
    }
  }
  return 0;
}

// The only copy of what an interrupted reclamation had moved.
int keep_committed_block(flashfs* fs, int16_t block_num, flashfs_blkheader* header) {
  flashfs_log(fs, "changing status of block %d from \"committed\" to \"in use\".", block_num);
  blkheader_set_state(header, block_in_use);
  return write_blkheader(fs, block_num, header);
}

int first_pass_block(flashfs* fs, int16_t block_num, bool quick, flashfs_sector* buffer) {
  flashfs_blkheader header;
  if (read_blkheader(fs, block_num, &header) != 0 ||
      fsck_check_header(fs, block_num, &header, true) != 0) {
    return 1;
  }
  switch (blkheader_state(&header)) {
    case block_available:
      return 0;
    case block_committed:
      if (keep_committed_block(fs, block_num, &header) != 0) {
        return 1;
      }
      [[fallthrough]];
    case block_in_use:
      return scan_sectors(fs, block_num, quick, buffer);
    default:
      flashfs_log(fs, "erasing block %d with status %s", block_num,
                  block_state_text(blkheader_state(&header)));
      return erase_block(fs, block_num, true, false);
  }
}

int first_pass(flashfs* fs, bool quick, flashfs_sector* buffer) {
  for (int16_t b = 0; b < fs->num_blocks; b++) {
    process_may_suspend();
    if (check_interrupted(fs) || first_pass_block(fs, b, quick, buffer) != 0) {
      return 1;
    }
  }
  filemap_sort_lists(fs);
  return 0;
}

int second_pass(flashfs* fs) {
  for (int16_t b = 0; b < fs->num_blocks; b++) {
    process_may_suspend();
    flashfs_blkheader header;
    if (check_interrupted(fs) || read_blkheader(fs, b, &header) != 0) {
      return 1;
    }
    if (fsck_check_header(fs, b, &header, false) != 0) {
      flashfs_log(fs, "Inconsistency in flash found on second pass");
      return 1;
    }
  }
  return 0;
}

int resolve_all_duplicates(flashfs* fs) {
  for (flashfs_sctr_map* file = fs->file_map; file != nullptr; file = file->next) {
    if (check_interrupted(fs) || fsck_resolve_duplicates(fs, file) != 0) {
      return 1;
    }
  }
  return 0;
}

int drop_file(flashfs* fs, flashfs_sctr_map* file, flashfs_sector* buffer) {
  flashfs_log(fs, "inconsistent sector list, fileid %d, parent_fileid %d", file->fileid,
              file->parent_fileid);
  for (const auto* entry = file->sctr_list; entry != nullptr; entry = entry->next) {
    process_may_suspend();
    if (obsolete_on_flash(fs, entry->sctr_ptr, entry->slot_no, buffer) != 0) {
      return 1;
    }
  }
  filemap_remove(fs, file);
  return 0;
}

int drop_broken_files(flashfs* fs, flashfs_sector* buffer) {
  for (flashfs_sctr_map* file = fs->file_map; file != nullptr;) {
    if (check_interrupted(fs)) {
      return 1;
    }
    flashfs_sctr_map* next = file->next;
    if (is_regular_mode(file->mode) && sctr_list_is_contiguous_bad(file->sctr_list) != 0 &&
        drop_file(fs, file, buffer) != 0) {
      return 1;
    }
    file = next;
  }
  return 0;
}

int collect_available(flashfs* fs) {
  for (int16_t b = 0; b < fs->num_blocks; b++) {
    process_may_suspend();
    flashfs_blkheader header;
    if (read_blkheader(fs, b, &header) != 0) {
      return 1;
    }
    const uint8_t state = blkheader_state(&header);
    if (state == block_in_use) {
      if (flashfs_scan_block_available(fs, b) != 0) {
        return 1;
      }
    } else if (state != block_available) {
      flashfs_log(fs, "block %d not available or in use, state: %s.", b, block_state_text(state));
      return 1;
    }
  }
  return 0;
}

int reclaim_all_blocks(flashfs* fs) {
  for (int16_t b = 0; b < fs->num_blocks; b++) {
    const int failure =
        b == fs->available_block ? erase_block(fs, b, true, true) : flashfs_reclaim_block(fs, b, 1);
    if (failure != 0) {
      return 1;
    }
  }
  return 0;
}

// Builds the maps from flash and puts the lists of sectors in order.
int build_maps(flashfs* fs, bool quick, flashfs_sector* buffer) {
  return first_pass(fs, quick, buffer) != 0 || second_pass(fs) != 0 ||
                 resolve_all_duplicates(fs) != 0 || drop_broken_files(fs, buffer) != 0
             ? 1
             : 0;
}

// Finds the spare and the free space; afterwards sectors and slots can be allocated.
int make_space_usable(flashfs* fs, bool reclaim_all) {
  if (fsck_establish_spare(fs) != 0) {
    flashfs_log(fs, "unable to allocate available block.");
    return 1;
  }
  if (collect_available(fs) != 0) {
    return 1;
  }
  return reclaim_all ? reclaim_all_blocks(fs) : 0;
}

// --- the spare ---

struct spare_search {
  int16_t available = no_block;  // the first full-size available block
  int16_t committed = no_block;  // the last committed block
};

int find_spare(flashfs* fs, spare_search* found) {
  for (int16_t b = 0; b < fs->num_blocks; b++) {
    process_suspend();
    flashfs_blkheader header;
    if (read_blkheader(fs, b, &header) != 0) {
      return 1;
    }
    const uint8_t state = blkheader_state(&header);
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
    flashfs_blkheader header;
    if (read_blkheader(fs, b, &header) != 0) {
      return 1;
    }
    const uint8_t state = blkheader_state(&header);
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

bool is_live(uint16_t fileid) {
  return fileid != fileid_invalidated && fileid != fileid_available;
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
    if (read_sector(fs, {from, s}, buffer, whole_sector) != 0) {
      return 1;
    }
    if (!is_live(buffer->fileid)) {
      continue;
    }
    if (write_sector(fs, {to, target}, buffer, whole_sector) != 0) {
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

int flashfs_fsck(flashfs* fs, uint32_t quick, uint32_t reclaim_all) {
  const int32_t started = unix_time();
  flashfs_clear_maps(fs);
  fs->sctr_ptr_chunk = chunk_create(sizeof(flashfs_sctr_list_either), sctr_ptr_chunk_elements);
  if (fs->sctr_ptr_chunk == nullptr) {
    flashfs_log(fs, "unable to allocate chunk of memory.");
    return 1;
  }
  sector_buffer buffer(fs);
  if (!buffer || build_maps(fs, quick != 0, buffer.get()) != 0) {
    return 1;
  }
  orphan_list orphans;
  if (fsck_place_entries(fs, &orphans) != 0 || make_space_usable(fs, reclaim_all != 0) != 0) {
    return 1;
  }
  if (flashfs_ensure_root_slot(fs) != 0) {
    flashfs_log(fs, "error initializing the root directory.");
    return 1;
  }
  fsck_relink_orphans(fs, orphans);
  ppc_statfs space;
  if (flashfs_space_count(fs, &space) != 0) {
    flashfs_log(fs, "Error obtaining space information.");
    return 1;
  }
  fs->ready = 1;
  flashfs_log(
      fs, "flashfs fsck took %d seconds.",
      static_cast<int>(static_cast<uint32_t>(unix_time()) - static_cast<uint32_t>(started)));
  return 0;
}

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
  printf("done.%s", flashfs_log_suffix);
  return read_blkheader(fs, block_num, header);
}

int fsck_scrub_block(flashfs* fs, int16_t block_num) {
  sector_buffer buffer(fs);
  if (!buffer) {
    puts("Unable to alloc sctr");
    return 1;
  }
  const auto* bytes = reinterpret_cast<const uint8_t*>(buffer.get());
  for (uint16_t s = 0; s < fs->flashfs_blocks[block_num].num_sectors; s++) {
    if (read_sector(fs, {block_num, s}, buffer.get(), whole_sector) != 0) {
      puts("Failed on sector read");
      return 1;
    }
    process_suspend();
    if (is_erased(buffer.get(), sizeof(flashfs_sector))) {
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

int fsck_resolve_duplicates(flashfs* fs, flashfs_sctr_map* file) {
  sector_buffer buffer(fs);
  if (!buffer) {
    return 1;
  }
  flashfs_sctr_list_ordered* entry = file->sctr_list;
  while (entry != nullptr && entry->next != nullptr) {
    flashfs_sctr_list_ordered* later = entry->next;
    if (later->seq_no != entry->seq_no) {
      entry = later;
      continue;
    }
    flashfs_blkheader header;
    if (read_blkheader(fs, later->sctr_ptr.block_num, &header) != 0) {
      return 1;
    }
    const bool keep_later = blkheader_state(&header) == block_committed;
    const flashfs_sctr_list_ordered& dropped = keep_later ? *entry : *later;
    if (obsolete_on_flash(fs, dropped.sctr_ptr, dropped.slot_no, buffer.get()) != 0) {
      return 1;
    }
    if (keep_later) {
      entry->sctr_ptr = later->sctr_ptr;
      entry->slot_no = later->slot_no;
    }
    entry->next = later->next;
    chunk_free(fs->sctr_ptr_chunk, later);
  }
  return 0;
}
