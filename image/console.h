// What the file system says while it works on an image. Standard output is the answer's, so it
// comes here: kept for who wants to make findings of it, and shown on standard error when asked.
#pragma once

#include <string>
#include <vector>

namespace image {

// From now on each line is shown as it comes, or not.
void console_show(bool shown);
// The lines since the last take, without the "flashfs[0]: " that begins them; the marks of erased
// and written blocks are left out.
std::vector<std::string> console_take();

}  // namespace image
