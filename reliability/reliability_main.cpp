// Tries the power cuts and the failing flash calls of one operation and prints what they leave as
// rows, or how these differ from the stored ones; or plays one cut again and tells what every mount
// after it finds.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "flashfs/check_flags.h"
#include "reliability/expectation.h"
#include "reliability/faults.h"
#include "reliability/power_cuts.h"
#include "reliability/rescue_run.h"
#include "reliability/rescue_table.h"
#include "sim/chassis.h"

namespace {

using reliability::operation;

constexpr int64_t standing_clock = 1800000000;
constexpr int usage_status = 2;

// Everything that is tried of an operation.
struct rows_of_operation {
  reliability::tried cuts;
  reliability::tried faults;
};

int print_rows(const rows_of_operation& found) {
  for (const reliability::tried* each : {&found.cuts, &found.faults}) {
    for (const std::string& row : each->rows) {
      printf("%s\n", row.c_str());
    }
  }
  return EXIT_SUCCESS;
}

int print_differences(const rows_of_operation& found, reliability::sample which,
                      const char* operation) {
  const std::string differences =
      reliability::difference_of_rows(reliability::stored_rows(which, operation, false),
                                      found.cuts.rows) +
      reliability::difference_of_rows(reliability::stored_rows(which, operation, true),
                                      found.faults.rows);
  fputs(differences.c_str(), stdout);
  return differences.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}

int tell_defects(const rows_of_operation& found) {
  for (const std::string& defect : found.cuts.defects) {
    fprintf(stderr, "unexplained: %s\n", defect.c_str());
  }
  for (const std::string& defect : found.faults.defects) {
    fprintf(stderr, "unexpected: %s\n", defect.c_str());
  }
  return found.cuts.defects.empty() && found.faults.defects.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}

int usage() {
  fprintf(stderr,
          "usage: reliability list\n"
          "       reliability rows SAMPLE OPERATION\n"
          "       reliability compare SAMPLE OPERATION\n"
          "       reliability play OPERATION N KIND [CHECK M KIND] CHECK\n"
          "       reliability rescue all|suite|large [OPERATION ...]\n"
          "SAMPLE is all, suite or target; KIND is before, during, during+VARIANT or during_noise; "
          "CHECK "
          "is quick or full; the last one may be rescue.\n");
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
  return nullptr;
}

// Every operation has driver calls that fail; those that change flash have cuts.
int list() {
  for (const reliability::fault_operation& each : reliability::fault_operations()) {
    printf("%s\n", each.what.name.c_str());
  }
  return EXIT_SUCCESS;
}

bool parse_check(const char* word, uint32_t* flags) {
  const bool quick = strcmp(word, "quick") == 0;
  *flags = quick ? flashfs_check_quick : flashfs_check_full;
  return quick || strcmp(word, "full") == 0;
}

// The operations that a rescue is tried with: the further ones only by their names.
std::vector<operation> operations_to_rescue(bool all) {
  std::vector<operation> operations = reliability::rescue_operations();
  if (all) {
    for (operation& each : reliability::further_rescue_operations()) {
      operations.push_back(std::move(each));
    }
  }
  return operations;
}

// play OPERATION N KIND [CHECK M KIND] CHECK|rescue
int play(int argc, char* argv[], sim::chassis* chassis) {
  const bool with_second = argc == 9;
  const bool rescued = strcmp(argv[argc - 1], "rescue") == 0;
  reliability::planned_cut first;
  reliability::planned_check cut_check;
  uint32_t flags = 0;
  if ((argc != 6 && !with_second) || !reliability::parse_cut(argv[3], argv[4], &first) ||
      (with_second && (!parse_check(argv[5], &cut_check.flags) ||
                       !reliability::parse_cut(argv[6], argv[7], &cut_check.planned))) ||
      !(rescued || parse_check(argv[argc - 1], &flags))) {
    return usage();
  }
  const std::vector<operation> operations =
      rescued ? operations_to_rescue(true) : reliability::power_cut_operations();
  const operation* what = find(operations, argv[2]);
  if (what == nullptr) {
    return usage();
  }
  if (rescued) {
    fputs(reliability::play_rescue(*what, first,
                                   with_second ? std::optional(cut_check) : std::nullopt,
                                   [chassis](int64_t seconds) { chassis->clock_hold(seconds); })
              .c_str(),
          stdout);
    return EXIT_SUCCESS;
  }
  const std::string text = reliability::play_power_cut(
      *what, first, with_second ? std::optional(cut_check) : std::nullopt, flags);
  fputs(text.c_str(), stdout);
  return EXIT_SUCCESS;
}

// rows|compare SAMPLE OPERATION
int try_operation(char* argv[]) {
  const std::vector<operation> operations = reliability::power_cut_operations();
  const std::vector<reliability::fault_operation> faults = reliability::fault_operations();
  const operation* what = find(operations, argv[3]);
  const reliability::fault_operation* faulty = find(faults, argv[3]);
  const auto* which = std::find_if(
      std::begin(reliability::all_samples), std::end(reliability::all_samples),
      [&](reliability::sample each) { return sample_name(each) == std::string(argv[2]); });
  if (faulty == nullptr || which == std::end(reliability::all_samples)) {
    return usage();
  }
  rows_of_operation found;
  if (what != nullptr) {
    found.cuts = reliability::try_sample(*what, *which);
  }
  found.faults = reliability::try_sample(*faulty, *which);
  const int status = argv[1] == std::string("rows") ? print_rows(found)
                                                    : print_differences(found, *which, argv[3]);
  const int defects = tell_defects(found);
  return status != EXIT_SUCCESS ? status : defects;
}

// rescue all|suite|large [OPERATION ...]: what was not brought back, and the table.
int rescue(int argc, char* argv[], sim::chassis* chassis) {
  const reliability::rescue_sample* sample = reliability::find_rescue_sample(argv[2]);
  if (sample == nullptr) {
    return usage();
  }
  constexpr int first_name = 3;
  reliability::rescue_rows rows;
  for (const operation& each : operations_to_rescue(argc > first_name)) {
    if (argc > first_name && std::find(argv + first_name, argv + argc, each.name) == argv + argc) {
      continue;
    }
    const reliability::rescue_rows found = reliability::try_rescue(
        each, *sample, [chassis](int64_t seconds) { chassis->clock_hold(seconds); },
        [](const std::string& told) { printf("%s\n", told.c_str()); });
    for (const auto& [kinds, counts] : found) {
      rows[kinds].add(counts);
    }
  }
  printf("%s", reliability::rescue_table(rows).c_str());
  return EXIT_SUCCESS;
}

int run(int argc, char* argv[], sim::chassis* chassis) {
  const std::string command = argc > 1 ? argv[1] : "";
  if (command == "rescue" && argc >= 3) {
    return rescue(argc, argv, chassis);
  }
  if (command == "list" && argc == 2) {
    return list();
  }
  if ((command == "rows" || command == "compare") && argc == 4) {
    return try_operation(argv);
  }
  return command == "play" ? play(argc, argv, chassis) : usage();
}

}  // namespace

int main(int argc, char* argv[]) {
  sim::chassis chassis;
  chassis.clock_hold(standing_clock);
  sim::install_chassis(&chassis);
  return run(argc, argv, &chassis);
}
