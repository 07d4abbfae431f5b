// mv: gives a file or directory another name or place.
#include <cerrno>
#include <memory>

#include "image/commands/commands.h"
#include "image/commands/edit.h"
#include "image/paths.h"
#include "image/text.h"
#include "image/tree.h"

namespace image {

namespace {

struct mv_options {
  edit_options edit;
  std::string from;
  std::string to;
  bool replace = false;
};

void fail(const std::string& path, int error, report& out) {
  out.fail(exit_status::failed, error_text(error), told_path(path));
}

// Makes room for the new name. False after a failure, which is told.
bool remove_existing(const mv_options& options, const volume::files& files, const ppc_stat& moved,
                     const std::string& path, report& out) {
  ppc_stat there;
  if (status_of(files, path, &there) != 0) {
    if (errno != ENOENT) {
      fail(path, errno, out);
      return false;
    }
    return true;
  }
  if (!options.replace || is_directory(there) || is_directory(moved)) {
    out.fail(exit_status::failed,
             is_directory(there) || is_directory(moved) ? "is there already"
                                                        : "is there already; -f replaces it",
             told_path(path));
    return false;
  }
  if (files.remove(path) != 0) {
    fail(path, errno, out);
    return false;
  }
  return true;
}

// The new path: into a directory that is there already under the old name.
std::string target_of(const volume::files& files, const std::string& from, const std::string& to) {
  ppc_stat status;
  const bool into = status_of(files, to, &status) == 0 && is_directory(status);
  return into ? joined_path(to, name_of_path(from)) : to;
}

void move(const mv_options& options, const volume::files& files, report& out) {
  const std::string from = inside_path(options.from);
  ppc_stat moved;
  if (from.empty()) {
    out.fail(exit_status::failed, "the root cannot be moved", "/");
    return;
  }
  if (status_of_given(files, options.from, &moved) != 0) {
    fail(from, errno, out);
    return;
  }
  const std::string to = target_of(files, from, inside_path(options.to));
  const bool into_nothing =
      options.to.ends_with('/') && !is_directory(moved) && to == inside_path(options.to);
  const std::string fault = into_nothing ? "there is no such directory" : path_fault(to);
  ppc_stat folder;
  if (to == from) {
    return;
  }
  if (!fault.empty()) {
    out.fail(exit_status::failed, fault, told_path(to));
  } else if (status_of(files, std::string(folder_of_path(to)), &folder) != 0) {
    fail(std::string(folder_of_path(to)), errno, out);
  } else if (is_directory(moved) && to.starts_with(from + "/")) {
    out.fail(exit_status::failed, "a directory cannot go below itself", told_path(to));
  } else if (remove_existing(options, files, moved, to, out) && files.rename(from, to) != 0) {
    fail(to, errno, out);
  }
}

}  // namespace

command mv_command() {
  auto options = std::make_shared<mv_options>();
  return {"mv", "Renames and moves",
          "flashfs-image mv boot.img /config/startup.cfg /config/startup.old",
          [options](arguments& take) {
            options->edit.add_to(take);
            take.word("FROM", &options->from, "A file or directory");
            take.word("TO", &options->to, "Its new path, or a directory that it goes into");
            take.flag("-f", &options->replace, "Replace a file that is there");
          },
          [options](const globals& all, report& out) {
            edit(options->edit, all, out,
                 [&](session& opened) { move(*options, opened.files(), out); });
          }};
}

}  // namespace image
