// Images that are files, or memory, until they are complete.
#include "image/image_draft.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "image/interrupt.h"

namespace image {

std::optional<image_draft> image_draft::begin(const new_image& planned, size_t size_bytes,
                                              const globals& all, report& out) {
  image_draft begun;
  begun.size_ = size_bytes;
  begun.goes_nowhere_ = all.dry_run;
  if (planned.name == "-" || all.dry_run) {
    begun.memory_.resize(size_bytes);
    return begun;
  }
  if (std::string why; !begun.begin_file(planned, all, &why)) {
    if (!interrupted()) {
      out.fail(exit_status::failed, why, planned.name);
    }
    return std::nullopt;
  }
  return begun;
}

bool image_draft::begin_file(const new_image& planned, const globals& all, std::string* why) {
  if (!replaces_an_image(planned)) {
    file_ = unfinished_file::begin(planned.name, options_of_new_image(planned, false), why);
    return file_.has_value();
  }
  replaced_ =
      flash_file::open(planned.name, flash_file::access::edit, all.lock_timeout_seconds, why);
  if (replaced_) {
    file_ = replaced_->begin_to_replace(why);
  }
  return file_.has_value();
}

image_draft::~image_draft() {
  if (view_ != nullptr) {
    munmap(view_, size_);
  }
}

image_draft::image_draft(image_draft&& other) noexcept {
  *this = std::move(other);
}

image_draft& image_draft::operator=(image_draft&& other) noexcept {
  std::swap(size_, other.size_);
  std::swap(replaced_, other.replaced_);
  std::swap(file_, other.file_);
  std::swap(memory_, other.memory_);
  std::swap(goes_nowhere_, other.goes_nowhere_);
  std::swap(view_, other.view_);
  std::swap(fault_, other.fault_);
  return *this;
}

// With the text of errno.
bool image_draft::fail(const std::string& what) {
  if (fault_.empty()) {
    fault_ = what + ": " + std::strerror(errno);
  }
  return false;
}

bool image_draft::write(uint32_t offset, std::span<const uint8_t> bytes) {
  if (file_) {
    return write_all_at(file_->get(), off_t{offset}, bytes) || fail("cannot be written");
  }
  std::copy(bytes.begin(), bytes.end(), memory_.begin() + offset);
  return true;
}

bool image_draft::read(uint32_t offset, std::span<uint8_t> to) {
  if (file_) {
    return read_all_at(file_->get(), off_t{offset}, to) || fail("cannot be read again");
  }
  std::copy_n(memory_.begin() + offset, to.size(), to.begin());
  return true;
}

std::optional<std::span<uint8_t>> image_draft::private_view() {
  if (!file_) {
    return std::span<uint8_t>(memory_);
  }
  if (view_ == nullptr) {
    void* const mapped =
        mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE, file_->get(), off_t{0});
    if (mapped == MAP_FAILED) {
      fail("cannot be read again");
      return std::nullopt;
    }
    view_ = static_cast<uint8_t*>(mapped);
  }
  return std::span<uint8_t>{view_, size_};
}

bool image_draft::finish() {
  if (goes_nowhere_) {
    return true;
  }
  if (!file_) {
    return write_all(STDOUT_FILENO, memory_) || fail("standard output: cannot be written");
  }
  return file_->finish(&fault_);
}

}  // namespace image
