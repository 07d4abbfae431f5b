// How the time goes on in each mode of the clock.
#include "sim/clock.h"

#include <ctime>

namespace sim {

namespace {

// Status reads in vain that make one second of a clock that stands still.
constexpr uint32_t waiting_reads_per_second = 1000;

}  // namespace

void chassis_clock::be_real() {
  mode_ = mode::real;
}

void chassis_clock::hold(int64_t seconds) {
  mode_ = mode::held;
  seconds_ = seconds;
}

void chassis_clock::step(int64_t seconds, uint32_t reads) {
  mode_ = mode::stepped;
  seconds_ = seconds;
  step_reads_ = reads;
  step_count_ = 0;
}

void chassis_clock::count_step() {
  if (mode_ == mode::stepped && ++step_count_ >= step_reads_) {
    step_count_ = 0;
    seconds_++;
  }
}

int64_t chassis_clock::read() {
  reads_++;
  if (supply_->dead()) {
    if (mode_ == mode::real) {
      hold(std::time(nullptr));
    }
    return seconds_++;
  }
  if (mode_ == mode::real) {
    return std::time(nullptr);
  }
  const int64_t seconds = seconds_;
  count_step();
  return seconds;
}

void chassis_clock::status_was_read(uint32_t waiting_reads) {
  count_step();
  if (mode_ == mode::held && waiting_reads != 0 && waiting_reads % waiting_reads_per_second == 0) {
    seconds_++;
  }
}

}  // namespace sim
