// Trees from outside the image, as commands name them: a folder of the host, a tar archive, or "-"
// for an archive on standard input.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "image/report.h"
#include "image/tree.h"

namespace image {

// Reads a tree; contents beyond so many bytes in all are left out. What is left out of it is warned
// of, what is wrong with it is told and raises the status: then there is nothing, and just as
// little with --strict when something was left out.
[[nodiscard]] std::optional<tree> read_source(const std::string& from, uint64_t contents_limit,
                                              report& out);

}  // namespace image
