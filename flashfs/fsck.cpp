// The check. Its work on blocks is fsck_blocks.cpp, that on the directory tree fsck_tree.cpp; here
// is the order of it all, the reading of every sector, and duplicated and broken lists.
#include "flashfs/fsck.h"

#include "flashfs/available.h"
#include "flashfs/buffer.h"
#include "flashfs/entry.h"
#include "flashfs/erase.h"
#include "flashfs/filemap.h"
#include "flashfs/fsck_blocks.h"
#include "flashfs/fsck_tree.h"
#include "flashfs/gc.h"
#include "flashfs/io.h"
#include "flashfs/log.h"
#include "flashfs/scan.h"
#include "flashfs/status.h"
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

// The reading of all sectors.
struct sector_pass {
  flashfs* fs;
  bool quick;
  flashfs_sector* buffer;
  bool free_space_listed = true;  // all that has been met is on the available lists
  uint64_t flash_changes = 0;     // when the last sector had been read
};

// Reads what the check asks of a sector: when it is quick, of a data sector whose it is and its
// place in the file.
int read_for_check(const sector_pass& pass, flashfs_sctr_ptr pointer) {
  if (!pass.quick) {
    return read_sector(pass.fs, pointer, pass.buffer, whole_sector);
  }
  if (read_sector(pass.fs, pointer, pass.buffer, only_fileid) != 0) {
    return 1;
  }
  const uint16_t fileid = pass.buffer->fileid;
  if (!is_live(fileid)) {
    return 0;
  }
  return read_sector(pass.fs, pointer, pass.buffer,
                     fileid == fileid_root ? all_but_fileid : only_seq_no);
}

// Enters what a sector that is not obsolete holds into the file map, and what is free of it into
// the available lists. A free slot that is not erased is told when the free space is wanted: it is
// looked for again then.
int enter_sector(sector_pass& pass, flashfs_sctr_ptr pointer) {
  flashfs* fs = pass.fs;
  if (pass.buffer->fileid != fileid_available &&
      filemap_collect_sector_all(fs, pointer, pass.buffer) != 0) {
    return 1;
  }
  if (pass.buffer->fileid == fileid_root && !flashfs_free_slots_are_erased(pass.buffer)) {
    pass.free_space_listed = false;
  }
  return pass.free_space_listed ? flashfs_list_free(fs, pointer, pass.buffer) : 0;
}

// Enters one sector into the maps; unless the check is quick it is validated first.
int scan_sector(sector_pass& pass, flashfs_sctr_ptr pointer) {
  flashfs* fs = pass.fs;
  flashfs_block& block = fs->flashfs_blocks[pointer.block_num];
  process_may_suspend();
  if (read_for_check(pass, pointer) != 0) {
    return 1;
  }
  if (!pass.quick) {
    // Validation counts what it invalidates, and what stands in the sector afterwards is counted
    // below: once is enough.
    const flashfs_block counted = block;
    if (flashfs_check_sector(fs, pointer, pass.buffer) != 0) {
      return 1;
    }
    block = counted;
  }
  if (pass.buffer->fileid == fileid_invalidated) {
    block.invalid_sectors++;
    return 0;
  }
  if (enter_sector(pass, pointer) != 0) {
    flashfs_log(fs, "out of memory");
    return 1;
  }
  return 0;
}

int scan_sectors(sector_pass& pass, int16_t block_num) {
  for (uint16_t s = 0; s < pass.fs->flashfs_blocks[block_num].num_sectors; s++) {
    if (scan_sector(pass, {block_num, s}) != 0) {
      return 1;
    }
  }
  return 0;
}

// The only copy of what an interrupted reclamation had moved.
int keep_committed_block(flashfs* fs, int16_t block_num, flashfs_blkheader* header) {
  flashfs_log(fs, "changing status of block %d from \"committed\" to \"in use\".", block_num);
  return change_block_state(fs, block_num, header, block_in_use);
}

int first_pass_block(sector_pass& pass, int16_t block_num) {
  flashfs* fs = pass.fs;
  flashfs_blkheader header = {};
  if (read_blkheader(fs, block_num, &header, all_but_erase_count) != 0 ||
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
      return scan_sectors(pass, block_num);
    default:
      flashfs_log(fs, "erasing block %d with status %s", block_num,
                  block_state_text(blkheader_state(&header)));
      return erase_block(fs, block_num, true, false);
  }
}

int first_pass(sector_pass& pass) {
  for (int16_t b = 0; b < pass.fs->num_blocks; b++) {
    process_may_suspend();
    if (check_interrupted(pass.fs) || first_pass_block(pass, b) != 0) {
      return 1;
    }
  }
  pass.flash_changes = flash_change_count();
  filemap_sort_lists(pass.fs);
  return 0;
}

int second_pass(flashfs* fs) {
  for (int16_t b = 0; b < fs->num_blocks; b++) {
    process_may_suspend();
    flashfs_blkheader header = {};
    if (check_interrupted(fs) || read_blkheader(fs, b, &header, all_but_erase_count) != 0) {
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

int drop_file(flashfs* fs, flashfs_sctr_map* file) {
  flashfs_log(fs, "inconsistent sector list, fileid %d, parent_fileid %d", file->fileid,
              file->parent_fileid);
  for (const auto* entry = file->sctr_list; entry != nullptr; entry = entry->next) {
    process_may_suspend();
    if (obsolete_on_flash(fs, entry->sctr_ptr, entry->slot_no) != 0) {
      return 1;
    }
  }
  filemap_remove(fs, file);
  return 0;
}

int drop_broken_files(flashfs* fs) {
  for (flashfs_sctr_map* file = fs->file_map; file != nullptr;) {
    if (check_interrupted(fs)) {
      return 1;
    }
    flashfs_sctr_map* next = file->next;
    if (is_regular_mode(file->mode) && sctr_list_is_contiguous_bad(file->sctr_list) != 0 &&
        drop_file(fs, file) != 0) {
      return 1;
    }
    file = next;
  }
  return 0;
}

// Lists the free space, unless the first pass has done so and nothing changed since.
int collect_available(flashfs* fs, bool listed) {
  if (listed) {
    available_sort(fs);
  } else {
    available_clear(fs);
  }
  for (int16_t b = 0; b < fs->num_blocks; b++) {
    process_may_suspend();
    uint8_t state = 0;
    if (read_block_state(fs, b, &state) != 0) {
      return 1;
    }
    if (state == block_in_use) {
      if (!listed && flashfs_scan_block_available(fs, b) != 0) {
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
int build_maps(sector_pass& pass) {
  flashfs* fs = pass.fs;
  return first_pass(pass) != 0 || second_pass(fs) != 0 || resolve_all_duplicates(fs) != 0 ||
                 drop_broken_files(fs) != 0
             ? 1
             : 0;
}

// Finds the spare and the free space; afterwards sectors and slots can be allocated.
int make_space_usable(const sector_pass& pass, bool reclaim_all) {
  flashfs* fs = pass.fs;
  if (fsck_establish_spare(fs) != 0) {
    flashfs_log(fs, "unable to allocate available block.");
    return 1;
  }
  if (collect_available(fs, pass.free_space_listed && flash_change_count() == pass.flash_changes) !=
      0) {
    return 1;
  }
  return reclaim_all ? reclaim_all_blocks(fs) : 0;
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
  sector_pass pass = {.fs = fs, .quick = quick != 0, .buffer = buffer.get()};
  if (!buffer || build_maps(pass) != 0) {
    return 1;
  }
  orphan_list orphans;
  if (fsck_place_entries(fs, &orphans) != 0 || make_space_usable(pass, reclaim_all != 0) != 0) {
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

int fsck_resolve_duplicates(flashfs* fs, flashfs_sctr_map* file) {
  flashfs_sctr_list_ordered* before = nullptr;
  flashfs_sctr_list_ordered* entry = file->sctr_list;
  while (entry != nullptr && entry->next != nullptr) {
    flashfs_sctr_list_ordered* later = entry->next;
    if (later->seq_no != entry->seq_no) {
      before = entry;
      entry = later;
      continue;
    }
    uint8_t state = 0;
    if (read_block_state(fs, later->sctr_ptr.block_num, &state) != 0) {
      return 1;
    }
    const bool keep_later = state == block_committed;
    const flashfs_sctr_list_ordered& dropped = keep_later ? *entry : *later;
    if (obsolete_on_flash(fs, dropped.sctr_ptr, dropped.slot_no) != 0) {
      return 1;
    }
    sctr_list_remove_behind(fs, file, keep_later ? before : entry);
    entry = keep_later ? later : entry;
  }
  return 0;
}
