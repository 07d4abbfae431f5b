// rm: removes files and, with -r, directories. All of them, or none.
#include <algorithm>
#include <cerrno>
#include <memory>

#include "image/commands/commands.h"
#include "image/commands/edit.h"
#include "image/paths.h"
#include "image/text.h"

namespace image {

namespace {

struct rm_options {
  edit_options edit;
  std::vector<std::string> paths;
  bool recursive = false;
  bool missing_is_fine = false;
};

void remove_one(const volume::files& files, const std::string& path, bool directory, report& out) {
  if ((directory ? files.rmdir(path) : files.remove(path)) != 0) {
    out.fail_at(path, error_text(errno));
  }
}

void remove_below(const volume::files& files, const std::string& path, report& out) {
  std::vector<volume::entry> found;
  if (files.walk(path, &found) != 0) {
    out.fail_at(path, error_text(errno));
    return;
  }
  // A directory stands before what it holds.
  std::reverse(found.begin(), found.end());
  for (const volume::entry& one : found) {
    remove_one(files, joined_path(path, one.path), one.is_directory(), out);
  }
}

void remove_path(const rm_options& options, const volume::files& files, const std::string& given,
                 report& out) {
  const std::string path = inside_path(given);
  ppc_stat status;
  if (path.empty()) {
    out.fail(exit_status::failed, "the root cannot be removed", "/");
  } else if (status_of_given(files, given, &status) != 0) {
    if (errno != ENOENT || !options.missing_is_fine) {
      out.fail_at(path, error_text(errno));
    }
  } else if (is_directory(status) && !options.recursive) {
    out.fail_at(path, "is a directory; -r removes it");
  } else {
    if (is_directory(status)) {
      remove_below(files, path, out);
    }
    remove_one(files, path, is_directory(status), out);
  }
}

}  // namespace

command rm_command() {
  auto options = std::make_shared<rm_options>();
  return {"rm", "Removes files and directories", "flashfs-image rm -r boot.img /config/old",
          [options](arguments& take) {
            options->edit.add_to(take);
            take.words("PATH", &options->paths, "What goes");
            take.flag("-r", &options->recursive, "Directories, too, with all in them");
            take.flag("-f", &options->missing_is_fine, "Do not mind what is not there");
          },
          [options](const globals& all, report& out) {
            edit(options->edit, all, out, [&](session& opened) {
              for (const std::string& given : options->paths) {
                remove_path(*options, opened.files(), given, out);
              }
            });
          }};
}

}  // namespace image
