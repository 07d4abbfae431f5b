// The bytes of a fuzzer's input, taken one after another; zeros when they run out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

class input_bytes {
 public:
  input_bytes(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  bool empty() const {
    return at_ >= size_;
  }
  uint8_t byte() {
    return empty() ? 0 : data_[at_++];
  }
  uint16_t word() {
    const uint32_t high = byte();
    return static_cast<uint16_t>(high << 8 | byte());
  }
  uint32_t below(uint32_t limit) {
    return byte() % limit;
  }
  std::string text(size_t longest) {
    const size_t length = below(static_cast<uint32_t>(longest + 1));
    std::string bytes;
    while (bytes.size() < length && !empty()) {
      bytes.push_back(static_cast<char>(byte()));
    }
    return bytes;
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t at_ = 0;
};
