#include "image/rescue_room.h"

#include <algorithm>
#include <cstring>

namespace image::rescuing {

namespace {

constexpr int no_block = -1;

std::span<const uint8_t> bytes_of(const void* record, size_t size) {
  return {static_cast<const uint8_t*>(record), size};
}

bool is_good_slot(const flashfs_dir_slot& slot) {
  return dir_slot_crc(&slot) == flashfs_good_crc && is_sound_slot(slot, slot.dir_fileid);
}

bool is_directory_sector(const flashfs_sector* sector) {
  return sector->fileid == fileid_root && sector->count == 0xFFFF && sector->seq_no == 0xFFFF &&
         sector->checksum == 0xFFFF;
}

flashfs_sector empty_directory_sector() {
  flashfs_sector empty;
  memset(&empty, flash_erased_byte, sizeof(empty));
  empty.fileid = fileid_root;
  return empty;
}

// Without what was deleted in it, as reclamation copies it. Nothing when nothing is left.
std::optional<flashfs_sector> live_slots(const flashfs_sector* sector) {
  flashfs_sector copy = empty_directory_sector();
  bool any = false;
  for (uint32_t k = 0; k < slots_per_sector; k++) {
    if (is_good_slot(sector->slots[k])) {
      copy.slots[k] = sector->slots[k];
      any = true;
    }
  }
  return any ? std::optional(copy) : std::nullopt;
}

// What of a sector is worth copying.
std::optional<flashfs_sector> live_part(const flashfs_sector* sector) {
  if (is_directory_sector(sector)) {
    return live_slots(sector);
  }
  const bool good = is_file_sector(sector->fileid) && sector_crc(sector) == flashfs_good_crc &&
                    sector->count <= sector_data_size;
  return good ? std::optional(*sector) : std::nullopt;
}

}  // namespace

room::room(flash_copy* flash, const evidence& found, uint32_t date)
    : flash_(flash), blocks_(found.blocks), date_(date), emptied_(found.blocks.size(), false) {
  uint64_t total = 0;
  uint64_t good = 0;
  for (const block_record& each : blocks_) {
    largest_ = std::max(largest_, each.sectors);
    if (each.header_good) {
      total += flash->header(each)->erase_count;
      good++;
    }
  }
  usual_erase_count_ = good == 0 ? 0 : static_cast<uint32_t>(total / good);
}

bool room::is_largest(uint16_t block) const {
  return blocks_[block].sectors == largest_;
}

// --- headers ---

bool room::write_header(uint16_t block, uint32_t erase_count) {
  flashfs_blkheader header;
  memset(&header, flash_erased_byte, sizeof(header));
  header.erase_count = erase_count;
  header.timestamp = date_;
  header.block_num = block;
  blkheader_set_checksum(&header);
  return flash_->program(blocks_[block].offset, bytes_of(&header, sizeof(header)));
}

bool room::set_state(uint16_t block, block_state state) {
  flashfs_blkheader header = *flash_->header(blocks_[block]);
  blkheader_set_state(&header, state);
  return flash_->program(blocks_[block].offset, bytes_of(&header, sizeof(header)));
}

// Finds a timestamp that, with its checksum, can be programmed over what is there.
bool room::remake_header(uint16_t block) {
  const flashfs_blkheader* held = flash_->header(blocks_[block]);
  flashfs_blkheader header = *held;
  header.block_num = block;
  blkheader_set_state(&header, block_in_use);
  const uint32_t offset = blocks_[block].offset;
  constexpr uint32_t tried = 1U << 16;
  const uint32_t timestamp = held->timestamp;
  for (uint32_t i = 0; i < tried; i++) {
    // Clears bits only, the low ones first; the date of an erased header is the rescue's own.
    header.timestamp = timestamp == 0xFFFFFFFF && i == 0 ? date_ : timestamp & ~i;
    blkheader_set_checksum(&header);
    if (flash_->can_program(offset, bytes_of(&header, sizeof(header)))) {
      if (held->erase_count == 0xFFFFFFFF) {
        header.erase_count = usual_erase_count_;
      }
      return flash_->program(offset, bytes_of(&header, sizeof(header)));
    }
  }
  return false;
}

bool room::keep_blocks() {
  for (uint16_t b = 0; b < block_count(); b++) {
    block_record& block = blocks_[b];
    if (block.fate != block_fate::kept || (block.header_good && block.state == block_in_use)) {
      continue;
    }
    if (block.header_good ? set_state(b, block_in_use) : remake_header(b)) {
      continue;
    }
    // The header cannot be mended where it stands: what the block holds moves.
    const int spare = find_spare();
    if (spare == no_block || !reclaim(b, static_cast<uint16_t>(spare))) {
      return false;
    }
  }
  return true;
}

// --- room ---

std::optional<sector_place> room::find_erased(int without) const {
  for (uint16_t b = 0; b < block_count(); b++) {
    if (blocks_[b].fate != block_fate::kept || b == without) {
      continue;
    }
    for (uint16_t s = 0; s < blocks_[b].sectors; s++) {
      if (is_erased(flash_->sector(blocks_[b], s), sizeof(flashfs_sector))) {
        return sector_place{b, s};
      }
    }
  }
  return std::nullopt;
}

size_t room::count_erased(int without) const {
  size_t count = 0;
  for (uint16_t b = 0; b < block_count(); b++) {
    for (uint16_t s = 0;
         blocks_[b].fate == block_fate::kept && b != without && s < blocks_[b].sectors; s++) {
      count += is_erased(flash_->sector(blocks_[b], s), sizeof(flashfs_sector)) ? 1 : 0;
    }
  }
  return count;
}

int room::find_spare() const {
  for (uint16_t b = 0; b < block_count(); b++) {
    if (blocks_[b].fate == block_fate::fresh && is_largest(b)) {
      return b;
    }
  }
  return no_block;
}

int room::find_fresh_beside_spare() const {
  const int spare = find_spare();
  for (uint16_t b = 0; b < block_count(); b++) {
    if (blocks_[b].fate == block_fate::fresh && b != spare) {
      return b;
    }
  }
  return no_block;
}

std::optional<sector_place> room::allocate() {
  std::optional<sector_place> place = find_erased(no_block);
  while (!place && make_room()) {
    place = find_erased(no_block);
  }
  return place;
}

bool room::make_room() {
  int fresh = find_fresh_beside_spare();
  for (uint16_t b = 0; fresh == no_block && b < blocks_.size(); b++) {
    if (blocks_[b].fate == block_fate::condemned) {
      erase(b);
      fresh = find_fresh_beside_spare();
    }
  }
  if (fresh != no_block) {
    const auto taken = static_cast<uint16_t>(fresh);
    blocks_[taken].fate = block_fate::kept;
    return set_state(taken, block_in_use);
  }
  const int victim = choose_victim();
  const int spare = find_spare();
  if (victim == no_block || spare == no_block ||
      !reclaim(static_cast<uint16_t>(victim), static_cast<uint16_t>(spare))) {
    return false;
  }
  // Only a block of the largest size can be the spare from now on.
  return is_largest(static_cast<uint16_t>(victim)) ||
         reclaim(static_cast<uint16_t>(spare), static_cast<uint16_t>(victim));
}

bool room::make_room_for(size_t sectors) {
  while (count_erased(no_block) < sectors) {
    if (!make_room()) {
      return false;
    }
  }
  return true;
}

bool room::is_live_record(uint16_t block, uint16_t sector) const {
  return live_part(flash_->sector(blocks_[block], sector)).has_value();
}

size_t room::count_live(uint16_t block) const {
  size_t count = 0;
  for (uint16_t s = 0; s < blocks_[block].sectors; s++) {
    count += is_live_record(block, s) ? 1 : 0;
  }
  return count;
}

// The block of which a reclamation gains most.
int room::choose_victim() const {
  int victim = no_block;
  size_t most = 0;
  for (uint16_t b = 0; b < block_count(); b++) {
    if (blocks_[b].fate != block_fate::kept) {
      continue;
    }
    const size_t gained = blocks_[b].sectors - count_live(b);
    if (gained > most) {
      most = gained;
      victim = b;
    }
  }
  return victim;
}

bool room::copy_live(uint16_t from, uint16_t to) {
  for (uint16_t s = 0; s < blocks_[from].sectors; s++) {
    const std::optional<flashfs_sector> live = live_part(flash_->sector(blocks_[from], s));
    if (!live) {
      continue;
    }
    if (!flash_->program(offset_in_flash(blocks_[to], s), bytes_of(&*live, sizeof(*live)))) {
      return false;
    }
    // What had moved before moves on.
    for (auto& [was, is] : moved_) {
      if (is == sector_place{from, s}) {
        is = {to, s};
      }
    }
    if (!emptied_[from]) {
      moved_[{from, s}] = {to, s};
    }
  }
  return true;
}

// As the file system reclaims a block, so that a check or another rescue can go on with it. The
// erased block `fresh` is as large as what is copied needs.
bool room::reclaim(uint16_t victim, uint16_t fresh) {
  if (!set_state(fresh, block_invalid1) || !copy_live(victim, fresh) ||
      !set_state(fresh, block_committed)) {
    return false;
  }
  erase(victim);
  blocks_[fresh].fate = block_fate::kept;
  return set_state(fresh, block_in_use);
}

void room::erase(uint16_t block) {
  const block_record& record = blocks_[block];
  const uint32_t count =
      record.header_good ? uint32_t{flash_->header(record)->erase_count} + 1 : usual_erase_count_;
  flash_->erase(record);
  blocks_[block].header_good = write_header(block, count);
  blocks_[block].fate = block_fate::fresh;
  blocks_[block].state = block_available;
  emptied_[block] = true;
}

void room::erase_condemned() {
  for (uint16_t b = 0; b < block_count(); b++) {
    if (blocks_[b].fate == block_fate::condemned) {
      erase(b);
    }
  }
}

// --- records ---

bool room::write_sector(const flashfs_sector& sector) {
  const std::optional<sector_place> place = allocate();
  return place && flash_->program(offset_in_flash(blocks_[place->block], place->sector),
                                  bytes_of(&sector, sizeof(sector)));
}

std::vector<uint32_t> room::free_slots(uint16_t block) const {
  std::vector<uint32_t> offsets;
  const block_record& record = blocks_[block];
  for (uint16_t s = 0; record.fate == block_fate::kept && s < record.sectors; s++) {
    const flashfs_sector* sector = flash_->sector(record, s);
    for (uint32_t k = slots_per_sector; is_directory_sector(sector) && k-- > 0;) {
      if (is_erased(&sector->slots[k], sizeof(flashfs_dir_slot))) {
        offsets.push_back(static_cast<uint32_t>(offset_in_flash(record, s) +
                                                offsetof(flashfs_sector, slots) +
                                                k * sizeof(flashfs_dir_slot)));
      }
    }
  }
  return offsets;
}

bool room::write_to_free_slot(const flashfs_dir_slot& slot, int without) {
  for (uint16_t b = 0; b < block_count(); b++) {
    if (b == without) {
      continue;
    }
    const std::vector<uint32_t> free = free_slots(b);
    if (!free.empty()) {
      return flash_->program(free.front(), bytes_of(&slot, sizeof(slot)));
    }
  }
  return false;
}

bool room::write_slot(const flashfs_dir_slot& slot) {
  return write_to_free_slot(slot, no_block) ||
         (write_sector(empty_directory_sector()) && write_to_free_slot(slot, no_block));
}

std::optional<sector_place> room::now_at(sector_place place) const {
  const auto moved = moved_.find(place);
  if (moved != moved_.end()) {
    return moved->second;
  }
  return emptied_[place.block] ? std::nullopt : std::optional(place);
}

size_t room::free_sectors() const {
  size_t count = count_erased(no_block);
  const int spare = find_spare();
  for (uint16_t b = 0; b < block_count(); b++) {
    count += blocks_[b].fate == block_fate::fresh && b != spare ? blocks_[b].sectors : 0U;
  }
  return count;
}

void room::drop_sector(sector_place place) {
  const std::optional<sector_place> now = now_at(place);
  if (!now || blocks_[now->block].fate != block_fate::kept) {
    return;
  }
  const be16 obsolete = {};
  static_cast<void>(flash_->program(offset_in_flash(blocks_[now->block], now->sector),
                                    bytes_of(&obsolete, sizeof(obsolete))));
}

void room::delete_slot(slot_place place) {
  const std::optional<sector_place> now = now_at(place.at);
  if (!now || blocks_[now->block].fate != block_fate::kept) {
    return;
  }
  const flashfs_sector* sector = flash_->sector(blocks_[now->block], now->sector);
  if (is_erased(&sector->slots[place.index], sizeof(flashfs_dir_slot))) {
    return;  // a reclamation has left it out
  }
  const be16 deleted = {};
  const auto offset = static_cast<uint32_t>(
      offset_in_flash(blocks_[now->block], now->sector) + offsetof(flashfs_sector, slots) +
      place.index * sizeof(flashfs_dir_slot) + offsetof(flashfs_dir_slot, dir_fileid));
  static_cast<void>(flash_->program(offset, bytes_of(&deleted, sizeof(deleted))));
  const bool all_deleted =
      std::all_of(std::begin(sector->slots), std::end(sector->slots),
                  [](const auto& each) { return each.dir_fileid == fileid_invalidated; });
  if (all_deleted) {
    drop_sector(place.at);
  }
}

// --- the spare ---

// An erased sector outside of a block, if need be in one that comes into use with it.
std::optional<sector_place> room::take_erased(int without) {
  std::optional<sector_place> place = find_erased(without);
  for (uint16_t b = 0; !place && b < block_count(); b++) {
    if (blocks_[b].fate == block_fate::fresh && b != without) {
      if (!set_state(b, block_in_use)) {
        return std::nullopt;
      }
      blocks_[b].fate = block_fate::kept;
      place = find_erased(without);
    }
  }
  return place;
}

bool room::copy_out(const flashfs_sector& live, int without) {
  const std::optional<sector_place> place = take_erased(without);
  return place && flash_->program(offset_in_flash(blocks_[place->block], place->sector),
                                  bytes_of(&live, sizeof(live)));
}

// The slots go to free ones, which cost no sector.
bool room::copy_slots_out(const flashfs_sector& live, int without) {
  for (const flashfs_dir_slot& each : live.slots) {
    if (!is_erased(&each, sizeof(each)) && !write_to_free_slot(each, without) &&
        !(copy_out(empty_directory_sector(), without) && write_to_free_slot(each, without))) {
      return false;
    }
  }
  return true;
}

size_t room::sectors_needed_to_move(uint16_t block) const {
  size_t sectors = 0;
  size_t slots = 0;
  for (uint16_t s = 0; s < blocks_[block].sectors; s++) {
    const std::optional<flashfs_sector> live = live_part(flash_->sector(blocks_[block], s));
    if (live && is_directory_sector(&*live)) {
      slots += static_cast<size_t>(
          std::count_if(std::begin(live->slots), std::end(live->slots),
                        [](const auto& each) { return !is_erased(&each, sizeof(each)); }));
    } else {
      sectors += live ? 1 : 0;
    }
  }
  for (uint16_t b = 0; b < block_count(); b++) {
    slots -= b == block ? 0 : std::min(slots, free_slots(b).size());
  }
  return sectors + (slots + slots_per_sector - 1) / slots_per_sector;
}

// Copies every live record to another block, then lets the block go.
bool room::move_out(uint16_t block) {
  size_t room_for = count_erased(block);
  for (uint16_t b = 0; b < block_count(); b++) {
    room_for += blocks_[b].fate == block_fate::fresh && b != block ? blocks_[b].sectors : 0U;
  }
  if (room_for < sectors_needed_to_move(block)) {
    return false;
  }
  for (uint16_t s = 0; s < blocks_[block].sectors; s++) {
    const std::optional<flashfs_sector> live = live_part(flash_->sector(blocks_[block], s));
    if (live &&
        !(is_directory_sector(&*live) ? copy_slots_out(*live, block) : copy_out(*live, block))) {
      return false;
    }
  }
  erase(block);
  return true;
}

bool room::establish_spare(std::vector<rescue_decision>* decisions) {
  if (find_spare() != no_block) {
    return true;
  }
  int least = no_block;
  for (uint16_t b = 0; b < block_count(); b++) {
    if (blocks_[b].fate == block_fate::kept && is_largest(b) &&
        (least == no_block || count_live(b) < count_live(static_cast<uint16_t>(least)))) {
      least = b;
    }
  }
  if (least == no_block) {
    return false;
  }
  rescue_decision decision = {.code = "spare-made", .block = static_cast<uint32_t>(least)};
  decision.what = "make the block the spare";
  decision.evidence =
      "no erased block of the largest size is there, and this one holds the least: " +
      std::to_string(count_live(static_cast<uint16_t>(least))) + " sectors, which are moved first";
  decisions->push_back(std::move(decision));
  return move_out(static_cast<uint16_t>(least));
}

}  // namespace image::rescuing
