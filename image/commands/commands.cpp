// The list of commands.
#include "image/commands/commands.h"

namespace image {

std::vector<command> all_commands() {
  return {
      ls_command(),
      cat_command(),
  };
}

}  // namespace image
