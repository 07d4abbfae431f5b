// How a command tells what it found. Standard output holds the answer and nothing else: text that
// the command prints, or with --json one document, on failure too:
//
//   {"schema": "flashfs-image/1", "command": "ls", "status": 0, "result": {...}, "findings": [...]}
//
// Messages and progress go to standard error. A string that is no UTF-8 stands in the document with
// replacement characters, and beside its key K the raw bytes as hexadecimal digits under K_hex.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "image/exit_status.h"
#include "image/finding.h"
#include "image/globals.h"

namespace image {

// Codes of findings that are about a run, not about a record (of the table in finding.h).
namespace codes {
constexpr const char* usage = "usage";
constexpr const char* not_done = "not-done";
constexpr const char* faults_left = "faults-left";
constexpr const char* left_out = "left-out";
constexpr const char* interrupted = "interrupted";
constexpr const char* would_repair = "would-repair";
constexpr const char* repaired = "repaired";
constexpr const char* advice = "advice";
constexpr const char* geometry_differs = "geometry-differs";
}  // namespace codes

enum class color { none, red, yellow, blue, green, bold };

// Puts raw bytes under a key of an object; see above for what is no UTF-8.
void put_text(nlohmann::ordered_json* object, const char* key, std::string_view raw);

// "block 3, sector 4: /a: text": one line for people.
std::string line_of(const finding& found);
// The object that stands for it in the document.
nlohmann::ordered_json json_of(const finding& found);

class report {
 public:
  report(const globals& options, std::string command);
  ~report();
  report(const report&) = delete;
  report& operator=(const report&) = delete;

  bool json() const {
    return options_.json;
  }

  // --- the answer ---

  // Prints text or raw bytes to standard output; nothing with --json, or when an image goes there.
  void print(std::string_view text);
  // A name as standard output shall have it: escaped on a terminal, else raw.
  std::string shown(std::string_view name) const;
  // The text in a colour where standard output has colours.
  std::string colored(color tint, std::string_view text) const;
  // The object under "result", for --json.
  nlohmann::ordered_json& result();

  // --- messages, on standard error; with --json the findings, too ---

  // Told unless -q.
  void message(std::string_view text);
  // A question, at the end of its line, whatever the options.
  void ask(std::string_view text);
  // Told with -v only.
  void detail(std::string_view text);
  // Told with its place, warnings and errors always, information with -v; the status stays.
  void add(const finding& found);
  // For the document alone, where the finding is part of the answer that is printed.
  void add_to_document(const finding& found);
  // Something that the status does not tell, unless --strict makes a fault of it.
  void warn(const char* code, std::string_view text, std::string_view path = {});
  // Why not all is well: tells it and raises the status.
  void fail(exit_status status, std::string_view text, std::string_view path = {});
  // What could not be done at a path in the image, which is told from its root.
  void fail_at(std::string_view inside, std::string_view text);
  void raise(exit_status status);
  exit_status status() const {
    return status_;
  }

  // An image was written: a signal that comes from now on interrupts nothing any more.
  void set_written() {
    written_ = true;
  }

  // How far a long step is, on a terminal, after its first second, at most ten times a second.
  // The next message or the end wipes it.
  void progress(std::string_view what, uint64_t done, uint64_t total);

  // Ends the answer: the document, the last of standard output. The run's status, to be called
  // once.
  exit_status finish();

 private:
  void print_error_line(color tint, std::string_view kind, std::string_view text);
  void wipe_progress();

  using clock = std::chrono::steady_clock;
  const globals options_;
  const std::string command_;
  struct document;  // of the JSON library, which few sources need to see
  const std::unique_ptr<document> document_;
  exit_status status_ = exit_status::good;
  bool output_has_terminal_;
  bool output_has_colors_;
  bool errors_have_colors_;
  bool shows_progress_;
  bool progress_shown_ = false;
  bool written_ = false;
  clock::time_point started_;
  clock::time_point redrawn_;
};

}  // namespace image
