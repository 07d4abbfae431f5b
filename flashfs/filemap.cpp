// The file map, its index, and the lists of its entries.
#include "flashfs/filemap.h"

#include <new>

#include "flashfs/available.h"
#include "flashfs/buffer.h"
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

void flashfs_clear_maps(flashfs* fs) {
  sector_buffers_forget();
  for (int16_t b = 0; b < fs->num_blocks; b++) {
    fs->flashfs_blocks[b].invalid_sectors = 0;
    fs->flashfs_blocks[b].invalid_slots = 0;
  }
  if (fs->sctr_ptr_chunk != nullptr) {
    filemap_clear(fs);
    available_clear(fs);
    chunk_destroy(fs->sctr_ptr_chunk);
    fs->sctr_ptr_chunk = nullptr;
  }
  fs->ready = 0;
}

uint16_t flashfs_next_slot_seq_no(const flashfs_sctr_map* directory) {
  uint16_t next = 0;
  for (const flashfs_sctr_list_ordered* entry = directory->sctr_list;
       entry != nullptr && entry->seq_no == next; entry = entry->next) {
    next++;
  }
  return next;
}

uint16_t flashfs_next_fileid(const flashfs* fs) {
  const flashfs_sctr_map* entry = fs->file_map;
  if (entry == nullptr) {
    return fileid_first;
  }
  while (entry->next != nullptr && entry->next->fileid == entry->fileid + 1) {
    entry = entry->next;
  }
  return static_cast<uint16_t>(entry->fileid + 1);
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

void sctr_list_remove_behind(flashfs* fs, flashfs_sctr_list_ordered* entry) {
  flashfs_sctr_list_ordered* removed = entry->next;
  entry->next = removed->next;
  chunk_free(fs->sctr_ptr_chunk, removed);
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

int dir_sector_clear_deleted(flashfs_sector* sector) {
  for (flashfs_dir_slot& slot : sector->slots) {
    if (slot.dir_fileid == fileid_invalidated) {
      ifs_runtime::memset(&slot, flash_erased_byte, sizeof(slot));
    }
  }
  return slots_per_sector;
}
