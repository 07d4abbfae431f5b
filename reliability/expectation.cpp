// The rows, and their comparison.
#include "reliability/expectation.h"

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <utility>

#include "reliability/cut_causes.h"

namespace reliability {

namespace {

constexpr const char* separator = " | ";
constexpr const char* failing_flash = "failing flash";

// Operations with more mutations are tried at fewer of them on the target.
constexpr uint64_t most_mutations_on_target = 3000;

struct sample_size {
  const char* name;
  uint64_t cuts;         // about so many mutations of an operation
  uint64_t cuts_of_big;  // the same of one with more than most_mutations_on_target
  uint64_t second_stride;
  uses used;
  uint64_t calls;  // about so many driver calls
};

const sample_size& size_of(sample which) {
  static const sample_size sizes[] = {
      {"all", UINT64_MAX, UINT64_MAX, 1, uses::all, UINT64_MAX},
      {"suite", 150, 150, 11, uses::after_one_cut, 100},
      {"target", 48, 12, 197, uses::after_one_cut, 10},
  };
  return sizes[static_cast<size_t>(which)];
}

std::string number_of(uint64_t number, const char* what) {
  return separator + std::to_string(number) + " " + what;
}

const char* check_name(bool quick) {
  return quick ? "quick check" : "full check";
}

std::string row_of(const std::string& operation, const exception& each,
                   const exception_counts& counts) {
  std::string row = operation + separator + (each.why ? cause_name(*each.why) : "unexplained") +
                    separator + (each.two_cuts ? "two cuts" : "cut") + separator +
                    check_name(each.quick) + separator + outcome_name(each.kind) + separator +
                    std::to_string(counts.count) + separator + "at " + ranges_text(counts.window);
  return each.two_cuts ? row + " then " + ranges_text(counts.second_window) : row;
}

std::string completed_row(const std::string& operation, bool quick, std::string difference) {
  std::replace(difference.begin(), difference.end(), '\n', ';');
  return operation + separator + "completed" + separator + check_name(quick) + separator +
         (difference.empty() ? "as in memory" : difference);
}

bool is_row_of(const std::string& row, const std::string& operation, bool faults) {
  const std::string start = operation + separator;
  return row.rfind(start, 0) == 0 && (row.compare(start.size(), std::string(failing_flash).size(),
                                                  failing_flash) == 0) == faults;
}

// The rows of `rows` that are not among `others`.
std::vector<std::string> without(const std::vector<std::string>& rows,
                                 const std::vector<std::string>& others) {
  std::vector<std::string> rest;
  std::copy_if(rows.begin(), rows.end(), std::back_inserter(rest), [&](const std::string& row) {
    return std::find(others.begin(), others.end(), row) == others.end();
  });
  return rest;
}

// How far two rows are the same.
size_t common_length(const std::string& row, const std::string& other) {
  return static_cast<size_t>(
      std::mismatch(row.begin(), row.end(), other.begin(), other.end()).first - row.begin());
}

// A long row with its beginning and the surroundings of where it differs from the row most like it.
std::string shortened(const std::string& row, const std::vector<std::string>& others) {
  constexpr size_t whole = 200;
  constexpr size_t beginning = 100;
  constexpr size_t before = 20;
  if (row.size() <= whole) {
    return row;
  }
  size_t same = 0;
  for (const std::string& other : others) {
    same = std::max(same, common_length(row, other));
  }
  if (same < beginning + before) {
    return row.substr(0, whole) + " ...";
  }
  return row.substr(0, beginning) + " ... " + row.substr(same - before, whole - beginning);
}

}  // namespace

const char* sample_name(sample which) {
  return size_of(which).name;
}

cut_plan plan_of(sample which, uint64_t mutations) {
  const sample_size& size = size_of(which);
  const uint64_t cuts = mutations > most_mutations_on_target ? size.cuts_of_big : size.cuts;
  return {.stride = std::max<uint64_t>(1, mutations / cuts),
          .second_stride = size.second_stride,
          .used = size.used};
}

uint64_t stride_of_faults(sample which, uint64_t calls) {
  return std::max<uint64_t>(1, calls / size_of(which).calls);
}

tried try_sample(const operation& what, sample which) {
  const cut_counts counts = try_power_cuts(what, plan_of(which, count_mutations(what)));
  tried result;
  result.rows.push_back(
      what.name + separator + "tried" + number_of(counts.mutations, "mutations") +
      number_of(counts.cuts, "cuts") + number_of(counts.second_cuts, "second cuts") +
      number_of(counts.clean, "clean") + number_of(counts.used, "used") +
      number_of(counts.short_of_room, "short of room") + number_of(counts.reclaimed, "reclaimed") +
      number_of(counts.unexplained, "unexplained"));
  result.rows.push_back(completed_row(what.name, true, counts.completed_quick));
  result.rows.push_back(completed_row(what.name, false, counts.completed_full));
  for (const auto& [each, each_counts] : counts.exceptions) {
    result.rows.push_back(row_of(what.name, each, each_counts));
  }
  result.defects = counts.unexplained_samples;
  return result;
}

tried try_sample(const fault_operation& each, sample which) {
  const uint64_t calls = try_faults(each, UINT32_MAX).calls;
  const fault_counts counts = try_faults(each, stride_of_faults(which, calls));
  std::string row = each.what.name + separator + failing_flash + number_of(counts.calls, "calls") +
                    number_of(counts.faults, "faults");
  for (const auto& [how, count] : counts.endings) {
    row += std::string(separator) + ending_name(how) + " " + std::to_string(count);
  }
  row += number_of(counts.dropped, "dropped") + number_of(counts.excused, "excused") +
         number_of(counts.unexpected, "unexpected");
  return {{row}, counts.unexpected_samples};
}

std::vector<std::string> stored_rows(sample which, const std::string& operation, bool faults) {
  std::ifstream file(std::string(RELIABILITY_FOLDER) + "/expected/" + sample_name(which) + ".txt");
  std::vector<std::string> rows;
  for (std::string row; std::getline(file, row);) {
    if (is_row_of(row, operation, faults)) {
      rows.push_back(row);
    }
  }
  return rows;
}

std::string difference_of_rows(const std::vector<std::string>& stored,
                               const std::vector<std::string>& found) {
  const std::vector<std::string> gone = without(stored, found);
  const std::vector<std::string> fresh = without(found, stored);
  std::string text;
  for (const std::string& row : gone) {
    text += "- " + shortened(row, fresh) + "\n";
  }
  for (const std::string& row : fresh) {
    text += "+ " + shortened(row, gone) + "\n";
  }
  return text;
}

}  // namespace reliability
