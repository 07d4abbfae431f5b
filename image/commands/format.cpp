// format: erases the whole file system. It needs no sound image, only one whose blocks are known.
#include "flashfs/format.h"

#include <algorithm>
#include <memory>

#include "image/commands/commands.h"
#include "image/mounted.h"
#include "image/session.h"

namespace image {

namespace {

struct format_options {
  std::string image;
  bool force = false;
  bool reset_wear = false;
};

void run(const format_options& options, const globals& all, report& out) {
  if (!options.force) {
    out.fail(exit_status::usage, "all files would go: --force says that this is meant");
    return;
  }
  const std::optional<opened_image> opened = open_image_to_edit(all, options.image, out);
  if (!opened) {
    return;
  }
  std::vector<uint8_t> copy(opened->contents().begin(), opened->contents().end());
  mounted system(copy, opened->layout);
  if (options.reset_wear) {
    // The file system's blocks alone: what else is in the flash is not its own.
    for (const flash_block_info& block : block_table(opened->layout)) {
      if (block.skip == 0) {
        std::fill_n(copy.begin() + block.offset, block.size, flash_erased_byte);
      }
    }
  }
  if (!system.format()) {
    out.fail(exit_status::failed, "it cannot be formatted", options.image);
    return;
  }
  static_cast<void>(write_result(all, *opened, copy, out));
}

}  // namespace

command format_command() {
  auto options = std::make_shared<format_options>();
  return {"format", "Erases all files", "flashfs-image format boot.img --force",
          [options](arguments& take) {
            take.edits();
            take.image(&options->image);
            take.flag("--force", &options->force, "Yes, all files go");
            take.flag("--reset-wear", &options->reset_wear, "The erase counts begin at 0 again");
          },
          [options](const globals& all, report& out) { run(*options, all, out); }};
}

}  // namespace image
