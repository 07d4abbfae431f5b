// The console is standard output.
#include "ifs/console.h"

#include <cstdio>

void console_print(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  console_print_list(format, arguments);
  va_end(arguments);
}

void console_print_list(const char* format, va_list arguments) {
  vprintf(format, arguments);
}
