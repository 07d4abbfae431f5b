// Completion scripts for shells, made from the option tree.
#pragma once

#include <string>
#include <string_view>

#include "image/option_tree.h"

namespace image {

// The script for "bash", "zsh" or "fish"; empty for another shell.
std::string completion_script(const option_tree& tree, std::string_view shell);

}  // namespace image
