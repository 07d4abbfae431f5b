// What the two sources of the check share.
#pragma once

#include "flashfs/flashfs.h"

// The entries that no directory names, in ascending file-id order.
class orphan_list {
 public:
  orphan_list() = default;
  ~orphan_list();
  orphan_list(const orphan_list&) = delete;
  orphan_list& operator=(const orphan_list&) = delete;

  // 1 when there is no memory.
  int append(uint16_t fileid);
  const flashfs_file_list* first() const {
    return head_;
  }

 private:
  flashfs_file_list* head_ = nullptr;
  flashfs_file_list** tail_ = &head_;
};

// Gives every entry below the root and below orphaned directories its parent, and collects the
// orphans. 1 after a message.
int fsck_place_entries(flashfs* fs, orphan_list* orphans);

// Gives a name under "/lost+found" to every orphan that still has no parent.
void fsck_relink_orphans(flashfs* fs, const orphan_list& orphans);
