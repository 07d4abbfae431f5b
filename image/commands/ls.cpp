// ls: lists directories. With several paths, or below them, names are whole paths.
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <nlohmann/json.hpp>

#include "image/commands/commands.h"
#include "image/interrupt.h"
#include "image/paths.h"
#include "image/session.h"
#include "image/text.h"

namespace image {

namespace {

using json = nlohmann::ordered_json;

struct ls_options {
  std::string image;
  std::vector<std::string> paths;
  bool with_details = false;
  bool recursive = false;
  bool hidden = false;
  bool ends_with_nul = false;
};

// Bits of a mode that a listing on the board shows.
constexpr uint32_t shown_read = 0x400;
constexpr uint32_t shown_write = 0x200;
constexpr uint32_t shown_execute = 0x100;

struct listed {
  std::string path;
  volume::entry entry;
};

std::string mode_text(const ppc_stat& status) {
  const auto letter = [&](uint32_t bit, char set) { return (status.mode & bit) != 0 ? set : '-'; };
  return {is_directory(status) ? 'd' : '-', letter(shown_read, 'r'), letter(shown_write, 'w'),
          letter(shown_execute, 'x')};
}

bool is_hidden(const std::string& path) {
  return path.starts_with('.') || path.find("/.") != std::string::npos;
}

class listing {
 public:
  listing(const ls_options& options, session& opened, report& out)
      : options_(options), opened_(opened), out_(out) {}

  void add(const std::string& given) {
    const std::string path = inside_path(given);
    opened_.keep_ready();
    ppc_stat status;
    if (status_of_given(opened_.files(), given, &status) != 0) {
      out_.fail_at(path, error_text(errno));
    } else if (is_directory(status)) {
      add_directory(path);
    } else {
      show({path, {path, status, 0}}, told_path(path));
    }
  }

 private:
  void add_directory(const std::string& path) {
    std::vector<volume::entry> found;
    const int32_t result = options_.recursive ? opened_.files().walk(path, &found)
                                              : opened_.files().list(path, &found);
    const int error = errno;
    std::sort(found.begin(), found.end(), comes_before);
    for (const volume::entry& one : found) {
      if (interrupted()) {
        return;
      }
      if (!options_.hidden && is_hidden(one.path)) {
        continue;
      }
      const std::string whole = joined_path(path, one.path);
      const bool named_alone = !options_.recursive && options_.paths.size() < 2;
      show({whole, one}, named_alone ? one.path : told_path(whole));
    }
    if (result != 0) {
      out_.fail(exit_status::faults, error_text(error), told_path(path));
    }
  }

  // Byte order of the components: what a directory holds stands behind it.
  static bool comes_before(const volume::entry& a, const volume::entry& b) {
    return std::lexicographical_compare(
        a.path.begin(), a.path.end(), b.path.begin(), b.path.end(), [](char left, char right) {
          const auto rank = [](char byte) {
            return byte == '/' ? 0 : static_cast<int>(static_cast<uint8_t>(byte)) + 1;
          };
          return rank(left) < rank(right);
        });
  }

  void show(const listed& one, const std::string& name) {
    if (one.entry.error != 0) {
      out_.fail(exit_status::faults, error_text(one.entry.error), told_path(one.path));
    }
    if (out_.json()) {
      add_to_document(one);
      return;
    }
    std::string line;
    if (options_.with_details) {
      line = details(one.entry);
    }
    // With NULs between them names are for programs.
    const std::string as_shown = options_.ends_with_nul ? name : out_.shown(name);
    line += one.entry.is_directory() ? out_.colored(color::blue, as_shown) : as_shown;
    line += options_.ends_with_nul ? '\0' : '\n';
    out_.print(line);
  }

  static std::string details(const volume::entry& entry) {
    if (entry.error != 0) {
      return fmt::format("{:4} {:4} {:>9} {:19} ", "????", "?", "?", "?");
    }
    return fmt::format("{} {:04o} {:>9} {} ", mode_text(entry.status),
                       entry.status.mode & ppc_mode_permissions, entry.status.size,
                       date_text(entry.status.change_date));
  }

  void add_to_document(const listed& one) {
    json object;
    put_text(&object, "path", told_path(one.path));
    object["id"] = one.entry.status.fileid;
    if (one.entry.error != 0) {
      object["type"] = nullptr;
    } else {
      const ppc_stat& status = one.entry.status;
      object["type"] = is_directory(status) ? "directory" : "file";
      object["size"] = status.size;
      object["mode"] = fmt::format("{:04o}", status.mode & ppc_mode_permissions);
      object["shown_mode"] = mode_text(status);
      object["seconds"] = status.change_date;
      object["date"] = date_text(status.change_date);
    }
    out_.result()["entries"].push_back(object);
  }

  const ls_options& options_;
  session& opened_;
  report& out_;
};

void run(const ls_options& options, const globals& all, report& out) {
  const std::unique_ptr<session> opened = session::to_read(all, options.image, out);
  if (!opened) {
    return;
  }
  out.result()["entries"] = json::array();
  listing list(options, *opened, out);
  if (options.paths.empty()) {
    list.add("");
  }
  for (const std::string& given : options.paths) {
    list.add(given);
  }
  out.detail(
      fmt::format("{} bytes of the image were read", opened->mounted().flash().bytes_read()));
}

}  // namespace

command ls_command() {
  auto options = std::make_shared<ls_options>();
  return {"ls", "Lists directories", "flashfs-image ls -l boot.img /config",
          [options](arguments& take) {
            take.image(&options->image);
            take.optional_words("PATH", &options->paths, "Files and directories in it");
            take.flag("-l", &options->with_details, "Type, mode, size and date (UTC), too");
            take.flag("-R", &options->recursive, "All below the directories, with whole paths");
            take.flag("-a", &options->hidden, "Names that begin with a point, too");
            take.flag("-0", &options->ends_with_nul, "Names raw, with NUL behind each");
          },
          [options](const globals& all, report& out) { run(*options, all, out); }};
}

}  // namespace image
