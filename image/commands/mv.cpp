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

// Makes room for the new name. False after a failure, which is told.
bool remove_existing(const mv_options& options, const volume::files& files, const ppc_stat& moved,
                     const std::string& path, report& out) {
  ppc_stat there;
  if (status_of(files, path, &there) != 0) {
    if (errno != ENOENT) {
      out.fail_at(path, error_text(errno));
      return false;
    }
    return true;
  }
  if (!options.replace || is_directory(there) || is_directory(moved)) {
    out.fail_at(path, is_directory(there) || is_directory(moved)
                          ? "is there already"
                          : "is there already; -f replaces it");
    return false;
  }
  if (files.remove(path) != 0) {
    out.fail_at(path, error_text(errno));
    return false;
  }
  return true;
}

// The new path: into a directory that is there already under the old name.
std::string target_of(const volume::files& files, const std::string& from, const std::string& to) {
  return is_directory_at(files, to) ? joined_path(to, name_of_path(from)) : to;
}

void move(const mv_options& options, const volume::files& files, report& out) {
  const std::string from = inside_path(options.from);
  ppc_stat moved;
  if (from.empty()) {
    out.fail(exit_status::failed, "the root cannot be moved", "/");
    return;
  }
  if (status_of_given(files, options.from, &moved) != 0) {
    out.fail_at(from, error_text(errno));
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
    out.fail_at(to, fault);
  } else if (status_of(files, std::string(folder_of_path(to)), &folder) != 0) {
    out.fail_at(folder_of_path(to), error_text(errno));
  } else if (is_directory(moved) && to.starts_with(from + "/")) {
    out.fail_at(to, "a directory cannot go below itself");
  } else if (remove_existing(options, files, moved, to, out) && files.rename(from, to) != 0) {
    out.fail_at(to, error_text(errno));
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
