#include "reliability/rescue_table.h"

#include <vector>

namespace reliability {

void rescue_counts::add(const rescue_counts& other) {
  states += other.states;
  refused += other.refused;
  untouched_lost += other.untouched_lost;
  unexpected_names += other.unexpected_names;
  not_silent += other.not_silent;
  for (const auto& [kind, count] : other.touched) {
    touched[kind] += count;
  }
}

const char* left_by_name(left_by kind) {
  switch (kind) {
    case left_by::first_cut:
      return "first cut, nothing erased before it";
    case left_by::cut_after_erase:
      return "first cut, a block erased before it";
    case left_by::cut_quick_check:
      return "second cut, in the quick check";
    case left_by::cut_full_check:
      return "second cut, in the full check";
    case left_by::cut_rescue:
      break;
  }
  return "second cut, in the rescue";
}

const char* recovery_name(recovery kind) {
  switch (kind) {
    case recovery::quick:
      return "quick check";
    case recovery::full:
      return "full check";
    case recovery::rescue:
      break;
  }
  return "rescue";
}

const char* touched_state_name(touched_state kind) {
  switch (kind) {
    case touched_state::old:
      return "old";
    case touched_state::as_new:
      return "new";
    case touched_state::between:
      return "between";
    case touched_state::by_sector:
      return "by-sector";
    case touched_state::neither:
      break;
  }
  return "neither";
}

std::string rescue_table(const rescue_rows& rows) {
  std::string text =
      "| states | by | refused | untouched lost | unexpected names | old | new | between | by "
      "sector "
      "| neither | not silent |\n|---|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|\n";
  for (const auto& [kinds, counts] : rows) {
    const auto& [left, how] = kinds;
    const std::vector<uint64_t> numbers = {counts.refused, counts.untouched_lost,
                                           counts.unexpected_names};
    text += std::string("| ") + left_by_name(left) + ": " + std::to_string(counts.states) + " | " +
            recovery_name(how) + " |";
    for (const uint64_t number : numbers) {
      text += " " + std::to_string(number) + " |";
    }
    for (const touched_state kind :
         {touched_state::old, touched_state::as_new, touched_state::between,
          touched_state::by_sector, touched_state::neither}) {
      const auto found = counts.touched.find(kind);
      text += " " + std::to_string(found == counts.touched.end() ? 0 : found->second) + " |";
    }
    text += " " + std::to_string(counts.not_silent) + " |\n";
  }
  return text;
}

}  // namespace reliability
