// Opening what a command names as its source.
#include "image/source.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "image/tar.h"

namespace image {

namespace {

std::optional<tree> read_any(const std::string& from, const tree_options& options, report& out) {
  if (from == "-") {
    return read_tar(STDIN_FILENO, options);
  }
  struct stat status = {};
  const int fd = open(from.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0 || fstat(fd, &status) != 0) {
    out.fail(exit_status::failed, strerror(errno), from);
    if (fd >= 0) {
      close(fd);
    }
    return std::nullopt;
  }
  tree made = S_ISDIR(status.st_mode) ? read_folder(from, options) : read_tar(fd, options);
  close(fd);
  return made;
}

}  // namespace

std::optional<tree> read_source(const std::string& from, const tree_options& options, report& out) {
  std::optional<tree> made = read_any(from, options, out);
  if (!made) {
    return std::nullopt;
  }
  for (const tree_problem& one : made->warnings) {
    out.warn(codes::left_out, one.text, one.path.empty() ? from : one.path);
  }
  for (const tree_problem& one : made->errors) {
    out.fail(exit_status::failed, one.text, one.path.empty() ? from : one.path);
  }
  return out.status() >= exit_status::faults ? std::nullopt : std::move(made);
}

}  // namespace image
