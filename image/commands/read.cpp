// read: the whole raw flash of a complex, as a file.
#include <memory>
#include <nlohmann/json.hpp>

#include "image/commands/commands.h"
#include "image/host_file.h"
#include "image/interrupt.h"
#include "image/session.h"

namespace image {

namespace {

struct read_options {
  std::string file;
  bool force = false;
};

void run(const read_options& options, const globals& all, report& out) {
  if (const std::string why = objection_to_output(options.file, all.json); !why.empty()) {
    out.fail(exit_status::usage, why);
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
  const file_options how = {.replaces = options.force,
                            .refusal = "is there already; --force replaces it",
                            .dry_run = all.dry_run};
  if (std::string why; !write_file(options.file, bytes, how, &why)) {
    if (!interrupted()) {
      out.fail(exit_status::failed, why, options.file);
    }
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
            take.word("FILE", &options->file, "The file that is made; '-' is standard output");
            take.flag("--force", &options->force, "Replace a file that is there");
          },
          [options](const globals& all, report& out) { run(*options, all, out); }};
}

}  // namespace image
