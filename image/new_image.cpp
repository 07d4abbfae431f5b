// Judging and writing new images.
#include "image/new_image.h"

#include <sys/stat.h>

#include "image/flash_file.h"
#include "image/interrupt.h"

namespace image {

namespace {

bool replace_image(const new_image& planned, std::span<const uint8_t> bytes, const globals& all,
                   bool dry_run, std::string* why) {
  const std::optional<flash_file> old =
      flash_file::open(planned.name, flash_file::access::edit, all.lock_timeout_seconds, why);
  return old && old->replace(bytes, dry_run, why);
}

// Writes it, or only tries. False after a message, or a signal.
bool write(const new_image& planned, std::span<const uint8_t> bytes, const globals& all,
           bool dry_run, report& out) {
  std::string why;
  if (replaces_an_image(planned)
          ? replace_image(planned, bytes, all, dry_run, &why)
          : write_file(planned.name, bytes, options_of_new_image(planned, dry_run), &why)) {
    return true;
  }
  if (!interrupted()) {
    out.fail(exit_status::failed, why, planned.name);
  }
  return false;
}

}  // namespace

std::optional<geometry> plan_new_image(const new_image& planned, const globals& all, report& out) {
  if (const std::string why = objection_to_output(planned.name, all.json); !why.empty()) {
    out.fail(exit_status::usage, why);
    return std::nullopt;
  }
  // The work may be long: what it ends with is tried before.
  if (!write(planned, {}, all, true, out)) {
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

bool replaces_an_image(const new_image& planned) {
  // An empty file is no image that anybody could be at work on.
  struct stat there = {};
  return planned.force && planned.name != "-" && stat(planned.name.c_str(), &there) == 0 &&
         there.st_size != 0;
}

file_options options_of_new_image(const new_image& planned, bool dry_run) {
  return {.replaces = planned.force,
          .refusal = "is there already; --force replaces it",
          .durable = false,
          .dry_run = dry_run};
}

bool write_new_image(const new_image& planned, std::span<const uint8_t> bytes, const globals& all,
                     report& out) {
  return write(planned, bytes, all, all.dry_run, out);
}

}  // namespace image
