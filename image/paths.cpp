// Paths as they are given, used and told, and those that an image cannot have.
#include "image/paths.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "flashfs/format.h"
#include "image/text.h"

namespace image {

namespace {

// The name under which the file system gives the whole device instead of a file.
constexpr std::string_view raw_device_name = "...";

}  // namespace

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

bool is_directory_at(const volume::files& files, const std::string& path) {
  ppc_stat status;
  return status_of(files, path, &status) == 0 && is_directory(status);
}

std::string_view name_of_path(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::string_view folder_of_path(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

std::string name_fault(std::string_view name) {
  if (name.empty()) {
    return "an empty name";
  }
  if (name == "." || name == "..") {
    return "the name stands for a folder of the host, where nobody could take it out";
  }
  if (name.size() > filename_max) {
    return "the name has " + std::to_string(name.size()) + " bytes, at most " +
           std::to_string(filename_max) + " are possible";
  }
  const std::string text(name);
  if (text.size() != strlen(text.c_str())) {
    return "the name holds a zero byte";
  }
  const int illegal = filename_illegal_char(text.c_str());
  const char byte = static_cast<char>(illegal);
  if (illegal > ' ' && illegal < 0x7F) {
    return "the name holds the character " + std::string(1, byte);
  }
  return illegal == 0 ? "" : "the name holds the byte 0x" + hexadecimal({&byte, 1});
}

std::string path_size_fault(std::string_view path) {
  if (path == raw_device_name) {
    return "this name stands for the whole device";
  }
  return path.size() <= tree_path_max
             ? ""
             : "the path has " + std::to_string(path.size()) + " bytes, at most " +
                   std::to_string(tree_path_max) + " are possible";
}

std::string path_fault(std::string_view path) {
  std::string fault = path_size_fault(path);
  for (size_t begin = 0; fault.empty() && begin <= path.size();) {
    const size_t end = std::min(path.find('/', begin), path.size());
    fault = name_fault(path.substr(begin, end - begin));
    begin = end + 1;
  }
  return fault;
}

}  // namespace image
