// Escapes, dates and sizes.
#include "image/text.h"

#include <gtest/gtest.h>

namespace {

using image::escaped;
using image::is_utf8;

TEST(text, has_sizes_in_the_usual_forms) {
  EXPECT_EQ(image::parse_size("0"), 0U);
  EXPECT_EQ(image::parse_size("010"), 10U);
  EXPECT_EQ(image::parse_size("0x10"), 16U);
  EXPECT_EQ(image::parse_size("10k"), 10240U);
  EXPECT_EQ(image::parse_size("0x2M"), 2097152U);
  EXPECT_EQ(image::parse_size("4294967296"), 4294967296U);
  for (const char* none : {"", "k", "0x", "-1", "+1", "1 ", " 1", "1G", "1kk", "0x-1", "1.5",
                           "18446744073709551615K", "99999999999999999999"}) {
    EXPECT_EQ(image::parse_size(none), std::nullopt) << none;
  }
}

TEST(text, what_steers_a_terminal_is_escaped) {
  EXPECT_EQ(escaped("plain-Name.1"), "plain-Name.1");
  EXPECT_EQ(escaped("a\x1B[2Jb\nc\td\re\\f"), "a\\x1b[2Jb\\nc\\td\\re\\\\f");
  EXPECT_EQ(escaped(std::string("\0\x7F", 2)), "\\x00\\x7f");
  EXPECT_EQ(escaped("\xC2\x9B"), "\\xc2\\x9b");  // C1, as two bytes
  EXPECT_EQ(escaped("gr\xC3\xBC\xC3\x9F"), "gr\xC3\xBC\xC3\x9F");
}

TEST(text, bytes_that_are_no_characters_are_escaped) {
  EXPECT_EQ(escaped("\xFF\xC3"), "\\xff\\xc3");
  EXPECT_EQ(escaped("\xC0\xAF"), "\\xc0\\xaf");           // too long for a slash
  EXPECT_EQ(escaped("\xED\xA0\x80"), "\\xed\\xa0\\x80");  // a surrogate
  EXPECT_EQ(escaped("\xF4\x90\x80\x80x"), "\\xf4\\x90\\x80\\x80x");
  EXPECT_TRUE(is_utf8("\xF0\x9F\x98\x80\xE2\x82\xAC"));
  EXPECT_FALSE(is_utf8("\xF0\x9F\x98"));
  EXPECT_FALSE(is_utf8("\x80"));
}

TEST(text, dates_have_all_of_32_bits) {
  EXPECT_EQ(image::date_text(0), "1970-01-01 00:00:00");
  EXPECT_EQ(image::date_text(1700000000), "2023-11-14 22:13:20");
  EXPECT_EQ(image::date_text(0xFFFFFFFF), "2106-02-07 06:28:15");
}

TEST(text, sizes_are_for_people) {
  EXPECT_EQ(image::size_text(0), "0 bytes");
  EXPECT_EQ(image::size_text(1536), "1.5 KiB");
  EXPECT_EQ(image::size_text(28311552), "27.0 MiB");
}

}  // namespace
