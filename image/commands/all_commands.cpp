// The list of commands, and running one.
#include "image/commands/all_commands.h"

#include <exception>
#include <string>

#include "image/clock.h"
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

void run_command(const parsed_line& parsed, report& out) {
  try {
    if (const std::string fault = clock_fault(); !fault.empty()) {
      out.fail(exit_status::usage, fault);
    } else {
      parsed.chosen->run(parsed.options, out);
    }
  } catch (const std::exception& thrown) {
    // The libraries throw, and memory may run out.
    out.fail(exit_status::failed, thrown.what());
  }
}

}  // namespace image
