// The rules of the simulated NOR flash, its power cuts and its stuck bits.
#include "sim/flash.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <set>
#include <string>

namespace {

constexpr uint32_t flash_size = 4096;

struct small_flash {
  sim::power supply;
  sim::nor_flash flash{flash_size, supply};
};

uint8_t byte_at(sim::nor_flash& flash, uint32_t offset) {
  return flash.bytes()[offset];
}

}  // namespace

TEST(sim_flash, a_new_flash_is_erased) {
  small_flash chip;
  EXPECT_FALSE(chip.flash.touched());
  EXPECT_EQ(chip.flash.read16(0), 0xFFFF);
  EXPECT_EQ(chip.flash.read16(flash_size - 2), 0xFFFF);
  EXPECT_TRUE(chip.flash.touched());
}

TEST(sim_flash, the_high_byte_of_a_word_stands_at_the_lower_address) {
  small_flash chip;
  chip.flash.program16(10, 0x1234);
  EXPECT_EQ(byte_at(chip.flash, 10), 0x12);
  EXPECT_EQ(byte_at(chip.flash, 11), 0x34);
  EXPECT_EQ(chip.flash.read16(10), 0x1234);
}

TEST(sim_flash, programming_only_clears_bits_and_counts_requests_to_set_them) {
  small_flash chip;
  chip.flash.program16(0, 0xF0F0);
  chip.flash.program16(0, 0x70F0);
  EXPECT_EQ(chip.flash.bit_set_requests(), 0U);
  chip.flash.program16(0, 0x0FFF);
  EXPECT_EQ(chip.flash.bit_set_requests(), 1U);
  EXPECT_EQ(chip.flash.read16(0), 0x00F0);
}

TEST(sim_flash, erasing_sets_exactly_its_range_to_ones) {
  small_flash chip;
  std::fill_n(chip.flash.bytes(), flash_size, uint8_t{0});
  chip.flash.erase(1024, 512);
  for (uint32_t offset = 0; offset < flash_size; ++offset) {
    const bool inside = offset >= 1024 && offset < 1536;
    ASSERT_EQ(byte_at(chip.flash, offset), inside ? 0xFF : 0x00) << offset;
  }
}

TEST(sim_flash, what_lies_past_the_end_reads_as_ones_and_takes_nothing) {
  small_flash chip;
  std::fill_n(chip.flash.bytes(), flash_size, uint8_t{0});
  chip.flash.program16(flash_size, 0);
  chip.flash.program16(flash_size - 1, 0);
  chip.flash.erase(flash_size, 100);
  chip.flash.erase(flash_size - 2, 100);
  uint8_t bytes[4];
  chip.flash.read(flash_size - 3, bytes, sizeof bytes);
  EXPECT_EQ(bytes[0], 0x00);
  EXPECT_EQ(bytes[1], 0xFF);
  EXPECT_EQ(bytes[3], 0xFF);
  EXPECT_EQ(chip.flash.read16(flash_size + 100), 0xFFFF);
}

TEST(sim_flash, words_and_erases_are_one_mutation_each) {
  small_flash chip;
  chip.flash.program16(0, 0xFFFF);
  chip.flash.program16(2, 0x0000);
  chip.flash.erase(0, 1024);
  EXPECT_EQ(chip.supply.mutations(), 3U);
  chip.supply.restore();
  EXPECT_EQ(chip.supply.mutations(), 0U);
}

TEST(sim_flash, memory_of_a_source_is_taken_as_it_is_at_the_first_touch) {
  sim::power supply;
  std::vector<uint8_t> memory(flash_size, 0x5A);
  int calls = 0;
  sim::nor_flash flash(flash_size, supply, [&](size_t size) {
    EXPECT_EQ(size, flash_size);
    calls++;
    return memory.data();
  });
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(flash.read16(0), 0x5A5A);
  flash.program16(0, 0x0000);
  EXPECT_EQ(memory[0], 0x00);
  EXPECT_EQ(calls, 1);
}

TEST(sim_flash, a_snapshot_is_compared_and_restored) {
  small_flash chip;
  chip.flash.program16(100, 0x1234);
  const std::vector<uint8_t> before = chip.flash.snapshot();
  EXPECT_EQ(chip.flash.first_difference(before), flash_size);
  chip.flash.program16(200, 0xFF00);
  EXPECT_EQ(chip.flash.first_difference(before), 201U);
  chip.flash.restore(before);
  EXPECT_EQ(chip.flash.first_difference(before), flash_size);
  chip.flash.restore({0x12});
  EXPECT_EQ(chip.flash.read16(0), 0x12FF);
  EXPECT_EQ(chip.flash.read16(100), 0xFFFF);
}

TEST(sim_power_cut, before_leaves_nothing_of_the_mutation_and_a_dead_flash) {
  small_flash chip;
  chip.supply.cut_at(2, sim::cut_kind::before);
  chip.flash.program16(0, 0x1111);
  EXPECT_FALSE(chip.flash.dead());
  chip.flash.program16(2, 0x2222);
  EXPECT_TRUE(chip.flash.dead());
  chip.flash.program16(4, 0x3333);
  chip.flash.erase(0, flash_size);
  EXPECT_EQ(chip.supply.mutations(), 2U);
  EXPECT_EQ(chip.flash.read16(0), 0xFFFF);
  chip.supply.restore();
  EXPECT_EQ(chip.flash.read16(0), 0x1111);
  EXPECT_EQ(chip.flash.read16(2), 0xFFFF);
  EXPECT_EQ(chip.flash.read16(4), 0xFFFF);
}

TEST(sim_power_cut, after_leaves_all_of_the_mutation) {
  small_flash chip;
  chip.supply.cut_at(1, sim::cut_kind::after);
  chip.flash.program16(0, 0x1234);
  EXPECT_TRUE(chip.flash.dead());
  chip.supply.restore();
  EXPECT_EQ(chip.flash.read16(0), 0x1234);
  chip.supply.cut_at(1, sim::cut_kind::after);
  chip.flash.erase(0, flash_size);
  chip.supply.restore();
  EXPECT_EQ(chip.flash.read16(0), 0xFFFF);
}

TEST(sim_power_cut, a_torn_word_has_some_of_its_bits_cleared_and_none_set) {
  std::set<uint16_t> seen;
  for (uint64_t seed = 0; seed < 50; ++seed) {
    small_flash chip;
    chip.flash.program16(0, 0xFFF0);
    chip.supply.cut_at(1, sim::cut_kind::during, seed);
    chip.flash.program16(0, 0x0FF0);
    chip.supply.restore();
    const uint16_t left = chip.flash.read16(0);
    EXPECT_EQ(left & 0x0FFF, 0x0FF0);
    seen.insert(left);
  }
  EXPECT_GT(seen.size(), 8U);
}

TEST(sim_power_cut, a_seed_gives_the_same_torn_word_again) {
  uint16_t left[2];
  for (uint16_t& one : left) {
    small_flash chip;
    chip.supply.cut_at(1, sim::cut_kind::during, 7);
    chip.flash.program16(0, 0x0000);
    chip.supply.restore();
    one = chip.flash.read16(0);
  }
  EXPECT_EQ(left[0], left[1]);
}

TEST(sim_power_cut, a_torn_erase_has_a_blank_beginning_and_the_rest_as_it_was) {
  small_flash chip;
  std::fill_n(chip.flash.bytes(), flash_size, uint8_t{0});
  chip.supply.cut_at(1, sim::cut_kind::during, 3);
  chip.flash.erase(1024, 1024);
  const uint8_t* bytes = chip.flash.bytes();
  const uint8_t* rest = std::find(bytes + 1024, bytes + 2048, uint8_t{0});
  EXPECT_GT(rest, bytes + 1024);
  EXPECT_LT(rest, bytes + 2048);
  EXPECT_TRUE(std::all_of(bytes, bytes + 1024, [](uint8_t byte) { return byte == 0; }));
  EXPECT_TRUE(std::all_of(rest, bytes + flash_size, [](uint8_t byte) { return byte == 0; }));
}

TEST(sim_power_cut, a_noisy_torn_erase_stays_inside_its_range) {
  small_flash chip;
  std::fill_n(chip.flash.bytes(), flash_size, uint8_t{0});
  chip.supply.cut_at(1, sim::cut_kind::during_noise, 1);  // leaves a long tail
  chip.flash.erase(1024, 1024);
  const uint8_t* bytes = chip.flash.bytes();
  const std::set<uint8_t> values(bytes + 1024, bytes + 2048);
  EXPECT_GT(values.size(), 50U);
  EXPECT_TRUE(std::all_of(bytes, bytes + 1024, [](uint8_t byte) { return byte == 0; }));
  EXPECT_TRUE(
      std::all_of(bytes + 2048, bytes + flash_size, [](uint8_t byte) { return byte == 0; }));
}

TEST(sim_power_cut, flashes_of_one_supply_count_together_and_die_together) {
  sim::power supply;
  sim::nor_flash first(flash_size, supply);
  sim::nor_flash second(flash_size, supply);
  supply.cut_at(2, sim::cut_kind::before);
  first.program16(0, 0);
  second.program16(0, 0);
  EXPECT_TRUE(first.dead());
  EXPECT_TRUE(second.dead());
  supply.restore();
  EXPECT_EQ(first.read16(0), 0);
  EXPECT_EQ(second.read16(0), 0xFFFF);
}

TEST(sim_power_cut, the_hook_is_called_once_after_the_flash_has_its_state) {
  small_flash chip;
  int calls = 0;
  chip.supply.on_cut = [&] {
    calls++;
    EXPECT_EQ(byte_at(chip.flash, 0), 0x12);
  };
  chip.supply.cut_at(1, sim::cut_kind::after);
  chip.flash.program16(0, 0x1234);
  chip.flash.program16(0, 0x0000);
  EXPECT_EQ(calls, 1);
}

TEST(sim_flash, stuck_bits_show_after_programs_and_erases) {
  small_flash chip;
  chip.flash.stick(8, 0x01, 0x80);
  chip.flash.program16(8, 0x0000);
  EXPECT_EQ(chip.flash.read16(8), 0x8000);
  chip.flash.erase(0, 1024);
  EXPECT_EQ(chip.flash.read16(8), 0xFEFF);
}

TEST(sim_flash, a_stuck_bit_shows_only_after_what_covers_its_byte) {
  for (const uint32_t stuck : {7U, 8U, 9U, 10U}) {
    small_flash chip;
    chip.flash.stick(stuck, 0x01, 0x00);
    chip.flash.program16(8, 0xFFFF);
    const bool covered = stuck == 8 || stuck == 9;
    EXPECT_EQ(byte_at(chip.flash, stuck), covered ? 0xFE : 0xFF) << stuck;
  }
  for (const uint32_t stuck : {1023U, 1024U, 2047U, 2048U}) {
    small_flash chip;
    chip.flash.stick(stuck, 0x01, 0x00);
    chip.flash.erase(1024, 1024);
    const bool covered = stuck == 1024 || stuck == 2047;
    EXPECT_EQ(byte_at(chip.flash, stuck), covered ? 0xFE : 0xFF) << stuck;
  }
}
