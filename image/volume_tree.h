// Trees from and to a mounted file system.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "image/tree.h"
#include "volume/volume.h"

namespace image {

// All below a folder of the file system ("" for the root), with paths from there on; of a file that
// file alone, under its name. Damage is an error, and the rest is read on: what cannot be read,
// names that come twice in a folder, and names with a slash, which cannot be told from folders. (A
// file whose checksums do not fit marks the file system down: then it is checked again, quickly.)
// Only sizes without `contents`.
[[nodiscard]] tree read_volume(const volume::file_system& from, std::string_view path = "",
                               bool contents = true);

// All files and folders, as read_volume has them. Each file has been read to see that it can be,
// but its contents were not kept: tree::read_later reads them again, as long as the file system
// lives.
[[nodiscard]] tree try_volume(const volume::file_system& from);

// Told how many of how many bytes are written, now and then; false ends the writing.
using write_step = std::function<bool(uint64_t done, uint64_t total)>;

// Writes a tree into an empty file system: all names, then all contents, each entry with its date
// by the clock, then the dates of folders, and of the root if the tree has one for it. (Names
// first: a file system that is nearly full has no place left to tidy up its slots.) Returns an
// empty text, or what went wrong: then the file system holds a part of it.
[[nodiscard]] std::string write_volume(const tree& from, const volume::files& to,
                                       const write_step& step = {});

}  // namespace image
