// A sample of the failing driver calls of every operation; the program `reliability` tries all.
#include "reliability/faults.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "sim/chassis.h"

namespace {

#ifdef ZANTROLUME_EMULATOR
constexpr uint64_t calls_in_sample = 10;
#else
constexpr uint64_t calls_in_sample = 100;
#endif

TEST(failing_flash, is_reported_keeps_no_buffer_and_leaves_what_the_next_mount_takes) {
  sim::chassis chassis;
  chassis.clock_hold(1800000000);
  sim::install_chassis(&chassis);
  for (const reliability::fault_operation& each : reliability::fault_operations()) {
    const uint64_t calls = reliability::try_faults(each, UINT32_MAX).calls;
    const reliability::fault_counts counts =
        reliability::try_faults(each, std::max<uint64_t>(1, calls / calls_in_sample));
    EXPECT_GT(counts.faults, 0U) << each.what.name;
    EXPECT_EQ(counts.unexpected, 0U) << each.what.name;
    for (const std::string& sample : counts.unexpected_samples) {
      ADD_FAILURE() << sample;
    }
  }
  sim::install_chassis(nullptr);
}

}  // namespace
