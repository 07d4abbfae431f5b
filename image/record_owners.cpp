// Owners, as the full check finds them. Sectors of data and slots of one id stand in one list
// there, by their numbers: where damage mixes them, a sector and a slot can stand for the same
// place.
#include "image/record_owners.h"

#include <algorithm>

#include "image/record_decode.h"

namespace image {

namespace {

// Something of an id's list.
struct list_item {
  uint16_t seq_no;
  bool is_slot;
  record_index index;
};
// In the order in which a mount meets them.
using found_lists = std::map<uint16_t, std::vector<list_item>>;

found_lists collect(const records& all) {
  found_lists lists;
  for (const block_record& block : all.blocks) {
    if (!block.is_read) {
      continue;
    }
    for (record_index s = block.first_sector; s < block.first_sector + block.sector_count; ++s) {
      const sector_record& sector = all.sectors[s];
      if (sector.kind == sector_kind::data && sector.verdict == sector_verdict::good) {
        lists[sector.bytes->fileid].push_back({sector.bytes->seq_no, false, s});
      }
      if (sector.kind != sector_kind::directory) {
        continue;
      }
      for (record_index k = sector.first_slot; k < sector.first_slot + slots_per_sector; ++k) {
        const slot_record& slot = all.slots[k];
        if (slot.verdict == slot_verdict::good) {
          lists[slot.bytes->dir_fileid].push_back({slot.bytes->seq_no, true, k});
        }
      }
    }
  }
  return lists;
}

bool is_contiguous(const std::vector<list_item>& items) {
  uint32_t expected = 0;
  for (const list_item& item : items) {
    if (item.seq_no != expected) {
      return false;
    }
    expected++;
  }
  return true;
}

entry_record& entry_of(records* all, uint16_t id, bool is_directory) {
  const auto [place, is_new] = all->entries.try_emplace(id);
  if (is_new) {
    place->second.id = id;
    place->second.is_directory = is_directory;
  }
  return place->second;
}

void drop(entry_record* entry, const list_item& item) {
  (item.is_slot ? entry->other_slots : entry->other_sectors).push_back(item.index);
}

void keep(records* all, entry_record* entry, const list_item& item) {
  if (item.is_slot) {
    all->slots[item.index].is_current = true;
    entry->slots.push_back(item.index);
  } else {
    all->sectors[item.index].is_current = true;
    entry->sectors.push_back(item.index);
  }
}

// Of those with one number the last one met counts.
void settle_list(records* all, uint16_t id, std::vector<list_item> items) {
  entry_record& entry = entry_of(all, id, items.front().is_slot);
  std::stable_sort(items.begin(), items.end(), [](const list_item& one, const list_item& other) {
    return one.seq_no < other.seq_no;
  });
  std::vector<list_item> kept;
  for (size_t i = 0; i < items.size(); ++i) {
    if (i + 1 < items.size() && items[i + 1].seq_no == items[i].seq_no) {
      drop(&entry, items[i]);
    } else {
      kept.push_back(items[i]);
    }
  }
  entry.has_gap = !entry.is_directory && !is_contiguous(kept);
  for (const list_item& item : kept) {
    if (entry.has_gap) {
      drop(&entry, item);
    } else {
      keep(all, &entry, item);
    }
  }
}

bool can_be_named(uint16_t id) {
  return id != fileid_invalidated && id != fileid_available;
}

// Gives what the slot names its parent; false when it has one already, or nothing can be named so.
bool place_entry(records* all, record_index index) {
  slot_record& slot = all->slots[index];
  const uint16_t id = slot.bytes->entry_fileid;
  if (!can_be_named(id)) {
    return false;
  }
  entry_record& entry = entry_of(all, id, false);
  if (entry.parent != 0) {
    return false;
  }
  entry.parent = slot.bytes->dir_fileid;
  entry.is_directory = is_directory_mode(slot.bytes->mode);
  entry.name = index;
  slot.is_name = true;
  return true;
}

// Damaged directories can contain each other and nest to any depth: what is still to be entered is
// kept in a list, and nothing is entered twice.
void walk(records* all, uint16_t from, bool is_reached, std::map<uint16_t, bool>* entered) {
  std::vector<uint16_t> pending{from};
  while (!pending.empty()) {
    const uint16_t id = pending.back();
    pending.pop_back();
    const auto found = all->entries.find(id);
    if (found == all->entries.end() || !entered->try_emplace(id, true).second) {
      continue;
    }
    found->second.is_reached = is_reached;
    std::vector<uint16_t> below;
    for (const record_index index : found->second.slots) {
      if (!place_entry(all, index)) {
        continue;
      }
      const uint16_t named = all->slots[index].bytes->entry_fileid;
      entry_record& entry = all->entries.find(named)->second;
      entry.is_reached = is_reached;
      if (entry.is_directory && named != fileid_root) {
        below.push_back(named);
      }
    }
    pending.insert(pending.end(), below.rbegin(), below.rend());
  }
}

void build_tree(records* all) {
  std::map<uint16_t, bool> entered;
  walk(all, fileid_root, true, &entered);
  std::vector<uint16_t> candidates;
  // Ids that a walk adds have parents, and so need not be looked at.
  for (auto& [id, entry] : all->entries) {
    if (id == fileid_root || entry.parent != 0) {
      continue;
    }
    candidates.push_back(id);
    if (entry.is_directory) {
      walk(all, id, false, &entered);
    }
  }
  for (const uint16_t id : candidates) {
    entry_record& entry = all->entries.find(id)->second;
    // What has lost all its sectors to a gap is nothing any more.
    entry.is_orphan = entry.parent == 0 && !entry.has_gap;
  }
}

// The file system refuses paths of this many bytes. Damaged directories can nest much deeper.
constexpr size_t path_bytes_max = 320;

constexpr uint64_t bytes_of_slot = sizeof(flashfs_dir_slot);

uint64_t size_of(const records& all, const entry_record& entry) {
  if (entry.is_directory) {
    return entry.slots.size() * bytes_of_slot;
  }
  if (entry.sectors.empty()) {
    return 0;
  }
  const flashfs_sector& last = *all.sectors[entry.sectors.back()].bytes;
  return uint64_t{entry.sectors.size() - 1} * sector_data_size + sector_bytes_used(&last);
}

// How many of a block's records count.
void count_current(records* all) {
  for (const sector_record& sector : all->sectors) {
    uint32_t current = sector.is_current ? 1 : 0;
    for (const slot_record& slot : all->slots_of(sector)) {
      current += slot.is_current ? 1 : 0;
    }
    all->blocks[sector.block].counts.current += current;
    all->total.current += current;
  }
}

std::string joined(const std::string& directory, std::string_view name) {
  std::string path = directory;
  if (path != "/") {
    path += '/';
  }
  return path.append(name);
}

}  // namespace

void find_owners(records* all) {
  for (auto& [id, items] : collect(*all)) {
    settle_list(all, id, std::move(items));
  }
  build_tree(all);
  for (auto& [id, entry] : all->entries) {
    entry.size = size_of(*all, entry);
  }
  count_current(all);
}

std::string path_of(const records& all, uint16_t id) {
  std::vector<std::string_view> names;
  const entry_record* entry = all.find_entry(id);
  if (entry == nullptr || !entry->is_reached) {
    return id == fileid_root ? "/" : "";
  }
  size_t length = 0;
  // What is reached was named once, in a directory that was reached before it.
  while (entry->id != fileid_root) {
    names.push_back(slot_name(*all.slots[*entry->name].bytes));
    length += names.back().size() + 1;
    if (length >= path_bytes_max) {
      return "";
    }
    entry = all.find_entry(entry->parent);
  }
  std::string path = "/";
  for (auto name = names.rbegin(); name != names.rend(); ++name) {
    path = joined(path, *name);
  }
  return path;
}

std::string path_of(const records& all, const slot_record& slot) {
  const std::string directory = path_of(all, slot.bytes->dir_fileid);
  if (directory.empty() || slot.bytes->entry_fileid == fileid_root) {
    return directory;
  }
  return joined(directory, slot_name(*slot.bytes));
}

const entry_record* find_path(const records& all, std::string_view path) {
  const entry_record* entry = all.find_entry(fileid_root);
  while (entry != nullptr) {
    while (!path.empty() && path.front() == '/') {
      path.remove_prefix(1);
    }
    if (path.empty()) {
      return entry;
    }
    const std::string_view name = path.substr(0, path.find('/'));
    path.remove_prefix(name.size());
    const auto named =
        std::find_if(entry->slots.begin(), entry->slots.end(), [&](record_index index) {
          const slot_record& slot = all.slots[index];
          return slot.is_name && slot.bytes->entry_fileid != fileid_root &&
                 slot_name(*slot.bytes) == name;
        });
    if (!entry->is_directory || named == entry->slots.end()) {
      return nullptr;
    }
    entry = all.find_entry(all.slots[*named].bytes->entry_fileid);
  }
  return nullptr;
}

std::string contents_of(const records& all, const entry_record& entry) {
  std::string contents;
  for (const record_index index : entry.sectors) {
    const flashfs_sector& sector = *all.sectors[index].bytes;
    contents.append(reinterpret_cast<const char*>(sector.data), sector_bytes_used(&sector));
  }
  return contents;
}

}  // namespace image
