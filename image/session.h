// An image opened by a command. A reading session mounts a private view with the quick check, as
// the board would (--full: with the full one); what that repairs is repaired in the view alone, and
// told. An editing session works on a private copy that has passed the full check, and puts it in
// place of the image when the result passes it, too, and not otherwise.
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "image/flash_file.h"
#include "image/geometry.h"
#include "image/globals.h"
#include "image/mounted.h"
#include "image/report.h"

namespace image {

// An image that is open and locked, and how it is divided; nothing is mounted.
struct opened_image {
  std::string name;  // as it was given
  flash_file file;
  geometry layout;

  std::span<const uint8_t> contents() const {
    return file.contents();
  }
};

// Opens, locks and finds the geometry (--geometry, --lock-timeout). Nothing after a failure, which
// is told and has raised the status.
std::optional<opened_image> open_image(const globals& options, const std::string& name,
                                       flash_file::access wanted, report& out);

class session {
 public:
  // Null after a failure, which is told and has raised the status.
  static std::unique_ptr<session> to_read(const globals& options, const std::string& name,
                                          report& out);
  // Refuses an image with faults unless `force`; then they are repaired, and told.
  static std::unique_ptr<session> to_edit(const globals& options, const std::string& name,
                                          bool force, report& out);

  // The files. Paths: see paths.h.
  const volume::file_system& files() const {
    return mounted_->files();
  }
  // The image as it is in the file.
  std::span<const uint8_t> contents() const {
    return image_.contents();
  }
  const geometry& layout() const {
    return image_.layout;
  }
  // The bytes that are mounted, and what the check said.
  class mounted& mounted() {
    return *mounted_;
  }

  // The end of an edit: checks the result, writes it (--output, --dry-run). False when nothing was
  // written, which is told; so it is when the status tells of a failure before.
  [[nodiscard]] bool commit(report& out);

 private:
  session(const globals& options, opened_image opened);
  bool check_for_reading(report& out);
  bool check_for_editing(bool force, report& out);

  const globals options_;
  opened_image image_;
  std::vector<uint8_t> copy_;  // of an edit
  std::unique_ptr<class mounted> mounted_;
};

// Puts other contents in place of an image that was opened to be edited, or into --output, once
// they have passed the full check without a change; with --dry-run, and where nothing has changed,
// nothing is written. False when it could not be, which is told.
[[nodiscard]] bool write_result(const globals& options, const opened_image& image,
                                std::span<const uint8_t> contents, report& out);

// Whether the contents of an image pass the full check without a change; told if not.
[[nodiscard]] bool result_is_sound(std::span<const uint8_t> contents, const geometry& layout,
                                   report& out);

}  // namespace image
