// The commands. argv[0] is the command word. They return 0, 1 after a message, or -1 for bad usage.
// Copying, start-up and maintenance have sources of their own.
#pragma once

// IWYU pragma: begin_exports
#include "zantrolume/zantrolume_copy.h"
#include "zantrolume/zantrolume_startup.h"
// IWYU pragma: end_exports

int rename_cmd(int argc, char* argv[]);
int dir_cmd(int argc, char* argv[]);
int cat_cmd(int argc, char* argv[]);
int more_cmd(int argc, char* argv[]);
int delete_cmd(int argc, char* argv[]);
int verify_cmd(int argc, char* argv[]);
int mkdir_cmd(int argc, char* argv[]);
int rmdir_cmd(int argc, char* argv[]);
