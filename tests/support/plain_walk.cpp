// Comparison of the indexes with a walk.
#include "tests/support/plain_walk.h"

#include <map>
#include <vector>

#include "flashfs/filemap.h"
#include "flashfs/io.h"
#include "flashfs/path.h"
#include "flashfs/slots.h"

namespace test_support {

namespace {

struct walked_slot {
  const flashfs_sctr_list_ordered* entry;
  flashfs_dir_slot slot;
};

// The slots of a list; strays are left out.
std::vector<walked_slot> walk_along(flashfs* fs, const flashfs_sctr_map* directory) {
  std::vector<walked_slot> slots;
  for (const auto* each = directory == nullptr ? nullptr : directory->sctr_list; each != nullptr;
       each = each->next) {
    walked_slot found = {each, {}};
    if (is_slot_index(each->slot_no) &&
        read_slot(fs, each->sctr_ptr, each->slot_no, &found.slot) == 0) {
      slots.push_back(found);
    }
  }
  return slots;
}

std::string name_of(const flashfs_dir_slot& slot) {
  char name[filename_buffer_size];
  dir_slot_get_name(&slot, name);
  return name;
}

uint16_t walk_to_next_slot_number(const flashfs_sctr_map* directory) {
  uint16_t next = 0;
  for (const auto* each = directory->sctr_list; each != nullptr && each->seq_no == next;
       each = each->next) {
    next++;
  }
  return next;
}

uint16_t walk_to_next_fileid(const flashfs* fs) {
  const flashfs_sctr_map* entry = fs->file_map;
  if (entry == nullptr) {
    return fileid_first;
  }
  while (entry->next != nullptr && entry->next->fileid == entry->fileid + 1) {
    entry = entry->next;
  }
  return static_cast<uint16_t>(entry->fileid + 1);
}

const flashfs_sctr_list_ordered* walk_to_slot(flashfs* fs, const flashfs_sctr_map* file) {
  for (const walked_slot& each : walk_along(fs, filemap_lookup(fs, file->parent_fileid))) {
    if (each.slot.entry_fileid == file->fileid) {
      return each.entry;
    }
  }
  return nullptr;
}

std::string text_of(uint16_t fileid) {
  return "file id " + std::to_string(fileid);
}

std::string difference_in_links(flashfs_sctr_map* directory) {
  const flashfs_sctr_list_ordered* before = nullptr;
  for (auto* each = directory->sctr_list; each != nullptr; each = each->next) {
    const listed_slot* slot = as_listed_slot(each);
    if (slot != nullptr && slot->before != before) {
      return text_of(directory->fileid) + ": a link back in its list";
    }
    before = each;
  }
  return flashfs_next_slot_seq_no(directory) == walk_to_next_slot_number(directory)
             ? ""
             : text_of(directory->fileid) + ": the next number of a slot";
}

std::string difference_in_names(flashfs* fs, const flashfs_sctr_map* directory) {
  std::map<std::string, uint16_t> first;
  for (const walked_slot& each : walk_along(fs, directory)) {
    first.emplace(name_of(each.slot), each.slot.entry_fileid);
    const auto* listed = static_cast<const listed_slot*>(each.entry);
    if (listed->name_hash != slot_name_hash(each.slot) ||
        listed->entry_fileid != each.slot.entry_fileid) {
      return text_of(directory->fileid) + ": what is known of a slot";
    }
  }
  first.emplace("a name that is not there", uint16_t{0});
  for (const auto& [name, fileid] : first) {
    if (is_directory_mode(directory->mode) &&
        dir_find(fs, directory->fileid, name.c_str()).fileid != fileid) {
      return text_of(directory->fileid) + ": the name \"" + name + "\"";
    }
  }
  return "";
}

}  // namespace

uint16_t walk_to_name(flashfs* fs, uint16_t dir_fileid, const char* name) {
  for (const walked_slot& each : walk_along(fs, filemap_lookup(fs, dir_fileid))) {
    if (dir_slot_name_equals(&each.slot, name)) {
      return each.slot.entry_fileid;
    }
  }
  return 0;
}

std::string difference_to_a_walk(flashfs* fs) {
  for (flashfs_sctr_map* file = fs->file_map; file != nullptr; file = file->next) {
    std::string difference = difference_in_links(file);
    if (difference.empty()) {
      difference = difference_in_names(fs, file);
    }
    if (!difference.empty()) {
      return difference;
    }
    if (filemap_find_slot(fs, file) != walk_to_slot(fs, file)) {
      return text_of(file->fileid) + ": its slot";
    }
  }
  return flashfs_next_fileid(fs) == walk_to_next_fileid(fs) ? "" : "the next file id";
}

}  // namespace test_support
