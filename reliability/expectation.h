// What the power cuts and failing flash calls of each operation are known to leave, as rows of text
// that are stored beside this (expected/SAMPLE.txt) and compared exactly: a cause excuses an
// outcome in its window only, and only as often as it did when the rows were written.
//
//   OPERATION | tried | 61 mutations | 242 cuts | 322 second cuts | 486 clean | ...
//   OPERATION | completed | quick check | as in memory
//   OPERATION | CAUSE | cut or two cuts | quick check or full check | OUTCOME | COUNT | at
//   MUTATIONS OPERATION | failing flash | 9 calls | 54 faults | marked down 54 | 0 dropped | ...
//
// After two cuts the mutations are those of the operation, then those of the check that was cut.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "reliability/faults.h"
#include "reliability/power_cuts.h"

namespace reliability {

// How much is tried.
enum class sample {
  all,     // every cut, and every cut of the checks that follow: scripts/reliability
  suite,   // evenly spread ones: the native tests
  target,  // fewer: the tests under emulation
};
constexpr sample all_samples[] = {sample::all, sample::suite, sample::target};
const char* sample_name(sample which);

// What of an operation with so many mutations is tried, and every how manieth of so many driver
// calls fails.
cut_plan plan_of(sample which, uint64_t mutations);
uint64_t stride_of_faults(sample which, uint64_t calls);

// Rows, and beside them what must not be found at all, as arguments that play it again.
struct tried {
  std::vector<std::string> rows;
  std::vector<std::string> defects;
};
tried try_sample(const operation& what, sample which);
tried try_sample(const fault_operation& each, sample which);

// The stored rows of an operation: those of its failing flash, or those of its power cuts.
std::vector<std::string> stored_rows(sample which, const std::string& operation, bool faults);

// How rows differ from the stored ones: a line for each row that is not there any more ("- ") or is
// new ("+ "), long ones cut down to where they differ. Empty when they are the same.
std::string difference_of_rows(const std::vector<std::string>& stored,
                               const std::vector<std::string>& found);

}  // namespace reliability
