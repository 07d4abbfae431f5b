// The walk that writes a tree: by descriptors from folder to folder, never by a path, so that a
// link that stands in the way, or is put there meanwhile, is an error and not a way out.
#include "image/extraction.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "ifs/ifs.h"
#include "image/interrupt.h"
#include "image/paths.h"

namespace image {

namespace {

constexpr mode_t mode_while_writing = 0700;  // of folders; files have no x
constexpr uint32_t mode_of_the_board = 0400;

// A folder that is open, and what it gets when all in it is written.
struct open_folder {
  std::string path;
  descriptor at;                      // none: a dry run, which has not made it
  const tree_entry* entry = nullptr;  // null for the target itself
};

// What openat said of an entry that should be a folder.
std::string not_a_folder(int at, const char* name, int error) {
  struct stat status = {};
  const bool is_link =
      fstatat(at, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(status.st_mode);
  return is_link ? "a link is in the way, which is not followed" : strerror(error);
}

// Whether there is nothing in a folder; errno when it cannot be told.
bool is_empty_folder(int fd, int* error) {
  const int copy = openat(fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const std::unique_ptr<DIR, int (*)(DIR*)> listing(copy < 0 ? nullptr : fdopendir(copy), closedir);
  if (listing == nullptr) {
    *error = errno;
    return false;
  }
  errno = 0;
  while (const dirent* one = readdir(listing.get())) {
    if (strcmp(one->d_name, ".") != 0 && strcmp(one->d_name, "..") != 0) {
      return false;
    }
    errno = 0;
  }
  *error = errno;
  return *error == 0;
}

// Permissions and date, which come last. 0 or errno.
int finish_descriptor(int fd, const tree_entry& entry) {
  timespec dates[2] = {};
  dates[0].tv_nsec = UTIME_OMIT;
  dates[1].tv_sec = entry.mtime;
  const bool done =
      fchmod(fd, host_permissions(entry.mode, entry.directory)) == 0 && futimens(fd, dates) == 0;
  return done ? 0 : errno;
}

bool holds_control_bytes(std::string_view name) {
  return std::any_of(name.begin(), name.end(), [](char one) {
    const auto byte = static_cast<unsigned char>(one);
    return byte < ' ' || byte == 0x7F;
  });
}

class extractor {
 public:
  extractor(const tree& from, const extraction_options& options, extraction* result)
      : from_(from), options_(options), result_(result) {}

  void run(const std::string& folder) {
    if (!judge_names() || !open_target(folder)) {
      result_->refused = true;
      return;
    }
    for (const tree_entry& entry : from_.entries) {
      if (stopped()) {
        break;
      }
      if (!is_left_out(entry) && !write_entry(entry) && entry.directory) {
        left_out_ = entry.path;
      }
    }
    while (!stack_.empty()) {
      close_top();
    }
  }

 private:
  bool stopped() const {
    return interrupted() || (!options_.keep_going && !result_->errors.empty());
  }

  void fail(const std::string& path, std::string text) {
    result_->errors.push_back({path, std::move(text)});
  }

  // False when a name forbids to begin at all.
  bool judge_names() {
    result_->errors = host_faults(from_);
    for (const tree_entry& entry : from_.entries) {
      if (holds_control_bytes(name_of_path(entry.path))) {
        result_->warnings.push_back({entry.path, "the name holds control characters"});
      }
    }
    return !stopped();
  }

  // Whether an entry's name is bad, which has been told, or it lies in a folder that was left out.
  // The entries of a folder stand together, so only the latest such folder matters.
  bool is_left_out(const tree_entry& entry) {
    if (!left_out_.empty() && entry.path.starts_with(left_out_ + "/")) {
      return true;
    }
    const bool bad = !host_name_fault(name_of_path(entry.path)).empty();
    if (bad && entry.directory) {
      left_out_ = entry.path;
    }
    return bad;
  }

  bool open_target(const std::string& folder) {
    if (!options_.dry_run && mkdir(folder.c_str(), 0777) != 0 && errno != EEXIST) {
      fail(folder, strerror(errno));
      return false;
    }
    descriptor opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!opened && options_.dry_run && errno == ENOENT && can_be_made(folder)) {
      stack_.push_back({"", descriptor(), nullptr});
      return true;
    }
    int error = opened ? 0 : errno;
    if (error == 0 && !options_.force && !is_empty_folder(opened.get(), &error) && error == 0) {
      fail(folder, "the folder is not empty; --force writes into it");
      return false;
    }
    if (error != 0) {
      fail(folder, strerror(error));
      return false;
    }
    stack_.push_back({"", std::move(opened), nullptr});
    return true;
  }

  // Whether a folder that is not there could be; errno if not.
  static bool can_be_made(const std::string& folder) {
    const size_t end = folder.find_last_not_of('/');
    const size_t slash = folder.rfind('/', end);
    const std::string above = slash == std::string::npos ? "." : folder.substr(0, slash + 1);
    const descriptor opened(open(above.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    return opened && can_make_files_in(opened.get());
  }

  void close_top() {
    const open_folder top = std::move(stack_.back());
    stack_.pop_back();
    if (options_.dry_run) {
      return;
    }
    if (top.entry != nullptr) {
      if (const int error = finish_descriptor(top.at.get(), *top.entry); error != 0) {
        fail(top.path, strerror(error));
      }
    } else if (from_.root_mtime) {
      date_target(top.at.get(), *from_.root_mtime);
    }
  }

  // The target has the permissions that it has, and may be somebody else's: then so is its date.
  static void date_target(int fd, uint32_t mtime) {
    timespec dates[2] = {};
    dates[0].tv_nsec = UTIME_OMIT;
    dates[1].tv_sec = mtime;
    static_cast<void>(futimens(fd, dates));
  }

  // Closes the folders that the path does not lie in. False when the one it lies in is not there.
  bool go_to_folder_of(std::string_view path) {
    const std::string_view folder = folder_of_path(path);
    while (stack_.size() > 1) {
      const std::string& at = stack_.back().path;
      if (folder.starts_with(at) && (folder.size() == at.size() || folder[at.size()] == '/')) {
        break;
      }
      close_top();
    }
    return stack_.back().path == folder;
  }

  bool write_entry(const tree_entry& entry) {
    std::string error = "the folder that holds it is missing";
    if (go_to_folder_of(entry.path)) {
      error = entry.directory ? make_folder(entry) : make_file(entry);
    }
    if (!error.empty()) {
      fail(entry.path, std::move(error));
      return false;
    }
    return true;
  }

  std::string make_folder(const tree_entry& entry) {
    const std::string name(name_of_path(entry.path));
    descriptor opened;
    if (std::string fault = enter(stack_.back().at.get(), name.c_str(), &opened); !fault.empty()) {
      return fault;
    }
    stack_.push_back({entry.path, std::move(opened), &entry});
    result_->folders++;
    return "";
  }

  // Opens a folder, which is made if it is missing.
  std::string enter(int at, const char* name, descriptor* opened) const {
    if (options_.dry_run && at < 0) {
      return "";
    }
    if (!options_.dry_run && mkdirat(at, name, mode_while_writing) != 0 &&
        (errno != EEXIST || !options_.force)) {
      return strerror(errno);
    }
    *opened = descriptor(openat(at, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    const bool would_be_made =
        !*opened && options_.dry_run && errno == ENOENT && can_make_files_in(at);
    return *opened || would_be_made ? "" : not_a_folder(at, name, errno);
  }

  std::string make_file(const tree_entry& entry) {
    std::string_view contents;
    if (std::string fault = contents_of(from_, entry, &held_, &contents); !fault.empty()) {
      return fault;
    }
    const std::string name(name_of_path(entry.path));
    const int at = stack_.back().at.get();
    std::string fault = options_.never && options_.never == identity_at(at, name)
                            ? "is the image itself, which is only read"
                        : options_.dry_run ? try_file(at, name.c_str())
                                           : write_contents(at, name.c_str(), entry, contents);
    if (fault.empty()) {
      result_->files++;
      result_->bytes += contents.size();
    }
    return fault;
  }

  std::string write_contents(int at, const char* name, const tree_entry& entry,
                             std::string_view contents) {
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    int fd = openat(at, name, flags, 0600);
    if (fd < 0 && errno == EEXIST && options_.force && unlinkat(at, name, 0) == 0) {
      fd = openat(at, name, flags, 0600);
    }
    if (fd < 0) {
      return strerror(errno);
    }
    int error = write_all(fd, contents) ? finish_descriptor(fd, entry) : errno;
    if (close(fd) != 0 && error == 0) {
      error = errno;
    }
    if (error != 0) {
      unlinkat(at, name, 0);  // half a file would be taken for a whole one
      return strerror(error);
    }
    return "";
  }

  // What would keep a file from being written.
  std::string try_file(int at, const char* name) const {
    struct stat there = {};
    if (at < 0) {
      return "";
    }
    if (fstatat(at, name, &there, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(there.st_mode)) {
      return strerror(EISDIR);
    }
    return can_make_files_in(at) ? "" : strerror(errno);
  }

  const tree& from_;
  const extraction_options& options_;
  extraction* result_;
  std::vector<open_folder> stack_;
  std::string left_out_;
  std::string held_;  // contents that the tree does not hold
};

}  // namespace

std::string host_name_fault(std::string_view name) {
  if (name.empty()) {
    return "an empty name";
  }
  if (name == "." || name == "..") {
    return "the name stands for a folder of the host";
  }
  return name.find('/') == std::string_view::npos ? "" : "the name holds a slash";
}

std::vector<tree_problem> host_faults(const tree& from) {
  std::vector<tree_problem> faults;
  for (const tree_entry& entry : from.entries) {
    if (std::string fault = host_name_fault(name_of_path(entry.path)); !fault.empty()) {
      faults.push_back({entry.path, std::move(fault)});
    }
  }
  return faults;
}

extraction extract_tree(const tree& from, const std::string& folder,
                        const extraction_options& options) {
  extraction result;
  extractor(from, options, &result).run(folder);
  return result;
}

uint32_t host_permissions(uint32_t mode, bool directory) {
  constexpr uint32_t owner_alone = 0700;
  const uint32_t permissions = mode & ppc_mode_permissions;
  if (directory) {
    return permissions == mode_of_the_board || permissions == 0 ? owner_alone : permissions;
  }
  return permissions == 0 ? mode_of_the_board : permissions;
}

}  // namespace image
