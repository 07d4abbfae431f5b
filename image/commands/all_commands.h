// The list of commands.
#pragma once

#include <vector>

#include "image/options.h"

namespace image {

// All of them, in the order of the help.
std::vector<command> all_commands();

}  // namespace image
