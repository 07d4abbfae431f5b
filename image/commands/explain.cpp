// explain: what the codes of findings mean and what to do then, from the table that they come from.
#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>

#include "image/commands/commands.h"
#include "image/finding.h"
#include "image/report.h"

namespace image {

namespace {

using json = nlohmann::ordered_json;

struct explain_options {
  std::vector<std::string> codes;
};

color tint_of(severity value) {
  switch (value) {
    case severity::error:
      return color::red;
    case severity::warning:
      return color::yellow;
    case severity::info:
      break;
  }
  return color::none;
}

void tell(const finding_code& row, size_t width, report& out) {
  const std::string word = fmt::format("{:<7}", severity_text(row.severity));
  out.print(fmt::format("{:<{}}  {}  {}\n", row.code, width,
                        out.colored(tint_of(row.severity), word), row.meaning));
  out.print(fmt::format("{:<{}}           to do: {}\n", "", width, row.what_to_do));
  out.result()["codes"].push_back({{"code", row.code},
                                   {"severity", severity_text(row.severity)},
                                   {"meaning", row.meaning},
                                   {"what_to_do", row.what_to_do}});
}

void run(const explain_options& options, report& out) {
  out.result()["codes"] = json::array();
  std::vector<const finding_code*> rows;
  for (const std::string& code : options.codes) {
    const finding_code* row = find_code(code);
    if (row == nullptr) {
      out.fail(exit_status::failed,
               "no finding has the code \"" + code + "\"; without one all are listed");
      continue;
    }
    rows.push_back(row);
  }
  if (options.codes.empty()) {
    for (const finding_code& row : finding_codes()) {
      rows.push_back(&row);
    }
  }
  size_t width = 0;
  for (const finding_code* row : rows) {
    width = std::max(width, std::string_view(row->code).size());
  }
  for (const finding_code* row : rows) {
    tell(*row, width, out);
  }
}

}  // namespace

command explain_command() {
  auto options = std::make_shared<explain_options>();
  return {"explain", "Tells what the codes of findings mean, and what to do",
          "flashfs-image explain sector-checksum",
          [options](arguments& take) {
            take.optional_words("CODE", &options->codes, "Codes; without any, all are told");
          },
          [options](const globals&, report& out) { run(*options, out); }};
}

}  // namespace image
