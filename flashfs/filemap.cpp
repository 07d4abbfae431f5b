// The file map, its index, and the lists of its entries.
#include "flashfs/filemap.h"

#include <new>
#include <utility>

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
    if (page == nullptr || page->used == 0) {
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

filemap_record* record_of(flashfs_sctr_map* file) {
  return static_cast<filemap_record*>(file);
}

const filemap_record* record_of(const flashfs_sctr_map* file) {
  return static_cast<const filemap_record*>(file);
}

// --- entries of lists ---

void describe(listed_slot* entry, const flashfs_dir_slot& slot) {
  entry->name_hash = slot_name_hash(slot);
  entry->entry_fileid = slot.entry_fileid;
  entry->mode = slot.mode;
}

// For a slot with these contents, or, when there are none, for a sector. Null when there is no
// memory.
flashfs_sctr_list_ordered* allocate_entry(flashfs* fs, const flashfs_dir_slot* slot) {
  if (slot == nullptr) {
    return static_cast<flashfs_sctr_list_ordered*>(chunk_malloc(fs->sctr_ptr_chunk));
  }
  auto* entry = new (std::nothrow) listed_slot{};
  if (entry != nullptr) {
    describe(entry, *slot);
  }
  return entry;
}

void free_entry(flashfs* fs, flashfs_sctr_list_ordered* entry) {
  listed_slot* slot = as_listed_slot(entry);
  if (slot == nullptr) {
    chunk_free(fs->sctr_ptr_chunk, entry);
    return;
  }
  delete slot;
}

// What a list entry is made from.
struct entry_contents {
  uint16_t owner_fileid;
  ppc_mode_t mode_of_found_owner;
  uint16_t seq_no;
  uint8_t slot_no;
  const flashfs_dir_slot* slot;  // null: none
};

entry_contents contents_of_slot(const flashfs_dir_slot& slot, uint8_t slot_no) {
  return {slot.dir_fileid, mode_of_found_directory, slot.seq_no, slot_no,
          is_slot_index(slot_no) ? &slot : nullptr};
}

entry_contents contents_of(const flashfs_sector* sector, uint8_t slot_no) {
  if (sector->fileid == fileid_root) {
    return contents_of_slot(sector->slots[slot_no % slots_per_sector], slot_no);
  }
  return {sector->fileid, mode_of_found_file, sector->seq_no, slot_of_sector, nullptr};
}

// A list entry, not linked yet, and the file that it belongs to, made when it is unknown. Null when
// there is no memory.
flashfs_sctr_list_ordered* new_list_entry(flashfs* fs, flashfs_sctr_ptr pointer,
                                          const entry_contents& contents,
                                          flashfs_sctr_map** owner) {
  flashfs_sctr_list_ordered* entry = allocate_entry(fs, contents.slot);
  if (entry == nullptr) {
    return nullptr;
  }
  entry->seq_no = contents.seq_no;
  entry->slot_no = contents.slot_no;
  entry->sctr_ptr = pointer;
  *owner = filemap_lookup(fs, contents.owner_fileid);
  if (*owner == nullptr) {
    *owner = filemap_insert(fs, contents.owner_fileid, 0, contents.mode_of_found_owner);
  }
  if (*owner == nullptr) {
    free_entry(fs, entry);
    return nullptr;
  }
  return entry;
}

void set_before(flashfs_sctr_list_ordered* entry, flashfs_sctr_list_ordered* before) {
  if (listed_slot* slot = as_listed_slot(entry); slot != nullptr) {
    slot->before = before;
  }
}

void add_to_names(flashfs_sctr_map* directory, listed_slot* slot) {
  std::unique_ptr<name_index>& names = record_of(directory)->names;
  if (names == nullptr) {
    return;
  }
  names->add(slot);
  if (names->is_crowded()) {
    std::unique_ptr<name_index> larger = name_index::make(directory->sctr_list);
    if (larger != nullptr) {
      names = std::move(larger);
    }
  }
}

// The file that a slot names looks for its name again, ...
void forget_name(const flashfs* fs, uint16_t fileid) {
  const flashfs_sctr_map* file = filemap_lookup(fs, fileid);
  if (file != nullptr) {
    record_of(file)->name = nullptr;
  }
}

// ... if it is this slot that it has found.
void forget_name(const flashfs* fs, const listed_slot* slot) {
  const flashfs_sctr_map* file = filemap_lookup(fs, slot->entry_fileid);
  if (file != nullptr && record_of(file)->name == slot) {
    record_of(file)->name = nullptr;
  }
}

// Links an entry behind another (null: as the head).
void link_behind(flashfs* fs, flashfs_sctr_map* file, flashfs_sctr_list_ordered* before,
                 flashfs_sctr_list_ordered* entry) {
  flashfs_sctr_list_ordered*& link = before == nullptr ? file->sctr_list : before->next;
  entry->next = link;
  link = entry;
  set_before(entry, before);
  set_before(entry->next, entry);
  filemap_record* record = record_of(file);
  if (record->run != nullptr && entry->seq_no <= record->run->seq_no) {
    record->run = entry;  // what has the same number breaks the run behind it
  }
  if (listed_slot* slot = as_listed_slot(entry); slot != nullptr) {
    forget_name(fs, slot->entry_fileid);
    add_to_names(file, slot);
  }
}

// Unlinks an entry that stands behind another (null: that is the head) and frees it.
void unlink_behind(flashfs* fs, flashfs_sctr_map* file, flashfs_sctr_list_ordered* before,
                   flashfs_sctr_list_ordered* entry) {
  (before == nullptr ? file->sctr_list : before->next) = entry->next;
  set_before(entry->next, before);
  filemap_record* record = record_of(file);
  if (record->run == entry || (record->run != nullptr && entry->seq_no < record->run->seq_no)) {
    record->run = before;
  }
  if (listed_slot* slot = as_listed_slot(entry); slot != nullptr) {
    forget_name(fs, slot);
    if (record->names != nullptr) {
      record->names->remove(slot);
    }
  }
  free_entry(fs, entry);
}

// The entry behind which one with this number belongs; null: it becomes the head.
flashfs_sctr_list_ordered* find_place(const flashfs_sctr_map* file, uint16_t seq_no) {
  flashfs_sctr_list_ordered* run = record_of(file)->run;
  flashfs_sctr_list_ordered* before = run != nullptr && run->seq_no < seq_no ? run : nullptr;
  flashfs_sctr_list_ordered* next = before == nullptr ? file->sctr_list : before->next;
  while (next != nullptr && next->seq_no < seq_no) {
    before = next;
    next = next->next;
  }
  return before;
}

flashfs_sctr_list_ordered* add_entry(flashfs* fs, flashfs_sctr_ptr pointer,
                                     const entry_contents& contents) {
  flashfs_sctr_map* owner = nullptr;
  flashfs_sctr_list_ordered* entry = new_list_entry(fs, pointer, contents, &owner);
  if (entry != nullptr) {
    link_behind(fs, owner, find_place(owner, entry->seq_no), entry);
  }
  return entry;
}

// Makes what goes with a list follow it after it was sorted.
void restore_order(flashfs_sctr_map* file) {
  flashfs_sctr_list_ordered* before = nullptr;
  for (auto* entry = file->sctr_list; entry != nullptr; entry = entry->next) {
    set_before(entry, before);
    before = entry;
  }
  record_of(file)->run = nullptr;
  record_of(file)->names.reset();
}

bool is_first_of_number(const listed_slot* slot) {
  return slot->before == nullptr || slot->before->seq_no != slot->seq_no;
}

void free_list(flashfs* fs, flashfs_sctr_map* file) {
  while (file->sctr_list != nullptr) {
    flashfs_sctr_list_ordered* entry = file->sctr_list;
    file->sctr_list = entry->next;
    free_entry(fs, entry);
  }
}

bool is_long(const flashfs_sctr_list_ordered* list) {
  uint32_t entries = 0;
  for (; list != nullptr && entries <= name_index::worthwhile_entries; list = list->next) {
    entries++;
  }
  return entries > name_index::worthwhile_entries;
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
  flashfs_sctr_list_ordered* entry =
      new_list_entry(fs, pointer, contents_of(sector, slot_no), &owner);
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
  auto* entry = place == nullptr ? nullptr : new (std::nothrow) filemap_record{};
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
  fs->file_index[fileid >> filemap_page_bits]->used++;
  fs->num_files++;
  return entry;
}

void filemap_remove(flashfs* fs, flashfs_sctr_map* entry) {
  sctr_list_clear(fs, entry);
  flashfs_sctr_map* before = index_before(fs, entry->fileid);
  *(before == nullptr ? &fs->file_map : &before->next) = entry->next;
  filemap_page* page = fs->file_index[entry->fileid >> filemap_page_bits];
  page->entries[entry->fileid % filemap_page_size] = nullptr;
  page->used--;
  fs->num_files--;
  delete record_of(entry);
}

void filemap_clear(flashfs* fs) {
  while (fs->file_map != nullptr) {
    flashfs_sctr_map* entry = fs->file_map;
    fs->file_map = entry->next;
    free_list(fs, entry);
    delete record_of(entry);
  }
  for (filemap_page*& page : fs->file_index) {
    delete page;
    page = nullptr;
  }
  fs->num_files = 0;
}

void flashfs_clear_maps(flashfs* fs) {
  note_flash_change();
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
  flashfs_sctr_list_ordered*& run = record_of(directory)->run;
  if (run == nullptr) {
    if (directory->sctr_list == nullptr || directory->sctr_list->seq_no != 0) {
      return 0;
    }
    run = directory->sctr_list;
  }
  while (run->next != nullptr && run->next->seq_no == run->seq_no + 1) {
    run = run->next;
  }
  return static_cast<uint16_t>(run->seq_no + 1);
}

uint16_t flashfs_next_fileid(const flashfs* fs) {
  if (fs->file_map == nullptr) {
    return fileid_first;
  }
  uint32_t fileid = fs->file_map->fileid + 1U;
  while (index_get(fs, static_cast<uint16_t>(fileid)) != nullptr) {
    const filemap_page* page = fs->file_index[fileid >> filemap_page_bits];
    const bool full_from_here = fileid % filemap_page_size == 0 && page->used == filemap_page_size;
    fileid += full_from_here ? filemap_page_size : 1;
  }
  return static_cast<uint16_t>(fileid);
}

int filemap_add_sector(flashfs* fs, flashfs_sctr_ptr pointer, const flashfs_sector* sector,
                       uint8_t slot_no) {
  return add_entry(fs, pointer, contents_of(sector, slot_no)) == nullptr ? 1 : 0;
}

flashfs_sctr_list_ordered* filemap_add_slot(flashfs* fs, flashfs_sctr_ptr pointer, uint8_t slot_no,
                                            const flashfs_dir_slot& slot) {
  return add_entry(fs, pointer, contents_of_slot(slot, slot_no));
}

void filemap_redirect_slot(flashfs* fs, flashfs_sctr_map* directory,
                           flashfs_sctr_list_ordered* entry, flashfs_sctr_ptr pointer,
                           uint8_t slot_no, const flashfs_dir_slot& contents) {
  auto* slot = static_cast<listed_slot*>(entry);
  slot->sctr_ptr = pointer;
  slot->slot_no = slot_no;
  if (slot->entry_fileid != contents.entry_fileid) {
    forget_name(fs, slot);
    forget_name(fs, contents.entry_fileid);
    slot->entry_fileid = contents.entry_fileid;
  }
  const uint32_t hash = slot_name_hash(contents);
  if (slot->name_hash == hash) {
    return;
  }
  name_index* names = record_of(directory)->names.get();
  if (names != nullptr) {
    names->remove(slot);
  }
  slot->name_hash = hash;
  if (names != nullptr) {
    names->add(slot);
  }
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
    restore_order(file);
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
  if (const listed_slot* slot = as_listed_slot(entry); slot != nullptr) {
    unlink_behind(fs, file, slot->before, entry);
    return;
  }
  flashfs_sctr_list_ordered* before = nullptr;
  for (auto* each = file->sctr_list; each != entry; each = each->next) {
    before = each;
  }
  unlink_behind(fs, file, before, entry);
}

void sctr_list_remove_behind(flashfs* fs, flashfs_sctr_map* file,
                             flashfs_sctr_list_ordered* entry) {
  unlink_behind(fs, file, entry, entry == nullptr ? file->sctr_list : entry->next);
}

void sctr_list_clear(flashfs* fs, flashfs_sctr_map* file) {
  while (file->sctr_list != nullptr) {
    unlink_behind(fs, file, nullptr, file->sctr_list);
  }
}

uint32_t sctr_list_length(const flashfs_sctr_list_ordered* head) {
  uint32_t length = 0;
  for (; head != nullptr; head = head->next) {
    length++;
  }
  return length;
}

name_search::name_search(flashfs_sctr_map* directory, const char* name)
    : hash_(name_hash(name)), rest_(directory->sctr_list) {
  std::unique_ptr<name_index>& names = record_of(directory)->names;
  if (names == nullptr && is_long(directory->sctr_list)) {
    names = name_index::make(directory->sctr_list);
  }
  index_ = names.get();
  if (index_ != nullptr) {
    rest_ = index_->first(hash_);
  }
}

const listed_slot* name_search::next() {
  while (rest_ != nullptr) {
    const listed_slot* slot = as_listed_slot(rest_);
    rest_ = index_ != nullptr ? name_index::next(slot) : rest_->next;
    if (slot != nullptr && slot->name_hash == hash_) {
      return slot;
    }
  }
  return nullptr;
}

listed_slot* filemap_known_name(const flashfs* fs, const flashfs_sctr_map* file) {
  listed_slot*& name = record_of(file)->name;
  if (name == nullptr) {
    const flashfs_sctr_map* parent = filemap_lookup(fs, file->parent_fileid);
    name = parent == nullptr ? nullptr : sctr_list_find_naming(parent->sctr_list, file->fileid);
  }
  return name;
}

listed_slot* sctr_list_find_naming(flashfs_sctr_list_ordered* head, uint16_t fileid) {
  for (; head != nullptr; head = head->next) {
    listed_slot* slot = as_listed_slot(head);
    if (slot != nullptr && slot->entry_fileid == fileid) {
      return slot;
    }
  }
  return nullptr;
}

void filemap_set_parent(flashfs_sctr_map* file, uint16_t parent_fileid,
                        flashfs_sctr_list_ordered* name) {
  file->parent_fileid = parent_fileid;
  record_of(file)->name = as_listed_slot(name);
}

listed_slot* filemap_find_listed(const flashfs* fs, const flashfs_dir_slot& slot) {
  const flashfs_sctr_map* directory = filemap_lookup(fs, slot.dir_fileid);
  if (directory == nullptr) {
    return nullptr;
  }
  // The file that it names mostly knows; the list does anyhow.
  const flashfs_sctr_map* file = filemap_lookup(fs, slot.entry_fileid);
  if (file != nullptr && file->parent_fileid == directory->fileid) {
    listed_slot* name = filemap_known_name(fs, file);
    if (name != nullptr && name->seq_no == slot.seq_no && is_first_of_number(name)) {
      return name;
    }
  }
  flashfs_sctr_list_ordered* entry = directory->sctr_list;
  while (entry != nullptr && (entry->seq_no != slot.seq_no || !is_slot_index(entry->slot_no))) {
    entry = entry->next;
  }
  return as_listed_slot(entry);
}

int dir_sector_clear_deleted(flashfs_sector* sector) {
  for (flashfs_dir_slot& slot : sector->slots) {
    if (slot.dir_fileid == fileid_invalidated) {
      ifs_runtime::memset(&slot, flash_erased_byte, sizeof(slot));
    }
  }
  return slots_per_sector;
}
