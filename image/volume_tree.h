// Trees from and to a mounted file system.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "image/tree.h"
#include "volume/volume.h"

namespace image {

// All below a folder of the file system ("" for the root), with paths from there on; of a file that
// file alone, under its name. Damage is an error, and the rest is read on: what cannot be read,
// names that come twice in a folder, and names with a slash, which cannot be told from folders.
// Only sizes without `contents`.
[[nodiscard]] tree read_volume(const volume::file_system& from, std::string_view path = "",
                               bool contents = true);

// Sets the date that is written from now on.
using date_setter = void (*)(std::optional<uint32_t> date);

// Writes a tree into an empty file system, in its order, each entry with its date; folders get
// theirs when all is written, and so does the root if the tree has one for it. Returns an empty
// text, or what went wrong: then the file system holds a part of it.
[[nodiscard]] std::string write_volume(const tree& from, const volume::file_system& to,
                                       date_setter set_date);

}  // namespace image
