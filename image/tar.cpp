// Tar archives by the archive library.
#include "image/tar.h"

#include <archive.h>
#include <archive_entry.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "image/clock.h"
#include "image/extraction.h"
#include "image/host_file.h"
#include "image/interrupt.h"
#include "image/paths.h"

namespace image {

namespace {

constexpr size_t read_block_size = 1U << 16;  // bytes
constexpr uint32_t mode_of_implied_folder = 0755;

struct archive_closer {
  void operator()(archive* opened) const {
    archive_free(opened);
  }
};
using archive_handle = std::unique_ptr<archive, archive_closer>;

struct entry_closer {
  void operator()(archive_entry* entry) const {
    archive_entry_free(entry);
  }
};
using entry_handle = std::unique_ptr<archive_entry, entry_closer>;

std::string error_of(archive* opened) {
  const char* text = archive_error_string(opened);
  return text != nullptr ? text : strerror(archive_errno(opened));
}

// The path without "." components and repeated slashes; empty for the root itself. What leads out
// of the archive keeps its form, for the message, and sets `*fault`.
std::string plain_path(std::string_view path, std::string* fault) {
  std::string plain;
  if (path.starts_with('/')) {
    *fault = "the name is absolute";
  }
  for (size_t begin = 0; begin < path.size();) {
    const size_t end = std::min(path.find('/', begin), path.size());
    const std::string_view name = path.substr(begin, end - begin);
    begin = end + 1;
    if (name.empty() || name == ".") {
      continue;
    }
    if (std::string name_wrong = host_name_fault(name); !name_wrong.empty()) {
      *fault = std::move(name_wrong);
    }
    plain.append(plain.empty() ? "" : "/").append(name);
  }
  return fault->empty() ? plain : std::string(path);
}

// What an image has no place for; null for files and folders.
const char* kind_left_out(archive_entry* header) {
  switch (archive_entry_filetype(header)) {
    case AE_IFLNK:
      return "a symbolic link";
    case AE_IFREG:
    case AE_IFDIR:
      return nullptr;
    default:
      return "a special file";
  }
}

// The library goes on after a signal: it reads and writes by these, which do not.
struct tar_input {
  int fd;
  char block[read_block_size];
};

la_ssize_t read_block(archive* opened, void* client, const void** block) {
  auto* const input = static_cast<tar_input*>(client);
  *block = input->block;
  const ssize_t got = read_some(input->fd, input->block, sizeof(input->block));
  if (got < 0) {
    archive_set_error(opened, errno, "%s", strerror(errno));
  }
  return got;
}

la_ssize_t write_block(archive* opened, void* client, const void* block, size_t size) {
  if (write_all(*static_cast<int*>(client),
                std::string_view(static_cast<const char*>(block), size))) {
    return static_cast<la_ssize_t>(size);
  }
  archive_set_error(opened, errno, "%s", strerror(errno));
  return -1;
}

class tar_reader {
 public:
  tar_reader(const tree_options& options, tree* made) : options_(options), made_(made) {}

  void read(int fd) {
    const auto input = std::make_unique<tar_input>();
    input->fd = fd;
    const archive_handle opened(archive_read_new());
    if (opened == nullptr) {
      fail("", "out of memory");
      return;
    }
    archive_read_support_filter_all(opened.get());
    archive_read_support_format_tar(opened.get());
    archive_read_support_format_gnutar(opened.get());
    if (archive_read_open(opened.get(), input.get(), nullptr, read_block, nullptr) != ARCHIVE_OK) {
      fail("", error_of(opened.get()));
      return;
    }
    read_entries(opened.get());
    add_implied_folders();
    owners_.warn(made_);
  }

 private:
  void fail(std::string path, std::string text) {
    made_->errors.push_back({std::move(path), std::move(text)});
  }

  void read_entries(archive* opened) {
    while (!interrupted()) {
      archive_entry* header = nullptr;
      const int result = archive_read_next_header(opened, &header);
      if (result == ARCHIVE_EOF) {
        return;
      }
      if (result != ARCHIVE_OK && result != ARCHIVE_WARN) {
        fail("", error_of(opened));
        if (result == ARCHIVE_FATAL || ++damaged_ > damaged_max) {
          return;
        }
        continue;
      }
      read_entry(opened, header);
    }
  }

  void read_entry(archive* opened, archive_entry* header) {
    const char* name = archive_entry_pathname(header);
    if (name == nullptr) {
      fail("", "an entry without a name");
      return;
    }
    std::string fault;
    std::string path = plain_path(name, &fault);
    if (!fault.empty()) {
      fail(std::move(path), std::move(fault));
      return;
    }
    // A hard link has the type of a file only when it has contents of its own.
    const char* linked = archive_entry_hardlink(header);
    if (linked != nullptr && archive_entry_size(header) == 0) {
      owners_.see(archive_entry_uid(header), archive_entry_gid(header));
      take_hard_link(header, linked, std::move(path));
      return;
    }
    if (const char* kind = linked == nullptr ? kind_left_out(header) : nullptr; kind != nullptr) {
      made_->warnings.push_back({std::move(path), std::string(kind) + ", left out"});
      return;
    }
    owners_.see(archive_entry_uid(header), archive_entry_gid(header));
    take(opened, header, std::move(path));
  }

  void take(archive* opened, archive_entry* header, std::string path) {
    tree_entry entry;
    entry.directory = archive_entry_filetype(header) == AE_IFDIR;
    entry.mode = archive_entry_perm(header) & ppc_mode_permissions;
    entry.mtime = clock_date_of(archive_entry_mtime(header));
    if (path.empty()) {
      if (entry.directory) {
        made_->root_mtime = entry.mtime;
      } else {
        fail("", "an entry without a name");
      }
      return;
    }
    entry.path = std::move(path);
    if (!entry.directory && !take_contents(opened, header, &entry)) {
      fail(entry.path, error_of(opened));
      return;
    }
    put(std::move(entry));
  }

  // Another name of an earlier entry: an image has one name for each file, so it holds the contents
  // twice, as it does when the files come from a folder.
  void take_hard_link(archive_entry* header, const char* linked, std::string path) {
    std::string fault;
    const auto place = places_.find(plain_path(linked, &fault));
    if (path.empty()) {
      fail("", "an entry without a name");
      return;
    }
    if (place == places_.end() || made_->entries[place->second].directory) {
      made_->warnings.push_back(
          {std::move(path),
           "a hard link to " + std::string(linked) + ", which does not stand before it, left out"});
      return;
    }
    const tree_entry& earlier = made_->entries[place->second];
    tree_entry entry;
    entry.path = std::move(path);
    entry.mode = archive_entry_perm(header) & ppc_mode_permissions;
    entry.mtime = clock_date_of(archive_entry_mtime(header));
    entry.size = earlier.size;
    const bool held = earlier.contents.size() == earlier.size;
    if (held && may_hold(entry)) {
      entry.contents = earlier.contents;
      taken_ += entry.size;
    }
    put(std::move(entry));
  }

  // Whether the contents of an entry are wanted, and within the limit.
  bool may_hold(const tree_entry& entry) {
    if (options_.sizes_wanted && !options_.sizes_wanted->contains(entry.size)) {
      return false;
    }
    made_->contents_left_out =
        made_->contents_left_out || entry.size > options_.contents_limit - taken_;
    return !made_->contents_left_out;
  }

  bool take_contents(archive* opened, archive_entry* header, tree_entry* entry) {
    entry->size = static_cast<uint64_t>(std::max<int64_t>(0, archive_entry_size(header)));
    if (!may_hold(*entry)) {
      return true;
    }
    // Grown as the data come: the size is only what the archive claims.
    char piece[read_block_size];
    for (;;) {
      const la_ssize_t got = archive_read_data(opened, piece, sizeof(piece));
      if (got == ARCHIVE_RETRY) {
        continue;
      }
      if (got <= 0) {
        entry->size = entry->contents.size();
        return got == 0;
      }
      const auto length = static_cast<size_t>(got);
      if (length > options_.contents_limit - taken_) {
        entry->contents.clear();
        made_->contents_left_out = true;
        return true;
      }
      taken_ += length;
      entry->contents.append(piece, length);
    }
  }

  // Takes the place of an earlier entry of the same name.
  void put(tree_entry entry) {
    const auto [place, is_new] = places_.try_emplace(entry.path, made_->entries.size());
    if (is_new) {
      made_->entries.push_back(std::move(entry));
      return;
    }
    tree_entry& earlier = made_->entries[place->second];
    if (earlier.directory != entry.directory) {
      fail(entry.path, "comes twice, as a file and as a folder");
      return;
    }
    earlier = std::move(entry);
  }

  // Folders that are named only by what is in them get the newest date of that.
  void add_implied_folders() {
    std::unordered_map<std::string, uint32_t> implied;
    for (const tree_entry& entry : made_->entries) {
      for (std::string_view folder = folder_of_path(entry.path); !folder.empty();
           folder = folder_of_path(folder)) {
        const auto place = places_.find(std::string(folder));
        if (place == places_.end()) {
          uint32_t& date = implied[std::string(folder)];
          date = std::max(date, entry.mtime);
        } else if (!made_->entries[place->second].directory) {
          fail(entry.path, "lies in what is a file");
        }
      }
    }
    for (const auto& [path, date] : implied) {
      made_->entries.push_back({path, true, mode_of_implied_folder, date, "", 0});
    }
  }

  static constexpr int damaged_max = 100;

  const tree_options& options_;
  tree* made_;
  uint64_t taken_ = 0;
  int damaged_ = 0;
  std::unordered_map<std::string, size_t> places_;
  owner_watch owners_;
};

void describe(archive_entry* header, const tree_entry& entry) {
  archive_entry_clear(header);
  const std::string path = entry.path.empty() ? "./" : entry.path + (entry.directory ? "/" : "");
  archive_entry_set_pathname(header, path.c_str());
  archive_entry_set_filetype(header, entry.directory ? AE_IFDIR : AE_IFREG);
  archive_entry_set_perm(header, host_permissions(entry.mode, entry.directory));
  archive_entry_set_size(header, static_cast<int64_t>(entry.contents.size()));
  archive_entry_set_mtime(header, entry.mtime, 0);
  archive_entry_set_uid(header, 0);
  archive_entry_set_gid(header, 0);
}

bool write_entry(archive* opened, archive_entry* header, const tree_entry& entry) {
  describe(header, entry);
  if (archive_write_header(opened, header) != ARCHIVE_OK) {
    return false;
  }
  const auto length = static_cast<la_ssize_t>(entry.contents.size());
  return length == 0 ||
         archive_write_data(opened, entry.contents.data(), entry.contents.size()) == length;
}

}  // namespace

tree read_tar(int fd, const tree_options& options) {
  tree made;
  tar_reader(options, &made).read(fd);
  finish_tree(&made);
  return made;
}

std::string write_tar(const tree& from, int fd) {
  const archive_handle opened(archive_write_new());
  const entry_handle header(archive_entry_new());
  if (opened == nullptr || header == nullptr) {
    return "out of memory";
  }
  // Of the formats the one that has names as they are, of any bytes and length.
  archive_write_set_format_gnutar(opened.get());
  archive_write_set_bytes_in_last_block(opened.get(),
                                        archive_write_get_bytes_per_block(opened.get()));
  if (archive_write_open(opened.get(), &fd, nullptr, write_block, nullptr) != ARCHIVE_OK) {
    return error_of(opened.get());
  }
  // The folder itself, for its date.
  constexpr uint32_t mode_of_root = 0755;
  if (from.root_mtime &&
      !write_entry(opened.get(), header.get(), {"", true, mode_of_root, *from.root_mtime, "", 0})) {
    return error_of(opened.get());
  }
  for (const tree_entry& entry : from.entries) {
    if (!write_entry(opened.get(), header.get(), entry)) {
      return entry.path + ": " + error_of(opened.get());
    }
  }
  return archive_write_close(opened.get()) == ARCHIVE_OK ? "" : error_of(opened.get());
}

}  // namespace image
