// The check's work on the directory tree.
#include "flashfs/fsck_tree.h"

#include <cerrno>
#include <cstdio>
#include <new>

#include "flashfs/alloc.h"
#include "flashfs/buffer.h"
#include "flashfs/entry.h"
#include "flashfs/filemap.h"
#include "flashfs/io.h"
#include "flashfs/log.h"
#include "flashfs/path.h"

namespace {

constexpr const char* lost_and_found = "/lost+found";

// A depth-first walk of directories. Damaged flash can nest them to any depth and in circles, so
// the frames lie on the heap.
class tree_walk {
 public:
  explicit tree_walk(flashfs* fs) : fs_(fs), buffer_(fs) {}
  ~tree_walk() {
    while (top_ != nullptr) {
      leave();
    }
  }
  tree_walk(const tree_walk&) = delete;
  tree_walk& operator=(const tree_walk&) = delete;

  // 0, or 1 on the first failure.
  int run(uint16_t dir_fileid) {
    if (!buffer_ || enter(dir_fileid) != 0) {
      return 1;
    }
    while (top_ != nullptr) {
      if (step() != 0) {
        return 1;
      }
    }
    return 0;
  }

 private:
  struct frame {
    frame* below;
    const flashfs_sctr_map* directory;
    flashfs_sctr_list_ordered* next;  // entry of the directory's list to look at
  };

  int enter(uint16_t dir_fileid) {
    flashfs_sctr_map* directory = filemap_lookup(fs_, dir_fileid);
    if (directory == nullptr || place_all(directory) != 0) {
      return 1;
    }
    auto* entered = new (std::nothrow) frame{top_, directory, directory->sctr_list};
    if (entered == nullptr) {
      return 1;
    }
    if (top_ == nullptr) {
      bottom_ = entered;
    }
    top_ = entered;
    return 0;
  }

  void leave() {
    const frame* left = top_;
    top_ = left->below;
    delete left;
  }

  // Looks at the top directory's next entry, entering it when it is a directory.
  int step() {
    flashfs_sctr_list_ordered* entry = top_->next;
    if (entry == nullptr) {
      leave();
      return 0;
    }
    top_->next = entry->next;
    const listed_slot* slot = as_listed_slot(entry);
    if (slot == nullptr || !is_directory_mode(slot->mode) || slot->entry_fileid == fileid_root) {
      return 0;
    }
    return enter(slot->entry_fileid);
  }

  enum class placing { placed, second_name, failed };

  // Gives everything named in a directory its parent and mode.
  int place_all(flashfs_sctr_map* directory) {
    for (auto* entry = directory->sctr_list; entry != nullptr;) {
      process_suspend();
      listed_slot* slot = as_listed_slot(entry);
      entry = entry->next;
      const placing result = slot == nullptr ? placing::placed : place(directory, slot);
      if (result == placing::failed ||
          (result == placing::second_name && drop_second_name(directory, slot) != 0)) {
        return 1;
      }
    }
    return 0;
  }

  placing place(const flashfs_sctr_map* directory, listed_slot* slot) {
    flashfs_sctr_map* entry = filemap_lookup(fs_, slot->entry_fileid);
    if (entry == nullptr) {
      // An entry without sectors is known by its name alone.
      entry = filemap_insert(fs_, slot->entry_fileid, 0, slot->mode);
      if (entry == nullptr) {
        return placing::failed;
      }
    }
    if (entry->parent_fileid != 0) {
      return placing::second_name;
    }
    filemap_set_parent(entry, directory->fileid, slot);
    entry->mode = slot->mode;
    return placing::placed;
  }

  // A second name of an entry that has its place is dropped from memory and from the counters only:
  // flash keeps the slot, the buffer does not stand for flash any more.
  int drop_second_name(flashfs_sctr_map* directory, listed_slot* dropped) {
    if (read_sector(fs_, dropped->sctr_ptr, buffer_.get(), whole_sector) != 0) {
      return 1;
    }
    delete_slot_buf(fs_, dropped->sctr_ptr, buffer_.get(), dropped->slot_no);
    // Only the directory that the walk began with can be met again while it is being walked: every
    // other one has its parent, so a slot that names it is dropped before it could be entered.
    if (bottom_ != nullptr && bottom_->directory == directory && bottom_->next == dropped) {
      bottom_->next = dropped->next;
    }
    sctr_list_remove(fs_, directory, dropped);
    return 0;
  }

  flashfs* fs_;
  sector_buffer buffer_;
  frame* top_ = nullptr;
  frame* bottom_ = nullptr;
};

// Returns the id of "/lost+found" as a directory, made if need be, or 0.
uint16_t open_lost_and_found(flashfs* fs) {
  const found_name found = path_find(fs, lost_and_found);
  if (found.fileid == 0 && found.error == EIO) {
    return 0;
  }
  if (found.fileid != 0) {
    flashfs_sctr_map* entry = filemap_lookup(fs, found.fileid);
    if (entry == nullptr) {
      return 0;
    }
    if (is_directory_mode(entry->mode)) {
      return found.fileid;
    }
    if (flashfs_remove_entry(fs, entry) != 0) {
      return 0;
    }
  }
  const flashfs_sctr_map* made = flashfs_create_entry(fs, lost_and_found, ppc_mode_directory);
  return made == nullptr ? uint16_t{0} : made->fileid;
}

int remove_existing(flashfs* fs, const char* path) {
  const found_name found = path_find(fs, path);
  if (found.fileid == 0) {
    // Any other failure leaves it open whether the name is taken.
    return found.error == ENOENT ? 0 : 1;
  }
  flashfs_sctr_map* entry = filemap_lookup(fs, found.fileid);
  return entry == nullptr || flashfs_remove_entry(fs, entry) != 0 ? 1 : 0;
}

int name_orphan(flashfs* fs, uint16_t orphan_fileid, flashfs_sctr_map* directory,
                const char* path) {
  if (remove_existing(fs, path) != 0) {
    return 1;
  }
  flashfs_sctr_map* orphan = filemap_lookup(fs, orphan_fileid);
  flashfs_sctr_ptr pointer;
  uint8_t slot_no = 0;
  if (orphan == nullptr || flashfs_alloc_slot(fs, &pointer, &slot_no, 0) != 0) {
    return 1;
  }
  char name_work[path_size_max];
  if (flashfs_write_new_slot(fs, pointer, slot_no, directory, orphan_fileid, orphan->mode,
                             path_basename(path, name_work)) != 0) {
    return 1;
  }
  // The name stands. Whatever becomes of the directory's date, the orphan is where it says.
  return flashfs_touch(fs, directory, 0) == 0 ? 0 : 1;
}

}  // namespace

orphan_list::~orphan_list() {
  while (head_ != nullptr) {
    flashfs_file_list* entry = head_;
    head_ = entry->next;
    delete entry;
  }
}

int orphan_list::append(uint16_t fileid) {
  auto* entry = new (std::nothrow) flashfs_file_list{nullptr, fileid};
  if (entry == nullptr) {
    return 1;
  }
  *tail_ = entry;
  tail_ = &entry->next;
  return 0;
}

int fsck_check_dir(flashfs* fs, uint16_t dir_fileid) {
  return tree_walk(fs).run(dir_fileid);
}

int fsck_place_entries(flashfs* fs, orphan_list* orphans) {
  if (filemap_lookup(fs, fileid_root) != nullptr && fsck_check_dir(fs, fileid_root) != 0) {
    flashfs_log(fs, "dir struct error[1].");
    return 1;
  }
  for (const flashfs_sctr_map* file = fs->file_map; file != nullptr; file = file->next) {
    if (file->fileid == fileid_root || file->parent_fileid != 0) {
      continue;
    }
    if (orphans->append(file->fileid) != 0) {
      flashfs_log(fs, "out of memory error.");
      return 1;
    }
    if (is_directory_mode(file->mode) && fsck_check_dir(fs, file->fileid) != 0) {
      flashfs_log(fs, "dir struct error[2].");
      return 1;
    }
  }
  return 0;
}

void fsck_relink_orphans(flashfs* fs, const orphan_list& orphans) {
  for (const flashfs_file_list* each = orphans.first(); each != nullptr; each = each->next) {
    const flashfs_sctr_map* orphan = filemap_lookup(fs, each->fileid);
    if (orphan != nullptr && orphan->parent_fileid == 0) {
      static_cast<void>(fsck_relink_orphan(fs, each->fileid));
    }
  }
}

int fsck_relink_orphan(flashfs* fs, uint16_t orphan_fileid) {
  const uint16_t dir_fileid = open_lost_and_found(fs);
  if (dir_fileid == 0) {
    flashfs_log(fs, "error accessing/creating %s", lost_and_found);
    return 1;
  }
  char path[sizeof("/lost+found/65535")];
  snprintf(path, sizeof(path), "%s/%05u", lost_and_found, static_cast<unsigned>(orphan_fileid));
  if (name_orphan(fs, orphan_fileid, filemap_lookup(fs, dir_fileid), path) != 0) {
    flashfs_log(fs, "error accessing/creating %s", path);
    return 1;
  }
  const flashfs_sctr_map* orphan = filemap_lookup(fs, orphan_fileid);
  flashfs_log(fs, "relinked orphaned %s into the fs as \"%s\".",
              is_directory_mode(orphan->mode) ? "directory" : "file", path);
  return 0;
}
