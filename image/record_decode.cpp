// Decoding. Everything is looked at, in blocks of any state: what a mount passes over may be all
// that is left of a file.
#include "image/record_decode.h"

#include <algorithm>
#include <cstring>

namespace image {

namespace {

constexpr uint16_t erased_word = 0xFFFF;

block_record decode_header(const records& all, const flash_block_info& place, uint32_t number) {
  block_record block = {};
  block.number = number;
  block.offset = place.offset;
  block.size = place.size;
  if (uint64_t{place.offset} + sizeof(flashfs_blkheader) > all.image.size()) {
    block.verdict = header_verdict::missing;
    return block;
  }
  const auto* header = reinterpret_cast<const flashfs_blkheader*>(all.image.data() + place.offset);
  block.header = header;
  block.state = blkheader_state(header);
  if (is_erased(header, sizeof(*header))) {
    block.verdict = header_verdict::erased;
  } else if (header->block_num != number) {
    block.verdict = header_verdict::bad_number;
  } else if (blkheader_crc(header) != flashfs_good_crc) {
    block.verdict = header_verdict::bad_checksum;
  } else {
    block.verdict = header_verdict::good;
  }
  block.is_read = block.verdict == header_verdict::good &&
                  (block.state == block_in_use || block.state == block_committed);
  return block;
}

void decode_slots(records* all, sector_record* sector, record_counts* counts) {
  sector->first_slot = static_cast<record_index>(all->slots.size());
  for (uint32_t k = 0; k < slots_per_sector; ++k) {
    const flashfs_dir_slot& bytes = sector->bytes->slots[k];
    slot_record slot = {};
    slot.block = sector->block;
    slot.sector = sector->sector;
    slot.slot = k;
    slot.offset = sector->offset + static_cast<uint32_t>(offsetof(flashfs_sector, slots) +
                                                         k * sizeof(flashfs_dir_slot));
    slot.bytes = &bytes;
    slot.verdict = judge_slot(bytes);
    all->slots.push_back(slot);
    switch (slot.verdict) {
      case slot_verdict::free:
        counts->free_slots++;
        break;
      case slot_verdict::deleted:
        counts->deleted_slots++;
        break;
      case slot_verdict::good:
        counts->good_slots++;
        break;
      default:
        counts->bad_slots++;
    }
  }
}

void decode_sector(records* all, sector_record* sector, record_counts* counts) {
  const flashfs_sector& bytes = *sector->bytes;
  sector->verdict = sector_verdict::good;
  switch (static_cast<uint16_t>(bytes.fileid)) {
    case fileid_invalidated:
      sector->kind = sector_kind::obsolete;
      counts->obsolete_sectors++;
      return;
    case fileid_available:
      if (is_erased(&bytes, sizeof(bytes))) {
        sector->kind = sector_kind::free;
        counts->free_sectors++;
      } else {
        sector->kind = sector_kind::not_erased;
        sector->verdict = sector_verdict::not_erased;
        counts->bad_sectors++;
      }
      return;
    case fileid_root:
      sector->kind = sector_kind::directory;
      counts->directory_sectors++;
      decode_slots(all, sector, counts);
      return;
    default:
      sector->kind = sector_kind::data;
      sector->verdict = judge_data_sector(bytes);
      (sector->verdict == sector_verdict::good ? counts->data_sectors : counts->bad_sectors)++;
  }
}

void decode_sectors(records* all, block_record* block) {
  block->first_sector = static_cast<record_index>(all->sectors.size());
  if (block->header == nullptr) {
    return;
  }
  const uint64_t end = std::min<uint64_t>(uint64_t{block->offset} + block->size, all->image.size());
  uint64_t offset = uint64_t{block->offset} + sizeof(flashfs_blkheader);
  for (; offset + sizeof(flashfs_sector) <= end; offset += sizeof(flashfs_sector)) {
    sector_record sector = {};
    sector.block = block->number;
    sector.sector = block->sector_count;
    sector.offset = static_cast<uint32_t>(offset);
    sector.bytes = reinterpret_cast<const flashfs_sector*>(all->image.data() + offset);
    decode_sector(all, &sector, &block->counts);
    all->sectors.push_back(sector);
    block->sector_count++;
  }
  const auto tail_size = static_cast<size_t>(end - offset);
  block->tail_is_erased = is_erased(all->image.data() + offset, tail_size);
  block->is_erased = block->verdict == header_verdict::erased && block->tail_is_erased &&
                     block->counts.free_sectors == block->sector_count;
}

// As a mount looks for it: the first erased block of the largest size.
std::optional<uint32_t> find_spare(const records& all) {
  uint32_t largest = 0;
  for (const block_record& block : all.blocks) {
    largest = std::max(largest, block.sector_count);
  }
  for (const block_record& block : all.blocks) {
    if (block.verdict == header_verdict::good && block.state == block_available &&
        block.sector_count == largest) {
      return block.number;
    }
  }
  return std::nullopt;
}

}  // namespace

void decode_records(records* all) {
  uint32_t number = 0;
  for (const flash_block_info& place : block_table(all->layout)) {
    if (place.skip != 0) {
      continue;
    }
    block_record block = decode_header(*all, place, number);
    decode_sectors(all, &block);
    all->total += block.counts;
    all->blocks.push_back(block);
    number++;
  }
  all->spare = find_spare(*all);
}

sector_verdict judge_data_sector(const flashfs_sector& sector) {
  if (sector_crc(&sector) == flashfs_good_crc) {
    return sector_verdict::good;
  }
  // The checksum is written last.
  return sector.checksum == erased_word ? sector_verdict::unfinished : sector_verdict::bad_checksum;
}

slot_verdict judge_slot(const flashfs_dir_slot& slot) {
  if (slot.dir_fileid == fileid_invalidated) {
    return slot_verdict::deleted;
  }
  if (slot.dir_fileid == fileid_available) {
    return is_erased(&slot, sizeof(slot)) ? slot_verdict::free : slot_verdict::not_erased;
  }
  if (dir_slot_crc(&slot) != flashfs_good_crc) {
    return slot.checksum == erased_word ? slot_verdict::unfinished : slot_verdict::bad_checksum;
  }
  if (!is_directory_mode(slot.mode) && !is_regular_mode(slot.mode)) {
    return slot_verdict::bad_type;
  }
  char name[filename_buffer_size];
  dir_slot_get_name(&slot, name);
  return filename_illegal_char(name) != 0 ? slot_verdict::bad_name : slot_verdict::good;
}

const char* verdict_text(header_verdict verdict) {
  switch (verdict) {
    case header_verdict::good:
      return "good";
    case header_verdict::erased:
      return "erased";
    case header_verdict::bad_number:
      return "the number is another block's";
    case header_verdict::bad_checksum:
      return "the checksum does not fit";
    case header_verdict::missing:
      break;
  }
  return "the image ends before it";
}

const char* verdict_text(sector_verdict verdict) {
  switch (verdict) {
    case sector_verdict::good:
      return "good";
    case sector_verdict::unfinished:
      return "claimed, but not written whole";
    case sector_verdict::bad_checksum:
      return "the checksum does not fit";
    case sector_verdict::not_erased:
      break;
  }
  return "no owner, but not erased";
}

const char* verdict_text(slot_verdict verdict) {
  switch (verdict) {
    case slot_verdict::free:
      return "free";
    case slot_verdict::deleted:
      return "deleted";
    case slot_verdict::good:
      return "good";
    case slot_verdict::not_erased:
      return "no directory, but not erased";
    case slot_verdict::unfinished:
      return "begun, but not written whole";
    case slot_verdict::bad_checksum:
      return "the checksum does not fit";
    case slot_verdict::bad_type:
      return "neither a file nor a directory";
    case slot_verdict::bad_name:
      break;
  }
  return "a character that must not stand in a name";
}

const char* kind_text(sector_kind kind) {
  switch (kind) {
    case sector_kind::free:
      return "free";
    case sector_kind::not_erased:
      return "without owner";
    case sector_kind::obsolete:
      return "obsolete";
    case sector_kind::directory:
      return "directory";
    case sector_kind::data:
      break;
  }
  return "data";
}

const char* state_text(uint8_t state) {
  switch (state) {
    case block_available:
      return "available";
    case block_invalid1:
      return "invalid1";
    case block_committed:
      return "committed";
    case block_invalid2:
      return "invalid2";
    case block_in_use:
      return "in use";
    default:
      return "unknown";
  }
}

std::string_view slot_name(const flashfs_dir_slot& slot) {
  return {slot.name, strnlen(slot.name, filename_size)};
}

image_place find_place(const records& all, uint64_t offset) {
  const auto next_block =
      std::upper_bound(all.blocks.begin(), all.blocks.end(), offset,
                       [](uint64_t at, const block_record& block) { return at < block.offset; });
  if (next_block == all.blocks.begin()) {
    return {};
  }
  const block_record& block = *(next_block - 1);
  if (offset >= uint64_t{block.offset} + block.size || offset >= all.image.size()) {
    return {};
  }
  image_place place;
  place.block = &block;
  const uint64_t behind = offset - block.offset;
  if (behind < sizeof(flashfs_blkheader)) {
    return place;
  }
  const uint64_t sector_number = (behind - sizeof(flashfs_blkheader)) / sizeof(flashfs_sector);
  if (sector_number >= block.sector_count) {
    return place;
  }
  place.sector = &all.sectors_of(block)[static_cast<size_t>(sector_number)];
  const uint64_t in_sector = offset - place.sector->offset;
  const std::span<const slot_record> slots = all.slots_of(*place.sector);
  if (slots.empty() || in_sector < offsetof(flashfs_sector, slots) ||
      in_sector >= offsetof(flashfs_sector, seq_no)) {
    return place;
  }
  place.slot = &slots[static_cast<size_t>((in_sector - offsetof(flashfs_sector, slots)) /
                                          sizeof(flashfs_dir_slot))];
  return place;
}

record_counts& record_counts::operator+=(const record_counts& other) {
  free_sectors += other.free_sectors;
  obsolete_sectors += other.obsolete_sectors;
  data_sectors += other.data_sectors;
  directory_sectors += other.directory_sectors;
  bad_sectors += other.bad_sectors;
  free_slots += other.free_slots;
  deleted_slots += other.deleted_slots;
  good_slots += other.good_slots;
  bad_slots += other.bad_slots;
  current += other.current;
  return *this;
}

}  // namespace image
