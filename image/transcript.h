// The flash put together again from what a terminal kept of zantrolume's dumps (`aread`, `sread`):
// any number of transcripts, in any order, with prompts, carriage returns and the terminal's own
// control sequences in between. A line of a dump holds each byte twice, in hexadecimal and, where
// it is text, as text: a line in which the two disagree has suffered on its way and does not count.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace image {

struct transcript_problem {
  enum class kind { hole, contradiction, unreadable };
  kind what;
  uint32_t offset;  // of the first byte in question
  uint32_t length;  // bytes
  std::string text;
};

class transcript_merge {
 public:
  // Addresses count modulo the size of the device in bytes.
  explicit transcript_merge(uint32_t size_bytes = uint32_t{32} << 20);

  // A transcript: its name, for messages; its text, in pieces as they come; its end.
  void begin(std::string name);
  void feed(std::string_view piece);
  void end();

  // What is known of the flash, and erased where nothing is.
  const std::vector<uint8_t>& bytes() const {
    return bytes_;
  }
  uint64_t lines() const {
    return lines_;
  }
  uint64_t known_bytes() const {
    return known_count_;
  }
  // Holes; where transcripts contradict each other (the later one counts); dump lines that could
  // not be read and whose bytes nothing else tells. In the order of their offsets.
  [[nodiscard]] std::vector<transcript_problem> problems() const;

 private:
  struct range {
    uint32_t offset;
    uint32_t length;
    std::string where;
  };

  void take_raw_line(std::string_view raw);
  void take_line(std::string_view line);
  void take_continuation(std::string_view line);
  void give_up_pending();
  void store(uint32_t address, const uint8_t* line_bytes);
  void note(std::vector<range>* ranges, uint32_t offset, uint32_t length);
  std::string where() const;
  bool is_known(uint32_t offset, uint32_t length) const;

  std::vector<uint8_t> bytes_;
  std::vector<bool> known_;
  uint64_t known_count_ = 0;
  uint64_t lines_ = 0;
  std::string name_;
  uint64_t line_number_ = 0;
  std::string rest_;  // of a line whose end has not come yet
  std::string plain_;
  std::string pending_;  // a dump line that the terminal has broken, so far
  int pending_parts_ = 0;
  std::vector<range> contradictions_;
  std::vector<range> unreadable_;
};

}  // namespace image
