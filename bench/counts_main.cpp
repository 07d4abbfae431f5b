// Checks that every measured operation makes exactly the flash accesses that are written down, or
// writes them down. Times are not looked at.
//
//   bench_counts <file>           compares; exit status 1 when a line differs
//   bench_counts <file> --write   makes the file
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include "bench/cases.h"

namespace {

std::string line_of(const bench::bench_case& one, const sim::access_counts& counts) {
  std::ostringstream line;
  line << one.operation << "; " << one.size << "; read " << counts.words_read << "; program "
       << counts.programs << "; erase " << counts.erases << "; status " << counts.status_reads
       << "; page " << counts.page_writes;
  return line.str();
}

// The smaller sizes: the larger ones take long and show nothing that these do not.
constexpr double enough_bytes = 3.0e6;
constexpr double enough_entries = 300;

bool is_small(const bench::bench_case& one) {
  const bool in_bytes = one.size.back() == '%';
  return one.involved < (in_bytes ? enough_bytes : enough_entries);
}

std::string measured_lines() {
  bench::rig rig;
  std::string lines;
  for (const bench::bench_case& one : bench::all_cases()) {
    if (!is_small(one)) {
      continue;
    }
    bench::prepared_case prepared(rig, one);
    lines += line_of(one, prepared.run_once().counts) + "\n";
  }
  return lines;
}

// Prints the lines that differ. True when none does.
bool compare(const std::string& expected, const std::string& measured) {
  std::istringstream wanted(expected);
  std::istringstream found(measured);
  bool equal = true;
  for (;;) {
    std::string want;
    std::string have;
    const bool more_wanted = static_cast<bool>(std::getline(wanted, want));
    const bool more_found = static_cast<bool>(std::getline(found, have));
    if (!more_wanted && !more_found) {
      return equal;
    }
    if (want != have) {
      std::cout << "- " << want << "\n+ " << have << "\n";
      equal = false;
    }
  }
}

}  // namespace

int main(int argc, char* argv[]) {
  if (argc < 2) {
    std::cerr << "usage: bench_counts <file> [--write]\n";
    return 2;
  }
  const std::string measured = measured_lines();
  if (argc > 2 && strcmp(argv[2], "--write") == 0) {
    std::ofstream(argv[1]) << measured;
    return 0;
  }
  std::ifstream file(argv[1]);
  std::stringstream expected;
  expected << file.rdbuf();
  return compare(expected.str(), measured) ? 0 : 1;
}
