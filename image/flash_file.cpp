// Opening, locking and mapping.
#include "image/flash_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "image/interrupt.h"

namespace image {

namespace {

using clock = std::chrono::steady_clock;

constexpr useconds_t lock_poll_microseconds = 20000;
constexpr size_t size_max = INT32_MAX;
constexpr const char* too_large = "is larger than any image";

// Waits for the lock. File systems without locks let everybody go on.
bool lock(int number, int kind, clock::time_point end, std::string* why) {
  while (flock(number, kind | LOCK_NB) != 0) {
    if (errno == EOPNOTSUPP || errno == ENOLCK || errno == ENOSYS) {
      return true;
    }
    if (interrupted()) {
      return refuse(why, "interrupted while waiting for the lock");
    }
    if (errno != EWOULDBLOCK && errno != EINTR) {
      return refuse_errno(why, "cannot be locked");
    }
    if (clock::now() >= end) {
      return refuse(why, "is in use by another run");
    }
    usleep(lock_poll_microseconds);
  }
  return true;
}

// Whether the path still leads to the open file.
bool is_still_at(int number, const std::string& path) {
  struct stat opened = {};
  struct stat named = {};
  return fstat(number, &opened) == 0 && stat(path.c_str(), &named) == 0 &&
         opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

// The size of what is open, if it is a file of bearable size.
bool check_kind(int number, size_t* size, std::string* why) {
  struct stat status = {};
  if (fstat(number, &status) != 0) {
    return refuse_errno(why, "cannot be looked at");
  }
  if (!S_ISREG(status.st_mode)) {
    return refuse(why, S_ISDIR(status.st_mode) ? "is a directory" : "is not a regular file");
  }
  if (static_cast<uint64_t>(status.st_size) > size_max) {
    return refuse(why, too_large);
  }
  *size = static_cast<size_t>(status.st_size);
  return true;
}

// Opens and locks what the path leads to when the lock is there. Nothing when that cannot be.
descriptor open_locked(const std::string& path, flash_file::access wanted, double timeout_seconds,
                       size_t* size, std::string* why) {
  const bool editing = wanted == flash_file::access::edit;
  const auto end = clock::now() + std::chrono::duration_cast<clock::duration>(
                                      std::chrono::duration<double>(timeout_seconds));
  for (;;) {
    // Not blocking, should it be a pipe; to be written, so that who may not is told at once.
    descriptor opened(::open(path.c_str(), (editing ? O_RDWR : O_RDONLY) | O_CLOEXEC | O_NONBLOCK));
    if (!opened) {
      refuse_errno(why, "cannot be opened");
      return opened;
    }
    if (!check_kind(opened.get(), size, why) ||
        !lock(opened.get(), editing ? LOCK_EX : LOCK_SH, end, why)) {
      return descriptor();
    }
    if (is_still_at(opened.get(), path)) {
      return check_kind(opened.get(), size, why) ? std::move(opened) : descriptor();
    }
  }
}

}  // namespace

std::optional<flash_file> flash_file::open(const std::string& path, access wanted,
                                           double timeout_seconds, std::string* why) {
  flash_file opened;
  if (path == "-") {
    if (wanted == access::edit) {
      refuse(why, "standard input can only be read; --output names where an edit goes");
      return std::nullopt;
    }
    if (!read_to_end(STDIN_FILENO, &opened.input_, size_max)) {
      errno == EFBIG ? refuse(why, too_large) : refuse_errno(why, "standard input cannot be read");
      return std::nullopt;
    }
    opened.size_ = opened.input_.size();
    return opened;
  }
  char* real = realpath(path.c_str(), nullptr);
  if (real == nullptr) {
    refuse_errno(why, "cannot be opened");
    return std::nullopt;
  }
  opened.real_path_ = real;
  std::free(real);
  opened.opened_ = open_locked(opened.real_path_, wanted, timeout_seconds, &opened.size_, why);
  if (!opened.opened_) {
    return std::nullopt;
  }
  if (opened.size_ == 0) {
    refuse(why, "is empty");
    return std::nullopt;
  }
  void* mapped =
      mmap(nullptr, opened.size_, PROT_READ, MAP_PRIVATE, opened.opened_.get(), off_t{0});
  if (mapped == MAP_FAILED) {
    refuse_errno(why, "cannot be read");
    return std::nullopt;
  }
  opened.bytes_ = static_cast<const uint8_t*>(mapped);
  return opened;
}

flash_file::~flash_file() {
  if (view_ != nullptr) {
    munmap(view_, size_);
  }
  if (bytes_ != nullptr) {
    munmap(const_cast<uint8_t*>(bytes_), size_);
  }
}

flash_file::flash_file(flash_file&& other) noexcept {
  *this = std::move(other);
}

flash_file& flash_file::operator=(flash_file&& other) noexcept {
  std::swap(real_path_, other.real_path_);
  std::swap(opened_, other.opened_);
  std::swap(bytes_, other.bytes_);
  std::swap(size_, other.size_);
  std::swap(view_, other.view_);
  std::swap(input_, other.input_);
  return *this;
}

std::optional<std::span<uint8_t>> flash_file::private_view(std::string* why) {
  if (view_ == nullptr) {
    const bool of_file = static_cast<bool>(opened_);
    void* mapped = mmap(nullptr, size_, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | (of_file ? 0 : MAP_ANONYMOUS), opened_.get(), off_t{0});
    if (mapped == MAP_FAILED) {
      refuse_errno(why, "cannot be read");
      return std::nullopt;
    }
    view_ = static_cast<uint8_t*>(mapped);
    if (!of_file) {
      std::memcpy(view_, input_.data(), size_);
    }
  }
  return std::span<uint8_t>{view_, size_};
}

std::optional<file_identity> flash_file::identity() const {
  struct stat status = {};
  if (fstat(opened_ ? opened_.get() : STDIN_FILENO, &status) != 0) {
    return std::nullopt;
  }
  return file_identity{status.st_dev, status.st_ino};
}

bool flash_file::replace(std::span<const uint8_t> contents, bool dry_run, std::string* why) const {
  return replace_file(opened_.get(), real_path_, contents, dry_run, why);
}

std::optional<unfinished_file> flash_file::begin_to_replace(std::string* why) const {
  return unfinished_file::begin_in_place_of(opened_.get(), real_path_, why);
}

}  // namespace image
