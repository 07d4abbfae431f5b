// chmod: changes permissions, the low nine bits of a mode.
#include <cerrno>
#include <memory>

#include "image/commands/commands.h"
#include "image/commands/edit.h"
#include "image/paths.h"
#include "image/text.h"

namespace image {

namespace {

struct chmod_options {
  edit_options edit;
  std::string mode;
  std::vector<std::string> paths;
};

void run(const chmod_options& options, const globals& all, report& out) {
  const std::optional<uint32_t> mode = parse_mode(options.mode);
  if (!mode) {
    out.fail(exit_status::usage, "MODE: an octal number from 0 to 777");
    return;
  }
  edit(options.edit, all, out, [&](session& opened) {
    for (const std::string& given : options.paths) {
      const std::string path = inside_path(given);
      if (path.empty()) {
        out.fail(exit_status::failed, "the root keeps its permissions", "/");
      } else if (ppc_stat status; status_of_given(opened.files(), given, &status) != 0 ||
                                  opened.files().chmod(path, *mode) != 0) {
        out.fail_at(path, error_text(errno));
      }
    }
  });
}

}  // namespace

command chmod_command() {
  auto options = std::make_shared<chmod_options>();
  return {"chmod", "Changes permissions", "flashfs-image chmod boot.img 644 /readme.txt",
          [options](arguments& take) {
            options->edit.add_to(take);
            take.word("MODE", &options->mode, "Octal, 0 to 777");
            take.words("PATH", &options->paths, "Files and directories");
          },
          [options](const globals& all, report& out) { run(*options, all, out); }};
}

}  // namespace image
