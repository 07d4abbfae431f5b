#include "image/put_plan.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

#include "image/clock.h"
#include "image/host_file.h"
#include "image/interrupt.h"

namespace image {

namespace {

constexpr uint64_t file_size_max = uint64_t{1} << 27;  // 65536 sectors of 2048 bytes

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

class planner {
 public:
  planner(const put_sources& sources, const volume::files& files, report& out)
      : sources_(sources), files_(files), out_(out) {}

  put_plan run() {
    const std::string target = inside_path(sources_.path);
    const bool into = is_directory_at(files_, target);
    if (!into && sources_.names.size() > 1) {
      out_.fail_at(target, "several sources go into a directory, which this is not");
      return {};
    }
    ends_as_folder_ = !into && sources_.path.ends_with('/');
    for (const std::string& source : sources_.names) {
      if (interrupted()) {
        break;
      }
      const std::string name = host_name(source);
      if (source == "-" && into) {
        out_.fail_at(target, "standard input has no name: PATH has to give it one");
      } else {
        collect_source(source, into && !name.empty() ? joined_path(target, name) : target);
      }
    }
    return std::move(plan_);
  }

 private:
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
      out_.fail_at(target, "there is no such directory");
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
    if (!sources_.recursive) {
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
      plan_.told.insert(joined_path(target, one.path));
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
    const auto [place, fresh] = plan_.entries.try_emplace(path, std::move(entry));
    if (!fresh && !(place->second.directory && directory)) {
      out_.fail_at(path, "two sources would have this path");
    }
  }

  const put_sources& sources_;
  const volume::files& files_;
  report& out_;
  put_plan plan_;
  bool ends_as_folder_ = false;  // the path does, and there is none
};

}  // namespace

put_plan plan_put(const put_sources& sources, const volume::files& files, report& out) {
  return planner(sources, files, out).run();
}

}  // namespace image
