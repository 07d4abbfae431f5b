// Garbage collection. Obsolete sectors and slots pile up until an erase block is copied through the
// spare - the one block that is always kept erased - and erased itself. Block states are programmed
// in a fixed order, so that a check can finish or undo whatever a power cut interrupts:
//
//   spare:   available -> invalid1 -> (copy) -> committed -> (victim erased) -> in_use
//   smaller victims are copied back and the spare goes committed -> invalid2 -> erased
#include "flashfs/gc.h"

#include "flashfs/available.h"
#include "flashfs/buffer.h"
#include "flashfs/erase.h"
#include "flashfs/filemap.h"
#include "flashfs/io.h"
#include "flashfs/log.h"
#include "flashfs/scan.h"

namespace {

// The best block of a search so far.
struct block_choice {
  int16_t block_num = no_block;
  uint16_t score = 0;
};

void consider_block(flashfs* fs, block_choice* best, int16_t block_num, uint16_t score) {
  // Every tie spends one flip, so that wear is spread over equal blocks.
  if (best->block_num == no_block || score > best->score ||
      (score == best->score && flashfs_toggle_random(fs) == 1)) {
    *best = {block_num, score};
  }
}

// Finds the largest block that was never brought into service.
int choose_fresh_block(flashfs* fs, block_choice* best) {
  for (int16_t b = 0; b < fs->num_blocks; b++) {
    if (b == fs->available_block) {
      continue;
    }
    process_may_suspend();
    uint8_t state = 0;
    if (read_block_state(fs, b, &state) != 0) {
      return 1;
    }
    if (state == block_available) {
      consider_block(fs, best, b, fs->flashfs_blocks[b].num_sectors);
    }
  }
  return 0;
}

block_choice choose_victim(flashfs* fs) {
  block_choice best;
  for (int16_t b = 0; b < fs->num_blocks; b++) {
    if (b != fs->available_block && fs->flashfs_blocks[b].invalid_sectors != 0) {
      consider_block(fs, &best, b, fs->flashfs_blocks[b].invalid_sectors);
    }
  }
  return best;
}

// As choose_victim, among the blocks whose header says that they are in use.
int choose_victim_in_use(flashfs* fs, block_choice* best) {
  for (int16_t b = 0; b < fs->num_blocks; b++) {
    if (b == fs->available_block) {
      continue;
    }
    uint8_t state = 0;
    if (read_block_state(fs, b, &state) != 0) {
      return 1;
    }
    if (state == block_in_use && fs->flashfs_blocks[b].invalid_sectors != 0) {
      consider_block(fs, best, b, fs->flashfs_blocks[b].invalid_sectors);
    }
  }
  return 0;
}

int bring_into_service(flashfs* fs, int16_t block_num) {
  if (set_block_state(fs, block_num, block_in_use) != 0) {
    return 1;
  }
  return flashfs_scan_block_available(fs, block_num);
}

// --- phase 1: fresh blocks, then blocks with invalid sectors ---

enum class phase_end { failed, collected, nothing_to_collect };

// Brings the largest fresh block into service, or, when there is none, reclaims the block with the
// most invalid sectors.
phase_end open_or_reclaim_one_block(flashfs* fs) {
  block_choice fresh;
  if (choose_fresh_block(fs, &fresh) != 0) {
    return phase_end::failed;
  }
  if (fresh.block_num != no_block) {
    return bring_into_service(fs, fresh.block_num) == 0 ? phase_end::collected : phase_end::failed;
  }
  const block_choice victim = choose_victim(fs);
  if (victim.block_num == no_block) {
    return phase_end::nothing_to_collect;
  }
  return flashfs_reclaim_block(fs, victim.block_num, 0) == 0 ? phase_end::collected
                                                             : phase_end::failed;
}

// One block after the other until the list can give.
phase_end open_or_reclaim_blocks(flashfs* fs, uint32_t use_reserve) {
  for (;;) {
    const bool had_sectors = fs->available_sectors != nullptr;
    const phase_end end = open_or_reclaim_one_block(fs);
    if (end != phase_end::collected || available_can_give(fs->available_sectors, use_reserve)) {
      return end;
    }
    // A block has been gained, but no sector, or not the one that was missing.
    if (had_sectors || fs->available_sectors == nullptr) {
      flashfs_log(fs, "inconsistency during sector reclamation");
      return phase_end::collected;
    }
  }
}

// --- phase 2: compaction of directory slots ---

uint32_t reclaimable_slots(const flashfs* fs) {
  uint32_t count = fs->num_available_slots;
  for (int16_t b = 0; b < fs->num_blocks; b++) {
    count += b == fs->available_block ? 0U : fs->flashfs_blocks[b].invalid_slots;
  }
  return count;
}

// Reclamation writes deleted slots back erased: afterwards a slot is live or on the list.
int drop_deleted_slots(flashfs* fs) {
  for (int16_t b = 0; b < fs->num_blocks; b++) {
    if (b != fs->available_block && fs->flashfs_blocks[b].invalid_slots != 0 &&
        flashfs_reclaim_block(fs, b, 0) != 0) {
      return 1;
    }
  }
  return 0;
}

// The live slots that must move, in a list that is given back whatever happens.
class slot_moves {
 public:
  explicit slot_moves(flashfs* fs) : fs_(fs) {}
  ~slot_moves() {
    while (head_ != nullptr) {
      drop_front();
    }
  }
  slot_moves(const slot_moves&) = delete;
  slot_moves& operator=(const slot_moves&) = delete;

  const flashfs_sctr_list_unordered* front() const {
    return head_;
  }
  void drop_front() {
    flashfs_sctr_list_unordered* entry = head_;
    head_ = entry->next;
    chunk_free(fs_->sctr_ptr_chunk, entry);
  }
  int push_front(flashfs_sctr_ptr pointer, uint8_t slot_no) {
    auto* entry = static_cast<flashfs_sctr_list_unordered*>(chunk_malloc(fs_->sctr_ptr_chunk));
    if (entry == nullptr) {
      return 1;
    }
    *entry = {head_, slot_no, pointer};
    head_ = entry;
    return 0;
  }

 private:
  flashfs* fs_;
  flashfs_sctr_list_unordered* head_ = nullptr;
};

uint32_t run_length(const flashfs_sctr_list_unordered* run) {
  uint32_t length = 0;
  for (const auto* entry = run; entry != nullptr && entry->sctr_ptr == run->sctr_ptr;
       entry = entry->next) {
    length++;
  }
  return length;
}

// Deletes the available slots of the run of `length` entries at `*link`, which leaves the list, and
// records the sector's other slots as moves.
int empty_run(flashfs* fs, flashfs_sctr_list_unordered** link, uint32_t length, slot_moves* moves) {
  const flashfs_sctr_ptr pointer = (*link)->sctr_ptr;
  bool deleted[slots_per_sector] = {};
  sector_buffer buffer(fs);
  if (!buffer) {
    return 1;
  }
  process_may_suspend();
  if (read_sector(fs, pointer, buffer.get(), whole_sector) != 0) {
    return 1;
  }
  const flashfs_sector held = *buffer.view();
  for (uint32_t i = 0; i < length; i++) {
    flashfs_sctr_list_unordered* entry = *link;
    delete_slot_buf(fs, pointer, buffer.get(), entry->slot_no);
    deleted[entry->slot_no % slots_per_sector] = true;
    *link = entry->next;
    chunk_free(fs->sctr_ptr_chunk, entry);
    fs->num_available_slots--;
  }
  if (update_sector(fs, pointer, &held, buffer.view()) != 0) {
    return 1;
  }
  for (uint8_t k = 0; k < slots_per_sector; k++) {
    if (!deleted[k] && moves->push_front(pointer, k) != 0) {
      flashfs_log(fs, "out of memory during flash garbage collection.");
      return 1;
    }
  }
  return 0;
}

// Empties the sectors whose live slots fit into the free slots of the sectors before them. The
// first sector is where moved slots go first.
int schedule_moves(flashfs* fs, slot_moves* moves) {
  uint32_t free_count = fs->num_available_slots;
  uint32_t pending = 0;
  flashfs_sctr_list_unordered** link = &fs->available_slots;
  bool first = true;
  while (*link != nullptr) {
    const uint32_t length = run_length(*link);
    if (first || free_count < pending + slots_per_sector) {
      for (uint32_t i = 0; i < length; i++) {
        link = &(*link)->next;
      }
      first = false;
      continue;
    }
    if (empty_run(fs, link, length, moves) != 0) {
      return 1;
    }
    pending += slots_per_sector - length;
    free_count -= length;
  }
  return 0;
}

// Copies one live slot into the lowest free one, then deletes it where it was.
int move_slot(flashfs* fs, flashfs_sctr_ptr source, uint8_t source_slot) {
  process_may_suspend();
  flashfs_dir_slot slot;
  if (read_slot(fs, source, source_slot, &slot) != 0) {
    return 1;
  }
  flashfs_sctr_list_ordered* reference = filemap_find_listed(fs, slot);
  if (reference == nullptr || fs->available_slots == nullptr) {
    flashfs_log(fs, "Collecting garbage, inconsistency!!!");
    return 1;
  }
  const flashfs_sctr_ptr target = fs->available_slots->sctr_ptr;
  const uint8_t target_slot = fs->available_slots->slot_no;
  flashfs_dir_slot held;
  if (read_slot(fs, target, target_slot, &held) != 0 ||
      update_slot(fs, target, target_slot, &held, &slot) != 0 ||
      obsolete_slot(fs, source, source_slot, slot.dir_fileid) != 0) {
    return 1;
  }
  uint8_t taken_slot = 0;
  const flashfs_sctr_ptr taken = available_slot_take(fs, &taken_slot);
  filemap_redirect_slot(fs, filemap_lookup(fs, slot.dir_fileid), reference, taken, taken_slot,
                        slot);
  return 0;
}

int compact_slots(flashfs* fs) {
  if (drop_deleted_slots(fs) != 0) {
    return 1;
  }
  available_sort_slots(fs);
  slot_moves moves(fs);
  if (schedule_moves(fs, &moves) != 0) {
    return 1;
  }
  for (; moves.front() != nullptr; moves.drop_front()) {
    if (move_slot(fs, moves.front()->sctr_ptr, moves.front()->slot_no) != 0) {
      return 1;
    }
  }
  return 0;
}

// --- phase 3: the blocks from which compaction has taken what was live ---

int reclaim_emptied_blocks(flashfs* fs, uint32_t use_reserve) {
  do {
    block_choice victim;
    if (choose_victim_in_use(fs, &victim) != 0) {
      return 1;
    }
    if (victim.block_num == no_block) {
      return 0;
    }
    if (flashfs_reclaim_block(fs, victim.block_num, 0) != 0) {
      return 1;
    }
  } while (!available_can_give(fs->available_sectors, use_reserve));
  return 0;
}

// --- reclamation of one block ---

// Whether a copy would hold anything: a directory sector may have nothing but free slots.
bool has_live_slot(const flashfs_sector* sector) {
  for (const flashfs_dir_slot& slot : sector->slots) {
    if (slot.dir_fileid != fileid_available) {
      return true;
    }
  }
  return false;
}

// Copies the victim's live sectors to the same places of the spare.
int copy_live_sectors(flashfs* fs, int16_t victim, int16_t spare, flashfs_sector* buffer) {
  for (uint16_t s = 0; s < fs->flashfs_blocks[victim].num_sectors; s++) {
    process_may_suspend();
    if (read_sector(fs, {victim, s}, buffer, only_fileid) != 0) {
      return 1;
    }
    if (!is_live(buffer->fileid)) {
      continue;
    }
    if (read_sector(fs, {victim, s}, buffer, all_but_fileid) != 0) {
      return 1;
    }
    if (buffer->fileid == fileid_root) {
      dir_sector_clear_deleted(buffer);
      if (!has_live_slot(buffer)) {
        continue;
      }
    }
    if (write_sector_copy(fs, {spare, s}, buffer) != 0) {
      return 1;
    }
  }
  return 0;
}

void redirect_pointers(flashfs* fs, int16_t from, int16_t to) {
  for (flashfs_sctr_map* file = fs->file_map; file != nullptr; file = file->next) {
    for (auto* entry = file->sctr_list; entry != nullptr; entry = entry->next) {
      if (entry->sctr_ptr.block_num == from) {
        entry->sctr_ptr.block_num = to;
      }
    }
  }
}

// The spare takes the erased victim's place, and the victim becomes the spare. `header` is the
// spare's, as it stands.
int exchange_with_spare(flashfs* fs, int16_t victim, int16_t spare, flashfs_blkheader* header) {
  redirect_pointers(fs, victim, spare);
  process_may_suspend();
  if (change_block_state(fs, spare, header, block_in_use) != 0 ||
      flashfs_scan_block_available(fs, spare) != 0) {
    return 1;
  }
  fs->available_block = victim;
  return 0;
}

// A victim smaller than the largest block cannot become the spare: its contents go back.
int copy_back(flashfs* fs, int16_t victim, int16_t spare, flashfs_sector* buffer) {
  flashfs_blkheader header = {};
  if (read_blkheader(fs, victim, &header, number_and_state) != 0 ||
      change_block_state(fs, victim, &header, block_invalid1) != 0) {
    return 1;
  }
  for (uint16_t s = 0; s < fs->flashfs_blocks[spare].num_sectors; s++) {
    process_may_suspend();
    if (read_sector(fs, {spare, s}, buffer, only_fileid) != 0) {
      return 1;
    }
    if (is_live(buffer->fileid) && (read_sector(fs, {spare, s}, buffer, all_but_fileid) != 0 ||
                                    write_sector_copy(fs, {victim, s}, buffer) != 0)) {
      return 1;
    }
  }
  if (change_block_state(fs, victim, &header, block_in_use) != 0 ||
      set_block_state(fs, spare, block_invalid2) != 0 || erase_block(fs, spare, true, false) != 0) {
    return 1;
  }
  return flashfs_scan_block_available(fs, victim);
}

}  // namespace

int flashfs_collect_garbage(flashfs* fs, uint32_t use_reserve) {
  switch (open_or_reclaim_blocks(fs, use_reserve)) {
    case phase_end::failed:
      return 1;
    case phase_end::collected:
      return 0;
    case phase_end::nothing_to_collect:
      break;
  }
  if (reclaimable_slots(fs) < slots_per_sector) {
    return 0;
  }
  if (compact_slots(fs) != 0) {
    return 1;
  }
  return reclaim_emptied_blocks(fs, use_reserve);
}

int flashfs_reclaim_block(flashfs* fs, int16_t victim, uint32_t verify) {
  const int16_t spare = fs->available_block;
  sector_buffer buffer(fs);
  if (!buffer) {
    return 1;
  }
  process_may_suspend();
  available_drop_block(fs, victim);
  flashfs_blkheader header = {};
  if (read_blkheader(fs, spare, &header, number_and_state) != 0 ||
      change_block_state(fs, spare, &header, block_invalid1) != 0 ||
      copy_live_sectors(fs, victim, spare, buffer.get()) != 0 ||
      change_block_state(fs, spare, &header, block_committed) != 0 ||
      erase_block(fs, victim, true, verify != 0) != 0) {
    return 1;
  }
  if (fs->flashfs_blocks[victim].num_sectors == fs->largest_block_size) {
    return exchange_with_spare(fs, victim, spare, &header);
  }
  return copy_back(fs, victim, spare, buffer.get());
}

uint32_t flashfs_toggle_random(flashfs* fs) {
  fs->random = fs->random == 0 ? 1 : 0;
  return fs->random;
}
