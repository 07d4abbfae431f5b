// verify: whether everything in the image is sound and, with --against, is what a folder or an
// archive holds. It changes nothing, and looks at the image as it is, before any check.
#include <algorithm>
#include <cerrno>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>

#include "image/commands/commands.h"
#include "image/extraction.h"
#include "image/interrupt.h"
#include "image/paths.h"
#include "image/records.h"
#include "image/session.h"
#include "image/source.h"
#include "image/text.h"
#include "image/tree_diff.h"
#include "image/volume_tree.h"

namespace image {

namespace {

struct verify_options {
  std::string image;
  std::string against;
  std::vector<std::string> paths;
};

bool lies_in(std::string_view path, std::string_view folder) {
  return folder.empty() || path == folder ||
         (path.starts_with(folder) && path[folder.size()] == '/');
}

class verifier {
 public:
  verifier(const verify_options& options, session& opened, report& out)
      : options_(options), opened_(opened), out_(out) {
    for (const std::string& path : options.paths) {
      paths_.push_back(inside_path(path));
    }
  }

  // Whether all paths are there, in the image or in what it is compared with.
  bool paths_are_there(const tree* source) {
    for (const std::string& given : options_.paths) {
      ppc_stat status;
      if (status_of_given(opened_.files(), given, &status) != 0 &&
          !(errno == ENOENT && source != nullptr && is_in(*source, inside_path(given)))) {
        out_.fail_at(inside_path(given), error_text(errno));
      }
    }
    return out_.status() < exit_status::failed;
  }

  void judge_records() {
    uint32_t faults = 0;
    for (const finding& one : read_records(opened_.contents(), opened_.layout()).findings) {
      // Without paths, what is wrong with the image as a whole counts as well.
      if (one.path.empty() ? !paths_.empty() : !is_wanted(inside_path(one.path))) {
        continue;
      }
      out_.add(one);
      if (one.severity != severity::info) {
        out_.raise(exit_status::faults);
        ++faults;
      }
    }
    out_.result()["faults"] = faults;
  }

  void compare(bool strict) {
    tree here = read_volume(opened_.files());
    // Of a source that is larger than any flash, only what may be equal is read.
    std::set<uint64_t> sizes;
    for (const tree_entry& entry : here.entries) {
      sizes.insert(entry.size);
    }
    std::optional<tree> source =
        read_source(options_.against, {.large_files_later = true, .sizes_wanted = &sizes}, out_);
    if (!source || interrupted() || !paths_are_there(&*source)) {
      return;
    }
    for (const tree_problem& one : here.errors) {
      out_.fail(exit_status::faults, one.text, told_path(one.path));
    }
    for (tree* one : {&here, &*source}) {
      std::erase_if(one->entries, [&](const tree_entry& entry) { return !is_wanted(entry.path); });
      // As they are outside of an image.
      for (tree_entry& entry : one->entries) {
        entry.mode = host_permissions(entry.mode, entry.directory);
      }
    }
    out_.result()["differences"] = nlohmann::ordered_json::array();
    std::vector<tree_problem> unread;
    const std::vector<tree_difference> differences =
        compare_trees(here, *source, strict ? compared::all : compared::contents, &unread);
    if (interrupted()) {
      return;
    }
    for (const tree_difference& one : differences) {
      tell(one);
    }
    for (const tree_problem& one : unread) {
      out_.fail(exit_status::failed, one.text, options_.against + ": " + told_path(one.path));
    }
  }

 private:
  bool is_wanted(std::string_view path) const {
    return paths_.empty() || std::any_of(paths_.begin(), paths_.end(), [&](const std::string& one) {
             return lies_in(path, one);
           });
  }

  static bool is_in(const tree& from, const std::string& path) {
    return std::any_of(from.entries.begin(), from.entries.end(),
                       [&](const tree_entry& entry) { return entry.path == path; });
  }

  void tell(const tree_difference& one) {
    using kind = tree_difference::kind;
    const char* what = one.what == kind::only_first    ? "only in the image"
                       : one.what == kind::only_second ? "missing in the image"
                                                       : "differs";
    nlohmann::ordered_json object;
    put_text(&object, "path", told_path(one.path));
    object["what"] = what;
    object["in"] = one.differs_in;
    out_.result()["differences"].push_back(object);
    out_.print(out_.shown(told_path(one.path)) + ": " + what +
               (one.differs_in.empty() ? "" : " in " + one.differs_in) + "\n");
    out_.raise(exit_status::changed);
  }

  const verify_options& options_;
  session& opened_;
  report& out_;
  std::vector<std::string> paths_;
};

void run(const verify_options& options, const globals& all, report& out) {
  const std::unique_ptr<session> opened = session::to_read(all, options.image, out);
  if (!opened) {
    return;
  }
  verifier work(options, *opened, out);
  const bool compares = !options.against.empty();
  if (!compares && !work.paths_are_there(nullptr)) {
    return;
  }
  work.judge_records();
  if (compares && !interrupted()) {
    work.compare(all.strict);
  }
}

}  // namespace

command verify_command() {
  auto options = std::make_shared<verify_options>();
  return {"verify", "Tells whether all files are sound, and what they should be",
          "flashfs-image verify boot.img --against folder",
          [options](arguments& take) {
            take.image(&options->image);
            take.optional_words("PATH", &options->paths, "These files and directories only");
            take.option("--against", "SOURCE", &options->against,
                        "Compare with a folder or a tar archive, '-' for an archive from standard "
                        "input; with --strict modes and dates as well");
          },
          [options](const globals& all, report& out) { run(*options, all, out); }};
}

}  // namespace image
