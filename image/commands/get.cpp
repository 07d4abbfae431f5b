// get: copies files, and with -r directories, out of the image.
#include <sys/stat.h>

#include <cerrno>
#include <memory>
#include <utility>

#include "image/commands/commands.h"
#include "image/extraction.h"
#include "image/interrupt.h"
#include "image/paths.h"
#include "image/session.h"
#include "image/take_out.h"
#include "image/text.h"
#include "image/tree.h"
#include "image/volume_tree.h"

namespace image {

namespace {

struct get_options {
  std::string image;
  std::vector<std::string> paths;
  std::string host;
  bool recursive = false;
};

bool is_host_folder(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

class getter {
 public:
  getter(const get_options& options, const globals& all, session& opened, report& out)
      : options_(options),
        all_(all),
        opened_(opened),
        out_(out),
        host_(options.host),
        into_folder_(host_ != "-" && (options.paths.size() > 1 || is_host_folder(host_))) {}

  void run() {
    if (options_.paths.size() > 1 && !is_host_folder(host_)) {
      out_.fail(exit_status::failed, "several paths go into a folder, which this is not", host_);
      return;
    }
    for (const std::string& given : options_.paths) {
      if (interrupted()) {
        return;
      }
      opened_.keep_ready();
      get(given);
    }
    if (!interrupted()) {
      tell_written(files_, folders_, bytes_, out_);
    }
  }

 private:
  void get(const std::string& given) {
    const std::string path = inside_path(given);
    ppc_stat status;
    if (status_of_given(opened_.files(), given, &status) != 0) {
      out_.fail_at(path, error_text(errno));
    } else if (!is_directory(status) && !into_folder_ && host_.ends_with('/')) {
      out_.fail(exit_status::failed,
                "there is no such folder: make it first, or leave out the slash for a file of this "
                "name",
                host_);
    } else if (!is_directory(status)) {
      get_file(path, status);
    } else if (!options_.recursive) {
      out_.fail_at(path, "is a directory; -r copies it");
    } else if (host_ == "-") {
      out_.fail_at(path, "is a directory; standard output takes one file");
    } else {
      get_folder(path, status);
    }
  }

  void get_file(const std::string& path, const ppc_stat& status) {
    const std::string name(name_of_path(path));
    std::string contents;
    std::string why = into_folder_ ? host_name_fault(name) : "";
    if (!why.empty()) {
      out_.fail_at(path, why);
      return;
    }
    if (opened_.files().read_file(path, &contents) != 0) {
      out_.fail_at(path, error_text(errno));
      return;
    }
    const std::string target = into_folder_ ? host_ + "/" + name : host_;
    const file_options how = {.replaces = true,
                              .dry_run = all_.dry_run,
                              .never = opened_.identity(),
                              .mode = host_permissions(status.mode, false),
                              .date = status.modification_date};
    const std::span<const uint8_t> bytes{reinterpret_cast<const uint8_t*>(contents.data()),
                                         contents.size()};
    if (!write_file(target, bytes, how, &why)) {
      if (!interrupted()) {
        out_.fail(exit_status::failed, why, target);
      }
      return;
    }
    files_++;
    bytes_ += contents.size();
  }

  // The folder's own name is one of the host's as well, unless it is the root. It is made below
  // HOST, where no link is followed.
  void get_folder(const std::string& path, const ppc_stat& status) {
    const std::string name(name_of_path(path));
    const bool below = into_folder_ && !path.empty();
    if (const std::string why = below ? host_name_fault(name) : ""; !why.empty()) {
      out_.fail_at(path, why);
      return;
    }
    tree found = read_volume(opened_.files(), path);
    if (interrupted()) {
      return;
    }
    tell(path, found.warnings, found.errors);
    if (!found.errors.empty()) {
      return;
    }
    if (below) {
      put_into_folder(&found, name, status);
    }
    const extraction done = extract_tree(
        found, host_, {.force = true, .dry_run = all_.dry_run, .never = opened_.identity()});
    tell(below ? std::string(folder_of_path(path)) : path, done.warnings, done.errors);
    files_ += done.files;
    folders_ += done.folders;
    bytes_ += done.bytes;
  }

  static void put_into_folder(tree* found, const std::string& name, const ppc_stat& status) {
    for (tree_entry& entry : found->entries) {
      entry.path = name + "/" + entry.path;
    }
    tree_entry folder;
    folder.path = name;
    folder.directory = true;
    folder.mode = status.mode;
    folder.mtime = status.modification_date;
    found->entries.insert(found->entries.begin(), std::move(folder));
    found->root_mtime.reset();  // HOST is not what is taken out
  }

  void tell(const std::string& path, const std::vector<tree_problem>& warnings,
            const std::vector<tree_problem>& errors) {
    for (const tree_problem& one : warnings) {
      out_.warn(codes::advice, one.text, told_path(joined_path(path, one.path)));
    }
    for (const tree_problem& one : errors) {
      out_.fail_at(joined_path(path, one.path), one.text);
    }
  }

  const get_options& options_;
  const globals& all_;
  session& opened_;
  report& out_;
  const std::string& host_;
  const bool into_folder_;
  uint64_t files_ = 0;
  uint64_t folders_ = 0;
  uint64_t bytes_ = 0;
};

void run(const get_options& options, const globals& all, report& out) {
  if (all.json && options.host == "-") {
    out.fail(exit_status::usage, "standard output has the document; \"cat\" puts files into it");
    return;
  }
  if (const auto opened = session::to_read(all, options.image, out); opened) {
    getter(options, all, *opened, out).run();
  }
}

}  // namespace

command get_command() {
  auto options = std::make_shared<get_options>();
  return {"get", "Copies files out of the image",
          "flashfs-image get boot.img /config/startup.cfg .\n"
          "flashfs-image get -r boot.img /config backup",
          [options](arguments& take) {
            take.image(&options->image);
            take.words_and_last(
                "PATH", &options->paths, "Files in the image; with -r directories, too", "HOST",
                &options->host,
                "Where they go on the host: into a folder that is there, or under this name; "
                "'-' is standard output");
            take.flag("-r", &options->recursive, "Directories, too, with all in them");
          },
          [options](const globals& all, report& out) { run(*options, all, out); }};
}

}  // namespace image
