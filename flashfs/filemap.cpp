// The file map and the lists of sectors and slots: what the mounted file system knows of where
// things lie. Nothing here is on flash; mounting rebuilds it from every sector read.
#include <new>

#include "flashfs/flashfs.h"
#include "flashfs/list_sort.h"

namespace {

// Modes of entries known only by something that belongs to them.
constexpr ppc_mode_t mode_of_found_directory = 0x4600;
constexpr ppc_mode_t mode_of_found_file = 0x8600;

flashfs_sctr_map* index_get(const flashfs* fs, uint16_t fileid) {
  const filemap_page* page = fs->file_index[fileid >> filemap_page_bits];
  return page == nullptr ? nullptr : page->entries[fileid % filemap_page_size];
}

// Where the index holds the id; null when there is no memory for the page.
flashfs_sctr_map** index_place(flashfs* fs, uint16_t fileid) {
  filemap_page*& page = fs->file_index[fileid >> filemap_page_bits];
  if (page == nullptr) {
    page = new (std::nothrow) filemap_page{};
    if (page == nullptr) {
      return nullptr;
    }
  }
  return &page->entries[fileid % filemap_page_size];
}

// The entry with the highest id below the given one, or null.
flashfs_sctr_map* index_before(const flashfs* fs, uint32_t fileid) {
  while (fileid > 0) {
    const filemap_page* page = fs->file_index[(fileid - 1) >> filemap_page_bits];
    if (page == nullptr) {
      fileid = (fileid - 1) & ~(filemap_page_size - 1);
      continue;
    }
    fileid--;
    if (page->entries[fileid % filemap_page_size] != nullptr) {
      return page->entries[fileid % filemap_page_size];
    }
  }
  return nullptr;
}

// A list entry for a sector's data or its slot `slot_no`, not linked yet, and the file that it
// belongs to, made when it is unknown. Null when there is no memory.
flashfs_sctr_list_ordered* new_list_entry(flashfs* fs, flashfs_sctr_ptr pointer,
                                          const flashfs_sector* sector, uint8_t slot_no,
                                          flashfs_sctr_map** owner) {
  const bool in_directory = sector->fileid == fileid_root;
  const flashfs_dir_slot& slot = sector->slots[slot_no % slots_per_sector];
  const uint16_t owner_fileid = in_directory ? slot.dir_fileid : sector->fileid;

  auto* entry = static_cast<flashfs_sctr_list_ordered*>(chunk_malloc(fs->sctr_ptr_chunk));
  if (entry == nullptr) {
    return nullptr;
  }
  *owner = filemap_lookup(fs, owner_fileid);
  if (*owner == nullptr) {
    *owner = filemap_insert(fs, owner_fileid, 0,
                            in_directory ? mode_of_found_directory : mode_of_found_file);
  }
  if (*owner == nullptr) {
    chunk_free(fs->sctr_ptr_chunk, entry);
    return nullptr;
  }
  entry->seq_no = in_directory ? slot.seq_no : sector->seq_no;
  entry->slot_no = in_directory ? slot_no : slot_of_sector;
  entry->sctr_ptr = pointer;
  return entry;
}

using add_sector_function = int (*)(flashfs*, flashfs_sctr_ptr, const flashfs_sector*, uint8_t);

int add_sector_all(flashfs* fs, flashfs_sctr_ptr pointer, const flashfs_sector* sector,
                   add_sector_function add_sector) {
  if (sector->fileid != fileid_root) {
    return add_sector(fs, pointer, sector, slot_of_sector);
  }
  for (uint8_t k = 0; k < slots_per_sector; k++) {
    const uint16_t dir_fileid = sector->slots[k].dir_fileid;
    if (dir_fileid == fileid_invalidated) {
      fs->flashfs_blocks[pointer.block_num].invalid_slots++;
    } else if (dir_fileid != fileid_available && add_sector(fs, pointer, sector, k) != 0) {
      return 1;
    }
  }
  return 0;
}

int collect_sector(flashfs* fs, flashfs_sctr_ptr pointer, const flashfs_sector* sector,
                   uint8_t slot_no) {
  flashfs_sctr_map* owner = nullptr;
  flashfs_sctr_list_ordered* entry = new_list_entry(fs, pointer, sector, slot_no, &owner);
  if (entry == nullptr) {
    return 1;
  }
  entry->next = owner->sctr_list;
  owner->sctr_list = entry;
  return 0;
}

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

}  // namespace

flashfs_sctr_map* filemap_lookup(const flashfs* fs, uint16_t fileid) {
  return index_get(fs, fileid);
}

flashfs_sctr_map* filemap_last(const flashfs* fs) {
  return index_before(fs, fileid_available);
}

flashfs_sctr_map* filemap_insert(flashfs* fs, uint16_t fileid, uint16_t parent_fileid,
                                 ppc_mode_t mode) {
  if (fileid == fileid_invalidated || fileid == fileid_available ||
      index_get(fs, fileid) != nullptr) {
    return nullptr;
  }
  flashfs_sctr_map** place = index_place(fs, fileid);
  auto* entry = place == nullptr ? nullptr : new (std::nothrow) flashfs_sctr_map{};
  if (entry == nullptr) {
    return nullptr;
  }
  entry->fileid = fileid;
  entry->parent_fileid = parent_fileid;
  entry->mode = mode;
  flashfs_sctr_map* before = index_before(fs, fileid);
  flashfs_sctr_map** link = before == nullptr ? &fs->file_map : &before->next;
  entry->next = *link;
  *link = entry;
  *place = entry;
  fs->num_files++;
  return entry;
}

void filemap_remove(flashfs* fs, flashfs_sctr_map* entry) {
  sctr_list_clear(fs, entry);
  flashfs_sctr_map* before = index_before(fs, entry->fileid);
  *(before == nullptr ? &fs->file_map : &before->next) = entry->next;
  fs->file_index[entry->fileid >> filemap_page_bits]->entries[entry->fileid % filemap_page_size] =
      nullptr;
  fs->num_files--;
  delete entry;
}

void filemap_clear(flashfs* fs) {
  while (fs->file_map != nullptr) {
    flashfs_sctr_map* entry = fs->file_map;
    fs->file_map = entry->next;
    sctr_list_clear(fs, entry);
    delete entry;
  }
  for (filemap_page*& page : fs->file_index) {
    delete page;
    page = nullptr;
  }
  fs->num_files = 0;
}

int filemap_add_sector(flashfs* fs, flashfs_sctr_ptr pointer, const flashfs_sector* sector,
                       uint8_t slot_no) {
  flashfs_sctr_map* owner = nullptr;
  flashfs_sctr_list_ordered* entry = new_list_entry(fs, pointer, sector, slot_no, &owner);
  if (entry == nullptr) {
    return 1;
  }
  flashfs_sctr_list_ordered** link = &owner->sctr_list;
  while (*link != nullptr && (*link)->seq_no < entry->seq_no) {
    link = &(*link)->next;
  }
  entry->next = *link;
  *link = entry;
  return 0;
}

int filemap_add_sector_all(flashfs* fs, flashfs_sctr_ptr pointer, const flashfs_sector* sector) {
  return add_sector_all(fs, pointer, sector, filemap_add_sector);
}

int filemap_collect_sector_all(flashfs* fs, flashfs_sctr_ptr pointer,
                               const flashfs_sector* sector) {
  return add_sector_all(fs, pointer, sector, collect_sector);
}

void filemap_sort_lists(flashfs* fs) {
  for (flashfs_sctr_map* file = fs->file_map; file != nullptr; file = file->next) {
    file->sctr_list = list_sort(file->sctr_list, [](const auto& entry, const auto& other) {
      return entry.seq_no < other.seq_no;
    });
  }
}

flashfs_sctr_list_ordered* filemap_find_slot_in(flashfs* fs, const flashfs_sctr_map* entry,
                                                sector_buffer& buffer, bool* failed) {
  *failed = false;
  const flashfs_sctr_map* parent = filemap_lookup(fs, entry->parent_fileid);
  if (parent == nullptr) {
    return nullptr;
  }
  for (flashfs_sctr_list_ordered* each = parent->sctr_list; each != nullptr; each = each->next) {
    if (!is_slot_index(each->slot_no)) {
      continue;
    }
    if (read_sector_once(fs, each->sctr_ptr, buffer) != 0) {
      *failed = true;
      return nullptr;
    }
    if (buffer->slots[each->slot_no].entry_fileid == entry->fileid) {
      return each;
    }
  }
  return nullptr;
}

flashfs_sctr_list_ordered* filemap_find_slot(flashfs* fs, const flashfs_sctr_map* entry) {
  sector_buffer buffer(fs);
  bool failed = false;
  return buffer ? filemap_find_slot_in(fs, entry, buffer, &failed) : nullptr;
}

flashfs_sctr_list_ordered* sctr_list_find(flashfs_sctr_list_ordered* head, int16_t block_num,
                                          uint16_t sctr_num, uint8_t slot_no) {
  const flashfs_sctr_ptr pointer = {block_num, sctr_num};
  while (head != nullptr && !(head->sctr_ptr == pointer && head->slot_no == slot_no)) {
    head = head->next;
  }
  return head;
}

int sctr_list_is_contiguous_bad(const flashfs_sctr_list_ordered* head) {
  uint32_t expected = 0;
  for (; head != nullptr; head = head->next) {
    if (head->seq_no != expected) {
      return 1;
    }
    expected++;
  }
  return 0;
}

void sctr_list_remove(flashfs* fs, flashfs_sctr_map* file, flashfs_sctr_list_ordered* entry) {
  flashfs_sctr_list_ordered** link = &file->sctr_list;
  while (*link != entry) {
    link = &(*link)->next;
  }
  *link = entry->next;
  chunk_free(fs->sctr_ptr_chunk, entry);
}

void sctr_list_clear(flashfs* fs, flashfs_sctr_map* file) {
  while (file->sctr_list != nullptr) {
    flashfs_sctr_list_ordered* entry = file->sctr_list;
    file->sctr_list = entry->next;
    chunk_free(fs->sctr_ptr_chunk, entry);
  }
}

uint32_t sctr_list_length(const flashfs_sctr_list_ordered* head) {
  uint32_t length = 0;
  for (; head != nullptr; head = head->next) {
    length++;
  }
  return length;
}

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

int dir_sector_clear_deleted(flashfs_sector* sector) {
  for (flashfs_dir_slot& slot : sector->slots) {
    if (slot.dir_fileid == fileid_invalidated) {
      ifs_runtime::memset(&slot, flash_erased_byte, sizeof(slot));
    }
  }
  return slots_per_sector;
}
