// The copy command.
#pragma once

// Copies one file, "copy [-b bytes] from to". argv[0] is the command word. Returns 0, 1 after a
// message, or -1 for bad usage.
int copy_cmd(int argc, char* argv[]);
