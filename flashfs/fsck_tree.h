// The check's work on the directory tree: giving every entry its parent, finding the entries that
// no directory names, and naming those under "/lost+found". Steps return 0 or 1; those that
// name something say so themselves, of the others the caller does.
#pragma once

#include <cstdint>

#include "flashfs/flashfs.h"

// The entries that no directory names, in ascending file-id order.
class orphan_list {
 public:
  orphan_list() = default;
  ~orphan_list();
  orphan_list(const orphan_list&) = delete;
  orphan_list& operator=(const orphan_list&) = delete;

  // 1 when there is no memory.
  [[nodiscard]] int append(uint16_t fileid);
  const flashfs_file_list* first() const {
    return head_;
  }

 private:
  flashfs_file_list* head_ = nullptr;
  flashfs_file_list** tail_ = &head_;
};

// Gives every entry named below a directory its parent and mode.
[[nodiscard]] int fsck_check_dir(flashfs* fs, uint16_t dir_fileid);
// The same below the root and below orphaned directories, and collects the orphans.
[[nodiscard]] int fsck_place_entries(flashfs* fs, orphan_list* orphans);

// Gives an entry that no directory names a name under "/lost+found".
[[nodiscard]] int fsck_relink_orphan(flashfs* fs, uint16_t orphan_fileid);
// The same for every orphan that still has no parent. What fails has been told and is left.
void fsck_relink_orphans(flashfs* fs, const orphan_list& orphans);
