// The flash put together from what terminals keep of dumps.
#include "image/transcript.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>

namespace image_test {
namespace {

using image::transcript_merge;
using image::transcript_problem;

constexpr uint32_t device_size = 4096;

// Bytes of all values, text and spaces among them.
std::string sample(uint32_t size) {
  std::string bytes;
  for (uint32_t i = 0; i < size; ++i) {
    bytes += static_cast<char>(i % 3 == 0 ? ' ' : i * 5 + i / 64);
  }
  return bytes;
}

// The lines of the dump of a part, as the program prints them.
std::string dump_of(const std::string& bytes, uint32_t offset, uint32_t length,
                    uint32_t shown_address = 0xFFFFFFFF) {
  std::string dump;
  for (uint32_t at = 0; at < length; at += 32) {
    char address[20];
    snprintf(address, sizeof(address), "0x%08x    ",
             (shown_address == 0xFFFFFFFF ? offset : shown_address) + at);
    dump += address;
    std::string text;
    for (uint32_t i = 0; i < 32; ++i) {
      const auto byte = static_cast<unsigned char>(bytes[offset + at + i]);
      char digits[4];
      snprintf(digits, sizeof(digits), i % 4 == 3 ? "%02x " : "%02x", byte);
      dump += digits;
      text += byte >= 0x20 && byte <= 0x7F ? static_cast<char>(byte) : '.';
    }
    dump += "    " + text + "\n";
  }
  return dump;
}

std::string text_of(const transcript_merge& merged) {
  return {merged.bytes().begin(), merged.bytes().end()};
}

std::string problems_text(const transcript_merge& merged) {
  std::string text;
  for (const transcript_problem& one : merged.problems()) {
    text += std::to_string(one.offset) + "+" + std::to_string(one.length) + " " + one.text + "\n";
  }
  return text;
}

transcript_merge merged_of(const std::string& text, uint32_t size = device_size) {
  transcript_merge merged(size);
  merged.begin("t");
  merged.feed(text);
  merged.end();
  return merged;
}

std::string replaced(std::string text, const std::string& what, const std::string& by) {
  for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size()) {
    text.replace(at, what.size(), by);
  }
  return text;
}

TEST(transcript, gives_the_bytes_of_a_dump) {
  const std::string bytes = sample(device_size);
  const transcript_merge merged = merged_of(dump_of(bytes, 0, device_size));
  EXPECT_EQ(text_of(merged), bytes);
  EXPECT_EQ(problems_text(merged), "");
  EXPECT_EQ(merged.lines(), device_size / 32);
  EXPECT_EQ(merged.known_bytes(), device_size);
}

TEST(transcript, may_come_in_pieces_of_any_size) {
  const std::string bytes = sample(device_size);
  const std::string text = replaced(dump_of(bytes, 0, device_size), "\n", "\r\n");
  for (const size_t size : {1, 7, 63, 4000}) {
    transcript_merge merged(device_size);
    merged.begin("t");
    for (size_t at = 0; at < text.size(); at += size) {
      merged.feed(std::string_view(text).substr(at, size));
    }
    merged.end();
    EXPECT_EQ(text_of(merged), bytes) << size;
    EXPECT_EQ(problems_text(merged), "") << size;
  }
}

TEST(transcript, may_have_prompts_and_the_noise_of_a_terminal_around_its_lines) {
  const std::string bytes = sample(device_size);
  const std::string dump = dump_of(bytes, 0, device_size);
  const std::string noisy =
      "\x1b]0;root@supervisor\x07\x1b[?2004h\x1b[01;32msupervisor\x1b[0m# zz\b \b\b \bzantrolume 4 "
      "aread 0 4096\r\n\x1b[?2004l\rZANTROLUME : vexmor device driver memory mapped" +
      replaced(dump, "\n", "\x1b[K\r\r\n") + "\nsupervisor# \x1b(B\x1b[m exit\r\n" +
      std::string("\0\0", 2) + "Script done\n";
  const transcript_merge merged = merged_of(noisy);
  EXPECT_EQ(text_of(merged), bytes);
  EXPECT_EQ(problems_text(merged), "");
}

TEST(transcript, may_have_lost_the_spaces_at_the_ends_of_its_lines) {
  const std::string bytes = sample(device_size);
  std::string trimmed;
  const std::string dump = dump_of(bytes, 0, device_size);
  for (size_t at = 0; at < dump.size();) {
    const size_t end = dump.find('\n', at);
    std::string line = dump.substr(at, end - at);
    line.erase(line.find_last_not_of(' ') + 1);
    trimmed += line + "\n";
    at = end + 1;
  }
  EXPECT_NE(trimmed, dump);
  EXPECT_EQ(text_of(merged_of(trimmed)), bytes);
}

TEST(transcript, may_have_lines_that_the_terminal_has_broken) {
  const std::string bytes = sample(device_size);
  const std::string dump = dump_of(bytes, 0, device_size);
  for (const size_t width : {40, 66, 80, 90, 100, 120}) {
    std::string broken;
    for (size_t at = 0; at < dump.size();) {
      const size_t end = dump.find('\n', at);
      for (; at < end; at += std::min(width, end - at)) {
        broken += dump.substr(at, std::min(width, end - at)) + "\r\n";
      }
      at = end + 1;
    }
    const transcript_merge merged = merged_of(broken);
    EXPECT_EQ(text_of(merged), bytes) << width;
    EXPECT_EQ(problems_text(merged), "") << width;
  }
}

TEST(transcript, counts_addresses_modulo_the_size_of_the_device) {
  const std::string bytes = sample(device_size);
  transcript_merge merged(device_size);
  merged.begin("t");
  merged.feed(dump_of(bytes, 0, 32, 2 * device_size));  // as "sread 256 32" shows block 0's header
  merged.feed(dump_of(bytes, 32, device_size - 32));
  merged.end();
  EXPECT_EQ(text_of(merged), bytes);

  const transcript_merge over_the_end = merged_of(dump_of(bytes, 64, 32, device_size - 16));
  EXPECT_EQ(text_of(over_the_end).substr(device_size - 16), bytes.substr(64, 16));
  EXPECT_EQ(text_of(over_the_end).substr(0, 16), bytes.substr(80, 16));
}

TEST(transcript, leaves_holes_erased_and_names_them) {
  const std::string bytes = sample(device_size);
  transcript_merge merged(device_size);
  merged.begin("a");
  merged.feed(dump_of(bytes, 1024, 64));
  merged.end();
  merged.begin("b");
  merged.feed(dump_of(bytes, 96, 32));
  merged.end();
  std::string expected(device_size, '\xff');
  expected.replace(1024, 64, bytes, 1024, 64);
  expected.replace(96, 32, bytes, 96, 32);
  EXPECT_EQ(text_of(merged), expected);
  EXPECT_EQ(problems_text(merged),
            "0+96 nothing tells these bytes, left erased\n"
            "128+896 nothing tells these bytes, left erased\n"
            "1088+3008 nothing tells these bytes, left erased\n");
  EXPECT_EQ(merged.known_bytes(), 96U);
}

TEST(transcript, names_contradictions_and_believes_the_later) {
  std::string bytes = sample(device_size);
  transcript_merge merged(device_size);
  merged.begin("first");
  merged.feed(dump_of(bytes, 0, device_size));
  merged.end();
  bytes[100] = 'A';
  bytes[101] = 'B';
  bytes[110] = 'C';
  merged.begin("second");
  merged.feed("noise\n" + dump_of(bytes, 64, 64));
  merged.end();
  EXPECT_EQ(text_of(merged), bytes);
  EXPECT_EQ(problems_text(merged),
            "100+11 other bytes than before, the later ones count: second, line 3\n");
}

TEST(transcript, believes_no_line_that_has_suffered) {
  const std::string bytes = std::string(device_size, 'x');
  std::string dump = dump_of(bytes, 0, device_size);
  const size_t line = dump.find('\n') + 1;
  dump[line * 1 + 20] ^= 1;           // a digit is another one
  dump.erase(line * 3 + 30, 1);       // a digit is missing
  dump.erase(line * 5 + 50 - 1, 20);  // many are
  const transcript_merge merged = merged_of(dump);
  ASSERT_EQ(merged.problems().size(), 6U) << problems_text(merged);
  EXPECT_EQ(problems_text(merged),
            "32+32 nothing tells these bytes, left erased\n"
            "32+32 a line of a dump that cannot be read: t, line 2\n"
            "96+32 nothing tells these bytes, left erased\n"
            "96+32 a line of a dump that cannot be read: t, line 4\n"
            "160+32 nothing tells these bytes, left erased\n"
            "160+32 a line of a dump that cannot be read: t, line 6\n");

  transcript_merge mended(device_size);
  mended.begin("bad");
  mended.feed(dump);
  mended.end();
  mended.begin("good");
  mended.feed(dump_of(bytes, 32, 192));
  mended.end();
  EXPECT_EQ(text_of(mended), bytes);
  EXPECT_EQ(problems_text(mended), "");
}

TEST(transcript, takes_no_line_from_the_text_of_another) {
  // A file on flash holds a line of a dump: its text must not count.
  std::string bytes = sample(device_size);
  const std::string inner = "0x00000000    deadbeef deadbeef deadbeef deadbeef deadbeef";
  bytes.replace(512, inner.size(), inner);
  const transcript_merge merged = merged_of(dump_of(bytes, 0, device_size));
  EXPECT_EQ(text_of(merged), bytes);
  EXPECT_EQ(problems_text(merged), "");
}

TEST(transcript, of_anything_else_tells_nothing) {
  std::string noise;
  for (int i = 0; i < 200000; ++i) {
    noise += static_cast<char>(i * 7919 >> 3);
  }
  EXPECT_EQ(merged_of(noise).known_bytes(), 0U);
  EXPECT_EQ(merged_of("").known_bytes(), 0U);
  EXPECT_EQ(merged_of("0x00000000    ").problems().size(), 2U);
}

}  // namespace
}  // namespace image_test
