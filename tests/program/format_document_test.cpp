// The dump in docs/format.md is that of a stored image, byte for byte, and the checksums that it
// claims are right. Lines of the document that are looked at, each indented as code:
//
//   0020008: b9 c6                 | these bytes stand at this offset (hexadecimal)
//   crc at 0020004 over 6 = e2f0   | the checksum of so many bytes from an offset
//   crc of 65 53 f1 00 = b9c6      | the checksum of these bytes
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "ifs/crc.h"
#include "tests/support/image_builder.h"
#include "tests/support/run_program.h"
#include "tests/support/stored_image.h"

namespace {

const std::string document_path = TESTS_FOLDER "/../docs/format.md";

constexpr size_t indentation = 4;
constexpr size_t offset_digits = 7;

bool is_lower_hex(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

// A number of exactly so many digits; false when it is anything else.
bool parse_hex(const std::string& text, size_t digits, size_t* value) {
  *value = strtoul(text.c_str(), nullptr, 16);
  return text.size() == digits && is_lower_hex(text);
}

// The next bytes of the line, up to a word that is none, which comes back.
std::string parse_bytes(std::istringstream& words, std::string* bytes) {
  std::string word;
  size_t value = 0;
  while (words >> word && parse_hex(word, 2, &value)) {
    *bytes += static_cast<char>(value);
  }
  return word;
}

// What the lines of the document say, and which of them are wrong.
struct findings {
  std::map<size_t, size_t> shown;  // offset in the image, bytes shown there
  int checksums = 0;
  std::vector<std::string> wrong;
};

bool is_claim(const std::string& line) {
  return line.compare(0, indentation + 4, "    crc ") == 0 ||
         (line.compare(0, indentation, "    ") == 0 && line.size() > indentation + offset_digits &&
          line[indentation + offset_digits] == ':' &&
          is_lower_hex(line.substr(indentation, offset_digits)));
}

// "b9 c6 | ..." at an offset of the image.
bool bytes_are_right(std::istringstream& words, size_t offset, const std::string& image,
                     findings* found) {
  std::string bytes;
  const std::string rest = parse_bytes(words, &bytes);
  found->shown[offset] = bytes.size();
  return rest == "|" && !bytes.empty() && image.compare(offset, bytes.size(), bytes) == 0;
}

// "at 0020004 over 6 = e2f0 | ..." or "of 65 53 f1 00 = b9c6 | ...", by the product's checksum and
// by the one that shares no code with it.
bool checksum_is_right(std::istringstream& words, const std::string& image, findings* found) {
  found->checksums++;
  std::string kind;
  std::string covered;
  std::string equals;
  words >> kind;
  if (kind == "of") {
    equals = parse_bytes(words, &covered);
  } else {
    std::string offset_text;
    std::string over;
    size_t offset = 0;
    size_t length = 0;
    words >> offset_text >> over >> length >> equals;
    if (kind != "at" || over != "over" || !parse_hex(offset_text, offset_digits, &offset) ||
        offset > image.size()) {
      return false;
    }
    covered = image.substr(offset, length);
  }
  std::string claimed_text;
  std::string bar;
  size_t claimed = 0;
  words >> claimed_text >> bar;
  return equals == "=" && bar == "|" && parse_hex(claimed_text, 4, &claimed) &&
         test_support::image_crc(covered.data(), covered.size()) == claimed &&
         generate_crc(static_cast<uint32_t>(covered.size()), covered.data()) == claimed;
}

findings judge(const std::string& document, const std::string& image) {
  findings found;
  std::istringstream lines(document);
  for (std::string line; std::getline(lines, line);) {
    if (!is_claim(line)) {
      continue;
    }
    std::istringstream words(line);
    std::string first;
    words >> first;
    const bool right =
        first == "crc" ? checksum_is_right(words, image, &found)
                       : bytes_are_right(words, strtoul(first.c_str(), nullptr, 16), image, &found);
    if (!right) {
      found.wrong.push_back(line);
    }
  }
  return found;
}

class format_document : public testing::Test {
 protected:
  const std::string document = test_support::read_whole_file(document_path);
  const std::string image = test_support::read_stored_image("basic");
};

}  // namespace

TEST_F(format_document, shows_the_bytes_and_checksums_of_the_image) {
  const findings found = judge(document, image);
  EXPECT_EQ(found.wrong, std::vector<std::string>{});
  EXPECT_EQ(found.checksums, 14);
}

TEST_F(format_document, shows_headers_slots_and_a_data_sector) {
  const findings found = judge(document, image);
  size_t bytes = 0;
  for (const auto& [offset, count] : found.shown) {
    bytes += count;
  }
  EXPECT_EQ(bytes, 162U);
  // The fields of block 1's header, of the slots of the root and of a file, and of a data sector.
  for (const size_t offset :
       {0x20000, 0x20004, 0x20008, 0x2000A, 0x2000C, 0x2000D, 0x207E4, 0x207E6, 0x207E8,
        0x207EA, 0x207EC, 0x207F0, 0x207F4, 0x20822, 0x207A4, 0x207A6, 0x207A8, 0x207AA,
        0x207AC, 0x207B0, 0x207B4, 0x207E2, 0x20828, 0x2082A, 0x2082C, 0x2102C, 0x2102E}) {
    EXPECT_EQ(found.shown.count(offset), 1U) << std::hex << offset;
  }
}

TEST_F(format_document, does_not_pass_with_any_digit_changed) {
  std::istringstream lines(document);
  int changed = 0;
  for (std::string line; std::getline(lines, line);) {
    if (!is_claim(line)) {
      continue;
    }
    // Not the offset: the same record may stand elsewhere.
    const size_t over = line.find("over ");
    for (size_t i = over != std::string::npos ? over + 5 : indentation + offset_digits;
         line[i] != '|'; i++) {
      if (!is_lower_hex(line.substr(i, 1))) {
        continue;
      }
      std::string other = line;
      other[i] = line[i] == '0' ? '1' : '0';
      EXPECT_EQ(judge(other, image).wrong.size(), 1U) << other;
      changed++;
    }
  }
  EXPECT_GT(changed, 300);
}
