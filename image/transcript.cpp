// Finding the dump's lines in a transcript and merging them by address.
#include "image/transcript.h"

#include <algorithm>
#include <array>
#include <utility>

#include "flashfs/format.h"

namespace image {

namespace {

constexpr size_t line_bytes = 32;
constexpr size_t group_bytes = 4;
constexpr size_t address_size = 14;   // characters: "0x", eight digits, four spaces
constexpr size_t spaces_to_text = 5;  // from the last digit on
constexpr size_t line_size_max = 1U << 16;
constexpr int parts_of_broken_line = 4;  // a terminal of 40 columns makes so many
constexpr int not_a_digit = -1;

constexpr char escape = '\x1b';
constexpr char bell = '\a';
constexpr char backspace = '\b';
constexpr char del = '\x7f';

constexpr std::array<int8_t, 256> make_digits() {
  std::array<int8_t, 256> digits{};
  digits.fill(not_a_digit);
  for (size_t i = 0; i < 10; ++i) {
    digits['0' + i] = static_cast<int8_t>(i);
  }
  for (size_t i = 0; i < 6; ++i) {
    digits['a' + i] = static_cast<int8_t>(10 + i);
    digits['A' + i] = static_cast<int8_t>(10 + i);
  }
  return digits;
}
constexpr std::array<int8_t, 256> digits = make_digits();

int digit_at(std::string_view text, size_t at) {
  return at < text.size() ? digits[static_cast<unsigned char>(text[at])] : not_a_digit;
}

// Behind an escape sequence that begins at `at`.
size_t behind_escape(std::string_view raw, size_t at) {
  if (++at >= raw.size()) {
    return at;
  }
  const char kind = raw[at++];
  if (kind == '[') {  // parameters, then one letter
    while (at < raw.size() && (raw[at] < '@' || raw[at] > '~')) {
      ++at;
    }
    return std::min(at + 1, raw.size());
  }
  if (kind == ']') {  // a text, up to a bell or another escape
    while (at < raw.size() && raw[at] != bell && raw[at] != escape) {
      ++at;
    }
    return at < raw.size() && raw[at] == escape ? std::min(at + 2, raw.size())
                                                : std::min(at + 1, raw.size());
  }
  return kind == '(' || kind == ')' ? std::min(at + 1, raw.size()) : at;
}

bool is_plain(std::string_view raw) {
  return std::all_of(raw.begin(), raw.end(),
                     [](char one) { return static_cast<unsigned char>(one) >= ' '; });
}

// What a person saw of the line.
void make_plain(std::string_view raw, std::string* plain) {
  plain->clear();
  for (size_t at = 0; at < raw.size();) {
    const char one = raw[at];
    if (one == escape) {
      at = behind_escape(raw, at);
      continue;
    }
    ++at;
    if (one == backspace && !plain->empty()) {
      plain->pop_back();
    } else if (static_cast<unsigned char>(one) >= ' ') {
      plain->push_back(one);
    }
  }
}

// Where a dump's line begins in a line, or npos. A prompt may stand before it.
size_t find_address(std::string_view line) {
  for (size_t at = line.find("0x"); at != std::string_view::npos; at = line.find("0x", at + 1)) {
    size_t digit = 0;
    while (digit < 8 && digit_at(line, at + 2 + digit) != not_a_digit) {
      ++digit;
    }
    if (digit == 8 && line.substr(at + 10, 4) == "    ") {
      return at;
    }
  }
  return std::string_view::npos;
}

uint32_t address_of(std::string_view line) {
  uint32_t address = 0;
  for (size_t i = 2; i < 10; ++i) {
    address = address << 4 | static_cast<uint32_t>(digit_at(line, i));
  }
  return address;
}

// Whether the text of a line says what its bytes say. It may be cut short at its end, where there
// were spaces or where the terminal has broken the line, and terminals swallow 0x7F.
bool text_agrees(std::string_view text, const uint8_t* bytes) {
  std::string expected;
  for (size_t i = 0; i < line_bytes; ++i) {
    expected += bytes[i] >= ' ' && bytes[i] <= del ? static_cast<char>(bytes[i]) : '.';
  }
  if (expected.starts_with(text.substr(0, line_bytes))) {
    return true;
  }
  std::erase(expected, del);
  return expected.starts_with(text.substr(0, expected.size()));
}

enum class reading { whole, broken, wrong };

// Reads a line that begins with its address. Broken: it is one as far as it goes.
reading read_line(std::string_view line, uint8_t* bytes) {
  size_t at = address_size;
  for (size_t i = 0; i < line_bytes; ++i) {
    while (i % group_bytes == 0 && at < line.size() && line[at] == ' ') {
      ++at;
    }
    const int high = digit_at(line, at);
    const int low = digit_at(line, at + 1);
    if (high == not_a_digit || low == not_a_digit) {
      const bool ends = at >= line.size() || (high != not_a_digit && at + 1 == line.size());
      return ends ? reading::broken : reading::wrong;
    }
    bytes[i] = static_cast<uint8_t>(high << 4 | low);
    at += 2;
  }
  const std::string_view spaces = line.substr(at, spaces_to_text);
  if (spaces.find_first_not_of(' ') != std::string_view::npos) {
    return reading::wrong;
  }
  return text_agrees(line.substr(at + spaces.size()), bytes) ? reading::whole : reading::wrong;
}

const char* text_of(transcript_problem::kind what) {
  switch (what) {
    case transcript_problem::kind::hole:
      return "nothing tells these bytes, left erased";
    case transcript_problem::kind::contradiction:
      return "other bytes than before, the later ones count: ";
    default:
      return "a line of a dump that cannot be read: ";
  }
}

}  // namespace

transcript_merge::transcript_merge(uint32_t size_bytes)
    : bytes_(size_bytes, flash_erased_byte), known_(size_bytes, false) {}

void transcript_merge::begin(std::string name) {
  name_ = std::move(name);
  line_number_ = 0;
}

void transcript_merge::feed(std::string_view piece) {
  while (!piece.empty()) {
    const size_t end = piece.find('\n');
    if (end == std::string_view::npos || !rest_.empty()) {
      const size_t taken = std::min(end, piece.size());
      rest_.append(piece.substr(0, taken));
      piece.remove_prefix(taken);
      if (piece.empty() && rest_.size() <= line_size_max) {
        return;
      }
      const std::string line = std::exchange(rest_, {});
      take_raw_line(line);
    } else {
      take_raw_line(piece.substr(0, end));
      piece.remove_prefix(end);
    }
    piece.remove_prefix(piece.empty() ? 0 : 1);  // the line's end
  }
}

void transcript_merge::end() {
  const std::string line = std::exchange(rest_, {});
  take_raw_line(line);
  give_up_pending();
}

// Carriage returns end a line as well: behind one the terminal began to write over it.
void transcript_merge::take_raw_line(std::string_view raw) {
  ++line_number_;
  while (!raw.empty()) {
    const size_t end = std::min(raw.find('\r'), raw.size());
    const std::string_view part = raw.substr(0, end);
    raw.remove_prefix(std::min(end + 1, raw.size()));
    if (is_plain(part)) {
      take_line(part);
    } else {
      make_plain(part, &plain_);
      take_line(plain_);
    }
  }
}

void transcript_merge::take_line(std::string_view line) {
  if (line.empty()) {
    return;
  }
  const size_t begin = find_address(line);
  if (begin == std::string_view::npos) {
    take_continuation(line);
    return;
  }
  give_up_pending();
  line.remove_prefix(begin);
  uint8_t bytes[line_bytes];
  switch (read_line(line, bytes)) {
    case reading::whole:
      store(address_of(line), bytes);
      return;
    case reading::broken:
      pending_ = line;
      pending_parts_ = 1;
      return;
    case reading::wrong:
      note(&unreadable_, address_of(line), line_bytes);
      return;
  }
}

void transcript_merge::take_continuation(std::string_view line) {
  if (pending_.empty()) {
    return;
  }
  const std::string longer = pending_ + std::string(line);
  uint8_t bytes[line_bytes];
  const reading result = read_line(longer, bytes);
  if (result == reading::whole) {
    store(address_of(longer), bytes);
    pending_.clear();
  } else if (result == reading::broken && ++pending_parts_ < parts_of_broken_line) {
    pending_ = longer;
  } else {
    give_up_pending();
  }
}

void transcript_merge::give_up_pending() {
  if (!pending_.empty()) {
    note(&unreadable_, address_of(pending_), line_bytes);
    pending_.clear();
  }
}

void transcript_merge::store(uint32_t address, const uint8_t* line_bytes_read) {
  ++lines_;
  const auto size = static_cast<uint32_t>(bytes_.size());
  for (uint32_t i = 0; i < line_bytes; ++i) {
    const uint32_t offset = (address % size + i) % size;
    if (known_[offset] && bytes_[offset] != line_bytes_read[i]) {
      note(&contradictions_, offset, 1);
    }
    known_count_ += known_[offset] ? 0 : 1;
    known_[offset] = true;
    bytes_[offset] = line_bytes_read[i];
  }
}

// Neighbours become one range, and so does what is in one line.
void transcript_merge::note(std::vector<range>* ranges, uint32_t offset, uint32_t length) {
  offset %= static_cast<uint32_t>(bytes_.size());
  if (!ranges->empty()) {
    range& last = ranges->back();
    const uint32_t end = last.offset + last.length;
    if (end == offset || (end < offset && last.where == where())) {
      last.length = offset + length - last.offset;
      return;
    }
  }
  ranges->push_back({offset, length, where()});
}

std::string transcript_merge::where() const {
  return name_ + ", line " + std::to_string(line_number_);
}

bool transcript_merge::is_known(uint32_t offset, uint32_t length) const {
  for (uint32_t i = 0; i < length; ++i) {
    if (!known_[(offset + i) % bytes_.size()]) {
      return false;
    }
  }
  return true;
}

std::vector<transcript_problem> transcript_merge::problems() const {
  using kind = transcript_problem::kind;
  std::vector<transcript_problem> found;
  for (auto at = known_.begin(); at != known_.end();) {
    const auto begin = std::find(at, known_.end(), false);
    at = std::find(begin, known_.end(), true);
    if (begin != at) {
      // In place: g++ 12 sees a move of a literal's text run out of bounds, and takes it for an
      // error.
      transcript_problem& hole = found.emplace_back();
      hole.what = kind::hole;
      hole.offset = static_cast<uint32_t>(begin - known_.begin());
      hole.length = static_cast<uint32_t>(at - begin);
      hole.text = text_of(kind::hole);
    }
  }
  for (const range& one : contradictions_) {
    found.push_back(
        {kind::contradiction, one.offset, one.length, text_of(kind::contradiction) + one.where});
  }
  for (const range& one : unreadable_) {
    if (!is_known(one.offset, one.length)) {
      found.push_back(
          {kind::unreadable, one.offset, one.length, text_of(kind::unreadable) + one.where});
    }
  }
  std::stable_sort(found.begin(), found.end(),
                   [](const transcript_problem& problem, const transcript_problem& other) {
                     return problem.offset < other.offset;
                   });
  return found;
}

}  // namespace image
