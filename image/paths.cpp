// Paths, names, and why something cannot be.
#include "image/paths.h"

#include <cerrno>
#include <cstring>

#include "flashfs/format.h"
#include "image/text.h"

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

std::string_view last_name(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::string_view parent_path(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

int32_t status_of(const volume::files& files, const std::string& path, ppc_stat* status) {
  return files.stat(path.empty() ? "/" : path, status);
}

bool is_directory(const ppc_stat& status) {
  return is_directory_mode(status.mode);
}

std::string name_objection(std::string_view name) {
  if (name.empty()) {
    return "the name is empty";
  }
  if (name.size() > filename_max) {
    return "the name has " + std::to_string(name.size()) + " bytes, at most " +
           std::to_string(filename_max) + " are possible";
  }
  const std::string text(name);
  const int illegal =
      text.find('\0') != std::string::npos ? '\0' : filename_illegal_char(text.c_str());
  if (illegal != 0) {
    const auto byte = static_cast<char>(illegal);
    const bool printable = illegal > ' ' && illegal < 0x7F;
    return std::string("the name has a character that cannot stand in one, ") +
           (printable ? "'" + std::string(1, byte) + "'" : "0x" + hexadecimal({&byte, 1}));
  }
  return "";
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
