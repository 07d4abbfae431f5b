// truncate: cuts a file, or makes it longer with zeros.
#include <cerrno>
#include <memory>

#include "image/commands/commands.h"
#include "image/commands/edit_options.h"
#include "image/paths.h"

namespace image {

namespace {

struct truncate_options {
  edit_options edit;
  std::optional<uint32_t> size;
  std::string path;
};

int32_t resize(const volume::files& files, const std::string& path, uint32_t size) {
  ppc_stat status;
  if (status_of(files, path, &status) != 0) {
    return -1;
  }
  if (is_directory(status)) {
    errno = EISDIR;
    return -1;
  }
  if (size <= status.size) {
    return files.truncate(path, size);
  }
  // What lies between the old end and the last byte becomes zeros.
  constexpr char last = '\0';
  return files.write_file(path, {&last, 1}, ifs_open_write, static_cast<int32_t>(size - 1));
}

void run(const truncate_options& options, const globals& all, report& out) {
  if (*options.size > INT32_MAX) {
    out.fail(exit_status::usage, "-s: at most 2147483647 bytes");
    return;
  }
  edit(options.edit, all, out, [&](session& opened) {
    const std::string path = inside_path(options.path);
    if (resize(opened.files(), path, *options.size) != 0) {
      out.fail(exit_status::failed, error_text(errno), told_path(path));
    }
  });
}

}  // namespace

command truncate_command() {
  auto options = std::make_shared<truncate_options>();
  return {"truncate", "Cuts or lengthens a file", "flashfs-image truncate boot.img -s 0 /crash.log",
          [options](arguments& take) {
            options->edit.add_to(take);
            take.required_option("-s", "BYTES", &options->size, "The new size");
            take.word("PATH", &options->path, "A file");
          },
          [options](const globals& all, report& out) { run(*options, all, out); }};
}

}  // namespace image
