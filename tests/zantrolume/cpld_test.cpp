// The CPLD flash driver over the simulated chassis: every register access, in its order and width,
// and what it does to the flash.
#include "sim/cpld.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "flashfs/flash_driver.h"
#include "sim/chassis.h"
#include "sim/counts.h"
#include "sim/flash.h"
#include "tests/support/golden.h"
#include "tests/support/output_capture.h"
#include "tests/zantrolume/selected_complex.h"
#include "window/clock.h"
#include "zantrolume/zantrolume_cpld.h"

using test_support::output_of;
using test_support::run_isolated;
using zantrolume_test::on_each_complex;
using zantrolume_test::selected_complex;
using zantrolume_test::trace;

namespace {

trace program_trace(const selected_complex& c, uint32_t page, uint32_t offset, uint16_t value) {
  return {c.page(0), c.store(0xAAA, 0xAA),   c.ready(), c.store(0x554, 0x55),
          c.ready(), c.store(0xAAA, 0xA0),   c.ready(), c.page(page),
          c.ready(), c.store(offset, value), c.ready()};
}

trace erase_trace(const selected_complex& c, uint32_t page) {
  return {c.page(0),        c.store(0xAAA, 0xAA),
          c.ready(),        c.store(0x554, 0x55),
          c.ready(),        c.store(0xAAA, 0x80),
          c.ready(),        c.store(0xAAA, 0xAA),
          c.ready(),        c.store(0x554, 0x55),
          c.ready(),        c.page(page),
          c.store(0, 0x30), c.ready()};
}

std::vector<uint16_t> words_of(const uint8_t (&bytes)[8]) {
  std::vector<uint16_t> words;
  for (size_t i = 0; i < sizeof(bytes); i += 2) {
    words.push_back(static_cast<uint16_t>((bytes[i] << 8) | bytes[i + 1]));
  }
  return words;
}

void append_without_status(trace& to, const trace& from) {
  std::copy_if(from.begin(), from.end(), std::back_inserter(to),
               [](const sim::traced_access& access) { return access.offset != 0x34; });
}

// Runs a test body over a flash whose ready bit comes late, under a clock of which only the last
// two reads of a second make a wait that begins there time out. Each wait after a cycle begins four
// reads later in a second than the one before, so that over all beginnings each of them times out.
template <typename body>
void for_each_slow_flash(body&& test) {
  constexpr uint32_t reads_per_second = 64;
  for (uint32_t phase = 0; phase < reads_per_second; phase += 2) {
    SCOPED_TRACE("begun at read " + std::to_string(phase) + " of a second");
    selected_complex c(7);
    c.node().set_ready_low(1, reads_per_second / 2 + 1);
    c.chassis().clock_step(100, reads_per_second);
    for (uint32_t i = 0; i < phase; ++i) {
      window_clock();
    }
    test(c);
  }
}

// Bytes 1, 2, 3, ... from an address on.
void fill_count(selected_complex& c, uint32_t address, int count) {
  for (int i = 0; i < count; ++i) {
    c.flash().bytes()[address + static_cast<uint32_t>(i)] = static_cast<uint8_t>(i + 1);
  }
}

}  // namespace

// --- addresses and the node ---

TEST(cpld_address, a_sector_is_128_kib) {
  EXPECT_EQ(zantrolume_addr_to_sector(0), 0U);
  EXPECT_EQ(zantrolume_addr_to_sector(0x1FFFF), 0U);
  EXPECT_EQ(zantrolume_addr_to_sector(0x20000), 1U);
  EXPECT_EQ(zantrolume_addr_to_sector(0xFFFFFFFF), 0x7FFFU);
}

TEST(cpld_address, a_page_is_4_kib_and_its_number_has_13_bits) {
  uint32_t page = 0;
  uint32_t offset = 0;
  zantrolume_addr_to_page_offset(0x1FFE, &page, &offset);
  EXPECT_EQ(page, 1U);
  EXPECT_EQ(offset, 0xFFEU);
  zantrolume_addr_to_page_offset(0x01FFFFFF, &page, &offset);
  EXPECT_EQ(page, 0x1FFFU);
  EXPECT_EQ(offset, 0xFFFU);
  zantrolume_addr_to_page_offset(0x02001234, &page, &offset);
  EXPECT_EQ(page, 1U);
  EXPECT_EQ(offset, 0x234U);
}

TEST(cpld_device, opening_gives_a_descriptor_or_the_errno) {
  selected_complex c(3);
  EXPECT_GE(zantrolume_open_vexmor_device("/dev/vexmor1"), 0);
  EXPECT_GE(zantrolume_open_vexmor_device("/dev/vexmor2"), 0);
  c.chassis().fail_open(EACCES);
  errno = 0;
  EXPECT_EQ(zantrolume_open_vexmor_device("/dev/vexmor1"), -1);
  EXPECT_EQ(errno, EACCES);
}

TEST(cpld_device, every_ppc_number_counts_as_valid) {
  EXPECT_EQ(zantrolume_valid_ppc_number(), 1);
}

TEST(cpld_device, what_this_flash_cannot_do_is_refused) {
  EXPECT_EQ(zantrolume_cpld_uninit(), 4);
  EXPECT_EQ(zantrolume_cpld_lock(), 4);
  EXPECT_EQ(zantrolume_cpld_unlock(), 4);
  EXPECT_EQ(zantrolume_cpld_lock_master(), 4);
}

// --- reset ---

TEST(cpld_reset, is_one_read_of_the_run_state) {
  on_each_complex([](selected_complex& c) {
    c.node().start_trace();
    EXPECT_EQ(zantrolume_is_ppc_in_reset(vexmor_mapped_ptr, c.index() + 1), 1);
    EXPECT_EQ(c.node().stop_trace(), (trace{sim::read32(0x0000, 0)}));
  });
}

TEST(cpld_reset, a_running_complex_is_seen_at_its_own_bit_only) {
  on_each_complex([](selected_complex& c) {
    c.node().set_running(static_cast<int>(c.index()), true);
    for (uint32_t bit = 1; bit <= 3; ++bit) {
      EXPECT_EQ(zantrolume_is_ppc_in_reset(vexmor_mapped_ptr, bit), bit == c.index() + 1 ? 0 : 1);
    }
    c.node().start_trace();
    zantrolume_is_ppc_in_reset(vexmor_mapped_ptr, c.index() + 1);
    EXPECT_EQ(c.node().stop_trace(), (trace{sim::read32(0x0000, c.mask())}));
  });
}

TEST(cpld_reset, a_null_window_ends_the_program_with_status_1) {
  const auto result = run_isolated([] { zantrolume_is_ppc_in_reset(nullptr, 1); });
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output, "ZANTROLUME: invalid vexmor device pointer\n");
}

// --- the wait for ready ---

TEST(cpld_ready, a_ready_flash_costs_one_read_of_the_clock_and_one_of_the_status) {
  on_each_complex([](selected_complex& c) {
    const uint64_t clock_reads = c.chassis().clock_reads();
    c.node().start_trace();
    EXPECT_EQ(zantrolume_wait_on_flash_ready(0x34, c.mask()), 0);
    EXPECT_EQ(c.node().stop_trace(), (trace{c.ready()}));
    EXPECT_EQ(c.chassis().clock_reads() - clock_reads, 1U);
  });
}

TEST(cpld_ready, a_flash_that_becomes_ready_ends_the_wait) {
  on_each_complex([](selected_complex& c) {
    c.node().set_ready_low(static_cast<int>(c.index()), 3);
    const uint64_t clock_reads = c.chassis().clock_reads();
    c.node().start_trace();
    EXPECT_EQ(zantrolume_wait_on_flash_ready(0x34, c.mask()), 0);
    EXPECT_EQ(c.node().stop_trace(), (trace{c.busy(), c.busy(), c.busy(), c.ready()}));
    EXPECT_EQ(c.chassis().clock_reads() - clock_reads, 4U);
  });
}

TEST(cpld_ready, the_clock_is_read_before_the_status_and_ends_the_wait_after_a_full_second) {
  on_each_complex([](selected_complex& c) {
    c.node().set_ready_never(static_cast<int>(c.index()));
    // A second for each pair of clock and status reads: begun at 100, the third pair is at 102.
    c.chassis().clock_step(100, 2);
    c.node().start_trace();
    flash_return_code result = flash_ok;
    const std::string text =
        output_of([&] { result = zantrolume_wait_on_flash_ready(0x34, c.mask()); });
    EXPECT_EQ(result, 7);
    EXPECT_EQ(c.node().stop_trace(), (trace{c.busy(), c.busy()}));
    EXPECT_EQ(text, "Timeout waiting for flash ready: bit 0x" + std::to_string(c.mask()) + "\n");
  });
}

TEST(cpld_ready, one_second_gone_is_not_yet_a_timeout) {
  selected_complex c(4);
  c.node().set_ready_low(1, 2);
  c.chassis().clock_step(100, 3);
  EXPECT_EQ(zantrolume_wait_on_flash_ready(0x34, c.mask()), 0);
}

TEST(cpld_ready, another_flash_of_the_node_does_not_count) {
  selected_complex c(3);
  c.node().set_ready_never(1);
  c.node().set_ready_never(2);
  EXPECT_EQ(zantrolume_wait_on_flash_ready(0x34, c.mask()), 0);
}

TEST(cpld_ready, the_wait_is_on_the_register_and_the_bits_that_it_is_given) {
  selected_complex c(3);
  c.chassis().clock_step(100, 2);
  c.node().set_running(1, true);
  c.node().start_trace();
  EXPECT_EQ(zantrolume_wait_on_flash_ready(0x00, 4), 0);
  EXPECT_EQ(c.node().stop_trace(), (trace{sim::read32(0x00, 4)}));
  c.node().start_trace();
  flash_return_code result = flash_ok;
  EXPECT_EQ(output_of([&] { result = zantrolume_wait_on_flash_ready(0x00, 0x18); }),
            "Timeout waiting for flash ready: bit 0x18\n");
  EXPECT_EQ(result, 7);
  for (const sim::traced_access& access : c.node().stop_trace()) {
    EXPECT_EQ(access, sim::read32(0x00, 4));
  }
}

// --- read ---

TEST(cpld_read, a_length_of_0_is_refused_without_an_access) {
  selected_complex c(4);
  c.node().start_trace();
  EXPECT_EQ(zantrolume_cpld_read(nullptr, 0x1000, 0, nullptr), 4);
  EXPECT_EQ(c.node().stop_trace(), trace{});
}

TEST(cpld_read, each_word_is_a_page_write_and_one_16_bit_read) {
  on_each_complex([](selected_complex& c) {
    fill_count(c, 0x1FFE, 5);
    uint8_t buffer[6] = {0, 0, 0, 0, 0, 0xEE};
    c.node().start_trace();
    EXPECT_EQ(zantrolume_cpld_read(nullptr, 0x1FFE, 4, buffer), 0);
    EXPECT_EQ(c.node().stop_trace(),
              (trace{c.page(1), c.load(0xFFE, 0x0102), c.page(2), c.load(0, 0x0304)}));
    EXPECT_EQ(memcmp(buffer, "\1\2\3\4\0\xEE", 6), 0);
    EXPECT_EQ(c.chassis().deviations().total(), 0U);
  });
}

TEST(cpld_read, an_odd_length_stores_the_high_byte_of_the_last_word) {
  on_each_complex([](selected_complex& c) {
    fill_count(c, 0x1FFE, 6);
    uint8_t buffer[6] = {0, 0, 0, 0, 0, 0xEE};
    c.node().start_trace();
    const std::string text = output_of([&] { zantrolume_cpld_read(nullptr, 0x1FFE, 5, buffer); });
    EXPECT_EQ(c.node().stop_trace(), (trace{c.page(1), c.load(0xFFE, 0x0102), c.page(2),
                                            c.load(0, 0x0304), c.page(2), c.load(2, 0x0506)}));
    EXPECT_EQ(memcmp(buffer, "\1\2\3\4\5\xEE", 6), 0);
    EXPECT_EQ(text, "");
  });
}

TEST(cpld_read, an_odd_length_is_told_once_in_verbose_mode) {
  selected_complex c(4);
  verbose_mode = 1;
  uint8_t buffer[5] = {};
  EXPECT_EQ(output_of([&] { zantrolume_cpld_read(nullptr, 0x1FFE, 5, buffer); }),
            "Need to read one more byte\n");
  EXPECT_EQ(output_of([&] { zantrolume_cpld_read(nullptr, 0x1FFE, 4, buffer); }), "");
  EXPECT_EQ(output_of([&] { zantrolume_cpld_read(nullptr, 0x1FFD, 5, buffer); }),
            "Need to read one more byte\n");
  EXPECT_EQ(output_of([&] { zantrolume_cpld_read(nullptr, 0x1FFD, 4, buffer); }), "");
  verbose_mode = 0;
}

TEST(cpld_read, one_byte_is_one_word_read) {
  selected_complex c(5);
  fill_count(c, 0x20000, 2);
  uint8_t buffer[2] = {0, 0xEE};
  c.node().start_trace();
  EXPECT_EQ(zantrolume_cpld_read(nullptr, 0x20000, 1, buffer), 0);
  EXPECT_EQ(c.node().stop_trace(), (trace{c.page(0x20), c.load(0, 0x0102)}));
  EXPECT_EQ(buffer[0], 1);
  EXPECT_EQ(buffer[1], 0xEE);
}

TEST(cpld_read, an_odd_address_reads_the_aligned_words_around_the_bytes_once_each) {
  on_each_complex([](selected_complex& c) {
    fill_count(c, 0x1FFC, 8);
    uint8_t buffer[6] = {0, 0, 0, 0, 0, 0xEE};
    c.node().start_trace();
    EXPECT_EQ(zantrolume_cpld_read(nullptr, 0x1FFD, 4, buffer), 0);
    EXPECT_EQ(c.node().stop_trace(), (trace{c.page(1), c.load(0xFFC, 0x0102), c.page(1),
                                            c.load(0xFFE, 0x0304), c.page(2), c.load(0, 0x0506)}));
    EXPECT_EQ(memcmp(buffer, "\2\3\4\5\0\xEE", 6), 0);

    c.node().start_trace();
    EXPECT_EQ(zantrolume_cpld_read(nullptr, 0x1FFD, 5, buffer), 0);
    EXPECT_EQ(c.node().stop_trace().size(), 6U);
    EXPECT_EQ(memcmp(buffer, "\2\3\4\5\6\xEE", 6), 0);

    c.node().start_trace();
    EXPECT_EQ(zantrolume_cpld_read(nullptr, 0x1FFF, 1, buffer), 0);
    EXPECT_EQ(c.node().stop_trace(), (trace{c.page(1), c.load(0xFFE, 0x0304)}));
    EXPECT_EQ(memcmp(buffer, "\4\3", 2), 0);
    EXPECT_EQ(c.chassis().deviations().total(), 0U);
  });
}

TEST(cpld_read, does_not_ask_for_the_ready_bit) {
  selected_complex c(8);
  c.node().set_ready_never(2);
  uint8_t buffer[64] = {};
  EXPECT_EQ(zantrolume_cpld_read(nullptr, 0, sizeof(buffer), buffer), 0);
  EXPECT_EQ(c.chassis().counts().status_reads, 0U);
}

TEST(cpld_read, a_buffer_may_stand_at_any_address) {
  selected_complex c(4);
  fill_count(c, 0x100, 8);
  alignas(4) uint8_t buffer[10] = {};
  EXPECT_EQ(zantrolume_cpld_read(nullptr, 0x100, 8, buffer + 1), 0);
  EXPECT_EQ(memcmp(buffer, "\0\1\2\3\4\5\6\7\10\0", 10), 0);
}

TEST(cpld_read, addresses_beyond_the_device_come_round) {
  selected_complex c(3);
  fill_count(c, 0, 4);
  uint8_t buffer[4] = {};
  EXPECT_EQ(zantrolume_cpld_read(nullptr, 0xFE000000, 4, buffer), 0);
  EXPECT_EQ(memcmp(buffer, "\1\2\3\4", 4), 0);
  EXPECT_EQ(zantrolume_cpld_read(nullptr, 0xFFFFFFFE, 4, buffer), 0);
  EXPECT_EQ(memcmp(buffer, "\xFF\xFF\1\2", 4), 0);
  EXPECT_EQ(c.chassis().deviations().total(), 0U);
}

// --- program ---

TEST(cpld_program, one_word_is_the_command_with_a_wait_after_each_step) {
  on_each_complex([](selected_complex& c) {
    const uint8_t buffer[2] = {0x12, 0x34};
    c.node().start_trace();
    EXPECT_EQ(zantrolume_cpld_write(nullptr, 0x25A68, 2, buffer), 0);
    EXPECT_EQ(c.node().stop_trace(), program_trace(c, 0x25, 0xA68, 0x1234));
    EXPECT_EQ(c.flash().bytes()[0x25A68], 0x12);
    EXPECT_EQ(c.flash().bytes()[0x25A69], 0x34);
    EXPECT_EQ(c.chassis().deviations().total(), 0U);
  });
}

TEST(cpld_program, each_word_repeats_the_whole_command_across_a_page_end) {
  on_each_complex([](selected_complex& c) {
    const uint8_t buffer[5] = {0, 1, 2, 3, 4};
    c.node().start_trace();
    EXPECT_EQ(zantrolume_cpld_write(nullptr, 0x2FFE, 4, buffer + 1), 0);
    trace expected = program_trace(c, 2, 0xFFE, 0x0102);
    const trace second = program_trace(c, 3, 0, 0x0304);
    expected.insert(expected.end(), second.begin(), second.end());
    EXPECT_EQ(c.node().stop_trace(), expected);
    EXPECT_EQ(memcmp(c.flash().bytes() + 0x2FFE, "\1\2\3\4", 4), 0);
  });
}

TEST(cpld_program, an_odd_address_is_refused_without_an_access) {
  selected_complex c(4);
  const uint8_t buffer[2] = {};
  c.node().start_trace();
  EXPECT_EQ(zantrolume_cpld_write(nullptr, 0x1001, 2, buffer), 4);
  EXPECT_EQ(zantrolume_cpld_write(nullptr, 0x1001, 0, buffer), 4);
  EXPECT_EQ(c.node().stop_trace(), trace{});
}

TEST(cpld_program, less_than_a_word_is_nothing_and_succeeds) {
  selected_complex c(4);
  const uint8_t buffer[2] = {};
  c.node().start_trace();
  EXPECT_EQ(zantrolume_cpld_write(nullptr, 0x1000, 0, buffer), 0);
  EXPECT_EQ(zantrolume_cpld_write(nullptr, 0x1000, 1, buffer), 0);
  EXPECT_EQ(c.node().stop_trace(), trace{});
}

TEST(cpld_program, an_odd_trailing_byte_is_not_programmed) {
  selected_complex c(4);
  const uint8_t buffer[3] = {1, 2, 3};
  EXPECT_EQ(zantrolume_cpld_write(nullptr, 0x1000, 3, buffer), 0);
  EXPECT_EQ(c.chassis().counts().programs, 1U);
  EXPECT_EQ(memcmp(c.flash().bytes() + 0x1000, "\1\2\xFF\xFF", 4), 0);
}

TEST(cpld_program, the_word_count_has_16_bits) {
  selected_complex c(4);
  const std::vector<uint8_t> buffer(131074, 0);
  EXPECT_EQ(zantrolume_cpld_write(nullptr, 0x1000, 131072, buffer.data()), 0);
  EXPECT_EQ(c.chassis().counts().page_writes, 0U);
  EXPECT_EQ(zantrolume_cpld_write(nullptr, 0x1000, 131074, buffer.data()), 0);
  EXPECT_EQ(c.chassis().counts().programs, 1U);
  EXPECT_EQ(zantrolume_cpld_write(nullptr, 0x2000, 131070, buffer.data()), 0);
  EXPECT_EQ(c.chassis().counts().programs, 1U + 65535U);
}

TEST(cpld_program, a_flash_that_is_slow_after_each_cycle_is_waited_for) {
  on_each_complex([](selected_complex& c) {
    c.node().set_ready_low(static_cast<int>(c.index()), 2);
    zantrolume_wait_on_flash_ready(0x34, c.mask());
    const uint8_t buffer[4] = {1, 2, 3, 4};
    EXPECT_EQ(zantrolume_cpld_write(nullptr, 0x1000, 4, buffer), 0);
    EXPECT_EQ(memcmp(c.flash().bytes() + 0x1000, "\1\2\3\4", 4), 0);
    EXPECT_EQ(c.chassis().deviations().total(), 0U);
  });
}

TEST(cpld_program, a_flash_that_is_never_ready_ends_it_at_the_first_wait) {
  on_each_complex([](selected_complex& c) {
    c.node().set_ready_never(static_cast<int>(c.index()));
    c.chassis().clock_step(100, 2);
    const uint8_t buffer[4] = {1, 2, 3, 4};
    c.node().start_trace();
    flash_return_code result = flash_ok;
    const std::string text =
        output_of([&] { result = zantrolume_cpld_write(nullptr, 0x1000, 4, buffer); });
    EXPECT_EQ(result, 7);
    EXPECT_EQ(c.node().stop_trace(), (trace{c.page(0), c.store(0xAAA, 0xAA), c.busy(), c.busy()}));
    EXPECT_EQ(text, "Timeout waiting for flash ready: bit 0x" + std::to_string(c.mask()) + "\n");
    EXPECT_EQ(memcmp(c.flash().bytes() + 0x1000, "\xFF\xFF\xFF\xFF", 4), 0);
  });
}

TEST(cpld_program, a_timeout_at_any_wait_ends_the_write_at_once_and_leaves_the_words_before_it) {
  const uint8_t buffer[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  trace whole;
  for (uint32_t word = 0; word < 4; ++word) {
    const selected_complex c(7);
    append_without_status(whole, program_trace(c, 1, word * 2, words_of(buffer)[word]));
  }
  std::set<size_t> ends;
  const std::set<size_t> first_cycles = {2, 3, 4, 6, 8, 9, 10, 12};
  for_each_slow_flash([&](selected_complex& c) {
    flash_return_code result = flash_ok;
    c.node().start_trace();
    output_of([&] { result = zantrolume_cpld_write(nullptr, 0x1000, 8, buffer); });
    trace made;
    append_without_status(made, c.node().stop_trace());
    ASSERT_LE(made.size(), whole.size());
    EXPECT_TRUE(std::equal(made.begin(), made.end(), whole.begin()));
    const size_t words = made.size() / 6;
    EXPECT_EQ(memcmp(c.flash().bytes() + 0x1000, buffer, words * 2), 0);
    EXPECT_EQ(c.flash().bytes()[0x1000 + words * 2], 0xFF);
    if (result == flash_poll_timeout) {
      ends.insert(made.size());
    } else {
      EXPECT_EQ(result, flash_ok);
      EXPECT_EQ(made.size(), whole.size());
    }
  });
  // After each cycle of the first two words; the flash is not busy after the page is selected.
  EXPECT_TRUE(std::includes(ends.begin(), ends.end(), first_cycles.begin(), first_cycles.end()));
}

TEST(cpld_program, a_timeout_after_the_page_is_selected_ends_it_before_the_data_cycle) {
  on_each_complex([](selected_complex& c) {
    c.node().set_ready_never_after_pages(static_cast<int>(c.index()), 2);
    c.chassis().clock_step(100, 2);
    const uint8_t buffer[2] = {1, 2};
    flash_return_code result = flash_ok;
    c.node().start_trace();
    output_of([&] { result = zantrolume_cpld_write(nullptr, 0x1000, 2, buffer); });
    EXPECT_EQ(result, 7);
    const trace made = c.node().stop_trace();
    EXPECT_EQ(c.chassis().counts().page_writes, 2U);
    EXPECT_EQ(made.back(), c.busy());
    EXPECT_EQ(c.chassis().counts().programs, 0U);
    EXPECT_EQ(c.flash().bytes()[0x1000], 0xFF);
  });
}

// --- erase ---

TEST(cpld_erase, is_the_six_cycle_command_with_a_wait_after_each_cycle) {
  on_each_complex([](selected_complex& c) {
    fill_count(c, 2U << 17, 4);
    c.node().start_trace();
    EXPECT_EQ(zantrolume_cpld_erase(nullptr, 2U << 17), 0);
    EXPECT_EQ(c.node().stop_trace(), erase_trace(c, 0x40));
    EXPECT_EQ(memcmp(c.flash().bytes() + (2U << 17), "\xFF\xFF\xFF\xFF", 4), 0);
    EXPECT_EQ(c.chassis().counts().erases, 1U);
    EXPECT_EQ(c.chassis().deviations().total(), 0U);
  });
}

TEST(cpld_erase, takes_the_sector_that_holds_the_address_and_no_other) {
  selected_complex c(6);
  memset(c.flash().bytes() + (1U << 17), 0, 3U << 17);
  c.node().start_trace();
  EXPECT_EQ(zantrolume_cpld_erase(nullptr, (2U << 17) + 0x12345), 0);
  EXPECT_EQ(c.node().stop_trace(), erase_trace(c, 0x52));
  EXPECT_EQ(c.flash().bytes()[(2U << 17) - 1], 0);
  EXPECT_EQ(c.flash().bytes()[2U << 17], 0xFF);
  EXPECT_EQ(c.flash().bytes()[(3U << 17) - 1], 0xFF);
  EXPECT_EQ(c.flash().bytes()[3U << 17], 0);
}

TEST(cpld_erase, an_address_beyond_the_device_comes_round) {
  selected_complex c(3);
  c.node().start_trace();
  EXPECT_EQ(zantrolume_cpld_erase(nullptr, 0xFFFE0000), 0);
  EXPECT_EQ(c.node().stop_trace(), erase_trace(c, 0x1FE0));
}

TEST(cpld_erase, a_flash_that_is_never_ready_ends_it_at_the_first_wait) {
  on_each_complex([](selected_complex& c) {
    c.node().set_ready_never(static_cast<int>(c.index()));
    c.chassis().clock_step(100, 2);
    c.node().start_trace();
    flash_return_code result = flash_ok;
    const std::string text = output_of([&] { result = zantrolume_cpld_erase(nullptr, 0); });
    EXPECT_EQ(result, 7);
    EXPECT_EQ(c.node().stop_trace(), (trace{c.page(0), c.store(0xAAA, 0xAA), c.busy(), c.busy()}));
    EXPECT_EQ(text, "Timeout waiting for flash ready: bit 0x" + std::to_string(c.mask()) + "\n");
  });
}

TEST(cpld_erase, a_slow_flash_is_waited_for) {
  selected_complex c(8);
  memset(c.flash().bytes(), 0, 16);
  c.node().set_ready_low(2, 5);
  zantrolume_wait_on_flash_ready(0x34, c.mask());
  EXPECT_EQ(zantrolume_cpld_erase(nullptr, 0), 0);
  EXPECT_EQ(c.flash().bytes()[0], 0xFF);
  EXPECT_EQ(c.chassis().deviations().total(), 0U);
}

TEST(cpld_erase, a_timeout_at_any_wait_ends_the_erase_at_once) {
  trace whole;
  append_without_status(whole, erase_trace(selected_complex(7), 0x20));
  std::set<size_t> ends;
  for_each_slow_flash([&](selected_complex& c) {
    flash_return_code result = flash_ok;
    c.node().start_trace();
    output_of([&] { result = zantrolume_cpld_erase(nullptr, 1U << 17); });
    trace made;
    append_without_status(made, c.node().stop_trace());
    ASSERT_LE(made.size(), whole.size());
    EXPECT_TRUE(std::equal(made.begin(), made.end(), whole.begin()));
    if (result == flash_poll_timeout) {
      ends.insert(made.size());
    } else {
      EXPECT_EQ(result, flash_ok);
      EXPECT_EQ(made.size(), whole.size());
    }
  });
  EXPECT_EQ(ends, (std::set<size_t>{2, 3, 4, 5, 6, 8}));
}
