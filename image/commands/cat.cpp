// cat: prints files, byte for byte.
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

struct cat_options {
  std::string image;
  std::vector<std::string> paths;
};

void print_file(session& opened, const std::string& given, report& out) {
  const std::string path = inside_path(given);
  ppc_stat status;
  if (status_of_given(opened.files(), given, &status) != 0) {
    out.fail_at(path, error_text(errno));
    return;
  }
  if (is_directory(status)) {
    out.fail_at(path, error_text(EISDIR));
    return;
  }
  std::string contents;
  const bool whole = opened.files().read_file(path, &contents) == 0;
  const int error = errno;
  out.print(contents);
  if (out.json()) {
    nlohmann::ordered_json file;
    put_text(&file, "path", told_path(path));
    put_text(&file, "contents", contents);
    out.result()["files"].push_back(file);
  }
  if (!whole) {
    out.fail_at(path, error_text(error));
  }
}

void run(const cat_options& options, const globals& all, report& out) {
  const std::unique_ptr<session> opened = session::to_read(all, options.image, out);
  if (!opened) {
    return;
  }
  for (const std::string& given : options.paths) {
    if (interrupted()) {
      return;
    }
    opened->keep_ready();
    print_file(*opened, given, out);
  }
}

}  // namespace

command cat_command() {
  auto options = std::make_shared<cat_options>();
  return {"cat", "Prints files", "flashfs-image cat boot.img /readme.txt /config/startup.cfg",
          [options](arguments& take) {
            take.image(&options->image);
            take.words("PATH", &options->paths, "Files in the image");
          },
          [options](const globals& all, report& out) { run(*options, all, out); }};
}

}  // namespace image
