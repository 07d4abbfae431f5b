// The tables of what was measured, as Markdown.
#pragma once

#include <ostream>
#include <vector>

#include "bench/cases.h"
#include "bench/rig.h"

namespace bench {

struct case_result {
  bench_case what;
  measurement best;  // the fastest operation, and the fastest floor
};

// Results in the order of all_cases(). Nothing in the layout depends on the times.
void write_results(std::ostream& out, const std::vector<case_result>& results);

// The ways to compute the checksum, side by side, and what share of a sector read each would be.
void write_checksums(std::ostream& out, rig& on);

}  // namespace bench
