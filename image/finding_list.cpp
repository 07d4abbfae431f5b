#include "image/finding_list.h"

#include <fmt/format.h>

#include <cstddef>
#include <string>

#include "image/text.h"

namespace image {

namespace {

// Beyond so many nobody reads on.
constexpr size_t finding_lines_max = 200;

bool follows(const finding& one, const finding& next) {
  return one.code == next.code && one.block && next.block && *one.block + 1 == *next.block &&
         !one.sector && !next.sector && one.text == next.text;
}

void print_findings(const finding& first, const finding& last, report& out) {
  std::string place;
  if (first.block) {
    place = first.block == last.block ? fmt::format("block {}", *first.block)
                                      : fmt::format("blocks {} to {}", *first.block, *last.block);
  }
  place += first.sector ? fmt::format(", sector {}", *first.sector) : "";
  place += first.slot ? fmt::format(", slot {}", *first.slot) : "";
  place += first.path.empty() ? "" : (place.empty() ? "" : ": ") + escaped(first.path);
  const color tint = first.severity == severity::error     ? color::red
                     : first.severity == severity::warning ? color::yellow
                                                           : color::none;
  out.print("  " + out.colored(tint, severity_text(first.severity)) +
            fmt::format(" {}{}{}: {}\n", first.code, place.empty() ? "" : ": ", place,
                        escaped(first.text)));
}

}  // namespace

void tell_finding_list(std::span<const finding> findings, report& out) {
  if (out.json()) {
    for (const finding& each : findings) {
      out.add_to_document(each);
    }
    return;
  }
  out.print(findings.empty() ? "\nNothing is wrong.\n" : "\nWhat is wrong:\n");
  size_t lines = 0;
  for (size_t i = 0; i < findings.size(); ++lines) {
    if (lines == finding_lines_max) {
      out.print(fmt::format("  and {} more, which dump and --json tell\n", findings.size() - i));
      return;
    }
    size_t end = i + 1;
    while (end < findings.size() && follows(findings[end - 1], findings[end])) {
      end++;
    }
    print_findings(findings[i], findings[end - 1], out);
    i = end;
  }
}

}  // namespace image
