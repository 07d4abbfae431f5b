// The text form of steps: the kind's name, then its fields in the order of the table below. Bytes
// of paths that would be hard to read are written as %xx, the empty path as a single %.
#include "tests/model/model_operation.h"

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <utility>

namespace model_test {

namespace {

struct kind_form {
  const char* name;
  const char* fields;  // h handle, p and q paths, a and b numbers
};

constexpr kind_form forms[step_kinds] = {
    {"open", "hpab"},       {"open_by_id", "hab"}, {"close", "h"},      {"read", "ha"},
    {"write", "hab"},       {"seek", "hab"},       {"truncate", "ha"},  {"getdents", "ha"},
    {"fstat", "h"},         {"fverify", "h"},      {"file_name", "h"},  {"file_info", "h"},
    {"file_control", "ha"}, {"chmod", "pa"},       {"remove", "p"},     {"rename", "pq"},
    {"mkdir", "pa"},        {"rmdir", "p"},        {"stat", "p"},       {"istat", "pa"},
    {"statfs", "p"},        {"verify", "p"},       {"highest_id", "p"}, {"path_control", "pa"},
    {"format", "a"},        {"check", "a"},        {"remount", "a"},    {"raw_copy", "a"},
    {"advance_clock", "a"}, {"compare", ""},
};

std::string encoded(const std::string& path) {
  if (path.empty()) {
    return "%";
  }
  std::string text;
  for (const char each : path) {
    const auto byte = static_cast<unsigned char>(each);
    if (byte > ' ' && byte < 0x7F && byte != '%' && byte != '"' && byte != '\\') {
      text += each;
      continue;
    }
    char escaped[4];
    snprintf(escaped, sizeof escaped, "%%%02x", byte);
    text += escaped;
  }
  return text;
}

std::string decoded(const std::string& text) {
  std::string path;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && text.size() - i > 2) {
      path += static_cast<char>(std::strtol(text.substr(i + 1, 2).c_str(), nullptr, 16));
      i += 2;
    } else if (text[i] != '%') {
      path += text[i];
    }
  }
  return path;
}

bool read_field(std::istringstream& in, char field, step* one) {
  std::string word;
  if (!(in >> word)) {
    return false;
  }
  switch (field) {
    case 'h':
      one->handle = static_cast<uint32_t>(std::strtoul(word.c_str(), nullptr, 0)) % handle_count;
      return true;
    case 'p':
      one->path = decoded(word);
      return true;
    case 'q':
      one->second_path = decoded(word);
      return true;
    case 'a':
      one->a = std::strtoll(word.c_str(), nullptr, 0);
      return true;
    default:
      one->b = std::strtoll(word.c_str(), nullptr, 0);
      return true;
  }
}

}  // namespace

const char* kind_name(step_kind kind) {
  return forms[static_cast<size_t>(kind)].name;
}

std::string to_text(const step& one) {
  const kind_form& form = forms[static_cast<size_t>(one.kind)];
  std::ostringstream out;
  out << form.name;
  for (const char* field = form.fields; *field != '\0'; ++field) {
    out << ' ';
    switch (*field) {
      case 'h':
        out << one.handle;
        break;
      case 'p':
        out << encoded(one.path);
        break;
      case 'q':
        out << encoded(one.second_path);
        break;
      case 'a':
        out << one.a;
        break;
      default:
        out << one.b;
        break;
    }
  }
  return out.str();
}

std::optional<step> step_from_text(std::string_view line) {
  std::istringstream in{std::string(line)};
  std::string name;
  in >> name;
  for (size_t kind = 0; kind < step_kinds; ++kind) {
    if (name != forms[kind].name) {
      continue;
    }
    step one;
    one.kind = static_cast<step_kind>(kind);
    for (const char* field = forms[kind].fields; *field != '\0'; ++field) {
      if (!read_field(in, *field, &one)) {
        return std::nullopt;
      }
    }
    return one;
  }
  return std::nullopt;
}

std::vector<step> steps_from_text(std::string_view text, std::string* bad) {
  std::vector<step> steps;
  while (!text.empty()) {
    const size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (line.find_first_not_of(" \t\r") == std::string_view::npos) {
      continue;
    }
    if (std::optional<step> one = step_from_text(line)) {
      steps.push_back(std::move(*one));
    } else {
      *bad += std::string(line) + "\n";
    }
  }
  return steps;
}

std::vector<uint8_t> written_bytes(size_t length, int64_t fill) {
  std::vector<uint8_t> bytes(length);
  auto state = static_cast<uint32_t>(fill) * 2654435761U + 12345U;
  for (uint8_t& byte : bytes) {
    state = state * 1664525U + 1013904223U;
    byte = static_cast<uint8_t>(state >> 24);
  }
  return bytes;
}

}  // namespace model_test
