// What is told about an image: one record for each thing that is wrong with it, or worth knowing,
// with a code that stays the same from version to version. All codes stand in one table, from which
// docs/flashfs-image-codes.md is made.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace image {

enum class severity { info, warning, error };

// "info", "warning", "error".
const char* severity_text(severity value);

// A row of the table.
struct finding_code {
  const char* code;
  image::severity severity;
  const char* meaning;     // one line, for the document
  const char* what_to_do;  // one line; "nothing"
};

// The table, in the order of the document.
std::span<const finding_code> finding_codes();
// The row of a code; null when there is none.
const finding_code* find_code(std::string_view code);
// The document that is made of the table.
std::string finding_codes_document();

struct finding {
  const char* code = "";  // of the table
  image::severity severity = image::severity::info;
  std::optional<uint64_t> offset;  // bytes into the image
  std::optional<uint64_t> length;  // bytes from there; nothing: the record that stands there
  std::optional<uint32_t> block;
  std::optional<uint32_t> sector;  // of the block
  std::optional<uint32_t> slot;    // of the sector
  std::string path;                // raw bytes, from the root, "/a/b"; empty when there is none
  std::string text;                // one line for people, without the place
};

// A finding with the severity that the table gives its code, which must be in it.
finding make_finding(std::string_view code, std::string text);

}  // namespace image
