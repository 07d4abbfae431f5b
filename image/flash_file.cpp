// Opening, locking, mapping and replacing.
#include "image/flash_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "image/interrupt.h"

namespace image {

namespace {

using clock = std::chrono::steady_clock;

constexpr useconds_t lock_poll_microseconds = 20000;
constexpr mode_t mode_of_new_files = 0666;
constexpr mode_t mode_bits = 07777;

bool refuse(std::string* why, const std::string& what) {
  *why = what;
  return false;
}

// With the text of errno.
bool refuse_errno(std::string* why, const std::string& what) {
  return refuse(why, what + ": " + std::strerror(errno));
}

// A descriptor that is closed at the end of its scope.
class descriptor {
 public:
  explicit descriptor(int number) : number_(number) {}
  ~descriptor() {
    if (number_ >= 0) {
      close(number_);
    }
  }
  descriptor(const descriptor&) = delete;
  descriptor& operator=(const descriptor&) = delete;
  int get() const {
    return number_;
  }
  int release() {
    return std::exchange(number_, -1);
  }

 private:
  int number_;
};

std::string folder_of(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

std::string name_of(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool read_all(int from, std::vector<uint8_t>* to) {
  constexpr size_t piece = 1 << 16;
  constexpr size_t most = size_t{UINT32_MAX};
  for (;;) {
    const size_t before = to->size();
    to->resize(before + piece);
    const ssize_t got = read(from, to->data() + before, piece);
    to->resize(before + static_cast<size_t>(got > 0 ? got : 0));
    if (got == 0 || to->size() > most) {
      return got == 0;
    }
    if (got < 0 && (errno != EINTR || interrupted())) {
      return false;
    }
  }
}

bool write_all(int to, std::span<const uint8_t> bytes) {
  while (!bytes.empty()) {
    const ssize_t put = write(to, bytes.data(), bytes.size());
    if (put < 0 && (errno != EINTR || interrupted())) {
      return false;
    }
    bytes = bytes.subspan(static_cast<size_t>(put > 0 ? put : 0));
  }
  return true;
}

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
  if (status.st_size > off_t{INT32_MAX}) {
    return refuse(why, "is larger than any image");
  }
  *size = static_cast<size_t>(status.st_size);
  return true;
}

// Opens and locks what the path leads to when the lock is there. Below 0 when that cannot be.
int open_locked(const std::string& path, flash_file::access wanted, double timeout_seconds,
                size_t* size, std::string* why) {
  const bool editing = wanted == flash_file::access::edit;
  const auto end = clock::now() + std::chrono::duration_cast<clock::duration>(
                                      std::chrono::duration<double>(timeout_seconds));
  for (;;) {
    // Not blocking, should it be a pipe; to be written, so that who may not is told at once.
    descriptor opened(::open(path.c_str(), (editing ? O_RDWR : O_RDONLY) | O_CLOEXEC | O_NONBLOCK));
    if (opened.get() < 0) {
      refuse_errno(why, "cannot be opened");
      return -1;
    }
    if (!check_kind(opened.get(), size, why) ||
        !lock(opened.get(), editing ? LOCK_EX : LOCK_SH, end, why)) {
      return -1;
    }
    if (is_still_at(opened.get(), path)) {
      return check_kind(opened.get(), size, why) ? opened.release() : -1;
    }
  }
}

// A file beside another one, that is removed unless it takes that one's name.
class temporary_file {
 public:
  explicit temporary_file(const std::string& beside)
      : path_(folder_of(beside) + "/." + name_of(beside) + ".XXXXXX"),
        opened_(mkostemp(path_.data(), O_CLOEXEC)) {
    if (made()) {
      remove_when_ended(path_.c_str());
    }
  }
  ~temporary_file() {
    if (made() && !named_) {
      unlink(path_.c_str());
    }
    remove_when_ended(nullptr);
  }
  temporary_file(const temporary_file&) = delete;
  temporary_file& operator=(const temporary_file&) = delete;

  bool made() const {
    return opened_.get() >= 0;
  }
  int get() const {
    return opened_.get();
  }
  // Gives it the name, in place of what has it, or only if nothing has it.
  bool take_name(const std::string& name, bool replacing) {
    named_ = (replacing ? rename(path_.c_str(), name.c_str()) : rename_new(name)) == 0;
    return named_;
  }

 private:
  int rename_new(const std::string& name) {
    if (renameat2(AT_FDCWD, path_.c_str(), AT_FDCWD, name.c_str(), RENAME_NOREPLACE) == 0) {
      return 0;
    }
    if (errno != EINVAL && errno != ENOSYS) {
      return -1;
    }
    // A file system that cannot do both at once.
    struct stat there = {};
    if (lstat(name.c_str(), &there) == 0) {
      errno = EEXIST;
      return -1;
    }
    return rename(path_.c_str(), name.c_str());
  }

  std::string path_;
  descriptor opened_;
  bool named_ = false;
};

bool sync_folder(const std::string& path) {
  const descriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return folder.get() >= 0 && (fsync(folder.get()) == 0 || errno == EINVAL);
}

// Writes, syncs and names; mode and owner have been set.
bool finish_file(temporary_file* made, const std::string& path, std::span<const uint8_t> contents,
                 bool replacing, std::string* why) {
  if (!write_all(made->get(), contents) || fsync(made->get()) != 0) {
    return refuse_errno(why, "cannot be written");
  }
  if (interrupted()) {
    return refuse(why, "interrupted before it was written");
  }
  if (!made->take_name(path, replacing)) {
    return refuse_errno(why, "cannot be written");
  }
  return sync_folder(folder_of(path)) || refuse_errno(why, "is written, perhaps not for good");
}

// umask can only be read by setting it.
mode_t mode_unmasked() {
  const mode_t mask = umask(0);
  umask(mask);
  return mode_of_new_files & ~mask;
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
    if (!read_all(STDIN_FILENO, &opened.input_)) {
      refuse_errno(why, "standard input cannot be read");
      return std::nullopt;
    }
    opened.bytes_ = opened.input_.data();
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
  opened.descriptor_ = open_locked(opened.real_path_, wanted, timeout_seconds, &opened.size_, why);
  if (opened.descriptor_ < 0) {
    return std::nullopt;
  }
  if (opened.size_ == 0) {
    refuse(why, "is empty");
    return std::nullopt;
  }
  void* mapped = mmap(nullptr, opened.size_, PROT_READ, MAP_PRIVATE, opened.descriptor_, off_t{0});
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
  if (descriptor_ >= 0) {
    if (bytes_ != nullptr) {
      munmap(const_cast<uint8_t*>(bytes_), size_);
    }
    close(descriptor_);
  }
}

flash_file::flash_file(flash_file&& other) noexcept {
  *this = std::move(other);
}

flash_file& flash_file::operator=(flash_file&& other) noexcept {
  std::swap(real_path_, other.real_path_);
  std::swap(descriptor_, other.descriptor_);
  std::swap(bytes_, other.bytes_);
  std::swap(size_, other.size_);
  std::swap(view_, other.view_);
  std::swap(input_, other.input_);
  return *this;
}

std::optional<std::span<uint8_t>> flash_file::private_view(std::string* why) {
  if (view_ == nullptr) {
    const bool of_file = descriptor_ >= 0;
    void* mapped = mmap(nullptr, size_, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | (of_file ? 0 : MAP_ANONYMOUS), descriptor_, off_t{0});
    if (mapped == MAP_FAILED) {
      refuse_errno(why, "cannot be read");
      return std::nullopt;
    }
    view_ = static_cast<uint8_t*>(mapped);
    if (!of_file) {
      std::memcpy(view_, bytes_, size_);
    }
  }
  return std::span<uint8_t>{view_, size_};
}

bool flash_file::replace(std::span<const uint8_t> contents, std::string* why) const {
  struct stat before = {};
  if (fstat(descriptor_, &before) != 0) {
    return refuse_errno(why, "cannot be looked at");
  }
  temporary_file made(real_path_);
  if (!made.made()) {
    return refuse_errno(why, "no file can be made beside it");
  }
  struct stat now = {};
  if (fstat(made.get(), &now) != 0) {
    return refuse_errno(why, "cannot be written");
  }
  if ((now.st_uid != before.st_uid || now.st_gid != before.st_gid) &&
      fchown(made.get(), before.st_uid, before.st_gid) != 0) {
    return refuse_errno(why, "its owner cannot be kept");
  }
  // After the owner, whose change takes bits away.
  if (fchmod(made.get(), before.st_mode & mode_bits) != 0) {
    return refuse_errno(why, "its mode cannot be kept");
  }
  return finish_file(&made, real_path_, contents, true, why);
}

bool write_new_file(const std::string& path, std::span<const uint8_t> contents, bool replacing,
                    std::string* why) {
  if (path == "-") {
    return write_all(STDOUT_FILENO, contents) ||
           refuse_errno(why, "standard output cannot be written");
  }
  struct stat there = {};
  const bool exists = lstat(path.c_str(), &there) == 0;
  if (exists && !replacing) {
    return refuse(why, "is there already");
  }
  if (exists && !S_ISREG(there.st_mode)) {
    return refuse(why, "is there and is not a regular file");
  }
  temporary_file made(path);
  if (!made.made()) {
    return refuse_errno(why, "cannot be made");
  }
  const mode_t mode = exists ? there.st_mode & mode_bits : mode_unmasked();
  if (fchmod(made.get(), mode) != 0) {
    return refuse_errno(why, "cannot be given its mode");
  }
  return finish_file(&made, path, contents, replacing, why);
}

}  // namespace image
