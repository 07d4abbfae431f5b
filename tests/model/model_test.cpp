// Random sequences of all operations on small and real geometries, compared with a model after
// every step; sequences that once failed; and a sequence from a file.
//
//   MODEL_STEPS=<n>     steps of each random test instead of the build's number
//   MODEL_SEED=<n>      the first seed (each further sequence takes the next one)
//   MODEL_TRACE=1       every step on standard error before it is played, and what has changed
//   since
//                       the last row of tests/golden/changes after it: the traces of two builds
//                       differ first where they do
//   MODEL_REPLAY=<file> a geometry's name on the first line, then steps as a failure prints them:
//                       played by the test model.a_sequence_from_a_file
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>  // IWYU pragma: keep
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/model/model_operation.h"
#include "tests/model/model_run.h"
#include "tests/model/step_generator.h"
#include "tests/support/golden.h"
#include "tests/support/ram_flash.h"

namespace model_test {

namespace {

using test_support::ram_block;
using test_support::ram_blocks;

// Of each test. Fewer under an emulator.
constexpr uint64_t steps_with_stored_changes = 20000;
#ifdef ZANTROLUME_EMULATOR
constexpr uint64_t steps_by_default = 3000;
#else
constexpr uint64_t steps_by_default = steps_with_stored_changes;
#endif
constexpr uint64_t steps_per_sequence = 1000;
// So that the shortest sequence, one of an emulator, has a row.
constexpr uint64_t steps_per_row = 150;
constexpr uint64_t first_seed_by_default = 1;
constexpr auto longest_reduction = std::chrono::seconds(60);

constexpr uint32_t block_of(uint32_t sectors, uint32_t spare_bytes = 0) {
  return 32 + sectors * 2056 + spare_bytes;
}

const std::vector<geometry>& geometries() {
  static const std::vector<geometry> all = {
      {"equal_blocks", ram_blocks(5, block_of(8)), {}, false},
      {"mixed_blocks",
       {{block_of(9, 100)},
        {block_of(4)},
        {block_of(9)},
        {block_of(2, 2054)},
        {block_of(6)},
        {block_of(9)}},
       {},
       false},
      {"two_devices",
       {{block_of(6)}, {block_of(5)}, {block_of(7), true}, {block_of(6)}},
       {{block_of(3), true}, {block_of(10)}, {block_of(10)}, {block_of(1)}},
       false},
      {"empty_blocks",
       {{block_of(8)},
        {block_of(0)},
        {block_of(8)},
        {block_of(1)},
        {block_of(0, 500)},
        {block_of(8)}},
       {},
       true},
      {"smallest", ram_blocks(2, block_of(4)), {}, false},
      {"large_blocks", ram_blocks(4, 0x20000), {}, false, 50, 4},
      {"ppc", test_support::ram_blocks_of_ppc(), {}, false, 400, 40},
  };
  return all;
}

const geometry* geometry_named(const std::string& name) {
  for (const geometry& each : geometries()) {
    if (name == each.name) {
      return &each;
    }
  }
  return nullptr;
}

uint64_t number_from_environment(const char* name, uint64_t otherwise) {
  const char* text = std::getenv(name);
  return text == nullptr ? otherwise : std::strtoull(text, nullptr, 0);
}

const char* name_of(fullness how) {
  return how == fullness::tight ? "tight" : "loose";
}

bool tracing() {
  static const bool on = std::getenv("MODEL_TRACE") != nullptr;
  return on;
}

void trace_changes(const model_run& run) {
  if (tracing()) {
    std::fprintf(stderr, "  %s\n", run.changes_so_far().c_str());
  }
}

// Rows of what the steps of sequences changed on flash, answered and left in memory.
using change_rows = std::vector<std::string>;

void add_row(model_run& run, uint64_t seed, const std::string& steps, change_rows* rows) {
  rows->push_back("seed " + std::to_string(seed) + " | " + steps + " | " + run.take_changes());
}

// Plays steps from the beginning. Returns what went wrong, or nothing; `*played` is the number of
// steps that were begun.
std::string play_all(const geometry& shape, const std::vector<step>& steps, run_counts* counts,
                     size_t* played) {
  model_run run(shape, counts);
  for (*played = 0; *played < steps.size();) {
    const step& one = steps[(*played)++];
    if (tracing()) {
      std::fprintf(stderr, "%s\n", to_text(one).c_str());
    }
    if (!run.play(one)) {
      return "after " + to_text(one) + ": " + run.failure();
    }
  }
  return run.finish() ? "" : "at the end: " + run.failure();
}

// Leaves out whatever the failure does not need, in ever smaller pieces.
std::vector<step> reduced(const geometry& shape, std::vector<step> steps, std::string* failure) {
  const auto end = std::chrono::steady_clock::now() + longest_reduction;
  run_counts ignored;
  for (size_t piece = std::max<size_t>(steps.size() / 2, 1);; piece = (piece + 1) / 2) {
    bool left_out = false;
    for (size_t start = 0; start < steps.size() && std::chrono::steady_clock::now() < end;) {
      std::vector<step> shorter = steps;
      const auto first = shorter.begin() + static_cast<ptrdiff_t>(start);
      const size_t count = std::min(piece, steps.size() - start);
      shorter.erase(first, first + static_cast<ptrdiff_t>(count));
      size_t played = 0;
      const std::string still = play_all(shape, shorter, &ignored, &played);
      if (still.empty()) {
        start += piece;
        continue;
      }
      shorter.resize(std::min(played, shorter.size()));
      steps = std::move(shorter);
      *failure = still;
      left_out = true;
    }
    if (piece == 1 && (!left_out || std::chrono::steady_clock::now() >= end)) {
      return steps;
    }
  }
}

std::string failure_report(const geometry& shape, std::vector<step> steps, std::string failure) {
  const size_t before = steps.size();
  steps = reduced(shape, std::move(steps), &failure);
  std::ostringstream out;
  out << failure << "\nreduced from " << before << " to " << steps.size()
      << " steps; play them again with MODEL_REPLAY=<file>:\n"
      << shape.name << "\n";
  for (const step& one : steps) {
    out << to_text(one) << "\n";
  }
  return out.str();
}

// One sequence of its own. False after a failure.
bool play_random(const geometry& shape, fullness how, uint64_t seed, uint64_t length,
                 run_counts* counts, change_rows* rows) {
  // Known also when the sequence ends the process.
  std::printf("[ sequence ] %s, %s, seed %llu\n", shape.name, name_of(how),
              static_cast<unsigned long long>(seed));
  std::vector<step> steps;
  std::string failure;
  {
    model_run run(shape, counts);
    // Other sequences on every geometry and fullness.
    const auto place = static_cast<uint64_t>(&shape - geometries().data());
    step_generator generator(seed * 100 + place * 2 + (how == fullness::tight ? 1 : 0), how);
    while (steps.size() < length && failure.empty()) {
      steps.push_back(generator.next(run.model()));
      if (tracing()) {
        std::fprintf(stderr, "%s\n", to_text(steps.back()).c_str());
      }
      if (!run.play(steps.back())) {
        failure = "after " + to_text(steps.back()) + ": " + run.failure();
      }
      trace_changes(run);
      if (steps.size() % steps_per_row == 0) {
        add_row(run, seed, "to step " + std::to_string(steps.size()), rows);
      }
    }
    if (failure.empty() && !run.finish()) {
      failure = "at the end: " + run.failure();
    }
    if (failure.empty() && length == steps_per_sequence) {
      add_row(run, seed, "to the end", rows);
    }
  }
  if (failure.empty()) {
    return true;
  }
  ADD_FAILURE() << shape.name << ", seed " << seed << ": "
                << failure_report(shape, std::move(steps), failure);
  return false;
}

void print_counts(const char* name, fullness how, uint64_t first_seed, uint64_t last_seed,
                  const run_counts& counts) {
  std::printf(
      "[ model    ] %s, %s: seeds %llu to %llu, %llu steps (%llu calls succeeded), %llu fresh "
      "mounts, %llu erases, "
      "%llu short writes",
      name, name_of(how), static_cast<unsigned long long>(first_seed),
      static_cast<unsigned long long>(last_seed), static_cast<unsigned long long>(counts.steps),
      static_cast<unsigned long long>(counts.successes),
      static_cast<unsigned long long>(counts.fresh_mounts),
      static_cast<unsigned long long>(counts.erases),
      static_cast<unsigned long long>(counts.short_writes));
  for (const auto& [what, count] : counts.no_space) {
    std::printf(", %s ENOSPC %llu", what.c_str(), static_cast<unsigned long long>(count));
  }
  for (const auto& [what, count] : counts.went_down) {
    std::printf(", %s marked down %llu", what.c_str(), static_cast<unsigned long long>(count));
  }
  std::printf("\n");
}

void play_sequences(const char* name, fullness how, uint64_t share = 1) {
  const geometry& shape = *geometry_named(name);
  const uint64_t total = number_from_environment("MODEL_STEPS", steps_by_default) / share;
  const uint64_t first_seed = number_from_environment("MODEL_SEED", first_seed_by_default);
  // As many sequences, from the first seed on, have their changes stored.
  const uint64_t stored = steps_with_stored_changes / share / steps_per_sequence;
  change_rows known_rows;
  run_counts counts;
  uint64_t seed = first_seed;
  for (uint64_t done = 0; done < total; ++seed) {
    const uint64_t length = std::min(steps_per_sequence, total - done);
    change_rows rows;
    if (!play_random(shape, how, seed, length, &counts, &rows)) {
      break;
    }
    if (seed >= first_seed_by_default && seed < first_seed_by_default + stored) {
      known_rows.insert(known_rows.end(), rows.begin(), rows.end());
    }
    done += length;
  }
  print_counts(name, how, first_seed, seed - 1, counts);
  const bool all = first_seed == first_seed_by_default && total >= stored * steps_per_sequence;
  test_support::expect_golden_rows(
      std::string("changes/") + name + "_" + name_of(how) + ".txt", known_rows,
      all ? test_support::golden_rows::all : test_support::golden_rows::some);
}

void play_text(const std::string& name, const std::string& text) {
  const geometry* shape = geometry_named(name);
  ASSERT_NE(shape, nullptr) << "no geometry " << name;
  std::string bad;
  const std::vector<step> steps = steps_from_text(text, &bad);
  ASSERT_EQ(bad, "");
  run_counts counts;
  size_t played = 0;
  const std::string failure = play_all(*shape, steps, &counts, &played);
  EXPECT_EQ(failure, "");
}

}  // namespace

TEST(model, equal_blocks_loosely_filled) {
  play_sequences("equal_blocks", fullness::loose);
}
TEST(model, equal_blocks_kept_full) {
  play_sequences("equal_blocks", fullness::tight);
}
TEST(model, mixed_blocks_loosely_filled) {
  play_sequences("mixed_blocks", fullness::loose);
}
TEST(model, mixed_blocks_kept_full) {
  play_sequences("mixed_blocks", fullness::tight);
}
TEST(model, two_devices_loosely_filled) {
  play_sequences("two_devices", fullness::loose);
}
TEST(model, two_devices_kept_full) {
  play_sequences("two_devices", fullness::tight);
}
TEST(model, blocks_without_sectors_kept_full) {
  play_sequences("empty_blocks", fullness::tight);
}
TEST(model, the_smallest_device_kept_full) {
  play_sequences("smallest", fullness::tight);
}
TEST(model, large_blocks_loosely_filled) {
  play_sequences("large_blocks", fullness::loose);
}
TEST(model, large_blocks_kept_full) {
  play_sequences("large_blocks", fullness::tight);
}
TEST(model, the_device_of_a_complex_loosely_filled) {
  play_sequences("ppc", fullness::loose, 10);
}
TEST(model, the_device_of_a_complex_kept_full) {
  play_sequences("ppc", fullness::tight, 20);
}

// A geometry and steps in their text form.
TEST(model, a_sequence_from_a_file) {
  std::string text =
      "equal_blocks\n"
      "mkdir /d 511\n"
      "open 3 /d/a%20b 267 438\n"
      "open 3 //d/file 267 438\n"
      "write 3 5000 77\n"
      "rename /d/file /moved\n"
      "check 0\n"
      "close 3\n"
      "check 3\n";
  if (const char* path = std::getenv("MODEL_REPLAY"); path != nullptr) {
    std::ifstream in(path);
    ASSERT_TRUE(in) << path;
    std::ostringstream whole;
    whole << in.rdbuf();
    text = whole.str();
  }
  const size_t first_line = text.find('\n');
  play_text(text.substr(0, first_line), text.substr(std::min(first_line, text.size() - 1) + 1));
}

TEST(model, every_step_survives_its_text_form) {
  step one;
  one.handle = 7;
  one.path = "/a b%\"\\\x80\x01";
  one.second_path = "";
  one.a = -5;
  one.b = 1LL << 40;
  for (size_t kind = 0; kind < step_kinds; ++kind) {
    one.kind = static_cast<step_kind>(kind);
    const std::string text = to_text(one);
    const std::optional<step> back = step_from_text(text);
    ASSERT_TRUE(back.has_value()) << text;
    EXPECT_EQ(to_text(*back), text);
    EXPECT_EQ(back->kind, one.kind);
  }
  const std::optional<step> renamed = step_from_text("rename %2f%25 %");
  ASSERT_TRUE(renamed.has_value());
  EXPECT_EQ(renamed->path, "/%");
  EXPECT_EQ(renamed->second_path, "");
}

// Sequences that once failed or that hold a corner which random steps meet rarely.
struct kept_sequence {
  const char* name;
  const char* geometry;
  const char* steps;
};

const kept_sequence kept_sequences[] = {
    {"a_block_of_no_sectors_ends_a_collection", "empty_blocks",
     "open 0 /k6 259 0\n"
     "write 0 2049 1\n"
     "write 0 4097 2\n"
     "write 0 29096 3\n"
     "write 0 4097 4\n"},
    {"an_unknown_file_id_does_not_mark_down", "equal_blocks",
     "istat / 77\n"
     "istat / 65535\n"
     "istat / 1\n"},
    {"an_append_that_ends_too_far_leaves_the_position", "equal_blocks",
     "open 0 /a 267 0\n"
     "write 0 10 1\n"
     "seek 0 3 0\n"
     "write 0 2147483647 1\n"
     "read 0 4\n"
     "seek 0 0 1\n"},
    {"short_sectors_stay_short_and_their_rest_erased", "equal_blocks",
     "open 0 /a 259 0\n"
     "write 0 100 1\n"
     "seek 0 2048 0\n"
     "write 0 50 2\n"
     "seek 0 0 0\n"
     "read 0 5000\n"
     "read 0 5000\n"
     "truncate 0 2048\n"
     "fstat 0\n"
     "seek 0 600 0\n"
     "write 0 10 3\n"
     "truncate 0 605\n"
     "seek 0 2 2\n"
     "write 0 5 4\n"
     "seek 0 0 0\n"
     "read 0 5000\n"},
    {"a_hole_reads_as_zeros_and_survives_a_collection", "mixed_blocks",
     "open 0 /a 259 0\n"
     "seek 0 9000 0\n"
     "write 0 3 1\n"
     "seek 0 0 0\n"
     "read 0 10000\n"
     "close 0\n"
     "check 2\n"
     "remount 3\n"
     "open 0 /a 1 0\n"
     "read 0 10000\n"},
    {"a_write_far_past_the_end_takes_all_space", "smallest",
     "open 0 /a 259 0\n"
     "write 0 5 1\n"
     "seek 0 1000000 0\n"
     "write 0 5 2\n"
     "seek 0 0 1\n"
     "fstat 0\n"
     "seek 0 0 0\n"
     "write 0 3 3\n"
     "truncate 0 0\n"
     "write 0 3 3\n"},
    {"a_listing_goes_on_after_renames_and_moves", "two_devices",
     "mkdir /d 0\n"
     "mkdir /d/x 0\n"
     "mkdir /d/y 0\n"
     "mkdir /d/z 0\n"
     "open 0 /d 1 0\n"
     "getdents 0 76\n"
     "rename /d/y /d/yy\n"
     "rename /d/z /z\n"
     "mkdir /d/w 0\n"
     "getdents 0 76\n"
     "seek 0 0 1\n"
     "seek 0 64 0\n"
     "getdents 0 300\n"
     "getdents 0 300\n"
     "seek 0 63 0\n"
     "getdents 0 76\n"
     "getdents 0 75\n"},
};

class kept : public testing::TestWithParam<kept_sequence> {};

TEST_P(kept, still_agrees_with_the_model) {
  play_text(GetParam().geometry, GetParam().steps);
}

INSTANTIATE_TEST_SUITE_P(model, kept, testing::ValuesIn(kept_sequences),
                         [](const auto& instance) { return std::string(instance.param.name); });

}  // namespace model_test
