// The driver calls over a NOR flash in memory, their checks and their planned failures.
#include "tests/support/ram_flash.h"

#include <cstring>
#include <memory>

namespace test_support {

namespace {

constexpr size_t blocks_of_ppc = 256;
constexpr size_t usable_blocks_of_ppc = 216;

std::vector<flash_block_info> laid_out(const std::vector<ram_block>& blocks) {
  std::vector<flash_block_info> infos;
  uint32_t offset = 0;
  for (const ram_block& block : blocks) {
    infos.push_back({offset, block.size, static_cast<uint8_t>(block.skip ? 1 : 0)});
    offset += block.size;
  }
  return infos;
}

uint32_t total_size(const std::vector<flash_block_info>& blocks) {
  return blocks.empty() ? 0 : blocks.back().offset + blocks.back().size;
}

uint64_t eight_bytes(const uint8_t* at) {
  uint64_t bytes;
  std::memcpy(&bytes, at, sizeof(bytes));
  return bytes;
}

// Whether the bytes wanted have a bit that the bytes held have not.
bool sets_a_bit(const uint8_t* wanted, const uint8_t* held, uint32_t length) {
  uint64_t set = 0;
  uint32_t i = 0;
  for (; i + sizeof(set) <= length; i += sizeof(set)) {
    set |= eight_bytes(wanted + i) & ~eight_bytes(held + i);
  }
  for (; i < length; i++) {
    set |= static_cast<uint64_t>(wanted[i] & ~held[i]);
  }
  return set != 0;
}

// How many bytes from here on are as they are wanted, in steps of eight.
uint32_t length_of_same(const uint8_t* wanted, const uint8_t* held, uint32_t length) {
  constexpr uint32_t step = 8;
  uint32_t i = 0;
  while (i + step <= length && eight_bytes(wanted + i) == eight_bytes(held + i)) {
    i += step;
  }
  return i;
}

// Calls that the file system never makes.
flash_return_code not_supported() {
  return flash_illegal_operation;
}

}  // namespace

std::vector<ram_block> ram_blocks(size_t count, uint32_t size_bytes) {
  return std::vector<ram_block>(count, ram_block{size_bytes, false});
}

std::vector<ram_block> ram_blocks_of_ppc() {
  std::vector<ram_block> blocks(blocks_of_ppc);
  for (size_t block = usable_blocks_of_ppc; block < blocks_of_ppc; ++block) {
    blocks[block].skip = true;
  }
  return blocks;
}

ram_flash::ram_flash(const std::vector<ram_block>& blocks, sim::power* supply)
    : blocks_(laid_out(blocks)),
      flash_(total_size(blocks_), supply == nullptr ? own_supply_ : *supply),
      handle_{this} {
  driver_.read = [](const void* handle, uint32_t offset, uint32_t length, void* buffer) {
    return device_of(handle)->read(offset, length, buffer);
  };
  driver_.write = [](const void* handle, uint32_t offset, uint32_t length, const void* buffer) {
    return device_of(handle)->write(offset, length, buffer);
  };
  driver_.erase = [](const void* handle, uint32_t offset) {
    return device_of(handle)->erase(offset);
  };
  driver_.uninit = not_supported;
  driver_.lock = not_supported;
  driver_.unlock = not_supported;
  driver_.lock_master = not_supported;
  driver_.block_count = static_cast<uint16_t>(blocks_.size());
  driver_.blocks = blocks_.data();
}

ram_flash* ram_flash::device_of(const void* handle) {
  return static_cast<const handle_record*>(handle)->device;
}

void ram_flash::fail(flash_call kind, uint64_t n, flash_return_code code, bool and_after) {
  fail_kind_ = kind;
  fail_n_ = n;
  fail_seen_ = 0;
  fail_code_ = code;
  fail_and_after_ = and_after;
}

bool ram_flash::planned_failure(flash_call kind, flash_return_code* code) {
  if (fail_kind_ != flash_call::any && fail_kind_ != kind) {
    return false;
  }
  fail_seen_++;
  *code = fail_code_;
  if (fail_n_ == 0 || (fail_seen_ != fail_n_ && !(fail_and_after_ && fail_seen_ > fail_n_))) {
    return false;
  }
  failed_kind_ = kind;
  return true;
}

flash_return_code ram_flash::refuse() {
  deviations_++;
  return flash_illegal_operation;
}

void ram_flash::note_edges_since(uint64_t mutations) {
  if (edges_ != nullptr && supply().mutations() > mutations) {
    edges_->insert({mutations + 1, supply().mutations()});
  }
}

flash_return_code ram_flash::read(uint32_t offset, uint32_t length, void* buffer) {
  counts_.reads++;
  flash_return_code code;
  if (planned_failure(flash_call::read, &code)) {
    return code;
  }
  if (length == 0 || offset > flash_.size() || length > flash_.size() - offset) {
    return refuse();
  }
  counts_.bytes_read += length;
  flash_.read(offset, buffer, length);
  return flash_ok;
}

flash_return_code ram_flash::write(uint32_t offset, uint32_t length, const void* buffer) {
  counts_.writes++;
  flash_return_code code;
  if (planned_failure(flash_call::write, &code)) {
    return code;
  }
  if (offset % 2 != 0 || length % 2 != 0 || length == 0 || offset > flash_.size() ||
      length > flash_.size() - offset) {
    return refuse();
  }
  if (flash_.dead()) {
    return flash_ok;
  }
  counts_.bytes_programmed += length;
  const auto* wanted = static_cast<const uint8_t*>(buffer);
  const uint8_t* held = flash_.bytes() + offset;
  if (sets_a_bit(wanted, held, length)) {
    return refuse();
  }
  const uint64_t mutations = supply().mutations();
  for (uint32_t i = 0; i < length; i += 2) {
    i += length_of_same(wanted + i, held + i, length - i);
    if (i < length && (wanted[i] != held[i] || wanted[i + 1] != held[i + 1])) {
      counts_.words_programmed++;
      const auto word = static_cast<uint16_t>((wanted[i] << 8) | wanted[i + 1]);
      if (watcher_) {
        const auto old = static_cast<uint16_t>((held[i] << 8) | held[i + 1]);
        watcher_({.is_erase = false, .offset = offset + i, .held = old, .wanted = word});
      }
      flash_.program16(offset + i, word);
    }
  }
  note_edges_since(mutations);
  return flash_ok;
}

flash_return_code ram_flash::erase(uint32_t offset) {
  counts_.erases++;
  flash_return_code code;
  if (planned_failure(flash_call::erase, &code)) {
    return code;
  }
  for (const flash_block_info& block : blocks_) {
    if (block.offset == offset) {
      const uint64_t mutations = supply().mutations();
      if (watcher_) {
        watcher_({.is_erase = true, .offset = offset});
      }
      flash_.erase(offset, block.size);
      note_edges_since(mutations);
      return flash_ok;
    }
  }
  return refuse();
}

}  // namespace test_support
