// Where everything goes that the switch and the file systems say: message lines, the marks of
// erased and written blocks, dumps. Its definition is alone in its object, standard output there,
// so that a program whose standard output is its answer can link another.
#pragma once

#include <cstdarg>

// Prints like printf.
void console_print(const char* format, ...) __attribute__((format(printf, 1, 2)));
// The same with the arguments of somebody else's call.
void console_print_list(const char* format, va_list arguments)
    __attribute__((format(printf, 1, 0)));
