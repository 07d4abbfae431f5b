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
  return other.kind == sector_kind::data && other.owner == one.owner &&
         other.number == one.number &&
         memcmp(found.sector(one.at), found.sector(other.at), sizeof(flashfs_sector)) == 0;
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
}

}  // namespace image::rescuing
