// The reader of records: each kind of record, good and damaged, and what they tell together. That
// it believes what the file system believes is shown by records_against_check_test.cpp.
#include "image/records.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/image_builder.h"
#include "tests/support/ram_flash.h"
#include "tests/support/stored_image.h"

namespace {

using image::entry_record;
using image::finding;
using image::read_records;
using image::records;
using image::sector_kind;
using image::slot_verdict;

constexpr uint32_t sectors_per_block = 6;
constexpr uint32_t block_size = 32 + sectors_per_block * 2056 + 8;
constexpr uint32_t blocks = 4;

// Four blocks of six sectors and eight bytes behind them. Block 0 is the spare, the others are in
// use; sector 1.0 is the directory sector with the root's slot.
class records_test : public testing::Test {
 protected:
  records_test() : bytes(blocks * block_size, 0xFF), builder(bytes.data(), blocks, block_size) {
    builder.headers(0);
    add_slot(31, {.seq_no = 0, .entry_fileid = 1, .mode = 0x4600, .name = ""});
  }
  void add_slot(int number, const test_support::image_slot& fields) {
    builder.slot(1, 0, number, fields);
  }
  records read() const {
    return read_records(bytes, {{{blocks, block_size}}, blocks});
  }
  // The codes with their places: "block-number 2", "sector-checksum 1.3", "slot-type 1.0.30".
  std::vector<std::string> found() const {
    std::vector<std::string> all;
    for (const finding& each : read().findings) {
      std::string text = each.code;
      text += each.block ? " " + std::to_string(*each.block) : "";
      text += each.sector ? "." + std::to_string(*each.sector) : "";
      text += each.slot ? "." + std::to_string(*each.slot) : "";
      text += each.path.empty() ? "" : " " + each.path;
      all.push_back(text);
    }
    return all;
  }
  // What the first finding says.
  std::string said() const {
    const records all = read();
    return all.findings.empty() ? "" : all.findings.front().text;
  }
  using texts = std::vector<std::string>;

  std::vector<uint8_t> bytes;
  test_support::image_builder builder;
};

std::vector<std::string> paths_of(const records& all) {
  std::vector<std::string> paths;
  for (const auto& [id, entry] : all.entries) {
    paths.push_back(path_of(all, id));
  }
  return paths;
}

}  // namespace

TEST_F(records_test, a_sound_image_has_no_findings) {
  add_slot(30, {.seq_no = 1, .entry_fileid = 2, .name = "a"});
  builder.file(1, 1, 2, std::string(3000, 'x'));
  EXPECT_EQ(found(), texts{});
  const records all = read();
  EXPECT_EQ(all.spare, 0U);
  ASSERT_EQ(all.blocks.size(), blocks);
  EXPECT_EQ(all.sectors.size(), blocks * sectors_per_block);
  EXPECT_EQ(all.slots.size(), 32U);
  EXPECT_EQ(all.total.data_sectors, 2U);
  EXPECT_EQ(all.total.directory_sectors, 1U);
  EXPECT_EQ(all.total.free_sectors, blocks * sectors_per_block - 3);
  EXPECT_EQ(all.total.good_slots, 2U);
  EXPECT_EQ(all.total.free_slots, 30U);
  EXPECT_EQ(all.total.current, 4U);
}

TEST_F(records_test, files_and_directories_have_their_paths_sizes_and_contents) {
  add_slot(30, {.seq_no = 1, .entry_fileid = 2, .mode = 0x4700, .name = "dir"});
  add_slot(29, {.seq_no = 0, .dir_fileid = 2, .entry_fileid = 3, .name = "file"});
  add_slot(28, {.seq_no = 1, .dir_fileid = 2, .entry_fileid = 4, .name = "empty"});
  const std::string contents = std::string(2048, 'a') + std::string(2048, 'b') + "c";
  builder.file(2, 1, 3, contents);
  const records all = read();
  EXPECT_EQ(paths_of(all), (texts{"/", "/dir", "/dir/file", "/dir/empty"}));
  EXPECT_EQ(all.find_entry(3)->size, 4097U);
  EXPECT_EQ(contents_of(all, *all.find_entry(3)), contents);
  EXPECT_EQ(all.find_entry(2)->size, 128U);
  EXPECT_TRUE(all.find_entry(2)->is_directory);
  EXPECT_EQ(all.find_entry(4)->size, 0U);
  EXPECT_EQ(find_path(all, "/dir/file"), all.find_entry(3));
  EXPECT_EQ(find_path(all, "dir//empty/"), all.find_entry(4));
  EXPECT_EQ(find_path(all, "/"), all.find_entry(1));
  EXPECT_EQ(find_path(all, "/dir/none"), nullptr);
  EXPECT_EQ(find_path(all, "/dir/file/x"), nullptr);
  EXPECT_EQ(path_of(all, 77), "");
}

TEST_F(records_test, a_place_tells_its_block_sector_and_slot) {
  const records all = read();
  EXPECT_EQ(find_place(all, block_size).block->number, 1U);
  EXPECT_EQ(find_place(all, block_size + 31).sector, nullptr);
  const image::image_place first = find_place(all, block_size + 32);
  EXPECT_EQ(first.sector, &all.sectors[sectors_per_block]);
  EXPECT_EQ(first.slot, nullptr);  // the owner
  EXPECT_EQ(find_place(all, block_size + 36).slot, &all.slots[0]);
  EXPECT_EQ(find_place(all, block_size + 36 + 31 * 64 + 63).slot, &all.slots[31]);
  EXPECT_EQ(find_place(all, block_size + 36 + 32 * 64).slot, nullptr);
  EXPECT_EQ(find_place(all, 2 * block_size - 1).sector, nullptr);
  EXPECT_EQ(find_place(all, 2 * block_size - 1).block->number, 1U);
  EXPECT_EQ(find_place(all, 2 * block_size + 32).slot, nullptr);
  EXPECT_EQ(find_place(all, blocks * block_size).block, nullptr);
  EXPECT_EQ(find_place(all, UINT64_MAX).block, nullptr);
}

// --- blocks ---

TEST_F(records_test, a_block_with_a_bad_header_is_told_with_what_is_at_stake) {
  builder.data_sector(2, 3, 2, 0, "x");
  builder.header(2, {.block_num = 7, .state = 0});
  EXPECT_EQ(found(), texts{"block-number 2"});
  EXPECT_EQ(said(),
            "the header is of block 7: a check erases the block; it holds 1 good sector and 0 good "
            "slots");
  builder.header(2, {.state = 0, .good_checksum = false});
  EXPECT_EQ(found(), texts{"block-checksum 2"});
  std::memset(builder.header_at(2), 0xFF, 32);
  EXPECT_EQ(found(), texts{"block-header-erased 2"});
}

TEST_F(records_test, an_erased_block_without_header_is_blank) {
  std::memset(builder.header_at(2), 0xFF, 32);
  EXPECT_EQ(found(), texts{"block-blank 2"});
}

TEST_F(records_test, states_that_a_cut_leaves_are_told) {
  builder.header(2, {.state = 7});
  EXPECT_EQ(found(), texts{"block-invalid1 2"});
  builder.header(2, {.state = 3});
  EXPECT_EQ(found(), texts{"block-committed 2"});
  EXPECT_TRUE(read().blocks[2].is_read);
  builder.header(2, {.state = 1});
  EXPECT_EQ(found(), texts{"block-invalid2 2"});
  builder.header(2, {.state = 2});
  EXPECT_EQ(found(), texts{"block-state 2"});
  EXPECT_FALSE(read().blocks[2].is_read);
}

TEST_F(records_test, an_available_block_that_holds_something_is_told) {
  builder.header(2, {.state = 0xF});
  *builder.sector_at(2, 4) = 0;
  EXPECT_EQ(found(), texts{"block-not-erased 2"});
}

TEST_F(records_test, a_flash_without_a_spare_cannot_be_used) {
  builder.header(0, {.state = 0});
  EXPECT_EQ(found(), texts{"no-spare"});
  EXPECT_EQ(read().spare, std::nullopt);
  // A block that the check erases becomes the spare.
  builder.header(3, {.state = 7});
  EXPECT_EQ(found(), texts{"block-invalid1 3"});
}

TEST_F(records_test, unused_bytes_are_told_and_do_not_matter) {
  builder.header_at(2)[20] = 0;
  builder.header_at(3)[block_size - 1] = 0;
  EXPECT_EQ(found(), (texts{"block-header-unused 2", "block-tail 3"}));
  EXPECT_FALSE(has_errors(read().findings));
  EXPECT_FALSE(has_warnings(read().findings));
}

TEST_F(records_test, records_of_blocks_that_are_not_read_do_not_count) {
  add_slot(30, {.seq_no = 1, .entry_fileid = 2, .name = "a"});
  builder.data_sector(2, 0, 2, 0, "copy");
  builder.data_sector(3, 0, 2, 0, "true");
  builder.header(2, {.state = 7});
  const records all = read();
  EXPECT_EQ(contents_of(all, *all.find_entry(2)), "true");
  EXPECT_EQ(all.blocks[2].counts.data_sectors, 1U);
  EXPECT_EQ(all.blocks[2].counts.current, 0U);
}

// --- sectors ---

TEST_F(records_test, sectors_that_are_not_good_do_not_count) {
  add_slot(30, {.seq_no = 1, .entry_fileid = 2, .name = "a"});
  builder.data_sector(2, 0, 2, 0, "good");
  builder.data_sector(2, 1, 2, 1, "bad", -1, false);
  uint8_t* claimed = builder.sector_at(2, 2);
  claimed[0] = 0;
  claimed[1] = 2;
  builder.sector_at(2, 3)[2000] = 0;
  EXPECT_EQ(found(),
            (texts{"sector-checksum 2.1 /a", "sector-unfinished 2.2 /a", "sector-not-erased 2.3"}));
  const records all = read();
  EXPECT_EQ(contents_of(all, *all.find_entry(2)), "good");
  EXPECT_EQ(all.total.bad_sectors, 3U);
}

TEST_F(records_test, of_two_sectors_of_one_number_the_last_one_counts) {
  add_slot(30, {.seq_no = 1, .entry_fileid = 2, .name = "a"});
  builder.data_sector(2, 5, 2, 0, "first");
  builder.data_sector(3, 0, 2, 0, "last");
  EXPECT_EQ(found(), texts{"sector-duplicate 2.5 /a"});
  EXPECT_EQ(said(), "number 0 of file 2 is also in sector 3.0, which counts");
  const records all = read();
  EXPECT_EQ(contents_of(all, *all.find_entry(2)), "last");
  EXPECT_EQ(all.find_entry(2)->other_sectors.size(), 1U);
}

TEST_F(records_test, a_file_with_a_gap_has_no_contents) {
  add_slot(30, {.seq_no = 1, .entry_fileid = 2, .name = "a"});
  builder.data_sector(2, 0, 2, 0, "x");
  builder.data_sector(2, 1, 2, 2, "z");
  EXPECT_EQ(found(), texts{"file-gap /a"});
  const records all = read();
  EXPECT_EQ(all.find_entry(2)->size, 0U);
  EXPECT_EQ(all.find_entry(2)->other_sectors.size(), 2U);
  EXPECT_EQ(all.total.current, 2U);
}

TEST_F(records_test, counts_that_do_not_fit_are_told) {
  add_slot(30, {.seq_no = 1, .entry_fileid = 2, .name = "a"});
  builder.data_sector(2, 0, 2, 0, "short");
  builder.data_sector(2, 1, 2, 1, std::string(2048, 'x'), 5000);
  EXPECT_EQ(found(), (texts{"sector-count 2.1 /a", "sector-short 2.0 /a"}));
  EXPECT_EQ(contents_of(read(), *read().find_entry(2)), "short" + std::string(2048, 'x'));
}

// --- slots ---

TEST_F(records_test, slots_that_are_not_good_do_not_count) {
  add_slot(30, {.seq_no = 1, .entry_fileid = 2, .name = "a", .good_checksum = false});
  add_slot(29, {.seq_no = 2, .entry_fileid = 3, .mode = 0x2700, .name = "b"});
  add_slot(28, {.seq_no = 3, .entry_fileid = 4, .name = "c c"});
  add_slot(27, {.seq_no = 4, .entry_fileid = 5, .name = "d"});
  std::memset(builder.slot_at(1, 0, 27) + 62, 0xFF, 2);
  builder.slot_at(1, 0, 26)[1] = 3;
  builder.slot_at(1, 0, 25)[2] = 0;  // torn between free and deleted: some other directory
  EXPECT_EQ(found(),
            (texts{"slot-unfinished 1.0.25", "slot-not-erased 1.0.26", "slot-unfinished 1.0.27",
                   "slot-name 1.0.28", "slot-type 1.0.29", "slot-checksum 1.0.30"}));
  EXPECT_EQ(read().entries.size(), 1U);
  EXPECT_EQ(read().total.bad_slots, 6U);
}

TEST_F(records_test, deleted_slots_are_not_judged) {
  add_slot(30, {.seq_no = 1, .dir_fileid = 0, .entry_fileid = 2, .name = "a\x01"});
  EXPECT_EQ(found(), texts{});
  EXPECT_EQ(read().total.deleted_slots, 1U);
}

TEST_F(records_test, of_two_slots_of_one_number_the_last_one_counts) {
  add_slot(29, {.seq_no = 1, .entry_fileid = 2, .name = "first"});
  add_slot(30, {.seq_no = 1, .entry_fileid = 2, .name = "last"});
  EXPECT_EQ(found(), texts{"slot-duplicate 1.0.29 /first"});
  EXPECT_EQ(said(), "number 1 of directory 1 is also in slot 1.0.30, which counts");
  EXPECT_EQ(paths_of(read()), (texts{"/", "/last"}));
}

TEST_F(records_test, a_second_name_is_passed_over) {
  add_slot(30, {.seq_no = 1, .entry_fileid = 2, .name = "a"});
  add_slot(29, {.seq_no = 2, .entry_fileid = 2, .name = "b"});
  EXPECT_EQ(found(), texts{"slot-second-name 1.0.29 /b"});
  EXPECT_EQ(paths_of(read()), (texts{"/", "/a"}));
}

TEST_F(records_test, a_name_that_stands_twice_in_a_directory_is_told) {
  add_slot(30, {.seq_no = 1, .entry_fileid = 2, .name = "a"});
  add_slot(29, {.seq_no = 2, .entry_fileid = 3, .name = "a"});
  EXPECT_EQ(found(), texts{"slot-same-name 1.0.29 /a"});
  EXPECT_EQ(find_path(read(), "/a")->id, 2);
}

TEST_F(records_test, odd_names_are_told) {
  add_slot(30, {.seq_no = 1, .entry_fileid = 2, .name = std::string(46, 'x')});
  add_slot(29, {.seq_no = 2, .entry_fileid = 3, .name = ""});
  EXPECT_EQ(found(), (texts{"slot-name-empty 1.0.29 /",
                            "slot-name-length 1.0.30 /" + std::string(46, 'x')}));
}

TEST_F(records_test, ids_that_nothing_can_have_are_told) {
  add_slot(30, {.seq_no = 1, .entry_fileid = 0, .name = "a"});
  add_slot(29, {.seq_no = 2, .entry_fileid = 0xFFFF, .name = "b"});
  EXPECT_EQ(found(), (texts{"slot-entry 1.0.29 /b", "slot-entry 1.0.30 /a"}));
}

// --- the tree ---

TEST_F(records_test, what_no_directory_names_is_an_orphan) {
  builder.data_sector(2, 0, 5, 0, "x");
  add_slot(30, {.seq_no = 0, .dir_fileid = 8, .entry_fileid = 9, .name = "in-orphan"});
  EXPECT_EQ(found(), (texts{"orphan", "orphan"}));
  const records all = read();
  EXPECT_TRUE(all.find_entry(5)->is_orphan);
  EXPECT_TRUE(all.find_entry(8)->is_orphan);
  EXPECT_TRUE(all.find_entry(8)->is_directory);
  EXPECT_FALSE(all.find_entry(9)->is_orphan);
  EXPECT_FALSE(all.find_entry(9)->is_reached);
  EXPECT_EQ(path_of(all, 9), "");
  EXPECT_EQ(said(), "file 5 with 1 sector has no name: a check gives it \"/lost+found/00005\"");
}

TEST_F(records_test, directories_that_contain_each_other_end) {
  add_slot(30, {.seq_no = 0, .dir_fileid = 8, .entry_fileid = 9, .mode = 0x4700, .name = "a"});
  add_slot(29, {.seq_no = 0, .dir_fileid = 9, .entry_fileid = 8, .mode = 0x4700, .name = "b"});
  add_slot(28, {.seq_no = 1, .entry_fileid = 10, .mode = 0x4700, .name = "self"});
  add_slot(27, {.seq_no = 0, .dir_fileid = 10, .entry_fileid = 10, .mode = 0x4700, .name = "self"});
  EXPECT_EQ(found(), texts{"slot-second-name 1.0.27 /self/self"});
  EXPECT_EQ(paths_of(read()), (texts{"/", "", "", "/self"}));
}

TEST_F(records_test, a_root_without_a_slot_is_told) {
  std::memset(builder.slot_at(1, 0, 31), 0xFF, 64);
  EXPECT_EQ(found(), texts{});  // never used
  add_slot(30, {.seq_no = 1, .entry_fileid = 2, .name = "a"});
  EXPECT_EQ(found(), texts{"root-missing"});
  EXPECT_EQ(paths_of(read()), (texts{"/", "/a"}));
}

TEST_F(records_test, data_of_a_directory_are_told) {
  add_slot(30, {.seq_no = 1, .entry_fileid = 2, .mode = 0x4700, .name = "a"});
  builder.data_sector(2, 0, 2, 0, "x");
  EXPECT_EQ(found(), texts{"file-in-directory /a"});
}

// --- images as a whole ---

TEST_F(records_test, an_image_that_ends_early_has_what_it_holds_whole) {
  for (size_t size = 0; size <= bytes.size(); size += size % 1000 == 0 ? 7 : 1) {
    const records all =
        read_records(std::span(bytes).first(size), {{{blocks, block_size}}, blocks});
    ASSERT_EQ(all.blocks.size(), blocks);
    size_t whole = 0;
    for (uint32_t block = 0; block < blocks; ++block) {
      const size_t start = block * block_size + 32;
      whole += size < start ? 0 : std::min<size_t>((size - start) / 2056, sectors_per_block);
    }
    ASSERT_EQ(all.sectors.size(), whole) << size;
    size += 40;
  }
  EXPECT_STREQ(
      read_records(std::span(bytes).first(100), {{{blocks, block_size}}, blocks}).findings[0].code,
      "image-size");
}

TEST(records, of_the_stored_images_are_what_these_images_hold) {
  const auto codes_of = [](const char* name) {
    const std::string image = test_support::read_stored_image(name);
    std::vector<std::string> codes;
    for (const finding& each :
         read_records({reinterpret_cast<const uint8_t*>(image.data()), image.size()},
                      image::default_geometry())
             .findings) {
      if (codes.empty() || codes.back() != each.code) {
        codes.emplace_back(each.code);
      }
    }
    return codes;
  };
  using texts = std::vector<std::string>;
  EXPECT_EQ(codes_of("basic"), texts{});
  EXPECT_EQ(codes_of("many"), texts{});
  EXPECT_EQ(codes_of("blank"), texts{"block-blank"});
  EXPECT_EQ(codes_of("orphans"), texts{"orphan"});
  EXPECT_EQ(codes_of("no_spare"), texts{"no-spare"});
  EXPECT_EQ(codes_of("interrupted_copy"), texts{"block-invalid1"});
  EXPECT_EQ(codes_of("gap_in_file"), texts{"file-gap"});
  EXPECT_EQ(codes_of("committed_erased"), texts{"block-committed"});
  EXPECT_EQ(codes_of("bad_headers"),
            (texts{"block-number", "block-checksum", "block-blank", "block-number"}));
}
