// The commands of flashfs-image. Each is a source of one shape: the values of its options, a
// function that carries it out, and the one named here, which makes the record of the two. A new
// one is named here and in all_commands.cpp.
#pragma once

#include "image/options.h"

namespace image {

command cat_command();
command check_command();
command chmod_command();
command create_command();
command diff_command();
command dump_command();
command explain_command();
command extract_command();
command format_command();
command get_command();
command import_command();
command info_command();
command ls_command();
command mkdir_command();
command mv_command();
command put_command();
command read_command();
command rescue_command();
command rm_command();
command tree_command();
command truncate_command();
command verify_command();
command wear_command();
command write_command();

}  // namespace image
