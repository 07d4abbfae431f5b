// The order of trees, names and dates, and the walk over a folder of the host.
#include "image/tree.h"

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
#include "image/clock.h"
#include "image/host_file.h"
#include "image/interrupt.h"
#include "image/paths.h"

namespace image {

namespace {

constexpr uint32_t special_bits = 07000;  // set-user-id, set-group-id, sticky

// Bytes of a file that is worth opening twice rather than keeping.
constexpr uint64_t large_size = 16384;

// Characters of a path in their order: the slash stands before all others.
int rank(char character) {
  return character == '/' ? -1 : static_cast<unsigned char>(character);
}

const char* kind_text(mode_t mode) {
  switch (mode & S_IFMT) {
    case S_IFLNK:
      return "a symbolic link";
    case S_IFIFO:
      return "a pipe";
    case S_IFSOCK:
      return "a socket";
    default:
      return "a device";
  }
}

template <typename Element>
void sort_by_path(std::vector<Element>* elements) {
  std::stable_sort(elements->begin(), elements->end(),
                   [](const Element& one, const Element& other) {
                     return path_is_before(one.path, other.path);
                   });
}

// All bytes up to a file's end; 0 or errno.
int read_all(int fd, uint64_t expected, std::string* contents) {
  return read_to_end(fd, contents, SIZE_MAX - 1, static_cast<size_t>(expected)) ? 0 : errno;
}

// Opens a file below a folder, by no link. Below 0 with errno.
int open_below(int folder, std::string_view path) {
  descriptor at(fcntl(folder, F_DUPFD_CLOEXEC, 0));
  for (size_t begin = 0; at.get() >= 0;) {
    const size_t end = path.find('/', begin);
    const std::string name(path.substr(begin, end - begin));
    if (end == std::string_view::npos) {
      return openat(at.get(), name.c_str(),
                    O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    }
    at = descriptor(openat(at.get(), name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    begin = end + 1;
  }
  return -1;
}

// The contents of a file of which the size has been told to others.
std::string read_again(int folder, const tree_entry& entry, std::string* contents) {
  const descriptor opened(open_below(folder, entry.path));
  struct stat status = {};
  if (opened.get() < 0 || fstat(opened.get(), &status) != 0) {
    return strerror(errno);
  }
  if (!S_ISREG(status.st_mode)) {
    return strerror(EBUSY);
  }
  if (const int error = read_all(opened.get(), entry.size, contents); error != 0) {
    return strerror(error);
  }
  return contents->size() == entry.size ? "" : "has changed its size meanwhile";
}

// One walk over a folder of the host, by descriptors: nobody can put a link in its way.
class folder_reader {
 public:
  folder_reader(const tree_options& options, tree* made) : options_(options), made_(made) {}

  void read(const std::string& folder) {
    const auto opened = std::make_shared<const descriptor>(
        open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat status = {};
    if (opened->get() < 0 || fstat(opened->get(), &status) != 0) {
      fail(folder, errno);
      return;
    }
    made_->root_mtime = clock_date_of(status.st_mtime);
    owners_.see(status.st_uid, status.st_gid);
    read_names(opened->get(), "");
    owners_.warn(made_);
    if (options_.large_files_later) {
      made_->read_later = [opened](const tree_entry& entry, std::string* contents) {
        return read_again(opened->get(), entry, contents);
      };
    }
  }

 private:
  void fail(const std::string& path, int error) {
    made_->errors.push_back({path, strerror(error)});
  }

  // No deeper than a path can be long: so deep a folder is an error of finish_tree.
  void read_names(int folder, const std::string& base) {
    const int copy = fcntl(folder, F_DUPFD_CLOEXEC, 0);
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(copy < 0 ? nullptr : fdopendir(copy),
                                                      closedir);
    if (listing == nullptr) {
      fail(base, errno);
      if (copy >= 0) {
        close(copy);
      }
      return;
    }
    errno = 0;
    while (const dirent* one = interrupted() ? nullptr : readdir(listing.get())) {
      const std::string_view name = one->d_name;
      if (name != "." && name != "..") {
        read_one(folder, one->d_name, base.empty() ? one->d_name : base + "/" + one->d_name);
      }
      errno = 0;
    }
    if (errno != 0) {
      fail(base, errno);
    }
  }

  void read_one(int folder, const char* name, const std::string& path) {
    struct stat status = {};
    if (fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
      fail(path, errno);
      return;
    }
    if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) {
      made_->warnings.push_back({path, std::string(kind_text(status.st_mode)) + ", left out"});
      return;
    }
    // What stands there now may be something else: it is asked once more when it is open.
    const descriptor opened(
        openat(folder, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (opened.get() < 0 || fstat(opened.get(), &status) != 0) {
      fail(path, errno);
      return;
    }
    if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) {
      fail(path, EBUSY);
      return;
    }
    take(opened.get(), path, status);
  }

  void take(int fd, const std::string& path, const struct stat& status) {
    tree_entry entry;
    entry.path = path;
    entry.directory = S_ISDIR(status.st_mode);
    entry.mode = status.st_mode & ppc_mode_permissions;
    entry.mtime = clock_date_of(status.st_mtime);
    owners_.see(status.st_uid, status.st_gid);
    if (entry.directory) {
      made_->entries.push_back(std::move(entry));
      if (path.size() <= tree_path_max) {
        read_names(fd, path);
      }
      return;
    }
    if ((status.st_mode & special_bits) != 0) {
      made_->warnings.push_back({path, "set-id and sticky bits, left out"});
    }
    if (const int error = take_contents(fd, static_cast<uint64_t>(status.st_size), &entry);
        error != 0) {
      fail(path, error);
      return;
    }
    made_->entries.push_back(std::move(entry));
  }

  int take_contents(int fd, uint64_t size, tree_entry* entry) {
    entry->size = size;
    if (options_.sizes_wanted != nullptr && !options_.sizes_wanted->contains(size)) {
      return 0;
    }
    if (made_->contents_left_out || size > options_.contents_limit - taken_) {
      made_->contents_left_out = true;
      return 0;
    }
    int error = 0;
    if (!options_.large_files_later || size < large_size) {
      error = read_all(fd, size, &entry->contents);
      entry->size = entry->contents.size();
    }
    taken_ += std::min(entry->size, options_.contents_limit - taken_);
    return error;
  }

  const tree_options& options_;
  tree* made_;
  uint64_t taken_ = 0;
  owner_watch owners_;
};

}  // namespace

std::string contents_of(const tree& from, const tree_entry& entry, std::string* held,
                        std::string_view* contents) {
  const bool is_later = entry.contents.empty() && entry.size != 0;
  if (is_later && !from.read_later) {
    return "is too much to be read";
  }
  std::string fault = is_later ? from.read_later(entry, held) : "";
  *contents = is_later ? *held : entry.contents;
  return fault;
}

bool path_is_before(std::string_view path, std::string_view other) {
  const auto [at, at_other] = std::mismatch(path.begin(), path.end(), other.begin(), other.end());
  if (at == path.end() || at_other == other.end()) {
    return at == path.end() && at_other != other.end();
  }
  return rank(*at) < rank(*at_other);
}

void sort_tree(tree* made) {
  sort_by_path(&made->entries);
  sort_by_path(&made->warnings);
  sort_by_path(&made->errors);
}

void finish_tree(tree* made) {
  for (const tree_entry& entry : made->entries) {
    // Only its own name: that of its folder is told with the folder.
    std::string fault = name_fault(name_of_path(entry.path));
    if (fault.empty()) {
      fault = path_size_fault(entry.path);
    }
    if (!fault.empty()) {
      made->errors.push_back({entry.path, std::move(fault)});
    }
  }
  sort_tree(made);
}

tree_sum sum_of(const tree& whole) {
  tree_sum sum;
  for (const tree_entry& entry : whole.entries) {
    (entry.directory ? sum.folders : sum.files)++;
    sum.bytes += entry.size;
  }
  return sum;
}

tree read_folder(const std::string& folder, const tree_options& options) {
  tree made;
  folder_reader(options, &made).read(folder);
  finish_tree(&made);
  return made;
}

void owner_watch::see(int64_t user, int64_t group) {
  several_ = several_ || (user_ && (*user_ != user || *group_ != group));
  user_ = user;
  group_ = group;
}

void owner_watch::warn(tree* made) const {
  if (several_) {
    made->warnings.push_back({"", "the files have several owners, which are left out"});
  }
}

}  // namespace image
