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

#include "image/change_list.h"
#include "image/complex_flash.h"
#include "image/flash_file.h"
#include "image/geometry.h"
#include "image/globals.h"
#include "image/mounted.h"
#include "image/report.h"

namespace image {

// An image that is open and locked, and how it is divided; nothing is mounted. It is a file, or,
// with --ppc, the flash of a complex.
struct opened_image {
  std::string name;                        // as it was given, or "PPC 4"
  std::optional<flash_file> file;          // nothing: a complex
  std::shared_ptr<complex_flash> complex;  // null: a file
  geometry layout;
  bool geometry_is_doubted = false;  // the block headers contradict --geometry

  // A complex is read whole at the first call. After a signal it is not whole.
  std::span<const uint8_t> contents() const {
    return complex ? complex->contents() : file->contents();
  }
  // Some bytes of it; of a complex nothing else is read. False when it ends before.
  [[nodiscard]] bool read(uint32_t offset, std::span<uint8_t> to) const;
  // All of it, to be changed at will: nobody else sees that. Nothing, with the reason, when it
  // cannot be had.
  std::optional<std::span<uint8_t>> private_view(std::string* why) {
    return complex ? std::optional(complex->private_view()) : file->private_view(why);
  }
  // Which file it is, if it is one.
  std::optional<file_identity> identity() const {
    return file ? file->identity() : std::nullopt;
  }
};

// Opens, locks and finds the geometry (--geometry, --lock-timeout, --ppc: the name is empty then).
// Nothing after a failure, which is told and has raised the status.
std::optional<opened_image> open_image(const globals& options, const std::string& name,
                                       flash_file::access wanted, report& out);
// The same for an edit, which with --output leaves the image alone.
std::optional<opened_image> open_image_to_edit(const globals& options, const std::string& name,
                                               report& out);

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
  std::optional<file_identity> identity() const {
    return image_.identity();
  }
  // The bytes that are mounted, and what the check said.
  class mounted& mounted() {
    return *mounted_;
  }

  // Before each of several files: one whose checksums do not fit has marked the file system down,
  // and then it is checked again, as it was for reading.
  void keep_ready();

  // The end of an edit: checks the result, writes it (--output, --dry-run). False when nothing was
  // written, which is told; so it is when the status tells of a failure before.
  [[nodiscard]] bool commit(report& out);

 private:
  session(const globals& options, opened_image opened);
  void mount_complex();
  uint32_t check_flags() const;
  bool check_for_reading(report& out);
  bool check_for_editing(bool force, report& out);
  std::vector<finding> repairs_made();

  const globals options_;
  opened_image image_;
  std::vector<uint8_t> looked_at_;  // what a reading session has had of a complex
  std::span<uint8_t> edited_;       // of the image, in its private view
  change_list changes_;             // of an edit on a complex
  std::unique_ptr<class mounted> mounted_;
};

// Puts other contents in place of an image that was opened to be edited, or into --output, once
// they have passed the full check without a change; with --dry-run, and where nothing has changed,
// nothing is written. They are checked where they are: if not sound, they are changed by that. On a
// complex the changes of the list are made in their order, where there is one; else see
// complex_edit.h. False when it could not be, which is told.
[[nodiscard]] bool write_result(const globals& options, const opened_image& image,
                                std::span<uint8_t> contents, report& out,
                                const change_list* in_order = nullptr);

// The same for contents that have been checked already.
[[nodiscard]] bool write_checked(const globals& options, const opened_image& image,
                                 std::span<const uint8_t> contents, report& out,
                                 const change_list* in_order = nullptr);

// Whether the contents of an image pass the full check without a change; told if not, and then they
// are what the check made of them.
[[nodiscard]] bool result_is_sound(std::span<uint8_t> contents, const geometry& layout,
                                   report& out);

}  // namespace image
