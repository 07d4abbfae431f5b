// Opening what a command names as its source.
#include "image/source.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "image/host_file.h"
#include "image/interrupt.h"
#include "image/tar.h"

namespace image {

namespace {

std::optional<tree> read_any(const std::string& from, const tree_options& options, report& out) {
  if (from == "-") {
    return read_tar(STDIN_FILENO, options);
  }
  struct stat status = {};
  const descriptor opened(open(from.c_str(), O_RDONLY | O_CLOEXEC));
  if (!opened || fstat(opened.get(), &status) != 0) {
    if (!interrupted()) {
      out.fail(exit_status::failed, strerror(errno), from);
    }
    return std::nullopt;
  }
  return S_ISDIR(status.st_mode) ? read_folder(from, options) : read_tar(opened.get(), options);
}

}  // namespace

std::optional<tree> read_source(const std::string& from, const tree_options& options, report& out) {
  std::optional<tree> made = read_any(from, options, out);
  // What a signal has cut short is no source, and what is wrong with it means nothing.
  if (!made || interrupted()) {
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
