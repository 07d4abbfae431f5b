// The driver's operations over blocks that wait to be complete.
#include "image/fresh_flash.h"

#include <algorithm>
#include <cstring>

#include "image/memory_flash.h"

namespace image {

namespace {

// A file goes into one block after the other, and its name into another; these are all in a
// processor's cache.
constexpr size_t blocks_in_memory = 4;

constexpr uint32_t header_size = sizeof(flashfs_blkheader);

}  // namespace

fresh_flash::fresh_flash(const geometry& layout, image_draft* made)
    : table_(block_table(layout)),
      driver_(driver_of_blocks(&table_)),
      draft_(made),
      blocks_(table_.size()),
      held_(blocks_in_memory) {
  driver_.read = [](const void* handle, uint32_t offset, uint32_t length, void* buffer) {
    return flash_of(handle).read(offset, length, static_cast<uint8_t*>(buffer));
  };
  driver_.write = [](const void* handle, uint32_t offset, uint32_t length, const void* buffer) {
    return flash_of(handle).write(offset, length, static_cast<const uint8_t*>(buffer));
  };
  driver_.erase = [](const void* handle, uint32_t offset) {
    return flash_of(handle).erase(offset);
  };
  for (block& each : blocks_) {
    each.header.fill(flash_erased_byte);
  }
}

fresh_flash& fresh_flash::flash_of(const void* handle) {
  return *const_cast<fresh_flash*>(static_cast<const fresh_flash*>(handle));
}

bool fresh_flash::holds(uint32_t offset, uint32_t length) const {
  const uint32_t end = table_.empty() ? 0 : table_.back().offset + table_.back().size;
  return offset <= end && length <= end - offset;
}

bool fresh_flash::lies_in(size_t number, uint32_t offset) const {
  return offset - table_[number].offset < table_[number].size;
}

size_t fresh_flash::block_at(uint32_t offset) {
  if (last_block_ + 1 < table_.size() && lies_in(last_block_ + 1, offset)) {
    ++last_block_;
  } else if (!lies_in(last_block_, offset)) {
    const auto behind =
        std::upper_bound(table_.begin(), table_.end(), offset,
                         [](uint32_t at, const flash_block_info& one) { return at < one.offset; });
    last_block_ = static_cast<size_t>(behind - table_.begin()) - 1;
  }
  return last_block_;
}

fresh_flash::piece fresh_flash::first_piece(uint32_t offset, uint32_t length) {
  const size_t number = block_at(offset);
  const uint32_t in_block = offset - table_[number].offset;
  const bool in_header = in_block < header_size;
  const uint32_t end = in_header ? header_size : table_[number].size;
  return {number, in_block, std::min(length, end - in_block), in_header};
}

fresh_flash::held_block* fresh_flash::use(size_t number) {
  held_block& used = held_[blocks_[number].held];
  used.used_at = ++uses_;
  return &used;
}

// Puts a block into memory, in place of the one that was used longest ago. Null when that one
// cannot be put away.
fresh_flash::held_block* fresh_flash::hold(size_t number) {
  if (blocks_[number].behind_header == contents::in_memory) {
    return use(number);
  }
  held_block& taken = *std::min_element(
      held_.begin(), held_.end(),
      [](const held_block& one, const held_block& other) { return one.used_at < other.used_at; });
  if (taken.used_at != 0 && !put_into_draft(&taken)) {
    return nullptr;
  }
  taken.bytes.resize(table_[number].size);
  if (blocks_[number].behind_header == contents::erased) {
    std::fill(taken.bytes.begin(), taken.bytes.end(), flash_erased_byte);
  } else if (!draft_->read(table_[number].offset, taken.bytes)) {
    return nullptr;
  }
  taken.number = number;
  taken.used_at = ++uses_;
  blocks_[number].behind_header = contents::in_memory;
  blocks_[number].held = static_cast<uint8_t>(&taken - held_.data());
  return &taken;
}

// With its header, in which no erase is counted: what was erased here is no flash yet, and no
// checksum covers the count.
bool fresh_flash::put_into_draft(held_block* one) {
  block& put = blocks_[one->number];
  const flash_block_info& place = table_[one->number];
  std::copy(put.header.begin(), put.header.end(), one->bytes.begin());
  if (place.skip == 0) {
    std::fill_n(one->bytes.begin() + offsetof(flashfs_blkheader, erase_count),
                sizeof(flashfs_blkheader::erase_count), uint8_t{0});
  }
  one->used_at = 0;
  put.behind_header = contents::in_draft;
  put.header_in_draft = true;
  return draft_->write(place.offset, one->bytes);
}

bool fresh_flash::read_behind_header(const piece& from, uint8_t* to) {
  switch (blocks_[from.number].behind_header) {
    case contents::erased:
      std::memset(to, flash_erased_byte, from.length);
      return true;
    case contents::in_memory:
      std::memcpy(to, use(from.number)->bytes.data() + from.offset, from.length);
      return true;
    default:
      return draft_->read(table_[from.number].offset + from.offset, {to, from.length});
  }
}

flash_return_code fresh_flash::read(uint32_t offset, uint32_t length, uint8_t* to) {
  if (!holds(offset, length)) {
    return flash_illegal_operation;
  }
  while (length != 0) {
    const piece next = first_piece(offset, length);
    if (next.in_header) {
      std::memcpy(to, blocks_[next.number].header.data() + next.offset, next.length);
    } else if (!read_behind_header(next, to)) {
      return flash_operation_failed;
    }
    offset += next.length;
    to += next.length;
    length -= next.length;
  }
  return flash_ok;
}

flash_return_code fresh_flash::write(uint32_t offset, uint32_t length, const uint8_t* from) {
  if (!holds(offset, length)) {
    return flash_illegal_operation;
  }
  while (length != 0) {
    const piece next = first_piece(offset, length);
    if (next.in_header) {
      clear_bits(blocks_[next.number].header.data() + next.offset, from, next.length);
      blocks_[next.number].header_in_draft = false;
    } else if (held_block* const held = hold(next.number); held != nullptr) {
      clear_bits(held->bytes.data() + next.offset, from, next.length);
    } else {
      return flash_operation_failed;
    }
    offset += next.length;
    from += next.length;
    length -= next.length;
  }
  return flash_ok;
}

flash_return_code fresh_flash::erase(uint32_t offset) {
  if (!holds(offset, 1)) {
    return flash_illegal_operation;
  }
  const size_t number = block_at(offset);
  if (table_[number].offset != offset) {
    return flash_illegal_operation;
  }
  block& erased = blocks_[number];
  if (erased.behind_header == contents::in_memory) {
    use(number)->used_at = 0;
  }
  erased.behind_header = contents::erased;
  erased.header.fill(flash_erased_byte);
  return flash_ok;
}

bool fresh_flash::finish() {
  for (size_t i = 0; i < blocks_.size(); ++i) {
    if (blocks_[i].behind_header != contents::in_draft || !blocks_[i].header_in_draft) {
      held_block* const held = hold(i);
      if (held == nullptr || !put_into_draft(held)) {
        return false;
      }
    }
  }
  return true;
}

}  // namespace image
