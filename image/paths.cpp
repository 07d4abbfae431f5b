// Paths as they are given, used and told, and why something cannot be.
#include "image/paths.h"

#include <cerrno>
#include <charconv>
#include <cstring>

#include "flashfs/format.h"

namespace image {

std::string inside_path(std::string_view given) {
  std::string path;
  for (size_t at = 0; at < given.size();) {
    const size_t slash = given.find('/', at);
    const size_t end = slash == std::string_view::npos ? given.size() : slash;
    if (end > at) {
      path = joined_path(path, given.substr(at, end - at));
    }
    at = end + 1;
  }
  return path;
}

std::string told_path(std::string_view path) {
  return "/" + std::string(path);
}

std::string joined_path(std::string_view directory, std::string_view name) {
  std::string path(directory);
  if (!path.empty()) {
    path += '/';
  }
  return path.append(name);
}

int32_t status_of(const volume::files& files, const std::string& path, ppc_stat* status) {
  return files.stat(path.empty() ? "/" : path, status);
}

int32_t status_of_given(const volume::files& files, std::string_view given, ppc_stat* status) {
  const int32_t result = status_of(files, inside_path(given), status);
  if (result == 0 && given.ends_with('/') && !is_directory(*status)) {
    errno = ENOTDIR;
    return -1;
  }
  return result;
}

bool is_directory(const ppc_stat& status) {
  return is_directory_mode(status.mode);
}

std::optional<uint32_t> parse_mode(std::string_view text) {
  constexpr int octal = 8;
  uint32_t mode = 0;
  const char* end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, mode, octal);
  return result.ec == std::errc() && result.ptr == end && mode <= ppc_mode_permissions
             ? std::optional(mode)
             : std::nullopt;
}

std::string error_text(int error) {
  switch (error) {
    case ENOENT:
      return "no such file or directory";
    case EEXIST:
      return "is there already";
    case ENOTDIR:
      return "not a directory";
    case EISDIR:
      return "is a directory";
    case ENOTEMPTY:
      return "the directory is not empty";
    case ENOSPC:
      return "no space left in the image";
    case EIO:
      return "cannot be read: the image is damaged here";
    case ENAMETOOLONG:
      return "the name or path is too long";
    case EINVAL:
      return "this cannot be done with it";
    default:
      return std::strerror(error);
  }
}

}  // namespace image
