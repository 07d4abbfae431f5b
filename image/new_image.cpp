// Judging and writing new images.
#include "image/new_image.h"

#include <sys/stat.h>

#include "image/flash_file.h"
#include "image/interrupt.h"

namespace image {

namespace {

bool is_standard_output(const new_image& planned) {
  return planned.name == "-";
}

bool replace_image(const new_image& planned, std::span<const uint8_t> bytes, const globals& all,
                   std::string* why) {
  const std::optional<flash_file> old =
      flash_file::open(planned.name, flash_file::access::edit, all.lock_timeout_seconds, why);
  return old && old->replace(bytes, why);
}

}  // namespace

std::optional<geometry> plan_new_image(const new_image& planned, const globals& all, report& out) {
  if (!all.output.empty()) {
    out.fail(exit_status::usage,
             "the new image has its name already: there is no use for --output");
    return std::nullopt;
  }
  if (all.json && is_standard_output(planned)) {
    out.fail(exit_status::usage, "standard output cannot have both the image and the document");
    return std::nullopt;
  }
  struct stat there = {};
  if (!planned.force && !is_standard_output(planned) && lstat(planned.name.c_str(), &there) == 0) {
    out.fail(exit_status::failed, "is there already; --force replaces it", planned.name);
    return std::nullopt;
  }
  if (all.geometry.empty()) {
    return default_geometry();
  }
  std::string why;
  std::optional<geometry> given = parse_geometry(all.geometry, &why);
  if (!given) {
    out.fail(exit_status::usage, "--geometry: " + why);
  }
  return given;
}

bool write_new_image(const new_image& planned, std::span<const uint8_t> bytes, const globals& all,
                     report& out) {
  if (all.dry_run) {
    return true;
  }
  // An empty file is no image that anybody could be at work on.
  struct stat there = {};
  const bool replacing = planned.force && !is_standard_output(planned) &&
                         stat(planned.name.c_str(), &there) == 0 && there.st_size != 0;
  std::string why;
  if (replacing ? replace_image(planned, bytes, all, &why)
                : write_new_file(planned.name, bytes, planned.force, &why)) {
    return true;
  }
  if (!interrupted()) {
    out.fail(exit_status::failed, why, planned.name);
  }
  return false;
}

}  // namespace image
