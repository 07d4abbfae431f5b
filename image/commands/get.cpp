// get: copies files, and with -r directories, out of the image.
#include <sys/stat.h>

#include <cerrno>
#include <memory>

#include "image/commands/commands.h"
#include "image/extraction.h"
#include "image/interrupt.h"
#include "image/paths.h"
#include "image/session.h"
#include "image/text.h"
#include "image/tree.h"
#include "image/volume_tree.h"

namespace image {

namespace {

struct get_options {
  std::string image;
  std::vector<std::string> words;  // PATH... HOST
  bool recursive = false;
};

bool is_host_folder(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

class getter {
 public:
  getter(const get_options& options, session& opened, report& out)
      : options_(options),
        opened_(opened),
        out_(out),
        host_(options.words.back()),
        into_folder_(options.words.size() > 2 || is_host_folder(host_)) {}

  void run() {
    if (options_.words.size() > 2 && !is_host_folder(host_)) {
      out_.fail(exit_status::failed, "several paths go into a folder, which this is not", host_);
      return;
    }
    for (size_t i = 0; i + 1 < options_.words.size() && !interrupted(); ++i) {
      opened_.keep_ready();
      get(inside_path(options_.words[i]));
    }
  }

 private:
  void get(const std::string& path) {
    ppc_stat status;
    if (status_of(opened_.files(), path, &status) != 0) {
      fail(path, error_text(errno));
    } else if (!is_directory(status)) {
      get_file(path);
    } else if (!options_.recursive) {
      fail(path, "is a directory; -r copies it");
    } else {
      get_folder(path);
    }
  }

  void get_file(const std::string& path) {
    const std::string name(name_of_path(path));
    std::string contents;
    std::string why = into_folder_ ? host_name_fault(name) : "";
    if (!why.empty()) {
      fail(path, why);
    } else if (opened_.files().read_file(path, &contents) != 0) {
      fail(path, error_text(errno));
    } else {
      const std::string target = into_folder_ ? host_ + "/" + name : host_;
      const std::span<const uint8_t> bytes{reinterpret_cast<const uint8_t*>(contents.data()),
                                           contents.size()};
      if (!write_new_file(target, bytes, true, &why)) {
        out_.fail(exit_status::failed, why, target);
      }
    }
  }

  // The folder's own name is one of the host's as well, unless it is the root.
  void get_folder(const std::string& path) {
    const std::string name(name_of_path(path));
    const bool below = into_folder_ && !path.empty();
    if (const std::string why = below ? host_name_fault(name) : ""; !why.empty()) {
      fail(path, why);
      return;
    }
    const tree found = read_volume(opened_.files(), path);
    tell(path, found.warnings, found.errors);
    if (!found.errors.empty()) {
      return;
    }
    const extraction done =
        extract_tree(found, below ? host_ + "/" + name : host_, {.force = true});
    tell(path, done.warnings, done.errors);
  }

  void tell(const std::string& path, const std::vector<tree_problem>& warnings,
            const std::vector<tree_problem>& errors) {
    for (const tree_problem& one : warnings) {
      out_.warn(codes::advice, one.text, told_path(joined_path(path, one.path)));
    }
    for (const tree_problem& one : errors) {
      fail(joined_path(path, one.path), one.text);
    }
  }

  void fail(const std::string& path, const std::string& text) {
    out_.fail(exit_status::failed, text, told_path(path));
  }

  const get_options& options_;
  session& opened_;
  report& out_;
  const std::string& host_;
  const bool into_folder_;
};

void run(const get_options& options, const globals& all, report& out) {
  if (options.words.size() < 2) {
    out.fail(exit_status::usage, "HOST is required: where the files go");
    return;
  }
  if (all.json && options.words.back() == "-") {
    out.fail(exit_status::usage, "standard output has the document; \"cat\" puts files into it");
    return;
  }
  if (const auto opened = session::to_read(all, options.image, out); opened) {
    getter(options, *opened, out).run();
  }
}

}  // namespace

command get_command() {
  auto options = std::make_shared<get_options>();
  return {"get", "Copies files out of the image", "flashfs-image get -r boot.img /config backup",
          [options](arguments& take) {
            take.image(&options->image);
            take.words("PATH... HOST", &options->words,
                       "Paths in the image; then a file or folder of the host, or '-'");
            take.flag("-r", &options->recursive, "Directories, too, with all in them");
          },
          [options](const globals& all, report& out) { run(*options, all, out); }};
}

}  // namespace image
