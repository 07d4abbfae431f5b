#include "image/rescue_blocks.h"

#include <algorithm>
#include <cstring>

namespace image::rescuing {

namespace {

bool is_clean(const evidence& found, uint16_t block) {
  const block_record& record = found.blocks[block];
  const uint8_t* start = found.bytes.data() + record.offset;
  return is_erased(start + sizeof(flashfs_blkheader), record.size - sizeof(flashfs_blkheader));
}

bool same_data(const evidence& found, const sector_record& one, const sector_record& other) {
  flashfs_sector expected = *found.sector(one.at);
  expected.fileid = one.owner;
  return other.kind == sector_kind::data && other.owner == one.owner &&
         other.number == one.number &&
         memcmp(&expected, found.sector(other.at), sizeof(expected)) == 0;
}

bool same_slot(const slot_record& one, const slot_record& other) {
  return other.kind == slot_kind::good &&
         memcmp(&one.slot, &other.slot, sizeof(flashfs_dir_slot)) == 0;
}

// The good records by what they say, so that equal ones stand side by side.
class record_index {
 public:
  explicit record_index(const evidence& found) : found_(found) {
    for (const sector_record& each : found.sectors) {
      if (each.kind == sector_kind::data) {
        data_.push_back(&each);
      }
    }
    for (const slot_record& each : found.slots) {
      if (each.kind == slot_kind::good) {
        slots_.push_back(&each);
      }
    }
    std::sort(data_.begin(), data_.end(), before_data);
    std::sort(slots_.begin(), slots_.end(), before_slot);
  }

  bool stands_elsewhere(const sector_record& record) const {
    const auto [first, last] = std::equal_range(data_.begin(), data_.end(), &record, before_data);
    return std::any_of(first, last, [&](const sector_record* other) {
      return counts(record.at, other->at) && same_data(found_, record, *other);
    });
  }
  bool stands_elsewhere(const slot_record& record) const {
    const auto [first, last] = std::equal_range(slots_.begin(), slots_.end(), &record, before_slot);
    return std::any_of(first, last, [&](const slot_record* other) {
      return counts(record.at, other->at) && same_slot(record, *other);
    });
  }

 private:
  static bool before_data(const sector_record* one, const sector_record* other) {
    return one->owner != other->owner ? one->owner < other->owner : one->number < other->number;
  }
  static bool before_slot(const slot_record* one, const slot_record* other) {
    return memcmp(&one->slot, &other->slot, sizeof(flashfs_dir_slot)) < 0;
  }
  bool counts(sector_place one, sector_place other) const {
    return one.block != other.block && found_.is_kept(other);
  }

  const evidence& found_;
  std::vector<const sector_record*> data_;
  std::vector<const slot_record*> slots_;
};

size_t count_single(const evidence& found, const record_index& index, uint16_t block) {
  const block_record& record = found.blocks[block];
  size_t count = 0;
  for (uint16_t s = 0; s < record.sectors; s++) {
    const sector_record& each = found.sectors[record.first_sector + s];
    count += each.kind == sector_kind::data && !index.stands_elsewhere(each) ? 1 : 0;
  }
  for (const slot_record& each : found.slots_of(block)) {
    count += each.kind == slot_kind::good && !index.stands_elsewhere(each) ? 1 : 0;
  }
  return count;
}

bool is_on_twin(const record_index& index, sector_record each) {
  switch (each.kind) {
    case sector_kind::erased:
    case sector_kind::obsolete:
    case sector_kind::directory:
      return true;
    case sector_kind::obsolete_torn:
      each.owner = each.fitting;
      return index.stands_elsewhere(each);
    case sector_kind::data:
      return index.stands_elsewhere(each);
    default:
      return false;  // it tells of an operation that was cut
  }
}

bool is_on_twin(const record_index& index, slot_record each) {
  switch (each.kind) {
    case slot_kind::erased:
    case slot_kind::deleted:
      return true;
    case slot_kind::deleted_torn:
      each.slot.dir_fileid = each.fitting;
      return index.stands_elsewhere(each);
    case slot_kind::good:
      return index.stands_elsewhere(each);
    default:
      return false;
  }
}

// Whether everything in a block stands elsewhere, too: a reclamation has copied it or has been
// copied from it, and a check may have made some of it obsolete since.
bool is_twin(const evidence& found, const record_index& index, uint16_t block) {
  const block_record& record = found.blocks[block];
  const auto sectors = std::span(found.sectors).subspan(record.first_sector, record.sectors);
  const auto slots = found.slots_of(block);
  const auto on_twin = [&](const auto& each) { return is_on_twin(index, each); };
  return std::all_of(sectors.begin(), sectors.end(), on_twin) &&
         std::all_of(slots.begin(), slots.end(), on_twin);
}

// In this order blocks are looked at for being copies: what an erase has begun to take comes first,
// then copies that were not finished, then those that were.
int rank(const block_record& block) {
  if (!block.header_good) {
    return 0;
  }
  return block.state == block_invalid1 ? 1 : block.state == block_available ? 2 : 3;
}

bool is_regular_block(const evidence& found, uint16_t b) {
  const block_record& block = found.blocks[b];
  return block.header_good &&
         (block.state == block_in_use || (block.state == block_available && is_clean(found, b)));
}

std::string said_of_header(const block_record& block) {
  return block.header_good ? std::string("its state reads ") + block_state_text(block.state)
                           : "its header is torn or damaged";
}

// Without an erased block of the largest size nothing can be reclaimed, and no check mounts the
// flash: a block in use that is another one's twin is the spare then.
void free_twin(evidence* found, const record_index& index,
               std::vector<rescue_decision>* decisions) {
  uint16_t largest = 0;
  for (const block_record& each : found->blocks) {
    largest = std::max(largest, each.sectors);
  }
  for (const block_record& each : found->blocks) {
    if (each.sectors == largest && each.fate != block_fate::kept) {
      return;
    }
  }
  const auto count = static_cast<uint16_t>(found->blocks.size());
  for (uint16_t b = 0; b < count; b++) {
    if (found->blocks[b].sectors == largest && is_twin(*found, index, b)) {
      found->blocks[b].fate = block_fate::condemned;
      rescue_decision decision = {.code = "block-erased", .sure = certainty::proved, .block = b};
      decision.what = "erase the block and give it a new header";
      decision.evidence =
          "no erased block of the largest size is there, and no good record stands in it that "
          "stands nowhere else";
      decisions->push_back(decision);
      return;
    }
  }
}

}  // namespace

void judge_blocks(evidence* found, std::vector<rescue_decision>* decisions) {
  std::vector<uint16_t> odd;
  const auto count = static_cast<uint16_t>(found->blocks.size());
  for (uint16_t b = 0; b < count; b++) {
    block_record& block = found->blocks[b];
    block.fate = block_fate::kept;
    if (!is_regular_block(*found, b)) {
      odd.push_back(b);
    } else if (block.state == block_available) {
      block.fate = block_fate::fresh;
    }
  }
  std::stable_sort(odd.begin(), odd.end(), [&](uint16_t one, uint16_t other) {
    return rank(found->blocks[one]) < rank(found->blocks[other]);
  });
  const record_index index(*found);
  for (const uint16_t b : odd) {
    block_record& block = found->blocks[b];
    const size_t singles = count_single(*found, index, b);
    rescue_decision decision = {.sure = certainty::proved, .block = b};
    if (singles == 0) {
      block.fate = block_fate::condemned;
      decision.code = "block-erased";
      decision.what = "erase the block and give it a new header";
      decision.evidence =
          said_of_header(block) + ", and no good record stands in it that stands nowhere else";
    } else {
      decision.code = "block-kept";
      decision.what = "take the block into use";
      decision.evidence = said_of_header(block) + ", and it has the only copy of " +
                          std::to_string(singles) + " good records";
    }
    decisions->push_back(decision);
  }
  free_twin(found, index, decisions);
}

}  // namespace image::rescuing
