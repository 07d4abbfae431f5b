// The program's entry. All of the run is elsewhere, so that tests can link it.
#include "zantrolume/zantrolume_main.h"

int main(int argc, char* argv[]) {
  return zantrolume_run(argc, argv);
}
