// Bytes as text for people and for JSON: names that damaged flash or a hostile archive made up must
// neither steer a terminal nor break a document.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace image {

// Control bytes, backslashes and what is no UTF-8 as \n, \\, \x1b; everything else as it is.
std::string escaped(std::string_view raw);
bool is_utf8(std::string_view raw);
// Two lower-case digits for each byte.
std::string hexadecimal(std::string_view raw);

// "1 sector", "2 sectors"; where an s does not make the plural, it is given.
std::string counted(uint64_t count, std::string_view one, std::string_view many = {});

// A number, decimal or with 0x hexadecimal; a K or M behind it stands for so many times 1024 or
// 1048576. Nothing when the text is none, or it is too large.
std::optional<uint64_t> parse_size(std::string_view text);

// An octal mode of 0 to 777; nothing when the text is none.
std::optional<uint32_t> parse_mode(std::string_view text);

// What errno means in an image, for a person.
std::string error_text(int error);

// "2023-11-14 22:13:20", in UTC, of seconds since 1970.
std::string date_text(uint32_t seconds);
// "12.3 MiB", "512 bytes".
std::string size_text(uint64_t bytes);

}  // namespace image
