// put: copies files, and with -r folders, into the image: all of them or none. Everything is read
// and judged before the first byte is written.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <set>

#include "image/clock.h"
#include "image/commands/commands.h"
#include "image/commands/edit.h"
#include "image/host_file.h"
#include "image/interrupt.h"
#include "image/paths.h"
#include "image/space.h"
#include "image/text.h"
#include "image/tree.h"

namespace image {

namespace {

struct put_options {
  edit_options edit;
  std::vector<std::string> sources;
  std::string path;
  bool recursive = false;
  bool preserve = false;
  std::string mode;
};

constexpr uint64_t file_size_max = uint64_t{1} << 27;  // 65536 sectors of 2048 bytes

// --- reading the host ---

// Standard input or a file. False with errno.
bool read_host_file(const std::string& path, tree_entry* entry) {
  if (path == "-") {
    entry->mtime = clock_date_of(time(nullptr));
    return read_to_end(STDIN_FILENO, &entry->contents, file_size_max);
  }
  const descriptor opened(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status = {};
  if (!opened || fstat(opened.get(), &status) != 0) {
    return false;
  }
  entry->mode = status.st_mode & ppc_mode_permissions;
  entry->mtime = clock_date_of(status.st_mtime);
  return read_to_end(opened.get(), &entry->contents, file_size_max);
}

bool is_link(const std::string& path) {
  struct stat status = {};
  return lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

// The last name of a host's path: empty for ".", ".." and "/", which have none of their own.
std::string host_name(std::string path) {
  while (path.size() > 1 && path.back() == '/') {
    path.pop_back();
  }
  const std::string name(name_of_path(path));
  return name == "." || name == ".." || name == "/" ? "" : name;
}

class putter {
 public:
  putter(const put_options& options, std::optional<uint32_t> mode, session& opened, report& out)
      : options_(options), mode_(mode), files_(opened.files()), out_(out) {}

  void run() {
    collect();
    if (judge()) {
      write();
    }
    clock_set(std::nullopt);
  }

 private:
  bool is_folder(const std::string& path) const {
    ppc_stat status;
    return status_of(files_, path, &status) == 0 && is_directory(status);
  }

  // --- what is to be written: planned_, with paths from the root ---

  void collect() {
    const std::string target = inside_path(options_.path);
    const bool into = is_folder(target);
    if (!into && options_.sources.size() > 1) {
      fail(target, "several sources go into a directory, which this is not");
      return;
    }
    ends_as_folder_ = !into && options_.path.ends_with('/');
    for (const std::string& source : options_.sources) {
      if (interrupted()) {
        return;
      }
      const std::string name = host_name(source);
      if (source == "-" && into) {
        fail(target, "standard input has no name: PATH has to give it one");
      } else {
        collect_source(source, into && !name.empty() ? joined_path(target, name) : target);
      }
    }
  }

  void collect_source(const std::string& source, const std::string& target) {
    struct stat status = {};
    if (source != "-" && stat(source.c_str(), &status) != 0) {
      out_.fail(exit_status::failed, std::strerror(errno), source);
      return;
    }
    if (source != "-" && is_link(source)) {
      out_.warn(codes::advice, "is a symbolic link: what it leads to is copied", source);
    }
    if (S_ISDIR(status.st_mode)) {
      collect_folder(source, target, status);
    } else if (ends_as_folder_) {
      fail(target, "there is no such directory");
    } else if (source != "-" && !S_ISREG(status.st_mode)) {
      out_.fail(exit_status::failed, "is not a regular file", source);
    } else {
      tree_entry entry;
      entry.path = target;
      if (!read_host_file(source, &entry)) {
        if (!interrupted()) {
          out_.fail(exit_status::failed, std::strerror(errno), source);
        }
        return;
      }
      entry.size = entry.contents.size();
      plan(std::move(entry));
    }
  }

  void collect_folder(const std::string& source, const std::string& target,
                      const struct stat& status) {
    if (!options_.recursive) {
      out_.fail(exit_status::failed, "is a folder; -r copies it", source);
      return;
    }
    tree found = read_folder(source, {});
    if (interrupted()) {
      return;
    }
    for (const tree_problem& one : found.warnings) {
      out_.warn(codes::left_out, one.text, source + "/" + one.path);
    }
    for (const tree_problem& one : found.errors) {
      out_.fail(exit_status::failed, one.text, source + "/" + one.path);
      told_.insert(joined_path(target, one.path));
    }
    if (!target.empty()) {
      tree_entry folder;
      folder.path = target;
      folder.directory = true;
      folder.mode = status.st_mode & ppc_mode_permissions;
      folder.mtime = clock_date_of(status.st_mtime);
      plan(std::move(folder));
    }
    for (tree_entry& one : found.entries) {
      one.path = joined_path(target, one.path);
      plan(std::move(one));
    }
  }

  void plan(tree_entry&& entry) {
    const std::string path = entry.path;
    const bool directory = entry.directory;
    const auto [place, fresh] = planned_.try_emplace(path, std::move(entry));
    if (!fresh && !(place->second.directory && directory)) {
      fail(path, "two sources would have this path");
    }
  }

  // --- whether it can be ---

  bool judge() {
    tree added;
    uint64_t freed = 0;
    for (const auto& [path, entry] : planned_) {
      judge_entry(path, entry, &freed);
      added.entries.push_back({path, entry.directory, 0, 0, "", entry.size});
    }
    if (out_.status() >= exit_status::faults || interrupted()) {
      return false;
    }
    ppc_statfs space;
    if (files_.statfs(&space) != 0) {
      fail("", error_text(errno));
      return false;
    }
    const space_needed needed = space_for(added);
    if (needed.data_sectors > space.free_blocks + freed) {
      fail(inside_path(options_.path), "no space: " + std::to_string(needed.data_sectors) +
                                           " sectors of 2048 bytes are needed, " +
                                           std::to_string(space.free_blocks + freed) + " are free");
      return false;
    }
    return true;
  }

  void judge_entry(const std::string& path, const tree_entry& entry, uint64_t* freed) {
    ppc_stat there;
    const std::string fault = path_fault(path);
    if (!fault.empty()) {
      if (!told_.contains(path)) {
        fail(path, fault);
      }
    } else if (status_of(files_, path, &there) == 0) {
      if (is_directory(there) != entry.directory) {
        fail(path, is_directory(there) ? "a directory is there, which a file cannot replace"
                                       : "a file is there, which a directory cannot replace");
      } else if (!entry.directory) {
        *freed += (there.size + 2047) / 2048;
      }
    } else if (const std::string upper(folder_of_path(path));
               !is_folder(upper) && !planned_.contains(upper)) {
      fail(path, "there is no directory " + told_path(upper) + " for it");
    }
  }

  // --- writing ---

  void write() {
    uint64_t done = 0;
    for (const auto& [path, entry] : planned_) {
      if (interrupted()) {
        return;
      }
      out_.progress("writing", done++, planned_.size());
      if (!write_entry(path, entry)) {
        fail(path, error_text(errno));
        return;
      }
    }
    // What was put into a directory has dated it.
    for (const auto& [path, entry] : planned_) {
      if (options_.preserve && entry.directory && files_.set_date(path, entry.mtime) != 0) {
        fail(path, error_text(errno));
        return;
      }
    }
  }

  bool write_entry(const std::string& path, const tree_entry& entry) {
    clock_set(options_.preserve ? std::optional(entry.mtime) : std::nullopt);
    const std::optional<uint32_t> mode = mode_ && !entry.directory ? mode_
                                         : options_.preserve       ? std::optional(entry.mode)
                                                                   : mode_none;
    if (entry.directory) {
      if (!is_folder(path) && files_.mkdir(path, mode.value_or(0)) != 0) {
        return false;
      }
    } else if (files_.write_file(path, entry.contents) != 0) {
      return false;
    }
    return !mode || files_.chmod(path, *mode) == 0;
  }

  void fail(const std::string& path, const std::string& text) {
    out_.fail(exit_status::failed, text, told_path(path));
  }

  static constexpr std::optional<uint32_t> mode_none = std::nullopt;

  const put_options& options_;
  const std::optional<uint32_t> mode_;
  const volume::file_system& files_;
  report& out_;
  // In an order in which directories stand before what is in them.
  struct path_order {
    bool operator()(const std::string& a, const std::string& b) const {
      return path_is_before(a, b);
    }
  };
  std::map<std::string, tree_entry, path_order> planned_;
  bool ends_as_folder_ = false;  // PATH does, and there is none
  std::set<std::string> told_;   // what is wrong with these has been told
};

void run(const put_options& options, const globals& all, report& out) {
  std::optional<uint32_t> mode;
  if (!options.mode.empty()) {
    mode = parse_mode(options.mode);
    if (!mode) {
      out.fail(exit_status::usage, "-m: an octal number from 0 to 777");
      return;
    }
  }
  edit(options.edit, all, out, [&](session& opened) { putter(options, mode, opened, out).run(); });
}

}  // namespace

command put_command() {
  auto options = std::make_shared<put_options>();
  return {"put", "Copies files into the image",
          "flashfs-image put boot.img startup.cfg /config\n"
          "flashfs-image put -rp boot.img folder/sites /config",
          [options](arguments& take) {
            options->edit.add_to(take);
            take.words_and_last(
                "HOST", &options->sources,
                "Files of the host; with -r folders, too; '-' is standard input", "PATH",
                &options->path,
                "Where they go in the image: into a directory that is there, or under this path");
            take.flag("-r", &options->recursive, "Folders, too, with all in them");
            take.flag("-p", &options->preserve, "Keep modes and dates of the sources");
            take.option("-m", "MODE", &options->mode, "Permissions of the files, octal");
          },
          [options](const globals& all, report& out) { run(*options, all, out); }};
}

}  // namespace image
