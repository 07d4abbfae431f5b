// The raw device handle, opened as "...": whole images read and written, what it shuts out, and how
// its closing brings the file system back. The driver here has no limit on the length of a write.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "flashfs/check_flags.h"
#include "flashfs/control_codes.h"
#include "flashfs/flashfs.h"
#include "flashfs/operations.h"
#include "sim/flash.h"
#include "tests/flashfs/driver_calls.h"
#include "tests/flashfs/flashfs_recipe.h"
#include "tests/flashfs/operations_fixture.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"

namespace {

using namespace test_support;

class raw_device : public operations_fixture {
 protected:
  // The usable blocks of all devices, one after the other.
  std::string image_on_flash(bool second_device = false) {
    const std::vector<uint8_t> first = device().flash().snapshot();
    std::string bytes(first.begin(), first.end());
    if (second_device) {
      const std::vector<uint8_t> second = device(1).flash().snapshot();
      bytes.append(second.begin(), second.end());
    }
    return bytes;
  }
  void make_with_a_tree() {
    make();
    ASSERT_EQ(mkdir("d"), 0);
    put("d/a", pattern(5000));
    put("b", "text");
  }
  uint32_t position_of(int32_t fd) {
    return static_cast<const flashfs_open_file*>(ifs_fd_get_entry(fd)->fd_context)->filepos;
  }
};

const std::string erased_flash(size_t size) {
  return std::string(size, '\xFF');
}

}  // namespace

// --- opening ---

TEST_F(raw_device, it_opens_only_when_nothing_else_is_open) {
  make_with_a_tree();
  const int32_t other = open("b");
  EXPECT_EQ(error_of(open("...")), EBUSY);
  EXPECT_EQ(error_of(open("/...")), EBUSY);
  EXPECT_EQ(error_of(open("...", open_rw)), EBUSY);
  EXPECT_EQ(get("b"), "text");
  EXPECT_EQ(close(other), 0);
  const int32_t raw = open("...");
  EXPECT_GE(raw, 0);
  EXPECT_EQ(close(raw), 0);
  const int32_t with_slashes = open("//...");
  EXPECT_GE(with_slashes, 0);
  EXPECT_EQ(close(with_slashes), 0);
}

TEST_F(raw_device, the_name_stands_for_the_device_only_as_the_whole_path) {
  make_with_a_tree();
  EXPECT_EQ(error_of(open("d/...")), ENOENT);
  put("d/...", "a file");
  EXPECT_EQ(get("d/..."), "a file");
}

TEST_F(raw_device, its_state_is_the_device_pseudo_record) {
  make_with_a_tree();
  const int32_t raw = open("...");
  const auto* record = static_cast<const flashfs_open_file*>(ifs_fd_get_entry(raw)->fd_context);
  EXPECT_EQ(record->file, &fs()->raw_file_map);
  EXPECT_EQ(record->file->fileid, 65535);
  EXPECT_EQ(record->filepos, 0U);
  EXPECT_EQ(record->oflags, ifs_open_read);
  EXPECT_EQ(close(raw), 0);
}

TEST_F(raw_device, create_and_exclusive_mean_nothing_to_it) {
  make_with_a_tree();
  const int32_t raw = open("...", ifs_open_read | ifs_open_create | ifs_open_exclusive);
  EXPECT_GE(raw, 0);
  EXPECT_EQ(close(raw), 0);
}

// --- while it is open ---

TEST_F(raw_device, reading_shuts_out_every_other_operation_until_it_is_closed) {
  make_with_a_tree();
  const int32_t raw = open("...");
  ppc_stat status;
  ppc_statfs space;
  uint32_t word = flashfs_check_full;
  EXPECT_EQ(error_of(open("b")), EINVAL);
  EXPECT_EQ(error_of(open("new", open_new)), EINVAL);
  EXPECT_EQ(error_of(open("...")), EINVAL);
  EXPECT_EQ(error_of(chmod("b", 0)), EINVAL);
  EXPECT_EQ(error_of(remove("b")), EINVAL);
  EXPECT_EQ(error_of(rename("b", "c")), EINVAL);
  EXPECT_EQ(error_of(mkdir("e")), EINVAL);
  EXPECT_EQ(error_of(rmdir("d")), EINVAL);
  EXPECT_EQ(error_of(stat("b", &status)), EINVAL);
  EXPECT_EQ(error_of(istat("b", 2, &status)), EINVAL);
  EXPECT_EQ(error_of(statfs(&space)), EINVAL);
  EXPECT_EQ(error_of(ioctl("", flashfs_ioctl_verify, nullptr)), EINVAL);
  EXPECT_EQ(error_of(ioctl("", flashfs_ioctl_highest_fileid, &word)), EINVAL);
  EXPECT_EQ(error_of(ioctl("", flashfs_ioctl_check, &word)), EBUSY);
  EXPECT_EQ(error_of(ioctl("", flashfs_ioctl_format, nullptr)), EBUSY);
  EXPECT_EQ(error_of(ioctl("", flashfs_ioctl_format_too, nullptr)), EBUSY);
  EXPECT_EQ(close(raw), 0);
  EXPECT_EQ(get("b"), "text");
}

TEST_F(raw_device, the_handle_itself_takes_no_other_operation) {
  make_with_a_tree();
  for (const uint32_t flags : {ifs_open_read, open_rw}) {
    const int32_t raw = open("...", flags);
    ASSERT_GE(raw, 0);
    for (const uint32_t ready : {0U, 1U}) {
      fs()->ready = ready;
      ppc_stat status;
      flashfs_file_info info;
      flashfs_file_name entry_name;
      uint32_t length = 0;
      uint8_t records[76];
      EXPECT_EQ(error_of(seek(raw, 0)), EINVAL);
      EXPECT_EQ(error_of(seek(raw, 0, ifs_seek_end)), EINVAL);
      EXPECT_EQ(error_of(fstat(raw, &status)), EINVAL);
      EXPECT_EQ(error_of(getdents(raw, records, sizeof records)), EINVAL);
      EXPECT_EQ(error_of(fioctl(raw, flashfs_fioctl_truncate, &length)), EINVAL);
      EXPECT_EQ(error_of(fioctl(raw, flashfs_fioctl_verify, nullptr)), EINVAL);
      EXPECT_EQ(error_of(fioctl(raw, flashfs_fioctl_name, &entry_name)), EINVAL);
      EXPECT_EQ(error_of(fioctl(raw, flashfs_fioctl_path_and_size, &info)), EINVAL);
    }
    fs()->ready = 0;
    EXPECT_EQ(close(raw), 0);
  }
}

// --- reading ---

TEST_F(raw_device, the_whole_image_is_the_flash) {
  make_with_a_tree();
  const std::string flash = image_on_flash();
  const int32_t raw = open("...");
  EXPECT_TRUE(read_text(raw, 1000000) == flash);
  EXPECT_EQ(position_of(raw), flash.size());
  EXPECT_EQ(read_text(raw, 10), "");
  EXPECT_EQ(close(raw), 0);
  EXPECT_TRUE(image_on_flash() == flash);
}

TEST_F(raw_device, pieces_of_odd_sizes_make_the_same_image) {
  make_with_a_tree();
  const std::string flash = image_on_flash();
  for (const uint32_t piece : {1001U, block_bytes(8), block_bytes(8) + 1, 40001U}) {
    const int32_t raw = open("...");
    std::string all;
    std::string part;
    while (!(part = read_text(raw, piece)).empty()) {
      all += part;
      ASSERT_EQ(position_of(raw), all.size());
    }
    EXPECT_TRUE(all == flash) << piece;
    EXPECT_EQ(close(raw), 0);
  }
}

TEST_F(raw_device, the_driver_reads_whole_words_and_no_more_than_they) {
  make_with_a_tree();
  const std::string flash = image_on_flash();
  const int32_t raw = open("...");
  const driver_calls calls(fs());
  EXPECT_TRUE(read_text(raw, 3) == flash.substr(0, 3));
  EXPECT_TRUE(read_text(raw, 3) == flash.substr(3, 3));
  EXPECT_TRUE(read_text(raw, 5) == flash.substr(6, 5));
  EXPECT_TRUE(read_text(raw, 1) == flash.substr(11, 1));
  EXPECT_EQ(calls.text(), "r0-4 r2-6 r6-12 r10-12");
  EXPECT_EQ(close(raw), 0);
}

TEST_F(raw_device, blocks_of_two_devices_follow_each_other_with_their_spare_bytes) {
  make_flash({{block_bytes(8), false}, {block_bytes(3) + 1000, false}},
             {{block_bytes(8) + 2054, false}, {block_bytes(5), false}});
  mount();
  put("a", pattern(5000));
  const std::string flash = image_on_flash(true);
  const int32_t raw = open("...");
  EXPECT_TRUE(read_text(raw, 1000000) == flash);
  EXPECT_EQ(close(raw), 0);
}

TEST_F(raw_device, skipped_blocks_are_not_part_of_the_stream) {
  make_flash({{block_bytes(4), false}, {block_bytes(4), true}, {block_bytes(4), false}});
  mount();
  const std::string flash = image_on_flash();
  const int32_t raw = open("...");
  EXPECT_TRUE(read_text(raw, 1000000) ==
              flash.substr(0, block_bytes(4)) + flash.substr(2 * block_bytes(4)));
  EXPECT_EQ(close(raw), 0);
}

TEST_F(raw_device, reading_needs_the_read_flag_and_writing_the_write_flag) {
  make_with_a_tree();
  char byte = 0;
  const int32_t none = open("...", 0);
  EXPECT_EQ(error_of(read(none, &byte, 1)), EBADF);
  EXPECT_EQ(error_of(write(none, "x")), EBADF);
  EXPECT_EQ(close(none), 0);
  const int32_t reader = open("...");
  EXPECT_EQ(error_of(write(reader, "x")), EBADF);
  EXPECT_EQ(close(reader), 0);
  EXPECT_EQ(get("b"), "text");
  const int32_t writer = open("...", ifs_open_write);
  EXPECT_EQ(error_of(read(writer, &byte, 1)), EBADF);
  EXPECT_EQ(close(writer), 0);
}

TEST_F(raw_device, a_failing_read_marks_down_until_the_handle_is_closed) {
  make_with_a_tree();
  const int32_t raw = open("...");
  EXPECT_EQ(read_text(raw, 10).size(), 10U);
  device().fail(flash_call::read, 2, flash_operation_failed);
  char buffer[1];
  std::vector<char> large(2 * block_bytes(8));
  EXPECT_EQ(error_of(read(raw, large.data(), static_cast<uint32_t>(large.size()))), EIO);
  EXPECT_NE(output().find(down_line), std::string::npos);
  EXPECT_EQ(position_of(raw), 10U);
  EXPECT_EQ(read(raw, buffer, 1), 1);
  EXPECT_EQ(close(raw), 0);
  EXPECT_EQ(get("b"), "text");
}

// --- writing ---

TEST_F(raw_device, opening_for_writing_erases_everything_without_keeping_headers) {
  for (const uint32_t flags : {0x002U, 0x200U, 0x202U, 0x003U}) {
    make_with_a_tree();
    const int32_t raw = open("...", flags);
    ASSERT_GE(raw, 0);
    EXPECT_TRUE(image_on_flash() == erased_flash(4 * block_bytes(8))) << flags;
    EXPECT_EQ(output(), " eS0 eS1 eS2 eS3");
    EXPECT_EQ(fs()->ready, 0U);
    EXPECT_EQ(fs()->file_map, nullptr);
    EXPECT_EQ(fs()->available_sectors, nullptr);
    EXPECT_EQ(fs()->sctr_ptr_chunk, nullptr);
    EXPECT_EQ(error_of(open("b")), EINVAL);
    EXPECT_EQ(close(raw), 0);
    EXPECT_EQ(names_in("/"), "");
  }
}

TEST_F(raw_device, an_image_written_back_mounts_to_the_same_tree) {
  for (const uint32_t piece : {1000U, block_bytes(8), 30000U, 1000000U}) {
    make_with_a_tree();
    const std::string flash = image_on_flash();
    const int32_t raw = open("...", open_rw);
    for (size_t at = 0; at < flash.size(); at += piece) {
      const std::string part = flash.substr(at, piece);
      ASSERT_EQ(write(raw, part), static_cast<int32_t>(part.size()));
      ASSERT_EQ(position_of(raw), at + part.size());
    }
    EXPECT_TRUE(image_on_flash() == flash) << piece;
    EXPECT_EQ(write(raw, "behind the end"), 0);
    EXPECT_EQ(close(raw), 0);
    EXPECT_EQ(output(), quiet_check);
    EXPECT_TRUE(image_on_flash() == flash) << piece;
    EXPECT_EQ(get("d/a"), pattern(5000));
    EXPECT_EQ(get("b"), "text");
    EXPECT_TRUE(flash_is_consistent());
  }
}

TEST_F(raw_device, a_part_of_a_block_leaves_the_rest_of_it) {
  make_with_a_tree();
  const int32_t raw = open("...", open_rw);
  const std::string head(block_bytes(8) - 3, 'h');
  EXPECT_EQ(write(raw, head), static_cast<int32_t>(head.size()));
  EXPECT_EQ(write(raw, "across!"), 7);
  EXPECT_TRUE(image_on_flash() ==
              head + "across!" + erased_flash(4 * block_bytes(8) - head.size() - 7));
  close(raw);
}

TEST_F(raw_device, a_write_reads_the_words_around_it_and_nothing_of_a_block_that_is_replaced) {
  make_with_a_tree();
  const int32_t raw = open("...", open_rw);
  const driver_calls calls(fs());
  EXPECT_EQ(write(raw, "odd"), 3);
  EXPECT_EQ(write(raw, "x"), 1);
  const std::string end = std::to_string(block_bytes(8));
  EXPECT_EQ(calls.text(), "r2-" + end + " w0-" + end + " r0-4 r4-" + end + " w0-" + end);
  EXPECT_EQ(write(raw, std::string(2 * block_bytes(8) - 4, 'y')),
            static_cast<int32_t>(2 * block_bytes(8)) - 4);
  const std::string second = end + "-" + std::to_string(2 * block_bytes(8));
  EXPECT_EQ(calls.text(), "r2-" + end + " w0-" + end + " r0-4 r4-" + end + " w0-" + end +
                              " r0-4 w0-" + end + " w" + second);
  EXPECT_TRUE(image_on_flash() ==
              "oddx" + std::string(2 * block_bytes(8) - 4, 'y') + erased_flash(2 * block_bytes(8)));
  EXPECT_EQ(close(raw), 0);
}

TEST_F(raw_device, a_block_is_written_whole_with_its_marker) {
  make_with_a_tree();
  const int32_t raw = open("...", open_rw);
  EXPECT_EQ(write(raw, std::string(block_bytes(8) + 1, 'x')),
            static_cast<int32_t>(block_bytes(8)) + 1);
  EXPECT_EQ(output(), " wS0 wS1");
  close(raw);
}

TEST_F(raw_device, a_failing_write_marks_down_and_keeps_the_blocks_before_it) {
  make_with_a_tree();
  const int32_t raw = open("...", open_rw);
  device().fail(flash_call::write, 2, flash_operation_failed);
  EXPECT_EQ(error_of(write(raw, std::string(3 * block_bytes(8), 'x'))), EIO);
  EXPECT_NE(output().find(down_line), std::string::npos);
  EXPECT_EQ(position_of(raw), block_bytes(8));
  device().fail(flash_call::read, 1, flash_operation_failed);
  EXPECT_EQ(error_of(write(raw, "x")), EIO);
  EXPECT_NE(output().find(down_line), std::string::npos);
  close(raw);
}

TEST_F(raw_device, a_block_that_cannot_be_erased_refuses_the_open) {
  make_with_a_tree();
  device().fail(flash_call::erase, 3, flash_operation_failed);
  EXPECT_EQ(error_of(open("...", open_rw)), EIO);
  EXPECT_NE(output().find(down_line), std::string::npos);
  EXPECT_EQ(open_descriptors(), 0);
  EXPECT_EQ(open_count(), 0);
  EXPECT_EQ(fs()->ready, 0U);
  EXPECT_EQ(check(), 0);
}

// --- closing ---

TEST_F(raw_device, closing_an_erased_device_makes_an_empty_file_system) {
  make_with_a_tree();
  const int32_t raw = open("...", open_rw);
  EXPECT_EQ(close(raw), 0);
  EXPECT_EQ(fs()->ready, 1U);
  EXPECT_EQ(open_descriptors(), 0);
  EXPECT_EQ(names_in("/"), "");
  EXPECT_TRUE(flash_is_consistent());
}

TEST_F(raw_device, closing_validates_every_sector_of_an_image) {
  make();
  put("a", "text");
  std::string image = image_on_flash();
  const flashfs_sctr_ptr at = entry(fileid_of("a"))->sctr_list->sctr_ptr;
  const auto sector =
      static_cast<size_t>(this->image().sector_at(at.block_num, at.sctr_num) - device().bytes());
  image[sector + 5] = static_cast<char>(image[sector + 5] & 0x0F);
  const int32_t raw = open("...", open_rw);
  EXPECT_EQ(write(raw, image), static_cast<int32_t>(image.size()));
  EXPECT_EQ(close(raw), 0);
  EXPECT_NE(output().find(" checksum (0x"), std::string::npos);
  EXPECT_EQ(get("a"), "");
  EXPECT_EQ(device().bytes()[sector], 0);
  EXPECT_EQ(device().bytes()[sector + 1], 0);
}

TEST_F(raw_device, closing_after_a_broken_image_fails_and_discards_the_state) {
  make_with_a_tree();
  // Every block in use: nothing can be the spare.
  image().headers(-1);
  const std::string broken = image_on_flash();
  const int32_t raw = open("...", open_rw);
  EXPECT_EQ(write(raw, broken), static_cast<int32_t>(broken.size()));
  EXPECT_EQ(error_of(close(raw)), EIO);
  EXPECT_NE(output().find("flashfs[0]: unable to allocate available block.\n"), std::string::npos);
  EXPECT_EQ(fs()->ready, 0U);
  EXPECT_EQ(fs()->sctr_ptr_chunk, nullptr);
  EXPECT_EQ(fs()->file_map, nullptr);
  EXPECT_EQ(fs()->available_sectors, nullptr);
  EXPECT_EQ(open_descriptors(), 0);
  // The switch leaves the open count of a failed close raised.
  EXPECT_EQ(open_count(), 1);
  EXPECT_EQ(error_of(check()), EBUSY);
}
