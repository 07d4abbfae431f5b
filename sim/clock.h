// The clock of the simulated chassis: the real one, or one that tests hold still or let step on. It
// runs on when the power has failed, so that every wait ends.
#pragma once

#include <cstdint>

#include "sim/power.h"

namespace sim {

class chassis_clock {
 public:
  // The supply must outlive the clock.
  explicit chassis_clock(const power& supply) : supply_(&supply) {}

  // The real clock, as at first.
  void be_real();
  // Stands still, except while a flash keeps a wait spinning: 1000 reads of the status in a row
  // that find a flash not ready are one second, so that waits end.
  void hold(int64_t seconds);
  // Begins at `seconds` and goes on by one second after each `reads` reads of clock or status.
  void step(int64_t seconds, uint32_t reads);

  // Seconds; counts as a read. Once the power has failed, every read finds a second gone.
  int64_t read();
  uint64_t reads() const {
    return reads_;
  }
  void clear_counts() {
    reads_ = 0;
  }

  // The status was read, for the `waiting_reads`-th time in a row without success.
  void status_was_read(uint32_t waiting_reads);

 private:
  enum class mode { real, held, stepped };
  void count_step();

  const power* supply_;
  mode mode_ = mode::real;
  int64_t seconds_ = 0;
  uint64_t reads_ = 0;
  uint32_t step_reads_ = 0;
  uint32_t step_count_ = 0;
};

}  // namespace sim
