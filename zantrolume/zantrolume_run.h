// One run of the program.
#pragma once

// The whole run. Returns the exit status: 1 for a usage error, else 0 whatever the command did.
int zantrolume_run(int argc, char* argv[]);
