// Trees from outside the image, as commands name them: a folder of the host, a tar archive, or "-"
// for an archive on standard input.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "image/report.h"
#include "image/tree.h"

namespace image {

// Reads a tree, as the options say. What is left out of it is warned of, what is wrong with it is
// told and raises the status: then there is nothing, and just as little with --strict when
// something was left out.
[[nodiscard]] std::optional<tree> read_source(const std::string& from, const tree_options& options,
                                              report& out);

}  // namespace image
