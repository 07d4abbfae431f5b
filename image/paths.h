// Paths inside an image, as the commands take them: absolute, with or without the slash that begins
// them. Inside the tool the root is "" and "/a//b/" is "a/b", as volume::files wants them.
#pragma once

#include <cstdint>
#include <optional>
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

// An octal mode of 0 to 777; nothing when the text is none.
std::optional<uint32_t> parse_mode(std::string_view text);

// What errno means here.
std::string error_text(int error);

}  // namespace image
