// The program's entry, and nothing else: tests have an entry of their own and link all the rest of
// the run.
#include "zantrolume/zantrolume_main.h"

int main(int argc, char* argv[]) {
  return zantrolume_run(argc, argv);
}
