// Requests for interruption that come as planned, and how often the processor was offered. This
// program's own suspension points stand in the place of the switch's.
#pragma once

#include <cstdint>

namespace faults {

// The n-th poll from now on (1: the next) finds a request; 0: none does.
void request_interruption(int poll);
// Polls since then.
int polls();

// Offers of the processor since the last call of clear_offers: that may be declined, and not.
struct offer_counts {
  uint32_t declinable;
  uint32_t suspensions;
};
offer_counts offers();
void clear_offers();

}  // namespace faults
