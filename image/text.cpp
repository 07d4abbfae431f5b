// Escapes, hexadecimal digits, dates and sizes.
#include "image/text.h"

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "ifs/ifs.h"

namespace image {

namespace {

constexpr char digits[] = "0123456789abcdef";

uint8_t byte_at(std::string_view text, size_t at) {
  return static_cast<uint8_t>(text[at]);
}

bool is_continuation(std::string_view text, size_t at) {
  return at < text.size() && (byte_at(text, at) & 0xC0) == 0x80;
}

// The length of the character that stands at a place, or 0 when none does: cut short, longer than
// need be, a surrogate or beyond Unicode.
size_t character_length(std::string_view text, size_t at) {
  const uint8_t first = byte_at(text, at);
  if (first < 0x80) {
    return 1;
  }
  const size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4) {
    return 0;
  }
  for (size_t i = 1; i < length; ++i) {
    if (!is_continuation(text, at + i)) {
      return 0;
    }
  }
  const uint8_t second = byte_at(text, at + 1);
  const bool wrong = (first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F) ||
                     (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F);
  return wrong ? 0 : length;
}

// Whether a terminal may take the character as a command: C0, DEL and C1.
bool is_control(std::string_view character) {
  const uint8_t first = byte_at(character, 0);
  return first < 0x20 || first == 0x7F ||
         (character.size() == 2 && first == 0xC2 && byte_at(character, 1) < 0xA0);
}

void append_escape(std::string* to, char byte) {
  switch (byte) {
    case '\n':
      *to += "\\n";
      return;
    case '\r':
      *to += "\\r";
      return;
    case '\t':
      *to += "\\t";
      return;
    case '\\':
      *to += "\\\\";
      return;
    default:
      *to += "\\x" + hexadecimal({&byte, 1});
  }
}

}  // namespace

std::string escaped(std::string_view raw) {
  std::string text;
  for (size_t at = 0; at < raw.size();) {
    const size_t length = character_length(raw, at);
    const std::string_view character = raw.substr(at, length == 0 ? 1 : length);
    if (length != 0 && !is_control(character) && character != "\\") {
      text += character;
    } else {
      for (const char byte : character) {
        append_escape(&text, byte);
      }
    }
    at += character.size();
  }
  return text;
}

bool is_utf8(std::string_view raw) {
  for (size_t at = 0; at < raw.size();) {
    const size_t length = character_length(raw, at);
    if (length == 0) {
      return false;
    }
    at += length;
  }
  return true;
}

std::string hexadecimal(std::string_view raw) {
  std::string text;
  for (const char byte : raw) {
    text += digits[static_cast<uint8_t>(byte) >> 4];
    text += digits[static_cast<uint8_t>(byte) & 0xF];
  }
  return text;
}

std::string counted(uint64_t count, std::string_view one, std::string_view many) {
  std::string text = std::to_string(count) + " ";
  if (count == 1) {
    return text.append(one);
  }
  return many.empty() ? text.append(one).append("s") : text.append(many);
}

std::optional<uint64_t> parse_size(std::string_view text) {
  uint64_t unit = 1;
  if (text.ends_with('k') || text.ends_with('K')) {
    unit = 1 << 10;
  } else if (text.ends_with('m') || text.ends_with('M')) {
    unit = 1 << 20;
  }
  text.remove_suffix(unit != 1 ? 1 : 0);
  const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
  text.remove_prefix(hexadecimal ? 2 : 0);
  uint64_t number = 0;
  const char* end = text.data() + text.size();
  const auto read = std::from_chars(text.data(), end, number, hexadecimal ? 16 : 10);
  if (read.ec != std::errc() || read.ptr != end || number > UINT64_MAX / unit) {
    return std::nullopt;
  }
  return number * unit;
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

std::string date_text(uint32_t seconds) {
  // Not by the C library: its time_t may have 32 bits and a sign.
  const std::chrono::sys_seconds time{std::chrono::seconds(int64_t{seconds})};
  const auto day = std::chrono::floor<std::chrono::days>(time);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss<std::chrono::seconds> clock(time - day);
  char text[64];
  snprintf(text, sizeof(text), "%04d-%02u-%02u %02d:%02d:%02d", static_cast<int>(date.year()),
           static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
           static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
           static_cast<int>(clock.seconds().count()));
  return text;
}

std::string size_text(uint64_t bytes) {
  char text[64];
  constexpr uint64_t mebibyte = 1 << 20;
  constexpr uint64_t kibibyte = 1 << 10;
  if (bytes >= mebibyte) {
    snprintf(text, sizeof(text), "%.1f MiB", static_cast<double>(bytes) / mebibyte);
  } else if (bytes >= kibibyte) {
    snprintf(text, sizeof(text), "%.1f KiB", static_cast<double>(bytes) / kibibyte);
  } else {
    snprintf(text, sizeof(text), "%u bytes", static_cast<unsigned>(bytes));
  }
  return text;
}

}  // namespace image
