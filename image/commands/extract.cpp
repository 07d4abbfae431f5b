// extract: takes all files out, into a folder of the host or into an archive.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>

#include "image/commands/commands.h"
#include "image/extraction.h"
#include "image/interrupt.h"
#include "image/paths.h"
#include "image/session.h"
#include "image/tar.h"
#include "image/volume_tree.h"

namespace image {

namespace {

struct extract_options {
  std::string image;
  std::string folder;
  std::string archive;
  bool keep_going = false;
  bool force = false;
};

// Without --keep-going what is missing is a fault; with it something left out, as was asked.
void tell_missing(const extract_options& options, exit_status status,
                  const std::vector<tree_problem>& problems, report& out) {
  for (const tree_problem& one : problems) {
    out.fail(options.keep_going ? exit_status::partial : status, one.text, told_path(one.path));
  }
}

void tell_result(uint64_t files, uint64_t folders, uint64_t bytes, report& out) {
  out.result()["files"] = files;
  out.result()["directories"] = folders;
  out.result()["bytes"] = bytes;
  out.detail(std::to_string(files) + " files, " + std::to_string(folders) + " directories, " +
             std::to_string(bytes) + " bytes");
}

void to_folder(const extract_options& options, const globals& all, const tree& found, report& out) {
  if (all.dry_run) {
    const std::vector<tree_problem> faults = host_faults(found);
    tell_missing(options, exit_status::failed, faults, out);
    return;
  }
  const extraction done = extract_tree(found, options.folder,
                                       {.force = options.force, .keep_going = options.keep_going});
  for (const tree_problem& one : done.warnings) {
    out.warn(codes::advice, one.text, told_path(one.path));
  }
  if (done.refused) {
    for (const tree_problem& one : done.errors) {
      out.fail(exit_status::failed, one.text, one.path);
    }
    return;
  }
  tell_missing(options, exit_status::failed, done.errors, out);
  tell_result(done.files, done.folders, done.bytes, out);
}

// The descriptor, or -1 after a message.
int open_archive(const extract_options& options, report& out) {
  if (options.archive == "-") {
    return STDOUT_FILENO;
  }
  const int how = options.force ? O_TRUNC : O_EXCL;
  const int fd = open(options.archive.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | how, 0666);
  if (fd < 0) {
    out.fail(exit_status::failed,
             errno == EEXIST ? "is there already; --force replaces it" : strerror(errno),
             options.archive);
  }
  return fd;
}

void to_archive(const extract_options& options, const globals& all, tree found, report& out) {
  const std::vector<tree_problem> faults = host_faults(found);
  tell_missing(options, exit_status::failed, faults, out);
  if (out.status() >= exit_status::faults || all.dry_run) {
    return;
  }
  std::erase_if(found.entries, [&](const tree_entry& entry) {
    return std::any_of(faults.begin(), faults.end(), [&](const tree_problem& one) {
      return entry.path == one.path || entry.path.starts_with(one.path + "/");
    });
  });
  const int fd = open_archive(options, out);
  if (fd < 0) {
    return;
  }
  std::string fault = write_tar(found, fd);
  if (fd != STDOUT_FILENO && close(fd) != 0 && fault.empty()) {
    fault = strerror(errno);
  }
  if (!fault.empty()) {
    out.fail(exit_status::failed, fault, options.archive);
    if (fd != STDOUT_FILENO) {
      unlink(options.archive.c_str());
    }
    return;
  }
  uint64_t bytes = 0;
  uint64_t folders = 0;
  for (const tree_entry& entry : found.entries) {
    bytes += entry.size;
    folders += entry.directory ? 1 : 0;
  }
  tell_result(found.entries.size() - folders, folders, bytes, out);
}

void run(const extract_options& options, const globals& all, report& out) {
  if (options.folder.empty() == options.archive.empty()) {
    out.fail(exit_status::usage, "either -C or --to-tar says where the files go");
    return;
  }
  if (all.json && options.archive == "-") {
    out.fail(exit_status::usage, "standard output cannot have both the archive and the document");
    return;
  }
  const std::unique_ptr<session> opened = session::to_read(all, options.image, out);
  if (!opened || out.status() >= exit_status::faults) {
    return;
  }
  tree found = options.archive.empty() ? try_volume(opened->files()) : read_volume(opened->files());
  tell_missing(options, exit_status::faults, found.errors, out);
  if (interrupted() || out.status() >= exit_status::faults) {
    return;
  }
  if (options.archive.empty()) {
    to_folder(options, all, found, out);
  } else {
    to_archive(options, all, std::move(found), out);
  }
}

}  // namespace

command extract_command() {
  auto options = std::make_shared<extract_options>();
  return {"extract", "Takes all files out",
          "flashfs-image extract boot.img -C folder\n"
          "flashfs-image extract boot.img --to-tar - | tar -tv",
          [options](arguments& take) {
            take.image(&options->image);
            take.option("-C", "DIR", &options->folder, "Into this folder, made if missing");
            take.option("--to-tar", "FILE", &options->archive,
                        "Into a tar archive, '-' for standard output");
            take.flag("--keep-going", &options->keep_going,
                      "Leave out what cannot be taken out (status 2), and go on");
            take.flag("--force", &options->force,
                      "Into a folder that is not empty, over an archive that is there");
          },
          [options](const globals& all, report& out) { run(*options, all, out); }};
}

}  // namespace image
