// A place in a file's list: of a walk along it, and as an open file remembers it so that the next
// operation need not begin at the head. It stays valid while the file is open, since the claim
// keeps everybody else from changing the list.
//
// What is remembered never lies at or behind a sector that is reserved and not yet written: the
// next write must meet such a sector, to fill it.
#pragma once

#include <cstdint>

#include "flashfs/flashfs.h"

class list_place {
 public:
  // Nowhere.
  list_place() = default;
  // The head of a list, or any entry of one to which a walk counts that much.
  explicit list_place(flashfs_sctr_list_ordered* entry, uint32_t index = 0)
      : entry_(entry), index_(index) {}

  // Null behind the end of the list, and nowhere.
  flashfs_sctr_list_ordered* entry() const {
    return entry_;
  }
  // What comes before the entry: of a file's list, sectors; of a listing, entries listed.
  uint32_t index() const {
    return index_;
  }

  // To the next entry of the list.
  void advance();

  // --- what an open file remembers ---

  // Where a walk to this index of the file's list begins: here, unless this is nowhere or behind
  // it.
  list_place start(const flashfs_sctr_map* file, uint32_t index) const;
  // The place with this index, or behind the end, looked for from here when that helps.
  list_place find(const flashfs_sctr_map* file, uint32_t index) const;
  // The last entry of the file's list, looked for from here; nowhere when the list is empty.
  list_place find_last(const flashfs_sctr_map* file) const;
  // Moves to where a walk stands, unless the next write has to begin before that.
  void remember(const list_place& walk);
  void forget();

 private:
  flashfs_sctr_list_ordered* entry_ = nullptr;
  uint32_t index_ = 0;
  bool passed_reserved_ = false;
};
