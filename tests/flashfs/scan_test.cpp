// The validation and repair of sectors, and the collection of a block's available sectors and
// slots.
#include "flashfs/scan.h"

#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>
#include <string>

#include "flashfs/check_flags.h"
#include "flashfs/flashfs.h"
#include "flashfs/io.h"
#include "tests/flashfs/flashfs_test_tools.h"
#include "tests/flashfs/unchecked_fixture.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"

using namespace test_support;

namespace {

const std::string log_start = "flashfs[0]: ";

class sector_check : public unchecked_fixture {
 protected:
  image_builder image() {
    return image_builder(device());
  }
  // Reads and checks the sector; returns what the check returned.
  int check_at(flashfs_sctr_ptr pointer) {
    EXPECT_EQ(read_sector(fs(), pointer, &sector_, whole_sector), 0);
    device().clear_counts();
    int result = -1;
    output_ = output_of([&] { result = flashfs_check_sector(fs(), pointer, &sector_); });
    return result;
  }
  uint16_t fileid_at(int block, int sector) {
    const uint8_t* at = image().sector_at(block, sector);
    return static_cast<uint16_t>((at[0] << 8) | at[1]);
  }
  uint16_t dir_fileid_at(int block, int sector, int slot_no) {
    const uint8_t* at = image().slot_at(block, sector, slot_no);
    return static_cast<uint16_t>((at[2] << 8) | at[3]);
  }
  // The message of the slot check, for a slot of sector 5 of block 1.
  std::string slot_text(int slot_no, const std::string& rest) {
    return log_start + "Dir slot " + std::to_string(slot_no) + ", sector 5, block 1, " + rest +
           "\n";
  }
  std::string output_;
};

}  // namespace

// --- checking a sector ---

TEST_F(sector_check, an_invalidated_sector_is_not_looked_into) {
  image().data_sector(1, 5, 0, 3, "rubbish", 5000, false);
  EXPECT_EQ(check_at({1, 5}), 0);
  EXPECT_EQ(output_, "");
  EXPECT_EQ(device().counts().calls(), 0U);
  EXPECT_EQ(fs()->flashfs_blocks[1].invalid_sectors, 0);
}

TEST_F(sector_check, an_erased_sector_is_good) {
  EXPECT_EQ(check_at({1, 5}), 0);
  EXPECT_EQ(output_, "");
  EXPECT_EQ(device().counts().calls(), 0U);
}

TEST_F(sector_check, an_erased_looking_sector_with_a_programmed_byte_is_invalidated_in_silence) {
  for (const int byte : {2, 3, 4, 1000, 2054, 2055}) {
    const auto sector = static_cast<uint16_t>(byte % 60);
    image().sector_at(1, sector)[byte] = 0xFE;
    EXPECT_EQ(check_at({1, sector}), 0);
    EXPECT_EQ(output_, "");
    EXPECT_EQ(fileid_at(1, sector), 0);
    EXPECT_EQ(device().counts().writes, 1U);
    EXPECT_EQ(device().counts().words_programmed, 1U);
  }
  EXPECT_EQ(fs()->flashfs_blocks[1].invalid_sectors, 6);
}

TEST_F(sector_check, a_good_data_sector_stays) {
  for (const uint16_t fileid : u16s{2, 65534}) {
    image().data_sector(1, 5, fileid, 3, "contents");
    EXPECT_EQ(check_at({1, 5}), 0);
    EXPECT_EQ(output_, "");
    EXPECT_EQ(device().counts().calls(), 0U);
  }
}

TEST_F(sector_check, a_data_sector_with_a_bad_checksum_is_invalidated) {
  image().data_sector(1, 5, 9, 3, "contents", -1, false);
  const uint16_t crc = image_crc(image().sector_at(1, 5), 2056);
  EXPECT_EQ(check_at({1, 5}), 0);
  EXPECT_EQ(output_, log_start + "sector 5, block 1 checksum (" + hex(crc) + " != 0xe2f0)\n");
  EXPECT_EQ(fileid_at(1, 5), 0);
  EXPECT_EQ(fs()->flashfs_blocks[1].invalid_sectors, 1);
  EXPECT_EQ(device().counts().writes, 1U);
}

TEST_F(sector_check, a_data_sector_with_a_bad_checksum_is_invalid_on_flash_after_the_check) {
  image().headers(0);
  image().data_sector(1, 5, 9, 0, "contents", -1, false);
  image().data_sector(1, 6, 10, 0, "contents");
  mount(flashfs_check_full);
  EXPECT_EQ(fileid_at(1, 5), 0);
  EXPECT_EQ(fileid_at(1, 6), 10);
}

TEST_F(sector_check, a_failing_write_of_the_invalidated_sector_is_returned) {
  image().data_sector(1, 5, 9, 3, "contents", -1, false);
  image().sector_at(1, 6)[100] = 0;
  image().slot(1, 7, 3, {.name = "bad name"});
  for (const uint16_t sector : u16s{5, 6, 7}) {
    device().fail(flash_call::write, 1, flash_operation_failed);
    EXPECT_EQ(check_at({1, sector}), 1) << sector;
    EXPECT_EQ(device().counts().writes, 1U);
  }
}

TEST_F(sector_check, good_deleted_and_erased_slots_stay) {
  image().slot(1, 5, 0, {.mode = 0x8700, .name = "file"});
  image().slot(1, 5, 1, {.mode = 0x4600, .name = ""});
  image().slot(1, 5, 2, {.dir_fileid = 0, .mode = 0x1234, .name = "a b", .good_checksum = false});
  image().slot(1, 5, 31, {.dir_fileid = 65534, .mode = 0x8000, .name = std::string(45, 'n')});
  EXPECT_EQ(check_at({1, 5}), 0);
  EXPECT_EQ(output_, "");
  EXPECT_EQ(device().counts().calls(), 0U);
  EXPECT_EQ(fs()->flashfs_blocks[1].invalid_slots, 0);
}

TEST_F(sector_check, the_checksum_of_a_directory_sector_is_not_used) {
  image().slot(1, 5, 0, {.name = "file"});
  image().sector_at(1, 5)[2054] = 0x12;
  image().sector_at(1, 5)[2052] = 0x34;
  EXPECT_EQ(check_at({1, 5}), 0);
  EXPECT_EQ(output_, "");
}

TEST_F(sector_check, a_slot_with_a_bad_checksum_is_deleted) {
  image().slot(1, 5, 7, {.mode = 0x1000, .name = "a b", .good_checksum = false});
  image().slot(1, 5, 8, {.name = "good"});
  const uint16_t crc = image_crc(image().slot_at(1, 5, 7), 64);
  EXPECT_EQ(check_at({1, 5}), 0);
  EXPECT_EQ(output_, slot_text(7, "checksum (" + hex(crc) + " != 0xe2f0)")) << "the first rule";
  EXPECT_EQ(dir_fileid_at(1, 5, 7), 0);
  EXPECT_EQ(dir_fileid_at(1, 5, 8), 1);
  EXPECT_EQ(fileid_at(1, 5), 1);
  EXPECT_EQ(fs()->flashfs_blocks[1].invalid_slots, 1);
  EXPECT_EQ(device().counts().writes, 1U);
  EXPECT_EQ(device().counts().words_programmed, 1U);
}

TEST_F(sector_check, a_slot_with_an_unknown_file_type_is_deleted) {
  for (const uint16_t type : u16s{0x0, 0x1000, 0x2000, 0xA000, 0xC000, 0xF000}) {
    const auto mode = static_cast<uint16_t>(type | 0x7FF);
    image().slot(1, 5, 31, {.mode = mode, .name = "a b"});
    EXPECT_EQ(check_at({1, 5}), 0);
    EXPECT_EQ(output_, slot_text(31, "bad file type in mode: " + hex(type)));
    EXPECT_EQ(dir_fileid_at(1, 5, 31), 0);
  }
}

TEST_F(sector_check, a_slot_with_an_illegal_name_is_deleted) {
  image().slot(1, 5, 0, {.name = "a b:c"});
  image().slot(1, 5, 1, {.name = "na\x80me"});
  image().slot(1, 5, 2, {.name = "good"});
  EXPECT_EQ(check_at({1, 5}), 0);
  EXPECT_EQ(output_, log_start + "Illegal character 0x20 in filename: \"a b:c\"\n" + log_start +
                         "Illegal character 0xffffff80 in filename: \"na\x80me\"\n");
  EXPECT_EQ(dir_fileid_at(1, 5, 0), 0);
  EXPECT_EQ(dir_fileid_at(1, 5, 1), 0);
  EXPECT_EQ(dir_fileid_at(1, 5, 2), 1);
  EXPECT_EQ(fs()->flashfs_blocks[1].invalid_slots, 2);
  EXPECT_EQ(device().counts().writes, 2U) << "a word for each";
  EXPECT_EQ(device().counts().words_programmed, 2U);
}

TEST_F(sector_check, a_name_without_its_terminator_is_read_no_further_than_its_field) {
  const std::string good(46, 'n');
  image().slot(1, 5, 0, {.name = good});
  EXPECT_EQ(check_at({1, 5}), 0);
  EXPECT_EQ(output_, "");
  EXPECT_EQ(dir_fileid_at(1, 5, 0), 1);
  const std::string bad = std::string(45, 'n') + ";";
  image().slot(1, 5, 31, {.name = bad});
  EXPECT_EQ(check_at({1, 5}), 0);
  EXPECT_EQ(output_, log_start + "Illegal character 0x3b in filename: \"" + bad + "\"\n");
}

TEST_F(sector_check, an_available_slot_that_is_not_erased_is_deleted) {
  image().slot(1, 5, 0, {.name = "good"});
  image().slot_at(1, 5, 9)[63] = 0x7F;
  image().slot_at(1, 5, 10)[0] = 0;
  EXPECT_EQ(check_at({1, 5}), 0);
  EXPECT_EQ(output_, log_start + "bad available_slot.\n" + log_start + "bad available_slot.\n");
  EXPECT_EQ(dir_fileid_at(1, 5, 9), 0);
  EXPECT_EQ(dir_fileid_at(1, 5, 10), 0);
  EXPECT_EQ(dir_fileid_at(1, 5, 11), 0xFFFF);
  EXPECT_EQ(fs()->flashfs_blocks[1].invalid_slots, 2);
}

TEST_F(sector_check, a_directory_sector_that_loses_its_last_slot_is_invalidated) {
  for (int k = 0; k < 32; k++) {
    image().slot(1, 5, k, {.name = "a b"});
  }
  EXPECT_EQ(check_at({1, 5}), 0);
  EXPECT_EQ(fileid_at(1, 5), 0);
  EXPECT_EQ(dir_fileid_at(1, 5, 31), 0);
  EXPECT_EQ(fs()->flashfs_blocks[1].invalid_sectors, 1);
  EXPECT_EQ(fs()->flashfs_blocks[1].invalid_slots, 0);
  EXPECT_EQ(device().counts().writes, 33U) << "the owner's word, and one of each slot";
  EXPECT_EQ(device().counts().words_programmed, 33U);
}

TEST_F(sector_check, a_directory_sector_is_invalidated_when_its_only_live_slot_is_bad) {
  for (int k = 0; k < 32; k++) {
    image().slot(1, 5, k, {.dir_fileid = static_cast<uint16_t>(k == 4 ? 1 : 0), .name = "a b"});
  }
  EXPECT_EQ(check_at({1, 5}), 0);
  EXPECT_EQ(output_, log_start + "Illegal character 0x20 in filename: \"a b\"\n");
  EXPECT_EQ(fileid_at(1, 5), 0);
  EXPECT_EQ(fs()->flashfs_blocks[1].invalid_sectors, 1);
}

TEST_F(sector_check, a_directory_sector_whose_slots_were_all_deleted_before_stays_as_it_is) {
  for (int k = 0; k < 32; k++) {
    image().slot(1, 5, k, {.dir_fileid = 0, .name = "gone"});
  }
  EXPECT_EQ(check_at({1, 5}), 0);
  EXPECT_EQ(output_, "");
  EXPECT_EQ(fileid_at(1, 5), 1);
  EXPECT_EQ(device().counts().calls(), 0U);
}

// --- collecting what is available ---

TEST_F(sector_check, an_erased_block_gives_all_its_sectors_in_ascending_order) {
  output_ = output_of([&] { EXPECT_EQ(flashfs_scan_block_available(fs(), 1), 0); });
  EXPECT_EQ(output_, "");
  std::string expected;
  for (int s = 0; s < 63; s++) {
    expected += (s == 0 ? "1." : " 1.") + std::to_string(s) + "/255";
  }
  EXPECT_EQ(available(fs()->available_sectors), expected);
  EXPECT_EQ(fs()->available_slots, nullptr);
  EXPECT_EQ(fs()->num_available_sectors, 63U);
  EXPECT_EQ(device().counts().reads, 63U) << "two bytes of each sector";
  EXPECT_EQ(device().counts().bytes_read, 126U);
}

TEST_F(sector_check, only_erased_sectors_and_slots_are_collected) {
  for (int s = 0; s < 63; s++) {
    image().data_sector(1, s, static_cast<uint16_t>(s % 2 == 0 ? 0 : 9), 0, "x");
  }
  std::memset(image().sector_at(1, 40), 0xFF, 2056);
  std::memset(image().sector_at(1, 7), 0xFF, 2056);
  for (const int s : {20, 30}) {
    std::memset(image().sector_at(1, s), 0xFF, 2056);
    for (int k = 0; k < 30; k++) {
      image().slot(1, s, k, {.dir_fileid = static_cast<uint16_t>(k % 2), .name = "n"});
    }
  }
  EXPECT_EQ(flashfs_scan_block_available(fs(), 1), 0);
  EXPECT_EQ(available(fs()->available_sectors), "1.7/255 1.40/255");
  EXPECT_EQ(available(fs()->available_slots), "1.20/31 1.20/30 1.30/31 1.30/30");
  EXPECT_EQ(device().counts().reads, 63U + 2) << "of a directory sector the rest is read";
  EXPECT_EQ(device().counts().bytes_read, 126U + 2 * 2054);
  EXPECT_EQ(device().counts().writes, 0U);
}

TEST_F(sector_check, blocks_are_pushed_in_front_of_those_scanned_before) {
  make(ram_blocks(3, 4200));
  EXPECT_EQ(flashfs_scan_block_available(fs(), 2), 0);
  EXPECT_EQ(flashfs_scan_block_available(fs(), 0), 0);
  EXPECT_EQ(available(fs()->available_sectors), "0.0/255 0.1/255 2.0/255 2.1/255");
}

TEST_F(sector_check, an_available_slot_that_is_not_erased_ends_the_collection) {
  image().slot(1, 5, 0, {.name = "good"});
  image().slot_at(1, 5, 9)[63] = 0x7F;
  output_ = output_of([&] { EXPECT_EQ(flashfs_scan_block_available(fs(), 1), 1); });
  EXPECT_EQ(output_,
            log_start + "Inconsistency found in directory slot 9 in sector 5 in block 1\n");
  EXPECT_EQ(fs()->num_available_slots, 8U) << "what was pushed stays";
  EXPECT_EQ(fs()->num_available_sectors, 57U);
  EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
}

TEST_F(sector_check, the_collection_fails_with_any_of_its_reads) {
  make(ram_blocks(2, 4200));
  image().slot(1, 1, 0, {.name = "good"});
  for (uint64_t n = 1; n <= 3; n++) {
    device().clear_counts();
    device().fail(flash_call::read, n, flash_busy);
    output_ = output_of([&] { EXPECT_EQ(flashfs_scan_block_available(fs(), 1), 1) << n; });
    EXPECT_EQ(device().counts().reads, n);
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
  }
  device().fail(flash_call::any, 0, flash_ok);
}

TEST_F(sector_check, without_a_sector_buffer_nothing_is_collected) {
  chunk_pool* pool = fs()->sctr_buf_chunk;
  fs()->sctr_buf_chunk = nullptr;
  output_of([&] { EXPECT_EQ(flashfs_scan_block_available(fs(), 1), 1); });
  EXPECT_EQ(device().counts().reads, 0U);
  fs()->sctr_buf_chunk = pool;
}

TEST_F(sector_check, a_block_without_sectors_has_nothing_to_collect) {
  make({{2000, false}, {4200, false}});
  EXPECT_EQ(flashfs_scan_block_available(fs(), 0), 0);
  EXPECT_EQ(fs()->available_sectors, nullptr);
  EXPECT_EQ(device().counts().reads, 0U);
}
