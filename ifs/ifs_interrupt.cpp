// The poll for a request to stop a long operation. It is alone in its object so that a test program
// can link another one that does ask, and see the operations stop.
#include "ifs/ifs_runtime.h"

int intr_req() {
  return 0;
}
