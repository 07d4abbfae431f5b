// The operations that are measured, each at several sizes.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "bench/rig.h"

namespace bench {

struct bench_case {
  std::string operation;              // "mount, quick check"
  std::string size;                   // "10 %"
  double involved;                    // bytes or entries, for the growth
  double target;                      // time over floor at most
  uint32_t repetitions;               // at least so many, the fastest counts
  bool changes_flash;                 // every repetition needs the prepared flash again
  bool mounts;                        // the operation is the mount itself
  std::function<void(rig&)> prepare;  // on a new file system
  std::function<void(rig&)> run;      // what is timed
};

std::vector<bench_case> all_cases();

// The flash and maps that a case's repetitions begin with.
class prepared_case {
 public:
  prepared_case(rig& on, const bench_case& what);
  // Runs it once; output goes to /dev/null.
  measurement run_once();

 private:
  rig& rig_;
  const bench_case& case_;
  std::vector<uint8_t> snapshot_;
  bool fresh_ = true;
};

}  // namespace bench
