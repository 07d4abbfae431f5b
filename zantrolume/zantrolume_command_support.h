// What the sources of the commands share: reporting errors and starting the file system. Not for
// anyone else.
#pragma once

// Prints the text of a system error on standard error, behind "prefix: " unless that is empty.
// Flushes standard output first, so that a terminal shows both in order.
void report_error(const char* prefix, int error);

// Starts the file system for a command. False, after a message, when it cannot be.
bool start_or_abort();
