// Paths inside an image, as the commands take them: absolute, with or without the slash that begins
// them. Inside the tool the root is "" and "/a//b/" is "a/b", as volume::files wants them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "ifs/ifs.h"
#include "volume/files.h"

namespace image {

std::string inside_path(std::string_view given);
// "/a/b": as people are told.
std::string told_path(std::string_view path);
std::string joined_path(std::string_view directory, std::string_view name);
// The status of a path, the root's too. 0, or -1 with errno.
[[nodiscard]] int32_t status_of(const volume::files& files, const std::string& path,
                                ppc_stat* status);
// The same of a path as it was given: what ends with a slash is a directory, or ENOTDIR.
[[nodiscard]] int32_t status_of_given(const volume::files& files, std::string_view given,
                                      ppc_stat* status);
bool is_directory(const ppc_stat& status);
// Whether a directory has this path.
[[nodiscard]] bool is_directory_at(const volume::files& files, const std::string& path);

// Longest path, in bytes, that every operation of the file system takes.
constexpr size_t tree_path_max = 318;

// The name of the entry and the path of its folder, empty for the root.
[[nodiscard]] std::string_view name_of_path(std::string_view path);
[[nodiscard]] std::string_view folder_of_path(std::string_view path);

// Why the file system would refuse this name of a file or folder; empty when it would not.
[[nodiscard]] std::string name_fault(std::string_view name);

// The same of a whole path: each name of it, and its length.
[[nodiscard]] std::string path_fault(std::string_view path);
// The same of a path whose names are good.
[[nodiscard]] std::string path_size_fault(std::string_view path);

}  // namespace image
