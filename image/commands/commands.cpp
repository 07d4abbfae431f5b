// The list of commands.
#include "image/commands/commands.h"

namespace image {

std::vector<command> all_commands() {
  return {
      ls_command(),    tree_command(),     cat_command(),    get_command(),
      put_command(),   rm_command(),       mkdir_command(),  mv_command(),
      chmod_command(), truncate_command(), format_command(), check_command(),
      wear_command(),  read_command(),     write_command(),  explain_command(),
  };
}

}  // namespace image
