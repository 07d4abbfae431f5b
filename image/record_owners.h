// What the records of an image tell together: of two for one thing which one counts, whose lists
// have gaps, which slot names what, and the tree of it all. The rules are those of the full check.
#pragma once

#include <string>
#include <string_view>

#include "image/record_types.h"

namespace image {

// Fills the entries, and in sectors and slots what is current.
void find_owners(records* all);

// The path of an id, "/a/b", "/" for the root: raw bytes. Empty when no chain of names leads from
// the root to it, or one that is longer than any path that the file system takes.
std::string path_of(const records& all, uint16_t id);
// The path that a slot gives what it names, whether it counts or not. Empty when its directory has
// none.
std::string path_of(const records& all, const slot_record& slot);
// The id that a path leads to, by the slots that count; with or without a leading slash.
const entry_record* find_path(const records& all, std::string_view path);
// The contents of a file, as far as its sectors that count go.
std::string contents_of(const records& all, const entry_record& entry);

}  // namespace image
