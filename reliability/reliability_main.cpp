// Tries the power cuts and the failing flash calls of one operation and prints its rows of
// docs/reliability.md, or plays one cut again and tells what every mount after it finds.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "reliability/faults.h"
#include "reliability/power_cuts.h"
#include "sim/sim_chassis.h"

namespace {

using reliability::operation;

constexpr int64_t standing_clock = 1800000000;
constexpr int usage_status = 2;
constexpr size_t max_ranges = 6;

std::string outcomes_text(const std::map<reliability::outcome, uint64_t>& outcomes) {
  std::string text;
  for (const auto& [kind, count] : outcomes) {
    text += text.empty() ? "" : ", ";
    text += reliability::outcome_name(kind) + (" " + std::to_string(count));
  }
  return text;
}

// 1, 2, 3, 7 as "1-3, 7"; many ranges are cut short.
std::string ranges_text(const std::set<uint64_t>& numbers) {
  std::string text;
  size_t ranges = 0;
  for (auto first = numbers.begin(); first != numbers.end(); ranges++) {
    auto last = first;
    while (std::next(last) != numbers.end() && *std::next(last) == *last + 1) {
      ++last;
    }
    if (ranges < max_ranges) {
      text += (text.empty() ? "" : ", ") + std::to_string(*first);
      text += first == last ? "" : "-" + std::to_string(*last);
    }
    first = std::next(last);
  }
  return ranges <= max_ranges ? text
                              : text + " and " + std::to_string(ranges - max_ranges) + " more";
}

// A row for each operation, then a row for each of its causes.
int print_cuts(const operation& what, uint64_t stride, uint64_t second_stride) {
  const reliability::cut_counts counts = reliability::try_power_cuts(what, stride, second_stride);
  printf("| %s | %llu | %llu | %llu | %llu | %s | %s | %llu |\n", what.name.c_str(),
         static_cast<unsigned long long>(counts.mutations),
         static_cast<unsigned long long>(counts.cuts),
         static_cast<unsigned long long>(counts.second_cuts),
         static_cast<unsigned long long>(counts.clean), outcomes_text(counts.quick).c_str(),
         outcomes_text(counts.full).c_str(), static_cast<unsigned long long>(counts.unexplained));
  for (const auto& [why, by_cause] : counts.causes) {
    printf("| %s | %s | %s | %s | %s |\n", reliability::cause_name(why), what.name.c_str(),
           ranges_text(by_cause.window).c_str(), outcomes_text(by_cause.quick).c_str(),
           outcomes_text(by_cause.full).c_str());
  }
  for (const std::string& sample : counts.unexplained_samples) {
    fprintf(stderr, "unexplained: %s\n", sample.c_str());
  }
  return counts.unexplained == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

int print_faults(const reliability::fault_operation& each) {
  const reliability::fault_counts counts = reliability::try_faults(each, 1);
  printf("| %s | %llu | %llu |", each.what.name.c_str(),
         static_cast<unsigned long long>(counts.calls),
         static_cast<unsigned long long>(counts.faults));
  for (const reliability::ending how : reliability::all_endings) {
    const auto found = counts.endings.find(how);
    printf(" %llu |",
           found == counts.endings.end() ? 0 : static_cast<unsigned long long>(found->second));
  }
  printf(" %llu | %llu |\n", static_cast<unsigned long long>(counts.dropped),
         static_cast<unsigned long long>(counts.unexpected));
  for (const std::string& sample : counts.unexpected_samples) {
    fprintf(stderr, "unexpected: %s\n", sample.c_str());
  }
  return counts.unexpected == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

int usage() {
  fprintf(stderr,
          "usage: reliability list cuts|faults\n"
          "       reliability cuts OPERATION [STRIDE [STRIDE_OF_SECOND_CUTS]]\n"
          "       reliability faults OPERATION\n"
          "       reliability play OPERATION N KIND quick|full [M KIND]\n"
          "KIND is before, during or during_noise; a stride of second cuts of 0 tries none.\n");
  return usage_status;
}

const std::string& name_of(const operation& each) {
  return each.name;
}

const std::string& name_of(const reliability::fault_operation& each) {
  return each.what.name;
}

template <typename Operation>
const Operation* find(const std::vector<Operation>& operations, const char* name) {
  for (const Operation& each : operations) {
    if (name_of(each) == name) {
      return &each;
    }
  }
  fprintf(stderr, "no operation \"%s\"; see: reliability list cuts|faults\n", name);
  return nullptr;
}

template <typename Operation>
int list(const std::vector<Operation>& operations) {
  for (const Operation& each : operations) {
    printf("%s\n", name_of(each).c_str());
  }
  return EXIT_SUCCESS;
}

bool parse_cut(char* const words[2], reliability::planned_cut* planned) {
  planned->mutation = strtoull(words[0], nullptr, 10);
  for (const sim::cut_kind kind :
       {sim::cut_kind::before, sim::cut_kind::during, sim::cut_kind::during_noise}) {
    if (strcmp(words[1], reliability::cut_kind_name(kind)) == 0) {
      planned->kind = kind;
      return planned->mutation != 0;
    }
  }
  return false;
}

int play(int argc, char* argv[]) {
  const bool with_second = argc == 8;
  reliability::planned_cut first;
  reliability::planned_cut second;
  if ((argc != 6 && !with_second) || !parse_cut(argv + 3, &first) ||
      (with_second && !parse_cut(argv + 6, &second))) {
    return usage();
  }
  const std::vector<operation> operations = reliability::power_cut_operations();
  const operation* what = find(operations, argv[2]);
  const bool quick = strcmp(argv[5], "quick") == 0;
  if (what == nullptr || (!quick && strcmp(argv[5], "full") != 0)) {
    return usage();
  }
  const std::string text = reliability::play_power_cut(
      *what, first, quick ? reliability::quick_check : reliability::full_check,
      with_second ? std::optional(second) : std::nullopt);
  fputs(text.c_str(), stdout);
  return EXIT_SUCCESS;
}

int cuts(int argc, char* argv[]) {
  const std::vector<operation> operations = reliability::power_cut_operations();
  const operation* what = find(operations, argv[2]);
  const uint64_t stride = argc > 3 ? strtoull(argv[3], nullptr, 10) : 1;
  const uint64_t second_stride = argc > 4 ? strtoull(argv[4], nullptr, 10) : 1;
  if (what == nullptr || stride == 0) {
    return usage();
  }
  return print_cuts(*what, stride, second_stride);
}

int faults(char* argv[]) {
  const std::vector<reliability::fault_operation> operations = reliability::fault_operations();
  const reliability::fault_operation* each = find(operations, argv[2]);
  return each == nullptr ? usage() : print_faults(*each);
}

int run(int argc, char* argv[]) {
  const std::string command = argc > 2 ? argv[1] : "";
  if (command == "list" && argc == 3) {
    return strcmp(argv[2], "faults") == 0 ? list(reliability::fault_operations())
                                          : list(reliability::power_cut_operations());
  }
  if (command == "cuts" && argc <= 5) {
    return cuts(argc, argv);
  }
  if (command == "faults" && argc == 3) {
    return faults(argv);
  }
  return command == "play" ? play(argc, argv) : usage();
}

}  // namespace

int main(int argc, char* argv[]) {
  sim::chassis chassis;
  chassis.clock_hold(standing_clock);
  sim::install_chassis(&chassis);
  return run(argc, argv);
}
