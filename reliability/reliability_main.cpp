// Tries the power cuts and the failing flash calls of one operation and prints its rows of
// docs/reliability.md, or plays one cut again and tells what every mount after it finds.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "reliability/faults.h"
#include "reliability/power_cuts.h"
#include "sim/chassis.h"

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

// Many ranges are cut short.
std::string window_text(const std::set<uint64_t>& window) {
  const std::string text = reliability::ranges_text(window);
  size_t end = 0;
  for (size_t ranges = 0; ranges < max_ranges && end != std::string::npos; ranges++) {
    end = text.find(", ", end + 1);
  }
  if (end == std::string::npos) {
    return text;
  }
  const auto more = std::count(text.begin() + static_cast<std::ptrdiff_t>(end), text.end(), ',');
  return text.substr(0, end) + " and " + std::to_string(more) + " more";
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
           window_text(by_cause.window).c_str(), outcomes_text(by_cause.quick).c_str(),
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
  fprintf(
      stderr,
      "usage: reliability list cuts|faults\n"
      "       reliability cuts OPERATION [STRIDE [STRIDE_OF_SECOND_CUTS]]\n"
      "       reliability faults OPERATION\n"
      "       reliability play OPERATION N KIND [CHECK M KIND] CHECK\n"
      "KIND is before, during, during+VARIANT or during_noise, CHECK is quick or full; a stride of "
      "second cuts of 0 tries none.\n");
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

bool parse_check(const char* word, uint32_t* flags) {
  const bool quick = strcmp(word, "quick") == 0;
  *flags = quick ? flashfs_check_quick : flashfs_check_full;
  return quick || strcmp(word, "full") == 0;
}

// play OPERATION N KIND [CHECK M KIND] CHECK
int play(int argc, char* argv[]) {
  const bool with_second = argc == 9;
  reliability::planned_cut first;
  reliability::planned_check cut_check;
  uint32_t flags = 0;
  if ((argc != 6 && !with_second) || !reliability::parse_cut(argv[3], argv[4], &first) ||
      (with_second && (!parse_check(argv[5], &cut_check.flags) ||
                       !reliability::parse_cut(argv[6], argv[7], &cut_check.planned))) ||
      !parse_check(argv[argc - 1], &flags)) {
    return usage();
  }
  const std::vector<operation> operations = reliability::power_cut_operations();
  const operation* what = find(operations, argv[2]);
  if (what == nullptr) {
    return usage();
  }
  const std::string text = reliability::play_power_cut(
      *what, first, with_second ? std::optional(cut_check) : std::nullopt, flags);
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
