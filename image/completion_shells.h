// The completion scripts, one writer for each shell.
#pragma once

#include <string>

#include "image/option_tree.h"

namespace image {

std::string bash_completion(const option_tree& tree);
std::string zsh_completion(const option_tree& tree);
std::string fish_completion(const option_tree& tree);

}  // namespace image
