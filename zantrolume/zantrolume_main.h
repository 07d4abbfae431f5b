// What the program's entry calls, and what tests call in its place: the run and the command line.
#pragma once

// IWYU pragma: begin_exports
#include "zantrolume/zantrolume_command_line.h"
#include "zantrolume/zantrolume_run.h"
// IWYU pragma: end_exports
