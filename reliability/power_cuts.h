// Power cuts at every flash mutation of an operation, and again at every mutation of the check that
// follows. What each cut leaves is judged by what a user would find afterwards.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "reliability/cut_causes.h"
#include "reliability/rig.h"
#include "sim/power.h"
#include "tests/support/ram_flash.h"

namespace reliability {

struct operation {
  std::string name;
  std::vector<test_support::ram_block> blocks;
  // Makes the flash on which the operation acts, with the file system mounted.
  std::function<void(rig&)> prepare;
  // Changes bytes of the unmounted flash; the operation is then the check itself. May be empty.
  std::function<void(rig&)> damage;
  // Acts on the mounted file system. Below 0, with errno, when it fails.
  std::function<int32_t(rig&)> act;
  // Paths that it makes, changes or removes, and whatever lies below them.
  std::set<std::string> touched;
  // Causes of exceptions that come with what the operation does.
  std::set<cause> own_causes = {};
};

// What one cause brought about.
struct cause_counts {
  std::set<uint64_t> window;  // mutations at which a single cut shows it
  std::map<outcome, uint64_t> quick;
  std::map<outcome, uint64_t> full;
};

// What is counted apart: the outcomes of one cause, by the check after which they are found and by
// whether that check was preceded by another, which was cut. Without a cause: a defect.
struct exception {
  std::optional<cause> why;
  bool two_cuts;
  bool quick;
  outcome kind;

  auto operator<=>(const exception&) const = default;
};

// How often, and at which mutations of the operation and of the check that was cut.
struct exception_counts {
  uint64_t count = 0;
  std::set<uint64_t> window;
  std::set<uint64_t> second_window;
};

struct cut_counts {
  uint64_t mutations = 0;    // of the operation
  uint64_t cuts = 0;         // tried: different states left, times both checks that follow
  uint64_t second_cuts = 0;  // the same of the cuts in these checks
  uint64_t clean = 0;        // of both
  std::map<outcome, uint64_t> quick;
  std::map<outcome, uint64_t> full;
  std::map<cause, cause_counts> causes;
  std::map<exception, exception_counts> exceptions;
  uint64_t used = 0;           // different flashes, recovered from these, that were worked on
  uint64_t short_of_room = 0;  // of them: a step found no space
  uint64_t reclaimed = 0;      // of them: a block was reclaimed
  uint64_t unexplained = 0;
  std::vector<std::string> unexplained_samples;  // arguments that play them again
  // How what a check finds after the whole operation differs from what stood in memory, and how the
  // flash fails in use; empty when it does not.
  std::string completed_quick;
  std::string completed_full;
};

// Which recovered flashes are worked on.
enum class uses { none, after_one_cut, all };

// Which cuts are tried.
struct cut_plan {
  // Every so manieth mutation of the operation (1: all), and the first and the last of each driver
  // call: among them are the words that decide what a record is.
  uint64_t stride = 1;
  uint64_t second_stride = 1;  // and of either check that follows (0: none)
  uses used = uses::all;
};

std::vector<operation> power_cut_operations();

// The flash mutations of an operation that is not cut.
uint64_t count_mutations(const operation& what);

// Tries the cuts of a plan. Each leaves a state that is followed by either check; each of these is
// cut, and what that leaves is followed by either check. The operation without a cut is tried, too.
cut_counts try_power_cuts(const operation& what, const cut_plan& plan);

// A cut at the n-th mutation, of the operation or of the check that follows. Variants of a torn
// word have other bits cleared.
struct planned_cut {
  uint64_t mutation;
  sim::cut_kind kind;
  uint64_t variant = 0;
};

// A check that is cut.
struct planned_check {
  uint32_t flags;
  planned_cut planned;
};

// Plays an operation with its cut, a check with its own, if any, and then mounts until a mount
// changes nothing (at most 10 times). Returns what was printed and found.
std::string play_power_cut(const operation& what, planned_cut first,
                           std::optional<planned_check> cut_check, uint32_t check_flags);

// A cut as text, and back: "12 before", "12 during", "12 during+3", "12 during_noise".
std::string cut_text(const planned_cut& planned);
bool parse_cut(const char* mutation, const char* kind, planned_cut* planned);

// What an operation's cut leaves on flash.
std::vector<uint8_t> left_by_power_cut(const operation& what, planned_cut planned);

// 1, 2, 3, 7 as "1-3, 7".
std::string ranges_text(const std::set<uint64_t>& numbers);

}  // namespace reliability
