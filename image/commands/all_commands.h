// The list of commands, and running one of them.
#pragma once

#include <vector>

#include "image/options.h"
#include "image/report.h"

namespace image {

// All of them, in the order of the help.
std::vector<command> all_commands();

// Runs the command of a line that has one. What is thrown on the way is a failure.
void run_command(const parsed_line& parsed, report& out);

}  // namespace image
