// The rules of NOR flash and the ways in which a power cut leaves it.
#include "sim/flash.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace sim {

namespace {

constexpr uint8_t erased_byte = 0xFF;

}  // namespace

nor_flash::nor_flash(size_t size_bytes, power& supply, memory_source source)
    : size_(size_bytes), supply_(&supply), source_(std::move(source)) {}

void nor_flash::touch() {
  if (source_) {
    bytes_ = source_(size_);
    return;
  }
  // Not make_unique: it would zero the bytes before they are set to ones.
  own_.reset(new uint8_t[size_]);
  std::memset(own_.get(), erased_byte, size_);
  bytes_ = own_.get();
}

uint16_t nor_flash::read16(uint32_t offset) {
  uint8_t word[2];
  read(offset, word, sizeof word);
  return static_cast<uint16_t>((word[0] << 8) | word[1]);
}

void nor_flash::read(uint32_t offset, void* buffer, size_t length) {
  if (dead() || offset >= size_) {
    std::memset(buffer, erased_byte, length);
    return;
  }
  const size_t held = std::min(length, size_ - offset);
  std::memcpy(buffer, bytes() + offset, held);
  std::memset(static_cast<uint8_t*>(buffer) + held, erased_byte, length - held);
}

void nor_flash::program16(uint32_t offset, uint16_t value) {
  if (dead() || size_ < 2 || offset > size_ - 2) {
    return;
  }
  uint8_t* word = bytes() + offset;
  const auto high = static_cast<uint8_t>(value >> 8);
  const auto low = static_cast<uint8_t>(value);
  if ((high & ~word[0]) != 0 || (low & ~word[1]) != 0) {
    bit_set_requests_++;
  }
  const auto held = static_cast<uint16_t>((word[0] << 8) | word[1]);
  last_mutation_ = {.is_erase = false, .offset = offset, .held = held, .wanted = value};
  if (supply_->next_mutation()) {
    tear_word(offset, value);
    return;
  }
  word[0] &= high;
  word[1] &= low;
  if (!stuck_.empty()) {
    apply_stuck_bits(offset, 2);
  }
}

void nor_flash::erase(uint32_t offset, size_t length) {
  if (dead() || offset >= size_) {
    return;
  }
  length = std::min(length, size_ - offset);
  uint8_t* first = bytes() + offset;
  last_mutation_ = {.is_erase = true, .offset = offset};
  if (supply_->next_mutation()) {
    tear_erase(offset, length);
    return;
  }
  std::memset(first, erased_byte, length);
  if (!stuck_.empty()) {
    apply_stuck_bits(offset, length);
  }
}

void nor_flash::tear_word(uint32_t offset, uint16_t value) {
  uint8_t* word = bytes_ + offset;
  uint64_t kept = 0;
  switch (supply_->kind()) {
    case cut_kind::before:
      kept = 0xFFFF;
      break;
    case cut_kind::during:
    case cut_kind::during_noise:
      kept = supply_->random();
      break;
    case cut_kind::after:
      break;
  }
  word[0] &= static_cast<uint8_t>((value | kept) >> 8);
  word[1] &= static_cast<uint8_t>(value | kept);
  supply_->fail();
}

void nor_flash::tear_erase(uint32_t offset, size_t length) {
  uint8_t* first = bytes_ + offset;
  size_t blank = 0;
  switch (supply_->kind()) {
    case cut_kind::before:
      break;
    case cut_kind::during:
    case cut_kind::during_noise:
      blank = length == 0 ? 0 : static_cast<size_t>(supply_->random() % length);
      break;
    case cut_kind::after:
      blank = length;
      break;
  }
  std::memset(first, erased_byte, blank);
  if (supply_->kind() == cut_kind::during_noise) {
    std::generate(first + blank, first + length,
                  [this] { return static_cast<uint8_t>(supply_->random()); });
  }
  supply_->fail();
}

void nor_flash::stick(uint32_t offset, uint8_t stuck_at_zero, uint8_t stuck_at_one) {
  stuck_.push_back({offset, stuck_at_zero, stuck_at_one});
}

void nor_flash::apply_stuck_bits(uint32_t offset, size_t length) {
  for (const stuck_byte& stuck : stuck_) {
    // What stands before the range wraps to far behind it.
    if (stuck.offset - offset < length) {
      uint8_t& byte = bytes_[stuck.offset];
      byte = static_cast<uint8_t>((byte & ~stuck.at_zero) | stuck.at_one);
    }
  }
}

void nor_flash::set_source(memory_source source) {
  source_ = std::move(source);
}

std::vector<uint8_t> nor_flash::snapshot() {
  return {bytes(), bytes() + size_};
}

void nor_flash::restore(const std::vector<uint8_t>& contents) {
  const size_t held = std::min(contents.size(), size_);
  std::copy_n(contents.begin(), held, bytes());
  std::memset(bytes() + held, erased_byte, size_ - held);
}

void nor_flash::fill_erased() {
  std::memset(bytes(), erased_byte, size_);
}

size_t nor_flash::first_difference(const std::vector<uint8_t>& contents) {
  const size_t held = std::min(contents.size(), size_);
  const auto [mine, theirs] = std::mismatch(bytes(), bytes() + held, contents.begin());
  const auto same = static_cast<size_t>(mine - bytes());
  return same < held ? same : (contents.size() < size_ ? held : size_);
}

}  // namespace sim
