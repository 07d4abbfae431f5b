// Images that are made, not changed: what the commands share that make one.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "image/geometry.h"
#include "image/globals.h"
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

// The bytes of a flash that nothing has been written to.
[[nodiscard]] std::vector<uint8_t> erased_flash(const geometry& layout);

// Writes it, unless --dry-run; in place of one that is there, when nobody has that locked. False
// after a failure, which is told, or a signal.
[[nodiscard]] bool write_new_image(const new_image& planned, std::span<const uint8_t> bytes,
                                   const globals& all, report& out);

}  // namespace image
