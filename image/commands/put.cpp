// put: copies files, and with -r folders, into the image: all of them or none. Everything is read
// and judged before the first byte is written.
#include <cerrno>
#include <memory>
#include <optional>

#include "image/clock.h"
#include "image/commands/commands.h"
#include "image/commands/edit.h"
#include "image/interrupt.h"
#include "image/paths.h"
#include "image/put_plan.h"
#include "image/space.h"
#include "image/text.h"
#include "image/tree.h"

namespace image {

namespace {

struct put_options {
  edit_options edit;
  put_sources sources;
  bool preserve = false;
  std::string mode;
};

class putter {
 public:
  putter(const put_options& options, std::optional<uint32_t> mode, session& opened, report& out)
      : options_(options),
        mode_(mode),
        files_(opened.files()),
        out_(out),
        plan_(plan_put(options.sources, files_, out)) {}

  void run() {
    if (judge()) {
      write();
    }
    clock_set(std::nullopt);
  }

 private:
  // --- whether it can be ---

  bool judge() {
    tree added;
    uint64_t freed = 0;
    for (const auto& [path, entry] : plan_.entries) {
      judge_entry(path, entry, &freed);
      added.entries.push_back({path, entry.directory, 0, 0, "", entry.size});
    }
    if (out_.status() >= exit_status::faults || interrupted()) {
      return false;
    }
    ppc_statfs space;
    if (files_.statfs(&space) != 0) {
      out_.fail_at("", error_text(errno));
      return false;
    }
    const space_needed needed = space_for(added);
    if (needed.data_sectors > space.free_blocks + freed) {
      out_.fail_at(inside_path(options_.sources.path),
                   "no space: " + std::to_string(needed.data_sectors) +
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
      if (!plan_.told.contains(path)) {
        out_.fail_at(path, fault);
      }
    } else if (status_of(files_, path, &there) == 0) {
      if (is_directory(there) != entry.directory) {
        out_.fail_at(path, is_directory(there)
                               ? "a directory is there, which a file cannot replace"
                               : "a file is there, which a directory cannot replace");
      } else if (!entry.directory) {
        *freed += sectors_of_file(there.size);
      }
    } else if (const std::string upper(folder_of_path(path));
               !is_directory_at(files_, upper) && !plan_.entries.contains(upper)) {
      out_.fail_at(path, "there is no directory " + told_path(upper) + " for it");
    }
  }

  // --- writing ---

  void write() {
    uint64_t done = 0;
    for (const auto& [path, entry] : plan_.entries) {
      if (interrupted()) {
        return;
      }
      out_.progress("writing", done++, plan_.entries.size());
      if (!write_entry(path, entry)) {
        out_.fail_at(path, error_text(errno));
        return;
      }
    }
    // What was put into a directory has dated it.
    for (const auto& [path, entry] : plan_.entries) {
      if (options_.preserve && entry.directory && files_.set_date(path, entry.mtime) != 0) {
        out_.fail_at(path, error_text(errno));
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
      if (!is_directory_at(files_, path) && files_.mkdir(path, mode.value_or(0)) != 0) {
        return false;
      }
    } else if (files_.write_file(path, entry.contents) != 0) {
      return false;
    }
    return !mode || files_.chmod(path, *mode) == 0;
  }

  static constexpr std::optional<uint32_t> mode_none = std::nullopt;

  const put_options& options_;
  const std::optional<uint32_t> mode_;
  const volume::file_system& files_;
  report& out_;
  const put_plan plan_;
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
                "HOST", &options->sources.names,
                "Files of the host; with -r folders, too; '-' is standard input", "PATH",
                &options->sources.path,
                "Where they go in the image: into a directory that is there, or under this path");
            take.flag("-r", &options->sources.recursive, "Folders, too, with all in them");
            take.flag("-p", &options->preserve, "Keep modes and dates of the sources");
            take.option("-m", "MODE", &options->mode, "Permissions of the files, octal");
          },
          [options](const globals& all, report& out) { run(*options, all, out); }};
}

}  // namespace image
