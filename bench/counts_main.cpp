// Checks that every measured operation makes exactly the flash accesses that are written down, or
// writes them down. Times are not looked at.
//
//   bench_counts <file>              compares; exit status 1 when a line differs
//   bench_counts <file> --smallest   looks at the smallest cases only
//   bench_counts <file> --write      makes the file
#include <fstream>
#include <iostream>
#include <sstream>  // IWYU pragma: keep
#include <string>
#include <vector>

#include "bench/cases.h"
#include "bench/rig.h"
#include "sim/counts.h"

namespace {

std::string line_of(const bench::bench_case& one, const sim::access_counts& counts) {
  std::ostringstream line;
  line << one.operation << "; " << one.size << "; read " << counts.words_read << "; program "
       << counts.programs << "; erase " << counts.erases << "; status " << counts.status_reads
       << "; page " << counts.page_writes;
  return line.str();
}

// The sizes below which cases are looked at: larger ones take long and show nothing that these do
// not.
struct limits {
  double bytes;
  double entries;
};
constexpr limits small = {3.0e6, 300};
constexpr limits smallest = {1.0e6, 30};

bool is_within(const limits& limit, const bench::bench_case& one) {
  const bool in_bytes = one.size.back() == '%';
  return one.involved < (in_bytes ? limit.bytes : limit.entries);
}

std::string measured_lines(const limits& limit) {
  bench::rig rig;
  std::string lines;
  for (const bench::bench_case& one : bench::all_cases()) {
    if (!is_within(limit, one)) {
      continue;
    }
    bench::prepared_case prepared(rig, one);
    lines += line_of(one, prepared.run_once().counts) + "\n";
  }
  return lines;
}

// Prints the lines that were not expected. True when there are some, and none of these.
bool all_expected(const std::string& expected, const std::string& measured) {
  std::istringstream found(measured);
  bool good = !measured.empty();
  for (std::string have; std::getline(found, have);) {
    if (("\n" + expected).find("\n" + have + "\n") == std::string::npos) {
      std::cout << "+ " << have << "\n";
      good = false;
    }
  }
  return good;
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
    std::cerr << "usage: bench_counts <file> [--smallest | --write]\n";
    return 2;
  }
  const std::string option = argc > 2 ? argv[2] : "";
  const std::string measured = measured_lines(option == "--smallest" ? smallest : small);
  if (option == "--write") {
    std::ofstream(argv[1]) << measured;
    return 0;
  }
  std::ifstream file(argv[1]);
  std::stringstream expected;
  expected << file.rdbuf();
  const bool good = option == "--smallest" ? all_expected(expected.str(), measured)
                                           : compare(expected.str(), measured);
  return good ? 0 : 1;
}
