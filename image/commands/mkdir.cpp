// mkdir: makes directories.
#include <cerrno>
#include <memory>

#include "image/commands/commands.h"
#include "image/commands/edit.h"
#include "image/paths.h"
#include "image/text.h"
#include "image/tree.h"

namespace image {

namespace {

struct mkdir_options {
  edit_options edit;
  std::vector<std::string> paths;
  bool parents = false;
};

bool make(const volume::files& files, const std::string& path, report& out) {
  const std::string fault = path_fault(path);
  if (!fault.empty()) {
    out.fail_at(path, fault);
    return false;
  }
  if (files.mkdir(path) != 0) {
    out.fail_at(path, error_text(errno));
    return false;
  }
  return true;
}

void make_with_parents(const volume::files& files, const std::string& path, report& out) {
  for (size_t end = 0; end != std::string::npos;) {
    end = path.find('/', end == 0 ? 0 : end + 1);
    const std::string upper = path.substr(0, end);
    if (!is_directory_at(files, upper) && !make(files, upper, out)) {
      return;
    }
  }
}

}  // namespace

command mkdir_command() {
  auto options = std::make_shared<mkdir_options>();
  return {"mkdir", "Makes directories", "flashfs-image mkdir -p boot.img /config/sites/north",
          [options](arguments& take) {
            options->edit.add_to(take);
            take.words("PATH", &options->paths, "The new directories");
            take.flag("-p", &options->parents, "Those above, too; one that is there is fine");
          },
          [options](const globals& all, report& out) {
            edit(options->edit, all, out, [&](session& opened) {
              for (const std::string& given : options->paths) {
                const std::string path = inside_path(given);
                if (options->parents) {
                  make_with_parents(opened.files(), path, out);
                } else if (path.empty()) {
                  out.fail(exit_status::failed, error_text(EEXIST), "/");
                } else {
                  static_cast<void>(make(opened.files(), path, out));
                }
              }
            });
          }};
}

}  // namespace image
