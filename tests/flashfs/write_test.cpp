// Writing to files: what stands in them afterwards, in which order the flash is written, holes,
// appending, full devices, and what a failing flash or a power cut leaves.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "flashfs/check_flags.h"
#include "flashfs/flashfs.h"
#include "flashfs/operations.h"
#include "flashfs/place.h"
#include "sim/flash.h"
#include "sim/power.h"
#include "tests/flashfs/driver_calls.h"
#include "tests/flashfs/flashfs_recipe.h"
#include "tests/flashfs/operations_fixture.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"

namespace {

using namespace test_support;

class file_write : public operations_fixture {
 protected:
  uint32_t position_of(int32_t fd) {
    return static_cast<const flashfs_open_file*>(ifs_fd_get_entry(fd)->fd_context)->filepos;
  }
  const uint8_t* sector_of(const std::string& name, uint32_t number) {
    const auto* each = entry(fileid_of(name))->sctr_list;
    while (number-- > 0) {
      each = each->next;
    }
    return image().sector_at(each->sctr_ptr.block_num, each->sctr_ptr.sctr_num);
  }
  uint32_t count_on_flash(const std::string& name, uint32_t number) {
    const uint8_t* at = sector_of(name, number);
    return static_cast<uint32_t>(at[2] << 8 | at[3]);
  }
  // Writes `text` at an offset of an existing file.
  int32_t write_at(const std::string& name, int32_t offset, const std::string& text) {
    const int32_t fd = open(name, open_rw);
    EXPECT_EQ(seek(fd, offset), offset);
    const int32_t result = write(fd, text);
    const int error = errno;
    EXPECT_EQ(close(fd), 0);
    errno = error;
    return result;
  }
  // Fills the device with one file and returns its size.
  uint32_t fill(const std::string& name) {
    const int32_t fd = open(name, open_new);
    uint32_t size = 0;
    int32_t written = 0;
    while ((written = write(fd, std::string(2048, 'f'))) > 0) {
      size += static_cast<uint32_t>(written);
    }
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(close(fd), 0);
    return size;
  }
};

const int32_t sizes[] = {1, 2047, 2048, 2049, 4095, 4096, 4097, 6000};

}  // namespace

// --- what stands in the file ---

TEST_F(file_write, a_new_file_of_any_size_reads_back) {
  for (const int32_t size : sizes) {
    make();
    const std::string text = pattern(static_cast<size_t>(size));
    const int32_t fd = open("a", open_new);
    EXPECT_EQ(write(fd, text), size);
    EXPECT_EQ(position_of(fd), static_cast<uint32_t>(size));
    EXPECT_EQ(seek(fd, 0), 0);
    EXPECT_TRUE(read_text(fd, 10000) == text) << size;
    EXPECT_EQ(close(fd), 0);
    EXPECT_EQ(size_of("a"), static_cast<uint32_t>(size));
    remount();
    EXPECT_TRUE(get("a") == text) << size;
    EXPECT_TRUE(flash_is_consistent());
  }
}

TEST_F(file_write, overwriting_replaces_just_the_bytes_written) {
  make({16, 16, 16, 16});
  std::string expected = pattern(3 * 2048 + 500);
  put("a", expected);
  for (const int32_t offset : {0, 1, 2047, 2048, 2049, 4000, 6143}) {
    for (const int32_t size : {1, 2, 2047, 2048, 2049}) {
      const std::string text =
          pattern(static_cast<size_t>(size), static_cast<uint32_t>(offset) + 3);
      ASSERT_EQ(write_at("a", offset, text), size) << offset << " " << size;
      if (expected.size() < static_cast<size_t>(offset) + static_cast<size_t>(size)) {
        expected.resize(static_cast<size_t>(offset) + static_cast<size_t>(size));
      }
      expected.replace(static_cast<size_t>(offset), text.size(), text);
      ASSERT_TRUE(get("a") == expected) << offset << " " << size;
    }
  }
  EXPECT_TRUE(flash_is_consistent());
}

TEST_F(file_write, a_count_never_shrinks) {
  make();
  put("a", pattern(1000));
  ASSERT_EQ(write_at("a", 10, "xyz"), 3);
  EXPECT_EQ(count_on_flash("a", 0), 1000U);
  ASSERT_EQ(write_at("a", 998, "xyz"), 3);
  EXPECT_EQ(count_on_flash("a", 0), 1001U);
  EXPECT_EQ(get("a"), pattern(1000).replace(10, 3, "xyz").replace(998, 3, "xyz"));
}

TEST_F(file_write, small_pieces_one_after_the_other_make_the_file) {
  make({32, 32, 32});
  const std::string text = pattern(5000);
  const int32_t fd = open("a", open_new);
  for (size_t at = 0; at < text.size(); at += 333) {
    const std::string piece = text.substr(at, 333);
    ASSERT_EQ(write(fd, piece), static_cast<int32_t>(piece.size()));
  }
  EXPECT_EQ(close(fd), 0);
  EXPECT_TRUE(get("a") == text);
  EXPECT_TRUE(flash_is_consistent());
}

TEST_F(file_write, a_write_dates_the_file) {
  make();
  put("a", "text");
  set_clock(recipe_time + 5);
  ASSERT_EQ(write_at("a", 0, "T"), 1);
  ppc_stat status{};
  ASSERT_EQ(stat("a", &status), 0);
  EXPECT_EQ(status.modification_date, recipe_time + 5);
}

// --- holes ---

TEST_F(file_write, a_gap_behind_the_end_becomes_zero_filled_sectors) {
  make();
  put("a", pattern(2048));
  ASSERT_EQ(write_at("a", 3 * 2048, "end"), 3);
  EXPECT_EQ(get("a"), pattern(2048) + std::string(4096, '\0') + "end");
  EXPECT_EQ(count_on_flash("a", 1), 2048U);
  EXPECT_EQ(count_on_flash("a", 2), 2048U);
  EXPECT_EQ(count_on_flash("a", 3), 3U);
  EXPECT_TRUE(flash_is_consistent());
  remount();
  EXPECT_EQ(get("a"), pattern(2048) + std::string(4096, '\0') + "end");
}

TEST_F(file_write, the_bytes_before_the_offset_in_a_fresh_sector_are_zeros) {
  make();
  put("a", "");
  ASSERT_EQ(write_at("a", 2148, "end"), 3);
  EXPECT_EQ(get("a"), std::string(2148, '\0') + "end");
  EXPECT_TRUE(flash_is_consistent());
}

TEST_F(file_write, a_short_sector_stays_short_when_a_later_one_is_written) {
  make();
  put("a", "short");
  ASSERT_EQ(write_at("a", 2048, "next"), 4);
  EXPECT_EQ(count_on_flash("a", 0), 5U);
  EXPECT_EQ(size_of("a"), 2052U);
  const int32_t fd = open("a");
  EXPECT_EQ(read_text(fd, 5000), "shortnext");
  EXPECT_EQ(close(fd), 0);
}

TEST_F(file_write, bytes_between_the_old_count_and_a_later_write_keep_what_the_sector_held) {
  make();
  put("a", "short");
  ASSERT_EQ(write_at("a", 10, "end"), 3);
  EXPECT_EQ(get("a"), "short" + std::string(5, '\xFF') + "end");
}

TEST_F(file_write, bytes_of_a_fresh_sector_that_nobody_sets_stay_erased) {
  make();
  put("a", "short");
  const uint8_t* at = sector_of("a", 0);
  EXPECT_TRUE(std::all_of(at + 4 + 5, at + 4 + 2048, [](uint8_t byte) { return byte == 0xFF; }));
  put("b", "");
  ASSERT_EQ(write_at("b", 100, "end"), 3);
  at = sector_of("b", 0);
  EXPECT_TRUE(std::all_of(at + 4, at + 104, [](uint8_t byte) { return byte == 0; }));
  EXPECT_TRUE(std::all_of(at + 107, at + 4 + 2048, [](uint8_t byte) { return byte == 0xFF; }));
}

// --- append ---

TEST_F(file_write, append_goes_to_the_end_whatever_the_position) {
  make();
  put("a", pattern(2047));
  const int32_t fd = open("a", open_rw | ifs_open_append);
  EXPECT_EQ(write(fd, "1"), 1);
  EXPECT_EQ(position_of(fd), 2048U);
  EXPECT_EQ(seek(fd, 5), 5);
  EXPECT_EQ(write(fd, "22"), 2);
  EXPECT_EQ(position_of(fd), 2050U);
  EXPECT_EQ(seek(fd, 10000), 10000);
  EXPECT_EQ(write(fd, "3"), 1);
  EXPECT_EQ(close(fd), 0);
  EXPECT_EQ(get("a"), pattern(2047) + "1223");
}

TEST_F(file_write, append_without_the_write_flag_writes_nothing) {
  make();
  put("a", "text");
  const int32_t fd = open("a", ifs_open_read | ifs_open_append);
  EXPECT_EQ(error_of(write(fd, "x")), EBADF);
  EXPECT_EQ(close(fd), 0);
}

TEST_F(file_write, an_append_whose_status_fails_marks_down) {
  make();
  put("a", "text");
  const int32_t fd = open("a", open_rw | ifs_open_append);
  entry(fileid_of("a"))->parent_fileid = 77;
  EXPECT_EQ(error_of(write(fd, "x")), EIO);
  EXPECT_EQ(output(), "flashfs[0]: dostat, unable to lookup filemap for fileid 77\n" + down_line);
  EXPECT_EQ(close(fd), 0);
}

// --- refusals ---

TEST_F(file_write, refusals_come_in_their_order) {
  make();
  put("a", "text");
  const int32_t fd = open("a");
  EXPECT_EQ(error_of(write(fd, "x")), EBADF);
  EXPECT_EQ(error_of(write(fd, "")), EBADF);
  fs()->ready = 0;
  EXPECT_EQ(error_of(write(fd, "x")), EINVAL);
  fs()->ready = 1;
  EXPECT_EQ(close(fd), 0);
}

TEST_F(file_write, nothing_written_changes_nothing) {
  make();
  put("a", "text");
  for (const uint32_t flags : {open_rw, open_rw | ifs_open_append}) {
    const int32_t fd = open("a", flags);
    EXPECT_EQ(seek(fd, 100000), 100000);
    const std::vector<uint8_t> before = device().flash().snapshot();
    EXPECT_EQ(write(fd, ""), 0);
    EXPECT_EQ(device().flash().snapshot(), before);
    EXPECT_EQ(position_of(fd), 100000U);
    EXPECT_EQ(close(fd), 0);
  }
}

TEST_F(file_write, an_end_past_31_bits_is_invalid_and_changes_nothing) {
  make();
  put("a", "text");
  const int32_t fd = open("a", open_rw);
  const std::vector<uint8_t> before = device().flash().snapshot();
  EXPECT_EQ(seek(fd, INT_MAX), INT_MAX);
  EXPECT_EQ(error_of(write(fd, "x")), EINVAL);
  EXPECT_EQ(seek(fd, 10), 10);
  EXPECT_EQ(error_of(ifs_write(fd, "x", 0x7FFFFFF6)), EINVAL);
  EXPECT_EQ(error_of(ifs_write(fd, "x", 0xFFFFFFFF)), EINVAL);
  EXPECT_EQ(position_of(fd), 10U);
  EXPECT_EQ(close(fd), 0);
  const int32_t appending = open("a", open_rw | ifs_open_append);
  EXPECT_EQ(seek(appending, 1), 1);
  EXPECT_EQ(error_of(ifs_write(appending, "x", 0x7FFFFFFC)), EINVAL);
  EXPECT_EQ(position_of(appending), 1U);
  EXPECT_EQ(close(appending), 0);
  EXPECT_EQ(device().flash().snapshot(), before);
  EXPECT_EQ(fs()->ready, 1U);
}

// --- the order of flash writes ---

TEST_F(file_write, a_fresh_sector_is_claimed_by_its_file_id_and_then_written_in_place) {
  make();
  put("a", "");
  ASSERT_EQ(sectors_text(fs()).substr(0, 7), "2.1 2.2");
  const int32_t fd = open("a", open_rw);
  flash_recorder recorder(fs());
  EXPECT_EQ(write(fd, pattern(2049)), 2049);
  // The last two are the date: the fresh slot, then the old one.
  EXPECT_EQ(recorder.text(), "2.1+ 2.2+ 2.1 2.2 2.0 2.0");
  EXPECT_EQ(close(fd), 0);
}

TEST_F(file_write, a_written_sector_is_copied_before_the_old_one_becomes_obsolete) {
  make();
  put("a", "text");
  ASSERT_EQ(text_of(entry(fileid_of("a"))->sctr_list->sctr_ptr), "2.1");
  const int32_t fd = open("a", open_rw);
  flash_recorder recorder(fs());
  EXPECT_EQ(write(fd, "T"), 1);
  EXPECT_EQ(recorder.text(), "2.2 2.1+ 2.0 2.0");
  EXPECT_EQ(text_of(entry(fileid_of("a"))->sctr_list->sctr_ptr), "2.2");
  EXPECT_EQ(fileid_at(2, 1), 0);
  EXPECT_EQ(fs()->flashfs_blocks[2].invalid_sectors, 1);
  EXPECT_EQ(close(fd), 0);
}

TEST_F(file_write, of_the_old_sector_is_read_what_the_copy_keeps) {
  make();
  put("a", pattern(2048));
  const int32_t fd = open("a", open_rw);
  for (const auto& [offset, length, expected] :
       {std::tuple{0, 2048, "r0-4 r2052-2054"}, std::tuple{0, 100, "r0-4 r104-2054"},
        std::tuple{101, 100, "r0-106 r204-2054"}, std::tuple{2000, 48, "r0-2004 r2052-2054"}}) {
    const flashfs_sctr_ptr old = entry(fileid_of("a"))->sctr_list->sctr_ptr;
    const auto start = static_cast<uint32_t>(
        image_builder(device()).sector_at(old.block_num, old.sctr_num) - device().bytes());
    EXPECT_EQ(seek(fd, offset), offset);
    const driver_calls calls(fs());
    EXPECT_EQ(write(fd, pattern(static_cast<size_t>(length))), length);
    std::string of_old;
    std::istringstream words(calls.text(start));
    for (std::string word; words >> word;) {
      const auto from = static_cast<uint32_t>(std::stoul(word.substr(1)));
      if (word[0] == 'r' && from < sizeof(flashfs_sector)) {
        of_old += (of_old.empty() ? "" : " ") + word;
      }
    }
    EXPECT_EQ(of_old, expected);
  }
  EXPECT_EQ(close(fd), 0);
}

TEST_F(file_write, passed_over_sectors_are_zeroed_in_place_before_the_data) {
  make();
  put("a", "");
  const int32_t fd = open("a", open_rw);
  EXPECT_EQ(seek(fd, 2 * 2048), 4096);
  flash_recorder recorder(fs());
  EXPECT_EQ(write(fd, "x"), 1);
  EXPECT_EQ(recorder.text(), "2.1+ 2.2+ 2.3+ 2.1 2.2 2.3 2.0 2.0");
  EXPECT_EQ(close(fd), 0);
}

// --- full devices ---

TEST_F(file_write, the_count_is_cut_to_the_space_and_then_there_is_none) {
  make({4, 4, 4});
  put("a", "");
  const int32_t fd = open("a", open_rw);
  const int32_t written = write(fd, pattern(100000));
  EXPECT_GT(written, 0);
  EXPECT_EQ(written % 2048, 0);
  EXPECT_EQ(position_of(fd), static_cast<uint32_t>(written));
  set_clock(recipe_time + 9);
  EXPECT_EQ(error_of(write(fd, "x")), ENOSPC);
  EXPECT_EQ(output(), "");
  EXPECT_EQ(position_of(fd), static_cast<uint32_t>(written));
  EXPECT_EQ(close(fd), 0);
  ppc_stat status{};
  EXPECT_EQ(stat("a", &status), 0);
  EXPECT_EQ(status.size, static_cast<uint32_t>(written));
  EXPECT_EQ(status.modification_date, recipe_time + 9);  // committed all the same
  EXPECT_TRUE(get("a") == pattern(100000).substr(0, static_cast<size_t>(written)));
  EXPECT_EQ(fs()->ready, 1U);
  EXPECT_TRUE(flash_is_consistent());
}

TEST_F(file_write, a_write_far_past_the_end_takes_all_space_before_it_reports_none) {
  make({4, 4, 4});
  put("a", "text");
  const int32_t fd = open("a", open_rw);
  EXPECT_EQ(seek(fd, 1000000), 1000000);
  EXPECT_EQ(error_of(write(fd, "x")), ENOSPC);
  const uint32_t reached = position_of(fd);
  EXPECT_EQ(close(fd), 0);
  EXPECT_EQ(reached % 2048, 0U);
  EXPECT_EQ(size_of("a"), reached);
  // The short sector stays short, so one read gives less than the size.
  const int32_t reader = open("a");
  EXPECT_TRUE(read_text(reader, 100000) == "text" + std::string(reached - 2048, '\0'));
  EXPECT_EQ(close(reader), 0);
  EXPECT_TRUE(flash_is_consistent());
}

TEST_F(file_write, two_bytes_are_overwritten_on_a_full_device) {
  make({4, 4, 4});
  put("first", pattern(2048));
  const uint32_t size = fill("a");
  ASSERT_GT(size, 0U);
  for (int i = 0; i < 10; i++) {
    const std::string two = {static_cast<char>('0' + i), static_cast<char>('9' - i)};
    ASSERT_EQ(write_at("first", 100 * i, two), 2) << output();
    EXPECT_EQ(get("first").substr(static_cast<size_t>(100 * i), 2), two);
  }
  EXPECT_EQ(get("a"), std::string(size, 'f'));
  EXPECT_TRUE(flash_is_consistent());
}

TEST_F(file_write, overwriting_for_long_lives_on_collected_garbage) {
  make({4, 6, 6});
  std::string expected = pattern(4096);
  put("a", expected);
  for (uint32_t i = 0; i < 200; i++) {
    const size_t offset = i * 37 % 4000;
    const std::string text = pattern(96, i);
    ASSERT_EQ(write_at("a", static_cast<int32_t>(offset), text), 96) << i << output();
    expected.replace(offset, 96, text);
    ASSERT_TRUE(get("a") == expected) << i;
  }
  EXPECT_TRUE(flash_is_consistent());
}

// --- long files ---

TEST_F(file_write, small_appends_cost_the_same_at_the_end_of_a_long_file) {
  make_blocks(std::vector<int>(10, 63));
  mount();
  put("a", std::string(300 * 2048, 'a'));
  const int32_t fd = open("a", open_rw | ifs_open_append);
  EXPECT_EQ(write(fd, "first"), 5);
  const auto* open = static_cast<const flashfs_open_file*>(ifs_fd_get_entry(fd)->fd_context);
  EXPECT_EQ(open->place.index(), 300U);
  device().clear_counts();
  EXPECT_EQ(write(fd, "second"), 6);
  EXPECT_LT(device().counts().calls(), 20U);
  EXPECT_EQ(close(fd), 0);
  EXPECT_EQ(size_of("a"), 300U * 2048 + 11);
}

// --- failures and power cuts ---

TEST_F(file_write, a_failing_flash_marks_down) {
  for (const uint32_t flags : {open_rw, open_rw | ifs_open_append}) {
    for (const int32_t offset : {0, 100, 2000, 5000, 3 * 2048, 9000}) {
      SCOPED_TRACE(std::to_string(flags) + " at " + std::to_string(offset));
      int32_t fd = -1;
      expect_that_flash_failures_mark_down(
          [&] {
            make();
            put("a", pattern(5000));
            fd = open("a", flags);
            ASSERT_EQ(seek(fd, offset), offset);
          },
          [&] { return ifs_write(fd, pattern(300, 1).data(), 300); });
    }
  }
}

TEST_F(file_write, a_failing_commit_without_space_is_a_flash_failure) {
  make({4, 4, 4});
  fill("a");
  const int32_t fd = open("a", open_rw);
  seek(fd, 0, ifs_seek_end);
  device().fail(flash_call::write, 1, flash_operation_failed, true);
  EXPECT_EQ(error_of(write(fd, "x")), EIO);
  device().fail(flash_call::write, 0, flash_ok);
  EXPECT_NE(output().find(down_line), std::string::npos);
  EXPECT_EQ(close(fd), 0);
}

TEST_F(file_write, a_power_cut_in_an_overwrite_leaves_the_old_or_the_new_bytes) {
  const std::string before = pattern(2048);
  const std::string after = pattern(2048).replace(1000, 5, "XXXXX");
  for (const auto kind : {sim::cut_kind::before, sim::cut_kind::after}) {
    for (uint64_t n = 1;; n++) {
      make();
      put("a", before);
      supply().restore();
      supply().cut_at(n, kind);
      write_at("a", 1000, "XXXXX");
      const bool cut = supply().dead();
      supply().restore();
      unmount();
      mount(flashfs_check_full);
      const std::string found = get("a");
      EXPECT_TRUE(found == before || found == after) << n;
      EXPECT_TRUE(flash_is_consistent()) << n;
      if (!cut) {
        EXPECT_TRUE(found == after);
        break;
      }
      n += n > 30 ? 50 : 0;  // the words of the data sectors are much alike
    }
  }
}

TEST_F(file_write, a_slot_that_damage_has_put_into_a_files_list_is_not_overwritten) {
  make_root(3);
  names({"1:0.0/1 2<1 a"});
  data(2, "0.1");
  names({"1:0.0/2 3<2 astray"});
  mount_recipe();
  ASSERT_EQ(list_text(fs(), 2), "0:0.1/255 1:0.0/2");
  for (const int32_t offset : {2048, 2100}) {
    const int32_t fd = open("a", open_rw);
    EXPECT_EQ(seek(fd, offset), offset);
    EXPECT_EQ(error_of(write(fd, "x")), EIO);
    EXPECT_EQ(output(), down_line);
    EXPECT_EQ(close(fd), 0);
    EXPECT_EQ(fileid_at(0, 0), 1);
    remount();
  }
}

TEST_F(file_write, a_descriptor_of_a_directory_is_never_written) {
  make();
  const int32_t fd = open("/", ifs_open_read | ifs_open_append);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(error_of(write(fd, "x")), EBADF);
  EXPECT_EQ(close(fd), 0);
}
