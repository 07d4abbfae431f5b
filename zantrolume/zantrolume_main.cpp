// The program's entry and its version, and nothing else: tests have an entry of their own and link
// all the rest of the run.
#include "zantrolume/zantrolume_main.h"

// For `what` and `strings`, printed nowhere: the marker in front is the one that `what` looks for.
// The attributes keep it although nothing refers to it, from the optimiser and from a linker that
// drops unused sections.
extern const char zantrolume_version[];
[[gnu::used, gnu::retain]] const char zantrolume_version[] = "@(#)zantrolume " ZANTROLUME_VERSION;

int main(int argc, char* argv[]) {
  return zantrolume_run(argc, argv);
}
