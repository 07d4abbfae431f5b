// The suspension points, in the place of the switch's.
#include "tests/faults/interruptions.h"

namespace faults {

namespace {

int polled;
int requesting_poll;
offer_counts offered;

}  // namespace

void request_interruption(int poll) {
  polled = 0;
  requesting_poll = poll;
}

int polls() {
  return polled;
}

offer_counts offers() {
  return offered;
}

void clear_offers() {
  offered = {};
}

}  // namespace faults

int intr_req() {
  return ++faults::polled == faults::requesting_poll ? 1 : 0;
}

void process_may_suspend() {
  faults::offered.declinable++;
}

void process_suspend() {
  faults::offered.suspensions++;
}
