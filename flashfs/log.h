// How the file system speaks and fails: its message lines, the line that marks it down, errno.
#pragma once

#include <cstdint>

#include "flashfs/flashfs.h"

// Prints one message line: "flashfs[<fsid>]: ", the text, a newline.
void flashfs_log(const flashfs* fs, const char* format, ...) __attribute__((format(printf, 2, 3)));
// The same without the newline.
void flashfs_log_open(const flashfs* fs, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
// The shared strings that begin and end every message line.
extern const char* const flashfs_log_prefix;
extern const char* const flashfs_log_suffix;

// Says that the file system is down and makes it so: operations are refused until a check has
// passed. An operation that fails gets here through flashfs_finish.
void flashfs_mark_down(flashfs* fs);

// Sets errno and returns -1.
int32_t flashfs_fail(int error);
