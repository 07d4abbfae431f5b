// The lists of available sectors and slots.
#include "flashfs/available.h"

#include "flashfs/list_sort.h"

namespace {

flashfs_sctr_list_unordered* push_unordered(flashfs* fs, flashfs_sctr_list_unordered* head,
                                            flashfs_sctr_ptr pointer, uint8_t slot_no) {
  auto* entry = static_cast<flashfs_sctr_list_unordered*>(chunk_malloc(fs->sctr_ptr_chunk));
  if (entry != nullptr) {
    entry->next = head;
    entry->slot_no = slot_no;
    entry->sctr_ptr = pointer;
  }
  return entry;
}

uint32_t drop_block(flashfs* fs, flashfs_sctr_list_unordered** link, int16_t block_num) {
  uint32_t dropped = 0;
  while (*link != nullptr) {
    flashfs_sctr_list_unordered* entry = *link;
    if (entry->sctr_ptr.block_num == block_num) {
      *link = entry->next;
      chunk_free(fs->sctr_ptr_chunk, entry);
      dropped++;
    } else {
      link = &entry->next;
    }
  }
  return dropped;
}

flashfs_sctr_list_unordered unlink_head(flashfs* fs, flashfs_sctr_list_unordered** head) {
  flashfs_sctr_list_unordered* entry = *head;
  const flashfs_sctr_list_unordered held = *entry;
  *head = entry->next;
  chunk_free(fs->sctr_ptr_chunk, entry);
  return held;
}

bool lies_before(const flashfs_sctr_list_unordered& entry,
                 const flashfs_sctr_list_unordered& other) {
  return entry.sctr_ptr.block_num < other.sctr_ptr.block_num ||
         (entry.sctr_ptr.block_num == other.sctr_ptr.block_num &&
          entry.sctr_ptr.sctr_num < other.sctr_ptr.sctr_num);
}

bool is_pushed_later(const flashfs_sctr_list_unordered& entry,
                     const flashfs_sctr_list_unordered& other) {
  return entry.sctr_ptr.block_num > other.sctr_ptr.block_num ||
         (entry.sctr_ptr.block_num == other.sctr_ptr.block_num &&
          entry.sctr_ptr.sctr_num < other.sctr_ptr.sctr_num);
}

}  // namespace

int available_sector_push(flashfs* fs, flashfs_sctr_ptr pointer) {
  auto* entry = push_unordered(fs, fs->available_sectors, pointer, slot_of_sector);
  if (entry == nullptr) {
    return 1;
  }
  fs->available_sectors = entry;
  fs->num_available_sectors++;
  return 0;
}

int available_slot_push(flashfs* fs, flashfs_sctr_ptr pointer, uint8_t slot_no) {
  auto* entry = push_unordered(fs, fs->available_slots, pointer, slot_no);
  if (entry == nullptr) {
    return 1;
  }
  fs->available_slots = entry;
  fs->num_available_slots++;
  return 0;
}

bool available_can_give(const flashfs_sctr_list_unordered* head, uint32_t use_reserve) {
  return head != nullptr && (use_reserve != 0 || head->next != nullptr);
}

flashfs_sctr_ptr available_sector_take(flashfs* fs) {
  fs->num_available_sectors--;
  return unlink_head(fs, &fs->available_sectors).sctr_ptr;
}

flashfs_sctr_ptr available_slot_take(flashfs* fs, uint8_t* slot_no) {
  fs->num_available_slots--;
  const flashfs_sctr_list_unordered held = unlink_head(fs, &fs->available_slots);
  *slot_no = held.slot_no;
  return held.sctr_ptr;
}

void available_drop_block(flashfs* fs, int16_t block_num) {
  fs->num_available_sectors -= drop_block(fs, &fs->available_sectors, block_num);
  fs->num_available_slots -= drop_block(fs, &fs->available_slots, block_num);
}

void available_clear(flashfs* fs) {
  uint8_t slot_no = 0;
  while (fs->available_sectors != nullptr) {
    available_sector_take(fs);
  }
  while (fs->available_slots != nullptr) {
    available_slot_take(fs, &slot_no);
  }
}

void available_sort(flashfs* fs) {
  fs->available_sectors = list_sort(fs->available_sectors, is_pushed_later);
  fs->available_slots = list_sort(fs->available_slots, is_pushed_later);
}

void available_sort_slots(flashfs* fs) {
  // One pass of neighbour exchanges is all that a list needs that is in order but for a few
  // entries; repeated passes would take the square of the length on others.
  bool exchanged = false;
  for (flashfs_sctr_list_unordered* entry = fs->available_slots;
       entry != nullptr && entry->next != nullptr; entry = entry->next) {
    if (lies_before(*entry->next, *entry)) {
      swap_sctr_ptr(entry);
      exchanged = true;
    }
  }
  if (exchanged) {
    fs->available_slots = list_sort(fs->available_slots, lies_before);
  }
}

void swap_sctr_ptr(flashfs_sctr_list_unordered* entry) {
  flashfs_sctr_list_unordered* successor = entry->next;
  const flashfs_sctr_list_unordered held = *entry;
  entry->slot_no = successor->slot_no;
  entry->sctr_ptr = successor->sctr_ptr;
  successor->slot_no = held.slot_no;
  successor->sctr_ptr = held.sctr_ptr;
}
