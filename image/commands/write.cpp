// write: makes the raw flash of a complex what a file holds. Only blocks that differ are touched,
// so the same again goes on where a power cut or a signal has ended it.
#include <memory>
#include <nlohmann/json.hpp>

#include "image/commands/commands.h"
#include "image/complex_edit.h"
#include "image/interrupt.h"
#include "image/session.h"
#include "image/text.h"

namespace image {

namespace {

struct write_options {
  std::string file;
};

void run(const write_options& options, const globals& all, report& out) {
  std::string why;
  const std::optional<flash_file> file =
      flash_file::open(options.file, flash_file::access::read, all.lock_timeout_seconds, &why);
  if (!file) {
    out.fail(exit_status::failed, why, options.file);
    return;
  }
  const uint64_t size = size_bytes(default_geometry());
  if (file->contents().size() != size) {
    out.fail(exit_status::failed,
             "has " + std::to_string(file->contents().size()) + " bytes, the flash of a complex " +
                 std::to_string(size),
             options.file);
    return;
  }
  const std::optional<opened_image> opened = open_image(all, "", flash_file::access::edit, out);
  if (!opened || !write_complex(all, *opened->complex, file->contents(), out)) {
    return;
  }
  if (!out.result().contains("complex")) {
    out.message(opened->name + " holds that already");
  }
}

}  // namespace

command write_command() {
  auto options = std::make_shared<write_options>();
  return {"write", "Writes the raw flash of a complex",
          "flashfs-image --ppc 4 write dump.flash\n"
          "flashfs-image --ppc 4 --yes --no-backup write dump.flash",
          [options](arguments& take) {
            take.complex_alone();
            take.word("FILE", &options->file, "What the flash shall hold, as \"read\" made it");
          },
          [options](const globals& all, report& out) { run(*options, all, out); }};
}

}  // namespace image
