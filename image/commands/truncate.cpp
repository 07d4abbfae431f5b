// truncate: cuts a file, or makes it longer with zeros.
#include <algorithm>
#include <cerrno>
#include <memory>

#include "flashfs/format.h"
#include "image/commands/commands.h"
#include "image/commands/edit.h"
#include "image/interrupt.h"
#include "image/paths.h"
#include "image/space.h"
#include "image/text.h"

namespace image {

namespace {

struct truncate_options {
  edit_options edit;
  std::optional<uint32_t> size;
  std::string path;
};

constexpr uint32_t piece_size = 32 * sector_data_size;  // bytes

// Whether the image has room for a file to grow so far.
bool has_room(const volume::files& files, uint32_t size, uint32_t new_size) {
  ppc_statfs space;
  return files.statfs(&space) != 0 ||
         sectors_of_file(new_size) - sectors_of_file(size) <= space.free_blocks;
}

// Every new byte is written. One written behind the end would leave those before it in its sector
// as they were: erased, not zero.
int32_t lengthen(const volume::files& files, const std::string& path, uint32_t size,
                 uint32_t new_size) {
  if (!has_room(files, size, new_size)) {
    errno = ENOSPC;
    return -1;
  }
  const std::string zeros(piece_size, '\0');
  int32_t result = 0;
  while (result >= 0 && size < new_size && !interrupted()) {
    // Pieces end where sectors do, so that each sector is written once.
    const uint32_t length = std::min(new_size - size, piece_size - size % piece_size);
    result = files.write_file(path, std::string_view{zeros}.substr(0, length), ifs_open_write,
                              static_cast<int32_t>(size));
    size += length;
  }
  return result;
}

int32_t resize(const volume::files& files, const std::string& given, uint32_t size) {
  const std::string path = inside_path(given);
  ppc_stat status;
  if (status_of_given(files, given, &status) != 0) {
    return -1;
  }
  if (is_directory(status)) {
    errno = EISDIR;
    return -1;
  }
  if (size <= status.size) {
    return files.truncate(path, size);
  }
  return lengthen(files, path, status.size, size);
}

void run(const truncate_options& options, const globals& all, report& out) {
  if (*options.size > INT32_MAX) {
    out.fail(exit_status::usage, "-s: at most 2147483647 bytes");
    return;
  }
  edit(options.edit, all, out, [&](session& opened) {
    if (resize(opened.files(), options.path, *options.size) != 0) {
      out.fail_at(inside_path(options.path), error_text(errno));
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
