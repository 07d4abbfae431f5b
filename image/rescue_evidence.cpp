// Reads and names the records. Of the 65,536 owners of a record exactly one makes its checksum
// hold: the checksum is linear in the owner, so that it can be solved for.
#include "image/rescue_evidence.h"

#include <algorithm>
#include <cstring>

#include "image/record_fit.h"

namespace image::rescuing {

namespace {

// Whether programming can have made `left` of `before`, and has not made it wholly.
bool is_torn_from(uint16_t left, uint16_t before) {
  return (left & ~before) == 0 && left != before;
}

// A data sector that is not good, and no claim. What could be torn in either way says both.
sector_kind kind_of_bad(const flashfs_sector* sector, uint16_t* fitting) {
  const uint16_t checksum = sector->checksum;
  if (checksum == 0xFFFF) {
    return sector_kind::unfinished;
  }
  const uint16_t owner = fitting_owner(*sector);
  if (is_file_sector(owner) && is_torn_from(sector->fileid, owner) &&
      sector->count <= sector_data_size) {
    *fitting = owner;
  }
  flashfs_sector finished = *sector;
  if (is_torn_from(sector_set_checksum(&finished), checksum)) {
    return sector_kind::unfinished;
  }
  return *fitting != 0 ? sector_kind::obsolete_torn : sector_kind::damaged;
}

bool is_directory_sector(const flashfs_sector* sector) {
  // A true one never has count, number or checksum. Data whose owner was torn to 1 has.
  return sector->fileid == fileid_root && sector->count == 0xFFFF && sector->seq_no == 0xFFFF &&
         sector->checksum == 0xFFFF;
}

sector_record read_sector(const flashfs_sector* sector, sector_place place) {
  sector_record found = {
      .at = place, .owner = sector->fileid, .number = sector->seq_no, .count = sector->count};
  constexpr size_t head = sizeof(sector->fileid);
  const bool bare =
      is_erased(reinterpret_cast<const uint8_t*>(sector) + head, sizeof(*sector) - head);
  if (found.owner == fileid_available) {
    found.kind = bare ? sector_kind::erased : sector_kind::dirty;
  } else if (found.owner == fileid_invalidated) {
    found.kind = sector_kind::obsolete;
    if (sector->checksum != 0xFFFF && found.count <= sector_data_size) {
      const uint16_t owner = fitting_owner(*sector);
      found.fitting = is_file_sector(owner) ? owner : uint16_t{0};
    }
  } else if (is_directory_sector(sector)) {
    found.kind = sector_kind::directory;
  } else if (bare) {
    found.kind = sector_kind::claimed;
  } else if (found.owner != fileid_root && sector_crc(sector) == flashfs_good_crc &&
             found.count <= sector_data_size) {
    found.kind = sector_kind::data;
  } else {
    found.kind = kind_of_bad(sector, &found.fitting);
  }
  return found;
}

slot_kind kind_of_bad_slot(const flashfs_dir_slot& slot, uint16_t* fitting) {
  const uint16_t checksum = slot.checksum;
  flashfs_dir_slot finished = slot;
  const uint16_t expected = dir_slot_set_checksum(&finished);
  if (checksum == 0xFFFF || is_torn_from(expected, checksum)) {
    return slot_kind::half_written;
  }
  const uint16_t directory = fitting_directory(slot);
  if (is_torn_from(slot.dir_fileid, directory) && is_sound_slot(slot, directory)) {
    *fitting = directory;
    return slot_kind::deleted_torn;
  }
  return slot_kind::damaged;
}

// A slot of an obsolete sector counts as deleted, whatever its directory says.
slot_record read_slot(const flashfs_dir_slot& slot, sector_place place, uint8_t index,
                      bool in_obsolete) {
  slot_record found = {.at = place, .index = index, .slot = slot};
  const uint16_t directory = slot.dir_fileid;
  if (is_erased(&slot, sizeof(slot))) {
    found.kind = slot_kind::erased;
  } else if (directory == fileid_invalidated || in_obsolete) {
    found.kind = slot_kind::deleted;
    const uint16_t fitting = fitting_directory(slot);
    found.fitting = slot.checksum != 0xFFFF && is_sound_slot(slot, fitting) ? fitting : uint16_t{0};
  } else if (directory == fileid_available) {
    found.kind = slot_kind::half_written;
  } else if (dir_slot_crc(&slot) == flashfs_good_crc && is_sound_slot(slot, directory)) {
    found.kind = slot_kind::good;
  } else {
    found.kind = kind_of_bad_slot(slot, &found.fitting);
  }
  return found;
}

bool may_hold_slots(const sector_record& record) {
  return record.kind == sector_kind::directory ||
         (record.kind == sector_kind::obsolete && record.count == 0xFFFF &&
          record.number == 0xFFFF);
}

void read_block(evidence* found, uint16_t block_num) {
  block_record& block = found->blocks[block_num];
  const auto* header =
      reinterpret_cast<const flashfs_blkheader*>(found->bytes.data() + block.offset);
  block.header_good = header->block_num == block_num && blkheader_crc(header) == flashfs_good_crc;
  block.state = blkheader_state(header);
  block.first_sector = found->sectors.size();
  block.first_slot = found->slots.size();
  for (uint16_t s = 0; s < block.sectors; s++) {
    const sector_place place = {block_num, s};
    const flashfs_sector* sector = found->sector(place);
    const sector_record record = read_sector(sector, place);
    found->sectors.push_back(record);
    for (uint8_t k = 0; may_hold_slots(record) && k < slots_per_sector; k++) {
      found->slots.push_back(
          read_slot(sector->slots[k], place, k, record.kind == sector_kind::obsolete));
    }
  }
  block.end_slot = found->slots.size();
}

}  // namespace

std::string slot_record::name() const {
  return {slot.name, strnlen(slot.name, filename_size)};
}

uint32_t offset_in_flash(const block_record& block, uint16_t sector) {
  return static_cast<uint32_t>(block.offset + sizeof(flashfs_blkheader) +
                               sector * sizeof(flashfs_sector));
}

uint32_t evidence::offset_of(sector_place place) const {
  return offset_in_flash(blocks[place.block], place.sector);
}

const flashfs_sector* evidence::sector(sector_place place) const {
  return reinterpret_cast<const flashfs_sector*>(bytes.data() + offset_of(place));
}

std::span<const slot_record> evidence::slots_of(uint16_t block) const {
  return std::span(slots).subspan(blocks[block].first_slot,
                                  blocks[block].end_slot - blocks[block].first_slot);
}

bool is_sound_slot(const flashfs_dir_slot& slot, uint16_t directory) {
  if (!is_live(directory) || !is_live(slot.entry_fileid) ||
      !(is_directory_mode(slot.mode) || is_regular_mode(slot.mode))) {
    return false;
  }
  char name[filename_buffer_size];
  dir_slot_get_name(&slot, name);
  const size_t length = strlen(name);
  const bool is_root = slot.entry_fileid == fileid_root;
  return filename_illegal_char(name) == 0 && length <= filename_max &&
         (is_root ? directory == fileid_root && length == 0 : length != 0);
}

evidence read_evidence(std::span<const uint8_t> bytes, std::span<const flash_block_info> blocks) {
  evidence found = {.bytes = bytes, .blocks = {}, .sectors = {}, .slots = {}};
  for (const flash_block_info& each : blocks) {
    if (each.skip != 0 || each.size < sizeof(flashfs_blkheader) ||
        uint64_t{each.offset} + each.size > bytes.size()) {
      continue;
    }
    block_record block = {.offset = each.offset, .size = each.size};
    block.sectors = static_cast<uint16_t>(
        std::min<size_t>((each.size - sizeof(flashfs_blkheader)) / sizeof(flashfs_sector), 0xFFFF));
    found.blocks.push_back(block);
    read_block(&found, static_cast<uint16_t>(found.blocks.size() - 1));
  }
  return found;
}

}  // namespace image::rescuing
