#include "image/completions.h"

#include "image/completion_shells.h"

namespace image {

std::string completion_script(const option_tree& tree, std::string_view shell) {
  if (shell == "bash") {
    return bash_completion(tree);
  }
  if (shell == "zsh") {
    return zsh_completion(tree);
  }
  return shell == "fish" ? fish_completion(tree) : "";
}

}  // namespace image
