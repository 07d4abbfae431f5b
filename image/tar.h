// Trees from and to tar archives. The only place that knows the archive library; programs that are
// built without it leave this out.
#pragma once

#include <string>

#include "image/tree.h"

namespace image {

// Reads an archive, compressed or not, from an open descriptor. Only files and folders are taken:
// links and special files are left out with a warning. Names that lead out of the archive (absolute
// ones, "..") and an archive that is damaged or none are errors. Of a name that comes twice the
// last counts, as when it is unpacked.
[[nodiscard]] tree read_tar(int fd, const tree_options& options);

// Writes a tree to an open descriptor, the same bytes for the same tree: owners are 0, nothing is
// compressed. Returns an empty text, or what went wrong.
[[nodiscard]] std::string write_tar(const tree& from, int fd);

}  // namespace image
