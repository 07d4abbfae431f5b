// The poll for a request to stop and the offers of the processor. They are alone in their object so
// that a test program can link others that ask and count, and see the operations stop and yield.
#include "ifs/interrupt.h"

int intr_req() {
  return 0;
}

void process_suspend() {}

void process_may_suspend() {}
