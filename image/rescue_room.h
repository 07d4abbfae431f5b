// Room on a flash that is being mended: erased sectors and slots, blocks brought into service,
// blocks reclaimed through the spare, and the spare itself.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "image/rescue_evidence.h"
#include "image/rescue_flash.h"
#include "image/rescue_names.h"
#include "image/rescue_plan.h"

namespace image::rescuing {

class room {
 public:
  // Blocks have the fates that were decided for them. `date` is that of new block headers.
  room(flash_copy* flash, const evidence& found, uint32_t date);

  // Makes the headers of the blocks that are kept say so. False when one of them has to be moved
  // and there is no spare yet.
  [[nodiscard]] bool keep_blocks();
  // Sees to it that so many sectors can be written. False when there is not so much room.
  [[nodiscard]] bool make_room_for(size_t sectors);
  // Writes a whole record to an erased sector, or a slot to an erased slot. False without room.
  [[nodiscard]] bool write_sector(const flashfs_sector& sector);
  [[nodiscard]] bool write_slot(const flashfs_dir_slot& slot);
  // Erased sectors that can be written without a reclamation.
  size_t free_sectors() const;
  // Makes a record obsolete where it stands now, if it still does.
  void drop_sector(sector_place place);
  void delete_slot(slot_place place);
  // Erases what was condemned.
  void erase_condemned();
  // Sees to it that an erased block of the largest size is there. False when there is no room.
  [[nodiscard]] bool establish_spare(std::vector<rescue_decision>* decisions);

 private:
  // There are no more than a number of the format can name.
  uint16_t block_count() const {
    return static_cast<uint16_t>(blocks_.size());
  }

  bool write_header(uint16_t block, uint32_t erase_count);
  bool set_state(uint16_t block, block_state state);
  bool remake_header(uint16_t block);
  bool is_largest(uint16_t block) const;
  int find_spare() const;
  int find_fresh_beside_spare() const;
  std::optional<sector_place> find_erased(int without) const;
  std::optional<sector_place> allocate();
  bool make_room();
  int choose_victim() const;
  bool reclaim(uint16_t victim, uint16_t fresh);
  bool copy_live(uint16_t from, uint16_t to);
  size_t count_live(uint16_t block) const;
  size_t count_erased(int without) const;
  // Where a block's slots are free: offsets in the flash.
  std::vector<uint32_t> free_slots(uint16_t block) const;
  bool write_to_free_slot(const flashfs_dir_slot& slot, int without);
  std::optional<sector_place> take_erased(int without);
  bool copy_out(const flashfs_sector& live, int without);
  bool copy_slots_out(const flashfs_sector& live, int without);
  size_t sectors_needed_to_move(uint16_t block) const;
  bool move_out(uint16_t block);
  void erase(uint16_t block);
  bool is_live_record(uint16_t block, uint16_t sector) const;
  std::optional<sector_place> now_at(sector_place place) const;

  flash_copy* flash_;
  std::vector<block_record> blocks_;
  uint32_t date_;
  uint32_t usual_erase_count_ = 0;
  uint16_t largest_ = 0;                        // sectors
  std::map<sector_place, sector_place> moved_;  // by a reclamation
  std::vector<bool> emptied_;                   // blocks whose places no longer hold what they did
};

}  // namespace image::rescuing
