// Images that are made, not changed: what the commands share that make one.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "image/geometry.h"
#include "image/globals.h"
#include "image/host_file.h"
#include "image/report.h"

namespace image {

// Where a new image goes: "-" is standard output; what is there already is replaced by force alone.
struct new_image {
  std::string name;
  bool force = false;
};

// Judges what can be judged at once (also whether it could be written), and gives the geometry:
// --geometry, or that of a complex.
// Nothing after a failure, which is told and has raised the status.
[[nodiscard]] std::optional<geometry> plan_new_image(const new_image& planned, const globals& all,
                                                     report& out);

// Whether it takes the place of an image that somebody may be at work on; if not, how its file is
// made.
[[nodiscard]] bool replaces_an_image(const new_image& planned);
[[nodiscard]] file_options options_of_new_image(const new_image& planned, bool dry_run);

// Writes it, unless --dry-run; in place of one that is there, when nobody has that locked. False
// after a failure, which is told, or a signal.
[[nodiscard]] bool write_new_image(const new_image& planned, std::span<const uint8_t> bytes,
                                   const globals& all, report& out);

}  // namespace image
