// Reading, writing, and taking a name.
#include "image/host_file.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "image/interrupt.h"

namespace image {

namespace {

constexpr mode_t mode_of_new_files = 0666;
constexpr mode_t mode_bits = 07777;
constexpr int look_for_signals_milliseconds = 100;
constexpr const char* no_file_beside = "no file can be made beside it";

std::string folder_of(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

std::string name_of(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Waits until something can be read. A signal may come before the wait begins, so it looks for one
// now and then.
bool wait_for_input(int from) {
  pollfd waited = {.fd = from, .events = POLLIN, .revents = 0};
  while (!interrupted()) {
    const int ready = poll(&waited, 1, look_for_signals_milliseconds);
    if (ready != 0 && (ready > 0 || errno != EINTR)) {
      return true;  // or reading tells what is wrong
    }
  }
  errno = EINTR;
  return false;
}

bool sync_folder(const std::string& path) {
  const descriptor folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return folder && (fsync(folder.get()) == 0 || errno == EINVAL);
}

// umask can only be read by setting it.
mode_t mode_unmasked() {
  const mode_t mask = umask(0);
  umask(mask);
  return mode_of_new_files & ~mask;
}

file_writer writer_of(std::span<const uint8_t> contents) {
  return [contents](int to) {
    return write_all(to, contents) ? std::string()
                                   : std::string("cannot be written: ") + std::strerror(errno);
  };
}

// Whether a file can be made beside another one, as far as can be told without making it.
bool can_be_beside(const std::string& path, const char* if_not, std::string* why) {
  const descriptor folder(open(folder_of(path).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  return (folder && can_make_files_in(folder.get())) || refuse_errno(why, if_not);
}

bool to_standard_output(const file_writer& contents, const file_options& options,
                        std::string* why) {
  if (options.dry_run) {
    return true;
  }
  const std::string fault = contents(STDOUT_FILENO);
  return fault.empty() || refuse(why, "standard output: " + fault);
}

// Whether what stands there may go.
bool may_go(const struct stat& there, const file_options& options, std::string* why) {
  if (options.never == file_identity{there.st_dev, there.st_ino}) {
    return refuse(why, "is the image itself, which is only read");
  }
  if (!options.replaces) {
    return refuse(why, options.refusal);
  }
  return S_ISREG(there.st_mode) ||
         refuse(why, S_ISCHR(there.st_mode) || S_ISFIFO(there.st_mode) || S_ISLNK(there.st_mode)
                         ? "is there and is not a regular file; '-' is standard output"
                         : "is there and is not a regular file");
}

// What unfinished_file::begin would meet.
bool can_be_written(const std::string& path, const file_options& options, std::string* why) {
  struct stat there = {};
  return (lstat(path.c_str(), &there) != 0 || may_go(there, options, why)) &&
         can_be_beside(path, "cannot be made", why);
}

// What unfinished_file::begin_in_place_of would meet.
bool can_be_replaced(int opened, const std::string& path, std::string* why) {
  struct stat before = {};
  return fstat(opened, &before) == 0 ? can_be_beside(path, no_file_beside, why)
                                     : refuse_errno(why, "cannot be looked at");
}

bool fill_and_finish(unfinished_file* made, const file_writer& contents, std::string* why) {
  if (const std::string fault = contents(made->get()); !fault.empty()) {
    return refuse(why, fault);
  }
  return made->finish(why);
}

}  // namespace

bool refuse(std::string* why, const std::string& what) {
  *why = what;
  return false;
}

bool refuse_errno(std::string* why, const std::string& what) {
  return refuse(why, what + ": " + std::strerror(errno));
}

descriptor::~descriptor() {
  if (number_ >= 0) {
    close(number_);
  }
}

ssize_t read_some(int from, void* to, size_t size) {
  while (wait_for_input(from)) {
    const ssize_t got = read(from, to, size);
    if (got >= 0 || (errno != EINTR && errno != EAGAIN)) {
      return got;
    }
  }
  return -1;
}

bool read_to_end(int from, std::string* to, size_t most, size_t expected) {
  constexpr size_t piece = 1 << 16;
  size_t filled = 0;
  // One byte more than is expected, to see the end.
  to->resize(expected != 0 ? std::min(expected, most) + 1 : piece);
  for (;;) {
    const ssize_t got = read_some(from, to->data() + filled, to->size() - filled);
    filled += static_cast<size_t>(got > 0 ? got : 0);
    const bool too_large = filled > most;
    if (got <= 0 || too_large) {
      to->resize(filled);
      if (too_large) {
        errno = EFBIG;
      }
      return got == 0 && !too_large;
    }
    if (filled == to->size()) {
      to->resize(filled + std::max(piece, filled));
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

bool write_all(int to, std::string_view bytes) {
  return write_all(to, {reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()});
}

bool write_all_at(int to, off_t offset, std::span<const uint8_t> bytes) {
  while (!bytes.empty()) {
    const ssize_t put = pwrite(to, bytes.data(), bytes.size(), offset);
    if (put < 0 && (errno != EINTR || interrupted())) {
      return false;
    }
    bytes = bytes.subspan(static_cast<size_t>(put > 0 ? put : 0));
    offset += put > 0 ? put : 0;
  }
  return true;
}

bool read_all_at(int from, off_t offset, std::span<uint8_t> bytes) {
  while (!bytes.empty()) {
    const ssize_t got = pread(from, bytes.data(), bytes.size(), offset);
    if (got == 0) {
      errno = EIO;
    }
    if (got == 0 || (got < 0 && (errno != EINTR || interrupted()))) {
      return false;
    }
    bytes = bytes.subspan(static_cast<size_t>(got > 0 ? got : 0));
    offset += got > 0 ? got : 0;
  }
  return true;
}

std::optional<file_identity> identity_at(int folder, const std::string& name) {
  struct stat status = {};
  if (fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return std::nullopt;
  }
  return file_identity{status.st_dev, status.st_ino};
}

// A file beside another one, that is removed unless it takes that one's name.
class unfinished_file::temporary_file {
 public:
  explicit temporary_file(const std::string& beside)
      : path_(folder_of(beside) + "/." + name_of(beside) + ".XXXXXX"),
        opened_(mkostemp(path_.data(), O_CLOEXEC)) {
    if (opened_) {
      remove_when_ended(path_.c_str());
    }
  }
  ~temporary_file() {
    if (opened_ && !named_) {
      unlink(path_.c_str());
    }
    remove_when_ended(nullptr);
  }
  temporary_file(const temporary_file&) = delete;
  temporary_file& operator=(const temporary_file&) = delete;

  bool made() const {
    return static_cast<bool>(opened_);
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

unfinished_file::unfinished_file(std::unique_ptr<temporary_file> made, std::string path,
                                 file_options options)
    : made_(std::move(made)), path_(std::move(path)), options_(options) {}
unfinished_file::~unfinished_file() = default;
unfinished_file::unfinished_file(unfinished_file&& other) noexcept = default;
unfinished_file& unfinished_file::operator=(unfinished_file&& other) noexcept = default;

std::optional<unfinished_file> unfinished_file::begin(const std::string& path,
                                                      const file_options& options,
                                                      std::string* why) {
  struct stat there = {};
  const bool exists = lstat(path.c_str(), &there) == 0;
  if (exists && !may_go(there, options, why)) {
    return std::nullopt;
  }
  auto made = std::make_unique<temporary_file>(path);
  if (!made->made()) {
    refuse_errno(why, "cannot be made");
    return std::nullopt;
  }
  const mode_t mode = options.mode ? *options.mode
                      : exists     ? there.st_mode & mode_bits
                                   : mode_unmasked();
  if (fchmod(made->get(), mode) != 0) {
    refuse_errno(why, "cannot be given its mode");
    return std::nullopt;
  }
  unfinished_file begun(std::move(made), path, options);
  begun.options_.durable = options.durable || exists;
  return begun;
}

std::optional<unfinished_file> unfinished_file::begin_in_place_of(int opened,
                                                                  const std::string& path,
                                                                  std::string* why) {
  struct stat before = {};
  if (fstat(opened, &before) != 0) {
    refuse_errno(why, "cannot be looked at");
    return std::nullopt;
  }
  auto made = std::make_unique<temporary_file>(path);
  if (!made->made()) {
    refuse_errno(why, no_file_beside);
    return std::nullopt;
  }
  struct stat now = {};
  if (fstat(made->get(), &now) != 0) {
    refuse_errno(why, "cannot be written");
    return std::nullopt;
  }
  if ((now.st_uid != before.st_uid || now.st_gid != before.st_gid) &&
      fchown(made->get(), before.st_uid, before.st_gid) != 0) {
    refuse_errno(why, "its owner cannot be kept");
    return std::nullopt;
  }
  // After the owner, whose change takes bits away.
  if (fchmod(made->get(), before.st_mode & mode_bits) != 0) {
    refuse_errno(why, "its mode cannot be kept");
    return std::nullopt;
  }
  return unfinished_file(std::move(made), path, {.replaces = true});
}

int unfinished_file::get() const {
  return made_->get();
}

bool unfinished_file::finish(std::string* why) {
  const timespec dates[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(options_.date.value_or(0)), 0}};
  if ((options_.date && futimens(get(), dates) != 0) || (options_.durable && fsync(get()) != 0)) {
    return refuse_errno(why, "cannot be written");
  }
  if (interrupted()) {
    return refuse(why, "interrupted before it was written");
  }
  if (!made_->take_name(path_, options_.replaces)) {
    return refuse_errno(why, "cannot be written");
  }
  return !options_.durable || sync_folder(folder_of(path_)) ||
         refuse_errno(why, "is written, perhaps not for good");
}

bool write_file(const std::string& path, const file_writer& contents, const file_options& options,
                std::string* why) {
  if (path == "-") {
    return to_standard_output(contents, options, why);
  }
  if (options.dry_run) {
    return can_be_written(path, options, why);
  }
  std::optional<unfinished_file> made = unfinished_file::begin(path, options, why);
  return made && fill_and_finish(&*made, contents, why);
}

bool write_file(const std::string& path, std::span<const uint8_t> contents,
                const file_options& options, std::string* why) {
  return write_file(path, writer_of(contents), options, why);
}

bool replace_file(int opened, const std::string& path, std::span<const uint8_t> contents,
                  bool dry_run, std::string* why) {
  if (dry_run) {
    return can_be_replaced(opened, path, why);
  }
  std::optional<unfinished_file> made = unfinished_file::begin_in_place_of(opened, path, why);
  return made && fill_and_finish(&*made, writer_of(contents), why);
}

std::string objection_to_output(const std::string& path, bool json) {
  if (path != "-") {
    return "";
  }
  if (json) {
    return "standard output has the document, and cannot have a file as well";
  }
  return isatty(STDOUT_FILENO) != 0 ? "standard output is a terminal, which is no place for it"
                                    : "";
}

bool can_make_files_in(int folder) {
  return faccessat(folder, ".", W_OK | X_OK, AT_EACCESS) == 0;
}

}  // namespace image
