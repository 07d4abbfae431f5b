// An image in the making: a file beside the one whose name it gets when it is complete and judged,
// so that it is written only once; or memory, where it goes to standard output or nowhere.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "image/flash_file.h"
#include "image/globals.h"
#include "image/host_file.h"
#include "image/new_image.h"
#include "image/report.h"

namespace image {

class image_draft {
 public:
  // Begins an image of so many bytes. What it replaces is locked until this object ends. Nothing
  // after a failure, which is told, or a signal.
  static std::optional<image_draft> begin(const new_image& planned, size_t size_bytes,
                                          const globals& all, report& out);
  ~image_draft();
  image_draft(image_draft&& other) noexcept;
  image_draft& operator=(image_draft&& other) noexcept;

  // A range of it; what was not written yet cannot be read. False when that fails: see fault.
  [[nodiscard]] bool write(uint32_t offset, std::span<const uint8_t> bytes);
  [[nodiscard]] bool read(uint32_t offset, std::span<uint8_t> to);
  // What has failed first, for a person; empty: nothing.
  const std::string& fault() const {
    return fault_;
  }
  // The whole of it, once all is written, to be changed at will: nobody else sees that. Nothing
  // when that fails.
  std::optional<std::span<uint8_t>> private_view();
  // It gets its name, or goes to standard output; in a dry run, nowhere. False when that fails.
  [[nodiscard]] bool finish();

 private:
  image_draft() = default;
  bool begin_file(const new_image& planned, const globals& all, std::string* why);
  bool fail(const std::string& what);

  size_t size_ = 0;
  std::optional<flash_file> replaced_;
  std::optional<unfinished_file> file_;  // nothing: it is in memory
  std::vector<uint8_t> memory_;
  bool goes_nowhere_ = false;
  uint8_t* view_ = nullptr;
  std::string fault_;
};

}  // namespace image
