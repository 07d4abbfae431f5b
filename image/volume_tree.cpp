// Reading and writing all files of a mounted file system.
#include "image/volume_tree.h"

#include <algorithm>
#include <cerrno>
#include <set>
#include <utility>
#include <vector>

#include "image/clock.h"
#include "image/extraction.h"
#include "image/paths.h"
#include "image/text.h"

namespace image {

namespace {

constexpr uint32_t mounts_max = 1000;          // of one reading; they take some time each
constexpr uint32_t bit_of_new_entries = 0400;  // what is made has it, asked for or not

enum class contents_wanted { none, tried, kept };

class volume_reader {
 public:
  volume_reader(const volume::file_system& from, std::string_view base, contents_wanted wanted,
                tree* made)
      : from_(from), base_(base), wanted_(wanted), made_(made) {}

  void read() {
    ppc_stat status;
    if (from_.stat(base_.empty() ? "/" : base_, &status) != 0) {
      fail(base_, errno);
      return;
    }
    if ((status.mode & ppc_mode_type_mask) != ppc_mode_directory) {
      take(std::string(name_of_path(base_)), base_, status);
      return;
    }
    made_->root_mtime = status.modification_date;
    entered_.insert(status.fileid);
    // Folders wait their turn in a list: damaged ones can be nested as deep as there are files.
    std::vector<std::string> waiting = {""};
    while (!waiting.empty()) {
      const std::string folder = std::move(waiting.back());
      waiting.pop_back();
      read_folder_of_volume(folder, &waiting);
    }
  }

 private:
  void fail(const std::string& path, int error) {
    made_->errors.push_back({path, error_text(error)});
    if (!from_.is_ready() && mounts_left_ != 0) {
      --mounts_left_;
      static_cast<void>(from_.check(flashfs_check_quick));
    }
  }

  void read_folder_of_volume(const std::string& folder, std::vector<std::string>* waiting) {
    std::vector<volume::entry> held;
    if (from_.list(joined_path(base_, folder), &held) != 0) {
      fail(folder, errno);
    }
    std::set<std::string> names;
    for (const volume::entry& one : held) {
      const std::string path = joined_path(folder, one.path);
      if (one.path.empty() || one.path.find('/') != std::string::npos) {
        made_->errors.push_back({path, host_name_fault(one.path)});
      } else if (!names.insert(one.path).second) {
        made_->errors.push_back({path, "the name comes twice"});
      } else if (one.error != 0) {
        fail(path, one.error);
      } else if (one.is_directory() && !entered_.insert(one.status.fileid).second) {
        made_->errors.push_back({path, "the folder lies in itself, or has another name as well"});
      } else {
        take(path, joined_path(base_, path), one.status);
        if (one.is_directory()) {
          waiting->push_back(path);
        }
      }
    }
  }

  void take(const std::string& path, const std::string& full_path, const ppc_stat& status) {
    tree_entry entry;
    entry.path = path;
    entry.directory = (status.mode & ppc_mode_type_mask) == ppc_mode_directory;
    entry.mode = status.mode & ppc_mode_permissions;
    entry.mtime = status.modification_date;
    if (!entry.directory) {
      entry.size = status.size;
      std::string* to = wanted_ == contents_wanted::kept ? &entry.contents : &tried_;
      if (wanted_ != contents_wanted::none && from_.read_file(full_path, to) != 0) {
        fail(path, errno);
        return;
      }
    }
    made_->entries.push_back(std::move(entry));
  }

  const volume::file_system& from_;
  uint32_t mounts_left_ = mounts_max;
  const std::string base_;
  const contents_wanted wanted_;
  std::string tried_;
  tree* made_;
  std::set<uint32_t> entered_;
};

tree read(const volume::file_system& from, std::string_view path, contents_wanted wanted) {
  while (path.starts_with('/')) {
    path.remove_prefix(1);
  }
  while (path.ends_with('/')) {
    path.remove_suffix(1);
  }
  tree made;
  made.contents_left_out = wanted == contents_wanted::none;
  volume_reader(from, path, wanted, &made).read();
  sort_tree(&made);
  return made;
}

int32_t make_entry(const tree_entry& entry, const volume::files& to) {
  if (entry.directory) {
    return to.mkdir(entry.path, entry.mode);
  }
  volume::file opened = to.open(entry.path, volume::open_anew | ifs_open_exclusive, entry.mode);
  return opened ? opened.close() : -1;
}

std::string fault_of(const std::string& path) {
  return path + ": " + error_text(errno);
}

std::string make_names(const tree& from, const volume::files& to) {
  for (const tree_entry& entry : from.entries) {
    clock_set(entry.mtime);
    if (make_entry(entry, to) != 0 ||
        ((entry.mode & bit_of_new_entries) == 0 && to.chmod(entry.path, entry.mode) != 0)) {
      return fault_of(entry.path);
    }
  }
  return "";
}

std::string write_contents(const tree& from, const volume::files& to, const write_step& step) {
  uint64_t total = 0;
  for (const tree_entry& entry : from.entries) {
    total += std::max<uint64_t>(entry.size, entry.contents.size());
  }
  uint64_t done = 0;
  std::string held;  // one for all: it stays in the processor's cache
  for (const tree_entry& entry : from.entries) {
    std::string_view contents;
    if (std::string fault = contents_of(from, entry, &held, &contents); !fault.empty()) {
      return entry.path + ": " + fault;
    }
    clock_set(entry.mtime);
    if (!contents.empty() && to.write_file(entry.path, contents, ifs_open_write) != 0) {
      return fault_of(entry.path);
    }
    done += contents.size();
    if (step && !step(done, total)) {
      return "interrupted";
    }
  }
  return "";
}

std::string date_folders(const tree& from, const volume::files& to) {
  for (const tree_entry& entry : from.entries) {
    if (entry.directory && to.set_date(entry.path, entry.mtime) != 0) {
      return fault_of(entry.path);
    }
  }
  return from.root_mtime && to.set_date("/", *from.root_mtime) != 0 ? fault_of("/") : "";
}

}  // namespace

tree read_volume(const volume::file_system& from, std::string_view path, bool contents) {
  return read(from, path, contents ? contents_wanted::kept : contents_wanted::none);
}

tree try_volume(const volume::file_system& from) {
  tree made = read(from, "", contents_wanted::tried);
  made.read_later = [&from](const tree_entry& entry, std::string* contents) -> std::string {
    // Another file may have marked it down.
    if (!from.is_ready()) {
      static_cast<void>(from.check(flashfs_check_quick));
    }
    return from.read_file(entry.path, contents) == 0 ? "" : error_text(errno);
  };
  return made;
}

std::string write_volume(const tree& from, const volume::files& to, const write_step& step) {
  std::string fault = make_names(from, to);
  if (fault.empty()) {
    fault = write_contents(from, to, step);
  }
  return fault.empty() ? date_folders(from, to) : fault;
}

}  // namespace image
