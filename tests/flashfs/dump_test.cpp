// The diagnostic dumps, letter by letter, and that they change nothing.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "flashfs/available.h"
#include "flashfs/buffer.h"
#include "flashfs/flashfs.h"
#include "sim/flash.h"
#include "tests/flashfs/flashfs_recipe.h"
#include "tests/flashfs/flashfs_test_tools.h"
#include "tests/flashfs/operations_fixture.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"

namespace {

using namespace test_support;

// What the dumps print. Afterwards flash, counters and lists are as before.
class dump : public operations_fixture {
 protected:
  template <typename callable>
  std::string dumped(callable&& call) {
    const std::vector<uint8_t> before = device().flash().snapshot();
    const std::string state = memory_text();
    const std::string text = output_of(call);
    EXPECT_EQ(device().flash().snapshot(), before);
    EXPECT_EQ(memory_text(), state);
    EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
    return text;
  }
  std::string list_of(uint16_t fileid) {
    const std::string text = dumped([&] { flashfs_dump_file_list(fs(), fileid); });
    EXPECT_EQ(dumped([&] { flashfs_dump_file_list_lock(fs(), fileid); }), text);
    return text;
  }
  std::string sector(int16_t block_num, uint16_t sctr_num) {
    return dumped([&] { flashfs_dump_sctr(fs(), block_num, sctr_num); });
  }
  std::string slot(int16_t block_num, uint16_t sctr_num, uint8_t slot_no) {
    return dumped([&] { flashfs_dump_slot(fs(), block_num, sctr_num, slot_no); });
  }
  std::string memory_text() {
    return sectors_text(fs()) + "|" + slots_text(fs()) + "|" + map_text(fs()) + "|" +
           counters_text() + "|" + std::to_string(fs()->ready);
  }

  // Block 0: the root's sector with a file and a directory, their sectors, an invalidated one.
  void make_small() {
    make_blocks({5, 5, 3});
    image().headers(1);
    names({"0:0.0/0 1<1", "1:0.0/1 2<1 file", "2:0.0/2 3<1 dir/", "0:0.0/3 4<3 in.dir"});
    delete_slots("0.0/4-5");
    data(2, "0.1 2.0");
    invalidate("0.3");
    mount_recipe();
  }
};

// Slots are listed from the last one down.
std::string rest_of_slots(int first) {
  std::string text;
  for (int slot_no = 31; slot_no >= first; slot_no--) {
    text += "(0,0," + std::to_string(slot_no) + ") ";
  }
  return text;
}

}  // namespace

// --- a file's list ---

TEST_F(dump, a_file_without_an_entry_prints_nothing) {
  make_small();
  EXPECT_EQ(list_of(9), "");
  EXPECT_EQ(list_of(0), "");
  EXPECT_EQ(list_of(65535), "");
}

TEST_F(dump, the_sectors_of_a_file_and_their_verdicts_share_one_line) {
  make_small();
  EXPECT_EQ(list_of(2), "(0,1) (2,0) Fileid: 2, 2 sectors (sequence nos. good) (cksums good)\n");
}

TEST_F(dump, the_slots_of_a_directory_are_triples) {
  make_small();
  EXPECT_EQ(list_of(1),
            "(0,0,0) (0,0,1) (0,0,2) Fileid: 1, 3 slots (sequence nos. good) (cksums good)\n");
  EXPECT_EQ(list_of(3), "(0,0,3) Fileid: 3, 1 slots (sequence nos. good) (cksums good)\n");
}

TEST_F(dump, slots_are_told_by_block_then_sector_then_index) {
  make_root(3);
  names({"1:0.0/1 3<1 dir/", "0:1.2/5 4<3 in.dir"});
  delete_slots("0.0/2-31");
  delete_slots("1.2/0-4");
  delete_slots("1.2/6-30");
  mount_recipe();
  EXPECT_EQ(list_of(3), "(1,2,5) Fileid: 3, 1 slots (sequence nos. good) (cksums good)\n");
  EXPECT_NE(dumped([&] { flashfs_dump_file_map(fs()); }).find("Available_slots: (1,2,31) \n"),
            std::string::npos);
  EXPECT_EQ(slot(1, 2, 5).substr(0, 42), "Contents of slot 5 in sector 2 in block 1:");
}

TEST_F(dump, a_file_without_sectors_has_good_verdicts) {
  make_small();
  EXPECT_EQ(list_of(4), "Fileid: 4, 0 sectors (sequence nos. good) (cksums good)\n");
}

TEST_F(dump, gaps_and_late_starts_of_the_sequence_numbers_are_bad) {
  make_small();
  entry(2)->sctr_list->next->seq_no = 2;
  EXPECT_EQ(list_of(2), "(0,1) (2,0) Fileid: 2, 2 sectors (sequence nos. bad) (cksums good)\n");
  entry(2)->sctr_list->seq_no = 1;
  EXPECT_EQ(list_of(2), "(0,1) (2,0) Fileid: 2, 2 sectors (sequence nos. bad) (cksums good)\n");
  entry(3)->sctr_list->seq_no = 1;
  EXPECT_EQ(list_of(3), "(0,0,3) Fileid: 3, 1 slots (sequence nos. bad) (cksums good)\n");
}

TEST_F(dump, one_wrong_checksum_is_a_bad_verdict) {
  make_small();
  image().sector_at(0, 1)[100] ^= 0xFF;
  EXPECT_EQ(list_of(2), "(0,1) (2,0) Fileid: 2, 2 sectors (sequence nos. good) (cksums bad)\n");
  image().slot_at(0, 0, 3)[20] ^= 0xFF;
  EXPECT_EQ(list_of(3), "(0,0,3) Fileid: 3, 1 slots (sequence nos. good) (cksums bad)\n");
  EXPECT_EQ(list_of(1),
            "(0,0,0) (0,0,1) (0,0,2) Fileid: 1, 3 slots (sequence nos. good) (cksums good)\n");
}

TEST_F(dump, a_data_sector_in_the_list_of_a_directory_is_printed_and_has_no_slot_to_judge) {
  make_root(2);
  names({"1:0.0/1 5<1 d/", "1:0.0/2 6<5 f"});
  image().data_sector(0, 1, 5, 0, "astray");
  mount_recipe();
  EXPECT_EQ(list_of(5),
            "(0,1,255) (0,0,2) Fileid: 5, 2 slots (sequence nos. good) (cksums good)\n");
}

TEST_F(dump, a_read_failure_ends_the_list_without_a_summary) {
  make_small();
  const std::string handle = handle_text(device());
  const uint32_t offset = 32 + 2056;
  const std::string message = "flashfs[0]: reading from flash handle " + handle +
                              ", device 0, offset " + hex(offset) + ": Operation Failed\n";
  device().fail(flash_call::read, 1, flash_operation_failed);
  EXPECT_EQ(dumped([&] { flashfs_dump_file_list(fs(), 2); }), message);
  device().fail(flash_call::read, 2, flash_operation_failed);
  EXPECT_EQ(dumped([&] { flashfs_dump_file_list(fs(), 2); }).substr(0, 6), "(0,1) ");
}

TEST_F(dump, a_read_failure_gives_the_lock_back_once_more) {
  make_small();
  // A buffer that is out shows each giving back of the lock.
  flashfs_sector* held = sector_buffer_alloc(fs());
  const auto count = [](const std::string& text) {
    size_t found = 0;
    for (size_t at = 0;
         (at = text.find("flashfs_unlock, 1 sector buffers", at)) != std::string::npos; at++) {
      found++;
    }
    return found;
  };
  EXPECT_EQ(count(output_of([&] { flashfs_dump_file_list(fs(), 2); })), 0U);
  EXPECT_EQ(count(output_of([&] { flashfs_dump_file_list_lock(fs(), 2); })), 1U);
  device().fail(flash_call::read, 1, flash_operation_failed);
  EXPECT_EQ(count(output_of([&] { flashfs_dump_file_list(fs(), 2); })), 1U);
  device().fail(flash_call::read, 1, flash_operation_failed);
  EXPECT_EQ(count(output_of([&] { flashfs_dump_file_list_lock(fs(), 2); })), 2U);
  sector_buffer_free(fs(), held);
}

TEST_F(dump, without_a_sector_buffer_nothing_is_printed_but_that) {
  make_small();
  chunk_pool* pool = fs()->sctr_buf_chunk;
  fs()->sctr_buf_chunk = nullptr;
  const std::string message =
      "flashfs[0]: unable to allocate sector buffer -- chunk not initialized\n";
  EXPECT_EQ(list_of(2), message);
  EXPECT_EQ(sector(0, 0), message);
  EXPECT_EQ(slot(0, 0, 0), message);
  fs()->sctr_buf_chunk = pool;
}

// --- the available lists and the blocks ---

TEST_F(dump, the_map_lists_what_is_available_and_every_block) {
  make_small();
  EXPECT_EQ(dumped([&] { flashfs_dump_file_map(fs()); }),
            "\n"
            "Available_sectors: (2,1) (2,2) (0,2) (0,4) \n"
            "\n"
            "Available_slots: " +
                rest_of_slots(6) +
                "\n"
                "\n"
                "Available Block: 1\n"
                "\n"
                "---Block---  ---Sectors---  ---Inv Sctrs---  ---Inv Slots---\n"
                "   0            5                1                2      \n"
                "   1            5                0                0      \n"
                "   2            3                0                0      \n"
                "\n");
}

TEST_F(dump, empty_lists_are_followed_by_the_end_of_their_lines) {
  make_small();
  available_clear(fs());
  const std::string text = dumped([&] { flashfs_dump_file_map(fs()); });
  EXPECT_EQ(text.substr(0, text.find("---Block")),
            "\nAvailable_sectors: \n\nAvailable_slots: \n\nAvailable Block: 1\n\n");
}

TEST_F(dump, the_block_table_has_a_row_for_every_block_of_all_devices) {
  make_flash(ram_blocks(3, block_bytes(4)), ram_blocks(2, block_bytes(6)));
  mount();
  const std::string text = output_of([&] { flashfs_dump_file_map(fs()); });
  const std::string header = "---Inv Slots---\n";
  const std::string table = text.substr(text.find(header) + header.size());
  EXPECT_EQ(table,
            "   0            4                0                0      \n"
            "   1            4                0                0      \n"
            "   2            4                0                0      \n"
            "   3            6                0                0      \n"
            "   4            6                0                0      \n"
            "\n");
}

// --- one sector ---

TEST_F(dump, a_data_sector_has_its_header_and_a_good_checksum) {
  make_small();
  EXPECT_EQ(sector(2, 0),
            "Contents of sector 0 in block 2:\n"
            "Fileid: 2\nCount: 2048\nseq_no: 1\n"
            "Checksum is good (58096)\n"
            "\n");
}

TEST_F(dump, a_data_sector_with_a_wrong_checksum_tells_the_result) {
  make_small();
  image().sector_at(2, 0)[100] ^= 0xFF;
  const uint16_t crc = image_crc(image().sector_at(2, 0), 2056);
  EXPECT_EQ(sector(2, 0),
            "Contents of sector 0 in block 2:\n"
            "Fileid: 2\nCount: 2048\nseq_no: 1\n"
            "Checksum bad (" +
                std::to_string(crc) + " != 58096)\n\n");
}

TEST_F(dump, other_sectors_have_no_checksum_line) {
  make_small();
  EXPECT_EQ(sector(0, 0),
            "Contents of sector 0 in block 0:\nFileid: 1\nCount: 65535\nseq_no: 65535\n\n");
  EXPECT_EQ(sector(0, 2),
            "Contents of sector 2 in block 0:\nFileid: 65535\nCount: 65535\nseq_no: 65535\n\n");
  EXPECT_EQ(sector(0, 3),
            "Contents of sector 3 in block 0:\nFileid: 0\nCount: 65535\nseq_no: 65535\n\n");
}

TEST_F(dump, a_sector_that_cannot_be_read_prints_nothing_more) {
  make_small();
  EXPECT_EQ(sector(3, 0),
            "flashfs[0]: Trying to read a sector not in the flash device!.\n"
            "flashfs[0]: block_num (3) not in range between 0 and 2.\n");
  EXPECT_EQ(sector(-1, 0),
            "flashfs[0]: Trying to read a sector not in the flash device!.\n"
            "flashfs[0]: block_num (-1) not in range between 0 and 2.\n");
  EXPECT_EQ(sector(2, 3),
            "flashfs[0]: Trying to read a sector from block 2, with an invalid sector number!!!\n"
            "flashfs[0]: The sector number (3) is not between 0 and 2.\n");
}

// --- one slot ---

TEST_F(dump, a_slot_has_its_fields_and_a_good_checksum) {
  make_small();
  EXPECT_EQ(slot(0, 0, 3),
            "Contents of slot 3 in sector 0 in block 0:\n"
            "seq_no: 0\ndir_fileid: 3\nentry_fileid: 4\nmode: 34560\ndate: 1800000000\n"
            "name: in.dir\n"
            "Checksum is good (58096)\n"
            "\n");
}

TEST_F(dump, a_date_is_a_signed_number) {
  make_blocks({4, 4});
  image().headers(1);
  image().slot(0, 0, 0, {.entry_fileid = 1, .mode = 0x4700, .date = 0xFFFFFFFE, .name = ""});
  mount_recipe();
  EXPECT_NE(slot(0, 0, 0).find("date: -2\n"), std::string::npos);
}

TEST_F(dump, an_available_slot_is_all_ones_and_its_checksum_bad) {
  make_small();
  const uint16_t crc = image_crc(std::string(64, '\xFF').data(), 64);
  EXPECT_EQ(slot(0, 0, 31),
            "Contents of slot 31 in sector 0 in block 0:\n"
            "seq_no: 65535\ndir_fileid: 65535\nentry_fileid: 65535\nmode: 65535\ndate: -1\n"
            "name: " +
                std::string(46, '\xFF') + "\nChecksum bad (" + std::to_string(crc) +
                " != 58096)\n\n");
}

TEST_F(dump, a_deleted_slot_has_a_checksum_line_too) {
  make_small();
  const uint16_t crc = image_crc(image().slot_at(0, 0, 4), 64);
  EXPECT_NE(slot(0, 0, 4).find("dir_fileid: 0\n"), std::string::npos);
  EXPECT_NE(slot(0, 0, 4).find("Checksum bad (" + std::to_string(crc) + " != 58096)\n"),
            std::string::npos);
}

TEST_F(dump, a_slot_of_a_sector_without_slots_is_not_valid) {
  make_small();
  EXPECT_EQ(slot(2, 0, 7), "Slot 7 in sector 0 in block 2 is not valid (2 != 1).\n\n");
  EXPECT_EQ(slot(0, 2, 0), "Slot 0 in sector 2 in block 0 is not valid (65535 != 1).\n\n");
  EXPECT_EQ(slot(0, 3, 0), "Slot 0 in sector 3 in block 0 is not valid (0 != 1).\n\n");
}

TEST_F(dump, a_slot_index_from_outside_the_sector_reads_nothing_outside_it) {
  make_small();
  for (const int slot_no : {32, 35, 255}) {
    EXPECT_EQ(slot(0, 0, static_cast<uint8_t>(slot_no)).substr(0, 17), "Contents of slot ");
  }
}

TEST_F(dump, a_slot_that_cannot_be_read_prints_nothing_more) {
  make_small();
  EXPECT_EQ(slot(9, 0, 0),
            "flashfs[0]: Trying to read a sector not in the flash device!.\n"
            "flashfs[0]: block_num (9) not in range between 0 and 2.\n");
}

TEST_F(dump, the_lock_is_held_but_by_the_bare_list) {
  make_small();
  // A buffer that is out makes each taking and giving back of the lock visible.
  flashfs_sector* held = sector_buffer_alloc(fs());
  const auto locks = [&](auto&& call) {
    const std::string text = output_of(call);
    const bool first = text.rfind("flashfs[0]: flashfs_lock, 1 sector buffers already", 0) == 0;
    const bool last = text.find("flashfs_unlock, 1 sector buffers still") != std::string::npos;
    return first && last;
  };
  EXPECT_TRUE(locks([&] { flashfs_dump_file_list_lock(fs(), 2); }));
  EXPECT_TRUE(locks([&] { flashfs_dump_file_map(fs()); }));
  EXPECT_TRUE(locks([&] { flashfs_dump_sctr(fs(), 0, 0); }));
  EXPECT_TRUE(locks([&] { flashfs_dump_slot(fs(), 0, 0, 0); }));
  EXPECT_FALSE(locks([&] { flashfs_dump_file_list(fs(), 2); }));
  // The last newline of a slot stands behind the lock.
  const std::string text = output_of([&] { flashfs_dump_slot(fs(), 0, 0, 0); });
  EXPECT_EQ(text.substr(text.size() - 2), "\n\n");
  EXPECT_NE(text.find("still allocated\n\n"), std::string::npos);
  sector_buffer_free(fs(), held);
}
