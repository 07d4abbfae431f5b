// The list of commands.
#include "image/commands/all_commands.h"

#include "image/commands/commands.h"

namespace image {

std::vector<command> all_commands() {
  // clang-format off
  return {
      create_command(),
      format_command(),
      import_command(),
      info_command(),
      ls_command(),
      tree_command(),
      cat_command(),
      get_command(),
      put_command(),
      rm_command(),
      mkdir_command(),
      mv_command(),
      chmod_command(),
      truncate_command(),
      check_command(),
      rescue_command(),
      verify_command(),
      extract_command(),
      diff_command(),
      dump_command(),
      wear_command(),
      read_command(),
      write_command(),
      explain_command(),
  };
  // clang-format on
}

}  // namespace image
