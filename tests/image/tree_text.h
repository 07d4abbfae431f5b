// Trees as text, for expectations, and small ones made by hand.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "image/tree.h"

namespace image_test {

// "path mode date [contents]" of each entry, in lines; folders end with a slash.
std::string tree_text(const image::tree& shown);
// "path: text", in lines.
std::string problems_text(const std::vector<image::tree_problem>& problems);

// Dates a file or folder of the host.
void set_date(const std::string& path, int64_t seconds);

image::tree_entry folder_entry(const std::string& path, uint32_t mode = 0755, uint32_t mtime = 1);
image::tree_entry file_entry(const std::string& path, const std::string& contents,
                             uint32_t mode = 0644, uint32_t mtime = 1);
image::tree tree_of(std::vector<image::tree_entry> entries);

// A file for each byte that a name may hold, empty and odd-sized files, deep folders.
image::tree manifold_tree();

}  // namespace image_test
