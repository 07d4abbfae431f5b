// The answer, the messages and the document.
#include "image/report.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <utility>

#include "image/interrupt.h"
#include "image/paths.h"
#include "image/text.h"

namespace image {

using document_value = nlohmann::ordered_json;

namespace {

constexpr const char* schema_name = "flashfs-image/1";

const char* sequence_of(color tint) {
  switch (tint) {
    case color::red:
      return "\033[1;31m";
    case color::yellow:
      return "\033[1;33m";
    case color::blue:
      return "\033[1;34m";
    case color::green:
      return "\033[1;32m";
    case color::bold:
      return "\033[1m";
    case color::none:
      break;
  }
  return "";
}

std::string tinted(bool colors, color tint, std::string_view text) {
  const std::string plain(text);
  return colors && tint != color::none ? sequence_of(tint) + plain + "\033[0m" : plain;
}

bool is_set(const char* variable) {
  const char* value = std::getenv(variable);
  return value != nullptr && *value != '\0';
}

bool has_colors(when wanted, bool terminal) {
  if (wanted != when::automatic) {
    return wanted == when::always;
  }
  const char* kind = std::getenv("TERM");
  return terminal && !is_set("NO_COLOR") && (kind == nullptr || strcmp(kind, "dumb") != 0);
}

const char* code_of(exit_status status) {
  switch (status) {
    case exit_status::changed:
      return codes::repaired;
    case exit_status::partial:
      return codes::left_out;
    case exit_status::faults:
      return codes::faults_left;
    case exit_status::usage:
      return codes::usage;
    case exit_status::interrupted:
      return codes::interrupted;
    default:
      return codes::not_done;
  }
}

}  // namespace

document_value json_of(const finding& found) {
  document_value object = {{"code", found.code}, {"severity", severity_text(found.severity)}};
  const auto put = [&](const char* key, const auto& value) {
    object[key] = value ? document_value(*value) : document_value(nullptr);
  };
  put("offset", found.offset);
  if (found.length) {
    object["length"] = *found.length;
  }
  put("block", found.block);
  put("sector", found.sector);
  put("slot", found.slot);
  if (found.path.empty()) {
    object["path"] = nullptr;
  } else {
    put_text(&object, "path", found.path);
  }
  put_text(&object, "text", found.text);
  return object;
}

std::string line_of(const finding& found) {
  std::string place;
  const auto add = [&](const char* word, const auto& value) {
    if (value) {
      place += (place.empty() ? "" : ", ") + std::string(word) + " " + std::to_string(*value);
    }
  };
  add("block", found.block);
  add("sector", found.sector);
  add("slot", found.slot);
  if ((place.empty() || found.length) && found.offset) {
    add("offset", found.offset);
  }
  place += place.empty() ? "" : ": ";
  return place + (found.path.empty() ? "" : escaped(found.path) + ": ") + escaped(found.text);
}

struct report::document {
  document_value result = document_value::object();
  document_value findings = document_value::array();
};

void put_text(document_value* object, const char* key, std::string_view raw) {
  (*object)[key] = std::string(raw);
  if (!is_utf8(raw)) {
    (*object)[std::string(key) + "_hex"] = hexadecimal(raw);
  }
}

report::report(const globals& options, std::string command)
    : options_(options),
      command_(std::move(command)),
      document_(std::make_unique<document>()),
      output_has_terminal_(isatty(STDOUT_FILENO) != 0),
      output_has_colors_(has_colors(options.color, output_has_terminal_)),
      errors_have_colors_(has_colors(options.color, isatty(STDERR_FILENO) != 0)),
      shows_progress_(
          options.progress == when::always ||
          (options.progress == when::automatic && !options.quiet && isatty(STDERR_FILENO) != 0)),
      started_(clock::now()) {}

report::~report() = default;

void report::print(std::string_view text) {
  if (options_.json || options_.output == "-") {
    return;
  }
  wipe_progress();
  std::fwrite(text.data(), 1, text.size(), stdout);
}

std::string report::shown(std::string_view name) const {
  return output_has_terminal_ ? escaped(name) : std::string(name);
}

std::string report::colored(color tint, std::string_view text) const {
  return tinted(output_has_colors_, tint, text);
}

document_value& report::result() {
  return document_->result;
}

void report::print_error_line(color tint, std::string_view kind, std::string_view text) {
  wipe_progress();
  // What was printed before it stands before it where both streams are one terminal.
  std::fflush(stdout);
  std::string line = "flashfs-image: ";
  if (!kind.empty()) {
    line += tinted(errors_have_colors_, tint, kind) + ": ";
  }
  line.append(text).append("\n");
  std::fwrite(line.data(), 1, line.size(), stderr);
}

void report::message(std::string_view text) {
  if (!options_.quiet) {
    print_error_line(color::none, "", text);
  }
}

void report::detail(std::string_view text) {
  if (options_.verbose) {
    print_error_line(color::none, "", text);
  }
}

void report::add_to_document(const finding& found) {
  document_->findings.push_back(json_of(found));
}

void report::add(const finding& found) {
  add_to_document(found);
  switch (found.severity) {
    case severity::info:
      if (options_.verbose) {
        print_error_line(color::none, "", line_of(found));
      }
      break;
    case severity::warning:
      print_error_line(color::yellow, "warning", line_of(found));
      break;
    case severity::error:
      print_error_line(color::red, "error", line_of(found));
      break;
  }
}

void report::warn(const char* code, std::string_view text, std::string_view path) {
  finding found;
  found.code = code;
  found.severity = options_.strict ? severity::error : severity::warning;
  found.text = text;
  found.path = path;
  add(found);
  if (options_.strict) {
    raise(exit_status::faults);
  }
}

void report::fail(exit_status status, std::string_view text, std::string_view path) {
  finding found;
  found.code = code_of(status);
  found.severity = severity::error;
  found.text = text;
  found.path = path;
  add(found);
  raise(status);
}

void report::fail_at(std::string_view inside, std::string_view text) {
  fail(exit_status::failed, text, told_path(inside));
}

void report::raise(exit_status status) {
  if (static_cast<int>(status) > static_cast<int>(status_)) {
    status_ = status;
  }
}

void report::ask(std::string_view text) {
  wipe_progress();
  std::fflush(stdout);
  std::fwrite(text.data(), 1, text.size(), stderr);
}

void report::progress(std::string_view what, uint64_t done, uint64_t total) {
  const clock::time_point now = clock::now();
  if (!shows_progress_ || now - started_ < std::chrono::seconds(1) ||
      now - redrawn_ < std::chrono::milliseconds(100)) {
    return;
  }
  redrawn_ = now;
  progress_shown_ = true;
  const double percent =
      total == 0 ? 100.0 : 100.0 * static_cast<double>(done) / static_cast<double>(total);
  std::fprintf(stderr, "\r\033[K%.*s %3.0f %%", static_cast<int>(what.size()), what.data(),
               percent);
  std::fflush(stderr);
}

void report::wipe_progress() {
  if (std::exchange(progress_shown_, false)) {
    std::fputs("\r\033[K", stderr);
  }
}

exit_status report::finish() {
  wipe_progress();
  if (interrupted() && !written_ && status_ != exit_status::interrupted) {
    fail(exit_status::interrupted, "interrupted");
  }
  if (options_.json) {
    const document_value whole = {{"schema", schema_name},
                                  {"command", command_},
                                  {"status", static_cast<int>(status_)},
                                  {"result", document_->result},
                                  {"findings", document_->findings}};
    const std::string text =
        whole.dump(2, ' ', false, document_value::error_handler_t::replace) + "\n";
    std::fwrite(text.data(), 1, text.size(), stdout);
  }
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    fail(exit_status::failed, std::string("standard output: ") + std::strerror(errno));
  }
  return status_;
}

}  // namespace image
