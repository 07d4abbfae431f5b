// read: the whole raw flash of a complex, as a file.
#include <memory>
#include <nlohmann/json.hpp>

#include "image/commands/commands.h"
#include "image/interrupt.h"
#include "image/session.h"

namespace image {

namespace {

struct read_options {
  std::string file;
  bool force = false;
};

void run(const read_options& options, const globals& all, report& out) {
  if (all.json && options.file == "-") {
    out.fail(exit_status::usage, "standard output has the document or the flash, not both");
    return;
  }
  const std::optional<opened_image> opened = open_image(all, "", flash_file::access::read, out);
  if (!opened) {
    return;
  }
  const std::span<const uint8_t> bytes = opened->contents();
  if (interrupted()) {
    return;
  }
  std::string why;
  if (!all.dry_run && !write_new_file(options.file, bytes, options.force, &why)) {
    out.fail(exit_status::failed, why, options.file);
    return;
  }
  put_text(&out.result(), "file", options.file);
  out.result()["size"] = bytes.size();
}

}  // namespace

command read_command() {
  auto options = std::make_shared<read_options>();
  return {"read", "Reads the raw flash of a complex", "flashfs-image --ppc 4 read dump.flash",
          [options](arguments& take) {
            take.complex_alone();
            take.word("FILE", &options->file, "The file that is made; - is standard output");
            take.flag("--force", &options->force, "Replace a file that is there");
          },
          [options](const globals& all, report& out) { run(*options, all, out); }};
}

}  // namespace image
