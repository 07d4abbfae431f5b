// tree: shows directories within each other.
#include <algorithm>
#include <cerrno>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>

#include "image/commands/commands.h"
#include "image/paths.h"
#include "image/session.h"
#include "image/text.h"

namespace image {

namespace {

using json = nlohmann::ordered_json;

struct tree_command_options {
  std::string image;
  std::string path;
  std::optional<uint32_t> levels;
};

class tree_printer {
 public:
  tree_printer(const tree_command_options& options, session& opened, report& out)
      : levels_(options.levels.value_or(UINT32_MAX)), opened_(opened), out_(out) {}

  void print(const std::string& path) {
    ppc_stat status;
    if (status_of(opened_.files(), path, &status) != 0) {
      out_.fail_at(path, error_text(errno));
      return;
    }
    out_.print(out_.colored(is_directory(status) ? color::blue : color::none,
                            out_.shown(told_path(path))) +
               "\n");
    // Damaged directories can be nested as deep as there are files, so nothing calls itself here:
    // what is still to be shown waits in a list, the next one last.
    if (is_directory(status)) {
      entered_.insert(status.fileid);
      enter(path, "", 1);
    }
    while (!waiting_.empty()) {
      const line next = std::move(waiting_.back());
      waiting_.pop_back();
      show(next);
    }
    out_.print("\n" + std::to_string(directories_) +
               (directories_ == 1 ? " directory, " : " directories, ") + std::to_string(files_) +
               (files_ == 1 ? " file\n" : " files\n"));
    put_text(&out_.result(), "path", told_path(path));
    out_.result()["directories"] = directories_;
    out_.result()["files"] = files_;
    out_.result()["entries"] = entries_;
  }

 private:
  struct line {
    std::string path;
    volume::entry entry;
    std::string indent;
    bool last;
    uint32_t level;
  };

  void enter(const std::string& path, const std::string& indent, uint32_t level) {
    if (level > levels_) {
      return;
    }
    std::vector<volume::entry> found;
    if (opened_.files().list(path, &found) != 0) {
      out_.fail(exit_status::faults, error_text(errno), told_path(path));
    }
    std::sort(found.begin(), found.end(),
              [](const volume::entry& a, const volume::entry& b) { return a.path < b.path; });
    for (size_t i = found.size(); i-- > 0;) {
      std::string whole = joined_path(path, found[i].path);
      const bool last = i + 1 == found.size();
      waiting_.push_back({std::move(whole), std::move(found[i]), indent, last, level});
    }
  }

  void show(const line& one) {
    const volume::entry& entry = one.entry;
    if (entry.error != 0) {
      out_.fail(exit_status::faults, error_text(entry.error), told_path(one.path));
    }
    const std::string name = out_.shown(entry.path);
    out_.print(one.indent + (one.last ? "`-- " : "|-- ") +
               (entry.is_directory() ? out_.colored(color::blue, name) : name) + "\n");
    json object;
    put_text(&object, "path", told_path(one.path));
    object["level"] = one.level;
    object["type"] = entry.error != 0 ? json() : json(entry.is_directory() ? "directory" : "file");
    entries_.push_back(std::move(object));
    (entry.is_directory() ? directories_ : files_)++;
    if (entry.is_directory() && entered_.insert(entry.status.fileid).second) {
      enter(one.path, one.indent + (one.last ? "    " : "|   "), one.level + 1);
    }
  }

  const uint32_t levels_;
  session& opened_;
  report& out_;
  std::vector<line> waiting_;
  std::set<uint32_t> entered_;
  json entries_ = json::array();
  uint32_t directories_ = 0;
  uint32_t files_ = 0;
};

}  // namespace

command tree_command() {
  auto options = std::make_shared<tree_command_options>();
  return {"tree", "Shows directories within each other", "flashfs-image tree -L 2 boot.img",
          [options](arguments& take) {
            take.image(&options->image);
            take.optional_word("PATH", &options->path, "A directory in it");
            take.option("-L", "LEVELS", &options->levels, "No deeper than this");
          },
          [options](const globals& all, report& out) {
            if (const auto opened = session::to_read(all, options->image, out); opened) {
              tree_printer(*options, *opened, out).print(inside_path(options->path));
            }
          }};
}

}  // namespace image
