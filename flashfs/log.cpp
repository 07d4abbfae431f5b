// How the file system speaks and fails.
#include "flashfs/log.h"

#include <cerrno>
#include <cstdarg>

const char* const flashfs_log_prefix = "";
const char* const flashfs_log_suffix = "\n";

namespace {

void log_line(const flashfs* fs, const char* format, va_list arguments, const char* suffix) {
  console_print("%sflashfs[%d]: ", flashfs_log_prefix, fs->fsid);
  console_print_list(format, arguments);
  console_print("%s", suffix);
}

}  // namespace

void flashfs_log(const flashfs* fs, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  log_line(fs, format, arguments, flashfs_log_suffix);
  va_end(arguments);
}

void flashfs_log_open(const flashfs* fs, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  log_line(fs, format, arguments, "");
  va_end(arguments);
}

void flashfs_mark_down(flashfs* fs) {
  flashfs_log(fs, "filesystem marked down.  Use \"fsck\" to recover.");
  fs->ready = 0;
}

int32_t flashfs_fail(int error) {
  errno = error;
  return -1;
}
