// The console that flashfs-image links in place of standard output.
#include "image/console.h"

#include <cstddef>
#include <cstdio>
#include <string_view>
#include <utility>

#include "ifs/console.h"
#include "image/text.h"

namespace image {

namespace {

struct console_state {
  bool shown = false;
  std::string begun;  // a line that has no end yet
  std::vector<std::string> lines;
};

console_state& state() {
  static console_state only;
  return only;
}

// " eS7 wS7", which stand before a line whenever blocks were erased or written.
std::string_view without_marks(std::string_view line) {
  while (line.size() > 3 && line[0] == ' ' && (line[1] == 'e' || line[1] == 'w') &&
         line[2] == 'S') {
    const size_t end = line.find_first_not_of("0123456789", 3);
    line.remove_prefix(end == std::string_view::npos ? line.size() : end);
  }
  return line;
}

std::string_view without_prefix(std::string_view line) {
  constexpr std::string_view end_of_prefix = "]: ";
  const size_t end = line.find(end_of_prefix);
  return line.starts_with("flashfs[") && end != std::string_view::npos
             ? line.substr(end + end_of_prefix.size())
             : line;
}

void end_line() {
  const std::string_view line = without_prefix(without_marks(state().begun));
  if (state().shown) {
    std::fprintf(stderr, "flashfs-image: file system: %s\n", escaped(line).c_str());
  }
  state().lines.emplace_back(line);
  state().begun.clear();
}

void take_in(std::string_view text) {
  for (const char character : text) {
    if (character == '\n') {
      end_line();
    } else {
      state().begun += character;
    }
  }
}

}  // namespace

void console_show(bool shown) {
  state().shown = shown;
}

std::vector<std::string> console_take() {
  state().begun.clear();
  return std::exchange(state().lines, {});
}

}  // namespace image

void console_print(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  console_print_list(format, arguments);
  va_end(arguments);
}

void console_print_list(const char* format, va_list arguments) {
  char text[1024];
  const int length = vsnprintf(text, sizeof(text), format, arguments);
  if (length > 0) {
    const auto kept = static_cast<size_t>(length);
    image::take_in({text, kept < sizeof(text) ? kept : sizeof(text) - 1});
  }
}
