// The test support itself: the driver over memory, the record of changes, the image builder and the
// runner of programs.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "flashfs/flash_driver.h"
#include "sim/flash.h"
#include "sim/power.h"
#include "tests/support/change_record.h"
#include "tests/support/image_builder.h"
#include "tests/support/ram_flash.h"
#include "tests/support/run_program.h"

namespace {

using namespace test_support;

}  // namespace

TEST(ram_flash, blocks_follow_each_other_and_keep_their_skip_marks) {
  ram_flash device({{4096, false}, {8192, true}, {2088, false}});
  ASSERT_EQ(device.driver()->block_count, 3);
  EXPECT_EQ(device.driver()->blocks[1].offset, 4096U);
  EXPECT_EQ(device.driver()->blocks[1].skip, 1);
  EXPECT_EQ(device.driver()->blocks[2].offset, 12288U);
  EXPECT_EQ(device.flash().size(), 14376U);
  EXPECT_EQ(ram_blocks_of_ppc().size(), 256U);
}

TEST(ram_flash, only_words_that_differ_are_programmed) {
  ram_flash device(ram_blocks(1, 4096));
  const flash_driver_info* driver = device.driver();
  const uint8_t bytes[] = {0x12, 0x34, 0xFF, 0xFF, 0xFF, 0x00};
  EXPECT_EQ(driver->write(device.handle(), 10, sizeof bytes, bytes), flash_ok);
  EXPECT_EQ(device.supply().mutations(), 2U);
  EXPECT_EQ(driver->write(device.handle(), 10, sizeof bytes, bytes), flash_ok);
  EXPECT_EQ(device.counts().words_programmed, 2U);
  uint8_t back[sizeof bytes];
  EXPECT_EQ(driver->read(device.handle(), 10, sizeof back, back), flash_ok);
  EXPECT_EQ(std::string(bytes, bytes + sizeof bytes), std::string(back, back + sizeof back));
  EXPECT_EQ(driver->erase(device.handle(), 0), flash_ok);
  EXPECT_EQ(device.supply().mutations(), 3U);
  EXPECT_EQ(device.bytes()[10], 0xFF);
  EXPECT_EQ(device.deviations(), 0U);
}

TEST(change_record, words_that_stay_and_reads_do_not_count) {
  const uint8_t part[] = {0xFF, 0xFF, 0x12, 0x34};
  uint8_t back[8];
  ram_flash whole_device(ram_blocks(2, 4096));
  change_record whole;
  whole.watch(whole_device);
  const uint8_t bytes[] = {0xFF, 0xFF, 0x12, 0x34, 0xFF, 0xFF, 0x56, 0x78};
  EXPECT_EQ(whole_device.write(8, sizeof bytes, bytes), flash_ok);
  EXPECT_EQ(whole_device.write(8, sizeof bytes, bytes), flash_ok);

  ram_flash device(ram_blocks(2, 4096));
  change_record in_parts;
  in_parts.watch(device);
  EXPECT_EQ(device.write(8, sizeof part, part), flash_ok);
  EXPECT_EQ(device.read(0, sizeof back, back), flash_ok);
  EXPECT_EQ(device.write(14, 2, bytes + 6), flash_ok);
  EXPECT_EQ(in_parts.text(), whole.text());
  EXPECT_EQ(in_parts.take().rfind("2 words | 0 erases | ", 0), 0U);
  EXPECT_EQ(in_parts.text(), change_record().text());
}

TEST(change_record, order_values_addresses_and_erases_count) {
  const uint8_t zeros[4] = {};
  std::set<std::string> rows;
  const auto add_row = [&](const std::function<void(ram_flash&)>& act) {
    ram_flash device(ram_blocks(2, 4096));
    change_record record;
    record.watch(device);
    act(device);
    rows.insert(record.take());
  };
  const auto write = [&](ram_flash& device, uint32_t offset) {
    EXPECT_EQ(device.write(offset, 2, zeros), flash_ok);
  };
  add_row([&](ram_flash& device) {
    write(device, 2);
    write(device, 4);
  });
  add_row([&](ram_flash& device) {
    write(device, 4);
    write(device, 2);
  });
  add_row([&](ram_flash& device) {
    write(device, 4);
    write(device, 6);
  });
  add_row([&](ram_flash& device) {
    const uint8_t one[2] = {0, 1};
    EXPECT_EQ(device.write(2, 2, one), flash_ok);
    write(device, 4);
  });
  add_row([&](ram_flash& device) { EXPECT_EQ(device.erase(0), flash_ok); });
  add_row([&](ram_flash& device) { EXPECT_EQ(device.erase(4096), flash_ok); });
  EXPECT_EQ(rows.size(), 6U);
}

TEST(change_record, answers_are_told_by_result_error_and_text) {
  std::set<std::string> rows;
  const auto add_row = [&](int32_t result, int error, const char* printed) {
    change_record record;
    record.add_answer(result, error);
    record.add_text(printed);
    rows.insert(record.take());
  };
  add_row(0, 0, "");
  add_row(0, ENOSPC, "");  // the same: there is no error
  add_row(1, 0, "");
  add_row(-1, ENOSPC, "");
  add_row(-1, EIO, "");
  add_row(0, 0, "x");
  EXPECT_EQ(rows.size(), 5U);
}

TEST(ram_flash, wrong_calls_are_refused_and_counted) {
  ram_flash device(ram_blocks(2, 4096));
  const uint8_t zeros[4] = {};
  const uint8_t ones[4] = {0xFF, 0xFF, 0xFF, 0xFF};
  uint8_t back[4];
  EXPECT_EQ(device.write(0, 4, zeros), flash_ok);
  EXPECT_EQ(device.write(0, 4, ones), flash_illegal_operation);
  EXPECT_EQ(device.write(1, 2, zeros), flash_illegal_operation);
  EXPECT_EQ(device.write(8, 3, zeros), flash_illegal_operation);
  EXPECT_EQ(device.write(8190, 4, zeros), flash_illegal_operation);
  EXPECT_EQ(device.read(8190, 4, back), flash_illegal_operation);
  EXPECT_EQ(device.read(0, 0, back), flash_illegal_operation);
  EXPECT_EQ(device.erase(2), flash_illegal_operation);
  EXPECT_EQ(device.deviations(), 7U);
  EXPECT_EQ(device.flash().bit_set_requests(), 0U);
}

TEST(ram_flash, a_planned_failure_leaves_the_flash_alone) {
  ram_flash device(ram_blocks(1, 4096));
  const uint8_t zeros[2] = {};
  uint8_t back[2];
  device.fail(flash_call::write, 2, flash_busy);
  EXPECT_EQ(device.write(0, 2, zeros), flash_ok);
  EXPECT_EQ(device.read(0, 2, back), flash_ok);
  EXPECT_EQ(device.write(2, 2, zeros), flash_busy);
  EXPECT_EQ(device.bytes()[2], 0xFF);
  EXPECT_EQ(device.write(2, 2, zeros), flash_ok);
  EXPECT_EQ(device.calls_since_fail(), 3U);
  device.fail(flash_call::any, 2, flash_poll_timeout, true);
  EXPECT_EQ(device.read(0, 2, back), flash_ok);
  EXPECT_EQ(device.read(0, 2, back), flash_poll_timeout);
  EXPECT_EQ(device.erase(0), flash_poll_timeout);
  EXPECT_EQ(device.bytes()[0], 0x00);
  EXPECT_EQ(device.deviations(), 0U);
}

TEST(ram_flash, a_power_cut_tears_a_write_between_two_words) {
  ram_flash device(ram_blocks(1, 4096));
  const uint8_t zeros[6] = {};
  device.supply().cut_at(2, sim::cut_kind::before);
  EXPECT_EQ(device.write(0, 6, zeros), flash_ok);
  device.supply().restore();
  EXPECT_EQ(device.flash().read16(0), 0x0000);
  EXPECT_EQ(device.flash().read16(2), 0xFFFF);
  EXPECT_EQ(device.flash().read16(4), 0xFFFF);
}

TEST(image_builder, its_checksum_gives_the_known_values) {
  EXPECT_EQ(image_crc("123456789", 9), 0xD64E);
  const uint8_t with_checksum[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9', 0xD6, 0x4E};
  EXPECT_EQ(image_crc(with_checksum, sizeof with_checksum), 0xE2F0);
}

TEST(image_builder, places_headers_sectors_and_slots) {
  ram_flash device(ram_blocks(2, 0x20000));
  image_builder image(device);
  image.headers(1);
  EXPECT_EQ(image.header_at(1) - device.bytes(), 0x20000);
  EXPECT_EQ(image.header_at(0)[12], 0xF0);
  EXPECT_EQ(image.header_at(1)[12], 0xFF);
  EXPECT_EQ(image.header_at(1)[11], 1);
  EXPECT_EQ(image_crc(image.header_at(0) + 4, 6), 0xE2F0);
  EXPECT_EQ(image.sector_count(0), 63);

  EXPECT_EQ(image.file(0, 3, 2, std::string(2049, 'x')), 2);
  const uint8_t* second = image.sector_at(0, 4);
  EXPECT_EQ(second - device.bytes(), 32 + 4 * 2056);
  EXPECT_EQ(second[1], 2);
  EXPECT_EQ(second[3], 1);
  EXPECT_EQ(second[2053], 1);
  EXPECT_EQ(image_crc(second, 2056), 0xE2F0);

  image_slot fields;
  fields.name = "a";
  image.slot(1, 0, 31, fields);
  const uint8_t* slot = image.slot_at(1, 0, 31);
  EXPECT_EQ(slot - image.sector_at(1, 0), 4 + 31 * 64);
  EXPECT_EQ(image.sector_at(1, 0)[1], 1);
  EXPECT_EQ(slot[16], 'a');
  EXPECT_EQ(slot[61], 0);
  EXPECT_EQ(image_crc(slot, 64), 0xE2F0);
  image.slot_at(1, 0, 31)[0] = 7;
  EXPECT_NE(image_crc(slot, 64), 0xE2F0);
  image.fix_slot_checksum(1, 0, 31);
  EXPECT_EQ(image_crc(slot, 64), 0xE2F0);
}

TEST(image_builder, can_spoil_checksums) {
  ram_flash device(ram_blocks(1, 0x20000));
  image_builder image(device);
  image.data_sector(0, 0, 5, 0, "abc", -1, false);
  EXPECT_NE(image_crc(image.sector_at(0, 0), 2056), 0xE2F0);
  image.fix_sector_checksum(0, 0);
  EXPECT_EQ(image_crc(image.sector_at(0, 0), 2056), 0xE2F0);
}

#ifndef ZANTROLUME_EMULATOR
TEST(run_program, gives_status_output_and_errors) {
  program_call call;
  call.path = "/bin/sh";
  call.arguments = {"-c", "echo \"$WORD\"; pwd; echo bad >&2; exit 7"};
  call.environment = {{"WORD", "good"}};
  call.folder = "/";
  const program_result result = run_program(call);
  EXPECT_EQ(result.status, 7);
  EXPECT_EQ(result.out, "good\n/\n");
  EXPECT_EQ(result.err, "bad\n");
  EXPECT_FALSE(result.timed_out);
}

TEST(run_program, ends_a_program_that_takes_too_long) {
  program_call call;
  call.path = "/bin/sleep";
  call.arguments = {"60"};
  call.timeout_seconds = 0;
  const program_result result = run_program(call);
  EXPECT_TRUE(result.timed_out);
  EXPECT_EQ(result.status, 128 + 9);
}
#endif

TEST(temporary_folder, is_removed_at_the_end) {
  std::string path;
  {
    temporary_folder folder;
    path = folder.path();
    write_whole_file(folder.file("x"), "y");
    EXPECT_EQ(read_whole_file(folder.file("x")), "y");
  }
  EXPECT_EQ(read_whole_file(path + "/x"), "");
}
