// Prints the tables of docs/reliability.md: power cuts at every mutation of every operation, and
// every driver call of every operation failing.
#include <cstdio>
#include <cstdlib>

#include "reliability/faults.h"
#include "reliability/power_cuts.h"
#include "sim/sim_chassis.h"

namespace {

constexpr int64_t standing_clock = 1800000000;

void print_outcomes(const std::map<reliability::outcome, uint64_t>& outcomes) {
  const char* separator = "";
  for (const auto& [kind, count] : outcomes) {
    printf("%s%s %llu", separator, reliability::outcome_name(kind),
           static_cast<unsigned long long>(count));
    separator = ", ";
  }
}

void print_row(const char* name, const reliability::cut_counts& counts) {
  printf("| %s | %llu | %llu | %llu | %llu | ", name,
         static_cast<unsigned long long>(counts.mutations),
         static_cast<unsigned long long>(counts.cuts),
         static_cast<unsigned long long>(counts.second_cuts),
         static_cast<unsigned long long>(counts.clean));
  print_outcomes(counts.quick);
  printf(" | ");
  print_outcomes(counts.full);
  printf(" | %llu |\n", static_cast<unsigned long long>(counts.unexplained));
  fflush(stdout);
}

uint64_t print_power_cuts(uint64_t stride, uint64_t second_stride) {
  printf(
      "## Power cuts\n\n| operation | mutations | cuts | second cuts | clean | quick check | "
      "full check | unexplained |\n|---|--:|--:|--:|--:|---|---|--:|\n");
  uint64_t unexplained = 0;
  for (const reliability::operation& each : reliability::power_cut_operations()) {
    const reliability::cut_counts counts = reliability::try_power_cuts(each, stride, second_stride);
    print_row(each.name.c_str(), counts);
    for (const std::string& sample : counts.unexplained_samples) {
      fprintf(stderr, "unexplained: %s\n", sample.c_str());
    }
    unexplained += counts.unexplained;
  }
  return unexplained;
}

uint64_t print_faults(uint64_t stride) {
  printf(
      "\n## Failing flash\n\n| operation | driver calls | faults | marked down | check fails | "
      "carries on | unexpected |\n|---|--:|--:|--:|--:|--:|--:|\n");
  uint64_t unexpected = 0;
  for (const reliability::operation& each : reliability::fault_operations()) {
    const reliability::fault_counts counts = reliability::try_faults(each, stride);
    printf("| %s | %llu | %llu | %llu | %llu | %llu | %llu |\n", each.name.c_str(),
           static_cast<unsigned long long>(counts.calls),
           static_cast<unsigned long long>(counts.faults),
           static_cast<unsigned long long>(counts.marked_down),
           static_cast<unsigned long long>(counts.check_failed),
           static_cast<unsigned long long>(counts.carried_on),
           static_cast<unsigned long long>(counts.unexpected));
    for (const std::string& sample : counts.unexpected_samples) {
      fprintf(stderr, "unexpected: %s\n", sample.c_str());
    }
    unexpected += counts.unexpected;
  }
  return unexpected;
}

}  // namespace

int main(int argc, char* argv[]) {
  const uint64_t stride = argc > 1 ? strtoull(argv[1], nullptr, 10) : 1;
  const uint64_t second_stride = argc > 2 ? strtoull(argv[2], nullptr, 10) : 1;
  sim::chassis chassis;
  chassis.clock_hold(standing_clock);
  sim::install_chassis(&chassis);
  const uint64_t unexplained = print_power_cuts(stride, second_stride);
  const uint64_t unexpected = print_faults(stride);
  return unexplained + unexpected == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
