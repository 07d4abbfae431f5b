// The raw dumps, the sizes of types and the printers of lists.
#include <gtest/gtest.h>

#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <string>
#include <vector>

#include "flashfs/flashfs.h"
#include "sim/chassis.h"
#include "sim/counts.h"
#include "sim/flash.h"
#include "tests/support/golden.h"
#include "tests/support/output_capture.h"
#include "tests/zantrolume/selected_complex.h"
#include "window/clock.h"
#include "zantrolume/zantrolume_cpld.h"
#include "zantrolume/zantrolume_display.h"

using test_support::expect_golden;
using test_support::output_of;
using zantrolume_test::selected_complex;
using zantrolume_test::trace;

namespace {

const std::string erased_words =
    "ffffffff ffffffff ffffffff ffffffff ffffffff ffffffff ffffffff ffffffff     ";
const std::string erased_line_end = erased_words + std::string(32, '.') + "\n";

std::string hex(const void* pointer) {
  char text[32];
  snprintf(text, sizeof(text), "0x%" PRIxPTR, reinterpret_cast<uintptr_t>(pointer));
  return text;
}

size_t line_count(const std::string& text) {
  return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

// The text with the values of its "0x%8x = " lines made unreadable, those of the records on flash
// excepted.
std::string without_values(const std::string& text) {
  std::string result;
  for (size_t at = 0; at < text.size();) {
    const size_t end = text.find('\n', at) + 1;
    std::string line = text.substr(at, end - at);
    const bool on_flash = line.ends_with("= flashfs_blkheader\n") ||
                          line.ends_with("= flashfs_dir_slot\n") ||
                          line.ends_with("= flashfs_sector\n");
    if (line.starts_with("0x") && !on_flash) {
      line.replace(0, 10, "0x########");
    }
    result += line;
    at = end;
  }
  return result;
}

}  // namespace

// --- buffer dump ---

TEST(display_buffer, a_length_below_1_prints_nothing) {
  const uint8_t buffer[32] = {};
  EXPECT_EQ(output_of([&] { zantrolume_display_buffer(0, buffer, 0); }), "");
  EXPECT_EQ(output_of([&] { zantrolume_display_buffer(0, buffer, -1); }), "");
  EXPECT_EQ(output_of([&] { zantrolume_display_buffer(0, buffer, INT32_MIN); }), "");
}

TEST(display_buffer, a_line_is_address_words_in_flash_order_and_characters) {
  uint8_t buffer[33];
  for (int i = 0; i < 32; ++i) {
    buffer[i + 1] = static_cast<uint8_t>(0x40 + i);
  }
  EXPECT_EQ(output_of([&] { zantrolume_display_buffer(0x1F000, buffer + 1, 32); }),
            "0x0001f000    40414243 44454647 48494a4b 4c4d4e4f 50515253 54555657 58595a5b "
            "5c5d5e5f     @ABCDEFGHIJKLMNOPQRSTUVWXYZ[\\]^_\n");
}

TEST(display_buffer, one_byte_is_one_full_line_and_33_bytes_are_two) {
  const std::vector<uint8_t> buffer(64, 0xFF);
  EXPECT_EQ(output_of([&] { zantrolume_display_buffer(0x20, buffer.data(), 1); }),
            "0x00000020    " + erased_line_end);
  EXPECT_EQ(output_of([&] { zantrolume_display_buffer(0x20, buffer.data(), 33); }),
            "0x00000020    " + erased_line_end + "0x00000040    " + erased_line_end);
}

TEST(display_buffer, bytes_from_0x20_to_0x7f_print_as_themselves) {
  const uint8_t buffer[32] = {0x00, 0x1F, 0x20, 0x7E, 0x7F, 0x80, 0xFF, '~'};
  const std::string line = output_of([&] { zantrolume_display_buffer(0, buffer, 32); });
  EXPECT_EQ(line.substr(line.size() - 33), ".. ~\x7F..~........................\n");
}

// --- flash dump ---

TEST(display_flash, address_0_prints_nothing_and_reads_nothing) {
  selected_complex c(4);
  verbose_mode = 1;
  EXPECT_EQ(output_of([] { zantrolume_display_flash(0, 64); }), "");
  EXPECT_EQ(c.chassis().counts().words_read, 0U);
  verbose_mode = 0;
}

TEST(display_flash, reads_and_dumps_32_bytes_at_a_time) {
  selected_complex c(4);
  EXPECT_EQ(output_of([] { zantrolume_display_flash(0x20, 32); }),
            "0x00000020    " + erased_line_end);
  EXPECT_EQ(c.chassis().counts().words_read, 16U);
  EXPECT_EQ(c.chassis().counts().page_writes, 16U);
  EXPECT_EQ(c.chassis().deviations().total(), 0U);
}

TEST(display_flash, the_length_is_rounded_up_to_whole_lines) {
  const selected_complex c(4);
  EXPECT_EQ(line_count(output_of([] { zantrolume_display_flash(0x20, 1); })), 1U);
  EXPECT_EQ(line_count(output_of([] { zantrolume_display_flash(0x20, 33); })), 2U);
  EXPECT_EQ(line_count(output_of([] { zantrolume_display_flash(0x20, 64); })), 2U);
}

TEST(display_flash, a_length_of_0_or_less_prints_nothing) {
  const selected_complex c(4);
  for (const int32_t length : {0, -1, -32, -33, INT32_MIN}) {
    EXPECT_EQ(output_of([&] { zantrolume_display_flash(0x20, length); }), "") << length;
  }
}

TEST(display_flash, verbose_mode_names_the_function_and_the_operands) {
  const selected_complex c(4);
  verbose_mode = 1;
  EXPECT_EQ(output_of([] { zantrolume_display_flash(0x40020, 33); }),
            "\nZANTROLUME: enter zantrolume_cpld:zantrolume_display_flash"
            "sector = 2, flash_offset = 0x40020, length = 64\n"
            "0x00040020    " +
                erased_line_end + "0x00040040    " + erased_line_end);
  verbose_mode = 0;
}

TEST(display_flash, an_odd_address_dumps_the_bytes_from_there) {
  selected_complex c(4);
  for (uint32_t i = 0; i < 34; ++i) {
    c.flash().bytes()[0x1000 + i] = static_cast<uint8_t>(0x40 + i);
  }
  verbose_mode = 0;
  EXPECT_EQ(output_of([] { zantrolume_display_flash(0x1001, 32); }),
            "0x00001001    41424344 45464748 494a4b4c 4d4e4f50 51525354 55565758 595a5b5c "
            "5d5e5f60     ABCDEFGHIJKLMNOPQRSTUVWXYZ[\\]^_`\n");
  EXPECT_EQ(c.chassis().deviations().total(), 0U);
}

TEST(display_flash, a_dump_across_the_end_of_the_address_range_ends) {
  const selected_complex c(4);
  EXPECT_EQ(output_of([] { zantrolume_display_flash(0xFFFFFFE0, 64); }),
            "0xffffffe0    " + erased_line_end + "0x00000000    " + erased_line_end);
}

// --- sector dump ---

TEST(display_flash_sector, dumps_the_beginning_of_a_sector_and_sector_0_as_well) {
  selected_complex c(5);
  EXPECT_EQ(output_of([] { zantrolume_display_flash_sector(0, 32); }),
            "Sector 0, length 32\n0x00000000    " + erased_line_end);
  EXPECT_EQ(
      output_of([] { zantrolume_display_flash_sector(2, 33); }),
      "Sector 2, length 64\n0x00040000    " + erased_line_end + "0x00040020    " + erased_line_end);
  EXPECT_EQ(c.chassis().counts().words_read, 16U + 32U);
}

TEST(display_flash_sector, verbose_mode_names_the_function_and_the_operands) {
  const selected_complex c(5);
  verbose_mode = 1;
  EXPECT_EQ(output_of([] { zantrolume_display_flash_sector(3, 1); }),
            "\nZANTROLUME: enter zantrolume_cpld:zantrolume_display_flash_sector"
            "sector = 3, length = 32, flash_offset = 0x60000\n"
            "Sector 3, length 32\n0x00060000    " +
                erased_line_end);
  verbose_mode = 0;
}

TEST(display_flash_sector, a_length_of_0_cannot_be_read) {
  const selected_complex c(5);
  EXPECT_EQ(output_of([] { zantrolume_display_flash_sector(1, 0); }), "PPC Flash read failed\n");
}

TEST(display_flash_sector, a_negative_length_prints_nothing) {
  selected_complex c(5);
  EXPECT_EQ(output_of([] { zantrolume_display_flash_sector(1, -1); }), "");
  EXPECT_EQ(output_of([] { zantrolume_display_flash_sector(1, INT32_MIN); }), "");
  EXPECT_EQ(c.chassis().counts().words_read, 0U);
}

// --- sizes, lists and the clock ---

TEST(display_sizes, are_those_of_the_supervisors_build) {
  const std::string sizes = output_of(zantrolume_display_sizes);
  if (sizeof(void*) == 4) {
    expect_golden("sizes.mips.txt", sizes);
  }
  // On every build: the names, and the sizes of the records on flash.
  expect_golden("sizes.names.txt", without_values(sizes));
}

TEST(display_file_map, is_one_line) {
  flashfs_sctr_map next = {};
  flashfs_sctr_list_ordered list = {};
  flashfs_sctr_map entry = {};
  entry.next = &next;
  entry.fileid = 0xABC;
  entry.parent_fileid = 1;
  entry.mode = 0x8700;
  entry.sctr_list = &list;
  EXPECT_EQ(output_of([&] { zantrolume_display_file_map(&entry); }),
            "file map addr = " + hex(&entry) + " : next = " + hex(&next) +
                ", fileid = 0xabc, parent_fileid = 0x1, mode = 0x8700, sctr_list = " + hex(&list) +
                "\n");
}

TEST(display_sctr_list, a_null_list_prints_nothing) {
  EXPECT_EQ(output_of([] { zantrolume_display_sctr_list_ordered(nullptr); }), "");
}

TEST(display_sctr_list, each_entry_is_a_line) {
  flashfs_sctr_list_ordered second = {};
  second.seq_no = 0xFFFF;
  second.slot_no = 255;
  second.sctr_ptr = {-1, 65535};
  flashfs_sctr_list_ordered first = {};
  first.next = &second;
  first.seq_no = 1;
  first.slot_no = 31;
  first.sctr_ptr = {215, 62};
  EXPECT_EQ(output_of([&] { zantrolume_display_sctr_list_ordered(&first); }),
            "sctr list ordered:\n"
            "entry = " +
                hex(&first) + " : next = " + hex(&second) +
                ", seq_no = 0x1, slot_no = 0x1f, sctr_ptr = {block_num = 215, sctr_num = 62}\n"
                "entry = " +
                hex(&second) + " : next = " + hex(nullptr) +
                ", seq_no = 0xffff, slot_no = 0xff, sctr_ptr = {block_num = -1, sctr_num = "
                "65535}\n");
}

TEST(display_clock, is_the_clock_of_the_window_in_32_bits) {
  selected_complex c(3);
  c.chassis().clock_hold(1800000000);
  EXPECT_EQ(unix_time(), 1800000000);
  c.chassis().clock_hold(int64_t{1} << 31);
  EXPECT_EQ(unix_time(), INT32_MIN);
}
