// The operations of the file system when a request for interruption comes or memory runs out.
#include "flashfs/operations.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <string>
#include <vector>

#include "flashfs/buffer.h"
#include "flashfs/check_flags.h"
#include "flashfs/control_codes.h"
#include "flashfs/file.h"
#include "flashfs/slots.h"
#include "sim/flash.h"
#include "tests/faults/interruptions.h"
#include "tests/flashfs/flashfs_recipe.h"
#include "tests/flashfs/operations_fixture.h"
#include "tests/support/failing_memory.h"
#include "tests/support/image_builder.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"

namespace {

using namespace test_support;
using faults::request_interruption;

class operations_interrupted : public operations_fixture {
 protected:
  ~operations_interrupted() override {
    request_interruption(0);
  }
  uint32_t position_of(int32_t fd) {
    return static_cast<const flashfs_open_file*>(ifs_fd_get_entry(fd)->fd_context)->filepos;
  }
};

class operations_without_memory : public operations_fixture {
 protected:
  ~operations_without_memory() override {
    fail_allocation(0);
  }
  // Runs an operation on a device made anew with ever more allocations before memory runs out,
  // until it succeeds. No failure may leave a buffer or a descriptor out, nor a claim while the
  // file system is up, and a check brings everything back.
  void expect_that_failures_leave_nothing_out(const std::function<void()>& prepare,
                                              const std::function<int32_t()>& operation) {
    for (uint64_t n = 1; n < 200; n++) {
      SCOPED_TRACE("allocation " + std::to_string(n));
      prepare();
      const int descriptors = open_descriptors();
      const uint32_t held = claims();
      int32_t result = -1;
      int error = 0;
      output_of([&] {
        fail_allocation(n, true);
        errno = 0;
        result = operation();
        error = errno;
        fail_allocation(0);
      });
      EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
      if (result >= 0) {
        EXPECT_GT(n, 1U);
        return;
      }
      EXPECT_EQ(result, -1);
      EXPECT_NE(error, 0);
      EXPECT_EQ(open_descriptors(), descriptors);
      if (fs()->ready != 0) {
        EXPECT_EQ(claims(), held);
      }
      if (descriptors == 0) {
        EXPECT_EQ(check(), 0) << check_output();
      }
    }
    FAIL() << "it never succeeds";
  }
};

}  // namespace

// --- interruption ---

TEST_F(operations_interrupted, a_read_fails_and_leaves_the_position) {
  make();
  put("a", pattern(5000));
  const int32_t fd = open("a");
  char buffer[5000];
  request_interruption(1);
  EXPECT_EQ(error_of(read(fd, buffer, 5000)), EINTR);
  EXPECT_EQ(output(), "");
  EXPECT_EQ(position_of(fd), 0U);
  EXPECT_EQ(fs()->ready, 1U);
  EXPECT_EQ(read(fd, buffer, 5000), 5000);
  EXPECT_EQ(close(fd), 0);
}

TEST_F(operations_interrupted, a_write_fails_after_a_sector_and_keeps_the_sectors_written) {
  make();
  const std::string text = pattern(4 * 2048);
  put("a", text);
  const int32_t fd = open("a", open_rw);
  const std::string over = pattern(4 * 2048, 5);
  request_interruption(2);
  EXPECT_EQ(error_of(write(fd, over)), EINTR);
  EXPECT_EQ(position_of(fd), 4096U);
  EXPECT_EQ(fs()->ready, 1U);
  EXPECT_EQ(close(fd), 0);
  EXPECT_TRUE(get("a") == over.substr(0, 4096) + text.substr(4096));
  EXPECT_TRUE(flash_is_consistent());
}

TEST_F(operations_interrupted, sectors_reserved_by_an_interrupted_write_hold_nothing) {
  make();
  const int32_t fd = open("a", open_new);
  request_interruption(1);
  EXPECT_EQ(error_of(write(fd, pattern(4 * 2048))), EINTR);
  EXPECT_EQ(seek(fd, 0), 0);
  EXPECT_TRUE(read_text(fd, 10000) == pattern(2048));
  EXPECT_EQ(fs()->ready, 1U);
  EXPECT_EQ(close(fd), 0);
}

TEST_F(operations_interrupted, the_next_write_zeroes_the_reserved_sectors_that_it_passes) {
  for (const int32_t whence : {ifs_seek_set, ifs_seek_end}) {
    make();
    const int32_t fd = open("a", open_new);
    request_interruption(1);
    EXPECT_EQ(error_of(write(fd, pattern(4 * 2048))), EINTR);
    EXPECT_EQ(seek(fd, whence == ifs_seek_end ? 0 : 4 * 2048, whence), 4 * 2048);
    EXPECT_EQ(write(fd, "end"), 3);
    EXPECT_EQ(seek(fd, 0), 0);
    EXPECT_TRUE(read_text(fd, 10000) == pattern(2048) + std::string(3 * 2048, '\0') + "end");
    EXPECT_EQ(close(fd), 0);
    EXPECT_TRUE(flash_is_consistent());
  }
}

TEST_F(operations_interrupted,
       reading_first_does_not_hide_the_reserved_sectors_from_the_next_write) {
  make();
  const int32_t fd = open("a", open_new);
  request_interruption(1);
  EXPECT_EQ(error_of(write(fd, pattern(4 * 2048))), EINTR);
  EXPECT_EQ(seek(fd, 0), 0);
  EXPECT_TRUE(read_text(fd, 10000) == pattern(2048));
  EXPECT_EQ(seek(fd, 4 * 2048), 4 * 2048);
  EXPECT_EQ(write(fd, "end"), 3);
  EXPECT_EQ(close(fd), 0);
  EXPECT_TRUE(get("a") == pattern(2048) + std::string(3 * 2048, '\0') + "end");
  EXPECT_TRUE(flash_is_consistent());
}

TEST_F(operations_interrupted, a_cut_inside_a_reserved_sector_leaves_zeros_and_a_file_to_write_on) {
  make();
  const int32_t fd = open("a", open_new);
  request_interruption(1);
  EXPECT_EQ(error_of(write(fd, pattern(4 * 2048))), EINTR);
  uint32_t length = 3000;
  EXPECT_EQ(ifs_fioctl(fd, flashfs_fioctl_truncate, &length), 0);
  EXPECT_EQ(seek(fd, 3000), 3000);
  EXPECT_EQ(write(fd, "end"), 3);
  EXPECT_EQ(close(fd), 0);
  EXPECT_TRUE(get("a") == pattern(2048) + std::string(3000 - 2048, '\0') + "end");
  EXPECT_TRUE(flash_is_consistent());
}

TEST_F(operations_interrupted, a_written_sector_behind_reserved_ones_does_not_hide_them_either) {
  make();
  const int32_t fd = open("a", open_rw | ifs_open_create);
  request_interruption(1);
  EXPECT_EQ(error_of(write(fd, pattern(4 * 2048))), EINTR);
  // The cut falls into the third sector, which is written for it; the second stays reserved.
  uint32_t length = 2 * 2048 + 100;
  EXPECT_EQ(ifs_fioctl(fd, flashfs_fioctl_truncate, &length), 0);
  EXPECT_EQ(seek(fd, 2 * 2048), 2 * 2048);
  EXPECT_EQ(read_text(fd, 10000), std::string(100, '\0'));
  EXPECT_EQ(write(fd, "end"), 3);
  EXPECT_EQ(close(fd), 0);
  EXPECT_TRUE(get("a") == pattern(2048) + std::string(2048 + 100, '\0') + "end");
  EXPECT_TRUE(flash_is_consistent());
}

TEST_F(operations_interrupted, a_reserved_sector_found_erased_is_zero_filled_before_the_data) {
  make();
  const int32_t fd = open("a", open_new);
  request_interruption(1);
  EXPECT_EQ(error_of(write(fd, pattern(2 * 2048))), EINTR);
  const flashfs_sctr_ptr reserved = entry(fileid_of("a"))->sctr_list->next->sctr_ptr;
  memset(image().sector_at(reserved.block_num, reserved.sctr_num), 0xFF, 2);
  EXPECT_EQ(write(fd, "data"), 4);
  const uint8_t* at = image().sector_at(reserved.block_num, reserved.sctr_num);
  EXPECT_EQ(std::string(at + 4, at + 8), "data");
  EXPECT_EQ(std::string(at + 8, at + 2052), std::string(2044, '\0'));
  EXPECT_EQ(close(fd), 0);
  EXPECT_TRUE(flash_is_consistent());
}

TEST_F(operations_interrupted, the_raw_device_stops_after_a_block) {
  make();
  put("a", "text");
  const std::vector<uint8_t> flash = device().flash().snapshot();
  const std::string image_text(flash.begin(), flash.end());
  const int32_t reader = open("...");
  std::string buffer(flash.size(), '#');
  request_interruption(2);
  EXPECT_EQ(error_of(read(reader, buffer.data(), static_cast<uint32_t>(buffer.size()))), EINTR);
  EXPECT_EQ(position_of(reader), 0U);
  EXPECT_EQ(close(reader), 0);

  const int32_t writer = open("...", open_rw);
  request_interruption(2);
  EXPECT_EQ(error_of(write(writer, image_text)), EINTR);
  EXPECT_EQ(position_of(writer), 2 * block_bytes(8));
  EXPECT_EQ(write(writer, image_text.substr(2 * block_bytes(8))),
            static_cast<int32_t>(2 * block_bytes(8)));
  EXPECT_EQ(close(writer), 0);
  EXPECT_EQ(get("a"), "text");
}

TEST_F(operations_interrupted, a_check_stops_and_discards_the_state) {
  make();
  put("a", "text");
  uint32_t word = flashfs_check_full;
  // The check asks at every block of both passes and at every file of two walks.
  for (int poll = 1;; poll++) {
    request_interruption(poll);
    const int32_t result = ioctl("", flashfs_ioctl_check, &word);
    if (result == 0) {
      EXPECT_GT(poll, 8 + 4);
      break;
    }
    EXPECT_EQ(error_of(result), EIO);
    EXPECT_EQ(output(), "flashfs[0]: filesystem check interrupted!\n");
    EXPECT_EQ(fs()->ready, 0U);
    EXPECT_EQ(fs()->sctr_ptr_chunk, nullptr);
  }
  request_interruption(0);
  EXPECT_EQ(get("a"), "text");
}

// --- the processor is offered to other work ---

class operations_yield : public operations_fixture {
 protected:
  // The offers in a call, with those that may be declined first: "offers/suspensions".
  std::string yields_of(const std::function<void()>& call) {
    faults::clear_offers();
    output_of(call);
    const faults::offer_counts offered = faults::offers();
    return std::to_string(offered.declinable) + "/" + std::to_string(offered.suspensions);
  }
};

// Here only the yields count; what the operations do is tested elsewhere.
TEST_F(operations_yield, at_every_sector_read_written_passed_over_cut_or_verified) {
  make({16, 16, 16, 16});
  const int32_t fd = open("a", open_new);
  const std::string text = pattern(4 * 2048);
  EXPECT_EQ(yields_of([&] { (void)ifs_write(fd, text.data(), 4 * 2048); }), "4/0");
  EXPECT_EQ(seek(fd, 0), 0);
  EXPECT_EQ(yields_of([&] { (void)ifs_write(fd, text.data(), 2 * 2048); }), "2/0");
  EXPECT_EQ(seek(fd, 0), 0);
  std::string buffer(4 * 2048, ' ');
  EXPECT_EQ(yields_of([&] { (void)ifs_read(fd, buffer.data(), 4 * 2048); }), "4/0");
  EXPECT_EQ(yields_of([&] { (void)ifs_fioctl(fd, flashfs_fioctl_verify, nullptr); }), "4/0");
  EXPECT_EQ(seek(fd, 6 * 2048), 6 * 2048);
  // The last sector read, two of a hole, and the one behind it.
  EXPECT_EQ(yields_of([&] { (void)ifs_write(fd, "end", 3); }), "4/0");
  uint32_t length = 2048;
  EXPECT_EQ(yields_of([&] { (void)ifs_fioctl(fd, flashfs_fioctl_truncate, &length); }), "6/0");
  length = 0;
  EXPECT_EQ(yields_of([&] { (void)ifs_fioctl(fd, flashfs_fioctl_truncate, &length); }), "1/0");
  EXPECT_EQ(close(fd), 0);
}

TEST_F(operations_yield, at_every_slot_looked_up_and_listed_and_at_every_block_counted) {
  make();
  put("a", "");
  put("b", "");
  put("c", "");
  ppc_stat status;
  EXPECT_EQ(yields_of([&] { (void)ifs_stat("bootflash:a", &status); }), "1/0");
  EXPECT_EQ(yields_of([&] { (void)ifs_stat("bootflash:c", &status); }), "1/0");
  const int32_t fd = open("/");
  ppc_dirent entries[5];
  EXPECT_EQ(yields_of([&] { (void)ifs_getdents(fd, entries, sizeof(entries)); }), "4/0");
  EXPECT_EQ(close(fd), 0);
  ppc_statfs space;
  EXPECT_EQ(yields_of([&] { (void)ifs_statfs("bootflash:", &space); }), "4/0");
}

TEST_F(operations_yield, a_walk_over_slots_does_so_at_every_entry_of_the_list_if_it_is_asked_to) {
  make();
  put("a", "");
  put("b", "");
  entry(fileid_root)->sctr_list->next->slot_no = slot_of_sector;  // a stray is an entry, too
  for (const auto when : {slot_walk_yields::no, slot_walk_yields::yes}) {
    sector_buffer buffer(fs());
    slot_walk walk(fs(), entry(fileid_root)->sctr_list, buffer, when);
    int slots = 0;
    EXPECT_EQ(yields_of([&] {
                while (walk.next()) {
                  slots++;
                }
              }),
              when == slot_walk_yields::yes ? "3/0" : "0/0");
    EXPECT_EQ(slots, 2);
  }
}

TEST_F(operations_yield, at_every_block_of_the_raw_device) {
  make();
  const int32_t fd = open("...");
  std::string buffer(device().flash().size(), ' ');
  EXPECT_EQ(
      yields_of([&] { (void)ifs_read(fd, buffer.data(), static_cast<uint32_t>(buffer.size())); }),
      "4/0");
  EXPECT_EQ(close(fd), 0);
}

TEST_F(operations_yield, at_every_sector_and_slot_of_a_dumped_list_and_at_every_row_of_the_map) {
  make();
  put("a", pattern(3 * 2048));
  put("b", "");
  ppc_stat status;
  ASSERT_EQ(ifs_stat("bootflash:a", &status), 0);
  const auto fileid = static_cast<uint16_t>(status.fileid);
  EXPECT_EQ(yields_of([&] { flashfs_dump_file_list(fs(), fileid); }), "3/0");
  EXPECT_EQ(yields_of([&] { flashfs_dump_file_list(fs(), fileid_root); }), "3/0");
  EXPECT_EQ(yields_of([&] { flashfs_dump_file_map(fs()); }), "4/0");
}

TEST_F(operations_yield, in_a_format_after_every_block_and_in_the_check_at_every_step) {
  make({4, 4, 4});
  put("a", pattern(5000));
  put("b", "text");
  uint32_t flags = flashfs_check_quick;
  // Three blocks four times: in both passes, for their free space, and counted; the four sectors of
  // both blocks in use once. Then three slots, one block up to the spare, the spare's four
  // sectors.
  EXPECT_EQ(yields_of([&] { (void)ifs_ioctl("bootflash:", flashfs_ioctl_check, &flags); }), "20/8");
  // The same without a block in use; two blocks are looked at and four sectors of one collected for
  // the root's slot. Each block is left once, and the four sectors of the spare looked through
  // twice.
  EXPECT_EQ(yields_of([&] { (void)ifs_ioctl("bootflash:", flashfs_ioctl_format, &flags); }),
            "18/12");
}

// --- memory ---

TEST_F(operations_without_memory, an_open_without_a_record_or_a_descriptor_is_out_of_memory) {
  make();
  put("a", "text");
  for (const char* name : {"a", "..."}) {
    for (const int n : {1, 2}) {
      int32_t fd = 0;
      said([&] {
        fail_allocation(n, true);
        fd = ifs_open(on_bootflash(name).c_str(), ifs_open_read, 0);
        fail_allocation(0);
      });
      EXPECT_EQ(error_of(fd), ENOMEM) << name << n;
      EXPECT_EQ(open_descriptors(), 0);
      EXPECT_EQ(fs()->ready, 1U);
    }
  }
  EXPECT_EQ(get("a"), "text");
}

TEST_F(operations_without_memory, the_raw_device_needs_a_sector_and_a_block_of_memory) {
  make();
  const int32_t raw = open("...", open_rw);
  char byte = 0;
  const std::string no_sector = "flashfs[0]: unable to allocate sector buffer\n";
  for (const int n : {1, 2}) {
    for (const bool writing : {false, true}) {
      int32_t result = 0;
      said([&] {
        fail_allocation(n, true);
        result = writing ? ifs_write(raw, "x", 1) : ifs_read(raw, &byte, 1);
        fail_allocation(0);
      });
      EXPECT_EQ(error_of(result), ENOMEM);
      EXPECT_EQ(output(), n == 1 ? no_sector : "");
      EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
    }
  }
  EXPECT_EQ(close(raw), 0);
}

TEST_F(operations_without_memory, a_transfer_takes_its_buffer_before_it_checks) {
  make();
  put("a", "text");
  const int32_t fd = open("a");
  int32_t result = 0;
  said([&] {
    fail_allocation(1, true);
    result = ifs_write(fd, "x", 1);
    fail_allocation(0);
  });
  EXPECT_EQ(error_of(result), ENOMEM);
  EXPECT_EQ(error_of(write(fd, "x")), EBADF);
  EXPECT_EQ(close(fd), 0);
}

TEST_F(operations_without_memory, operations_on_names_leave_nothing_out) {
  ppc_stat status;
  const std::function<int32_t()> operations[] = {
      [&] { return ifs_open("bootflash:new", open_new, 0) < 0 ? -1 : 0; },
      [&] { return ifs_open("bootflash:a", ifs_open_read, 0) < 0 ? -1 : 0; },
      [&] { return ifs_open("bootflash:a", open_rw | ifs_open_truncate, 0) < 0 ? -1 : 0; },
      [&] { return ifs_chmod("bootflash:a", 0); },
      [&] { return ifs_remove("bootflash:a"); },
      [&] { return ifs_rename("bootflash:a", "bootflash:z"); },
      [&] { return ifs_rename("bootflash:a", "bootflash:d/z"); },
      [&] { return ifs_mkdir("bootflash:e", 0); },
      [&] { return ifs_stat("bootflash:d/b", &status); },
      [&] { return ifs_istat("bootflash:x", 2, &status); },
      [&] { return ifs_ioctl("bootflash:a", flashfs_ioctl_verify, nullptr); },
      [&] { return flashfs_vctr_open_by_fileid(fs()->fsid, 0, 2, ifs_open_read, 0) < 0 ? -1 : 0; },
  };
  for (size_t i = 0; i < std::size(operations); i++) {
    SCOPED_TRACE("operation " + std::to_string(i));
    expect_that_failures_leave_nothing_out(
        [&] {
          make();
          ASSERT_EQ(mkdir("d"), 0);
          put("a", pattern(5000));
          put("d/b", "text");
        },
        operations[i]);
  }
}

TEST_F(operations_without_memory, operations_on_descriptors_leave_nothing_out) {
  int32_t fd = -1;
  int32_t directory = -1;
  ppc_stat status;
  uint8_t buffer[3000] = {};
  uint32_t length = 0;
  flashfs_file_name name_record;
  flashfs_file_info info_record;
  const std::function<int32_t()> operations[] = {
      [&] { return ifs_read(fd, buffer, sizeof buffer); },
      [&] { return ifs_write(fd, buffer, sizeof buffer); },
      [&] { return ifs_lseek(fd, 0, ifs_seek_end); },
      [&] { return ifs_getdents(directory, buffer, sizeof buffer); },
      [&] { return ifs_fstat(fd, &status); },
      [&] { return ifs_fioctl(fd, flashfs_fioctl_truncate, &(length = 1000)); },
      [&] { return ifs_fioctl(fd, flashfs_fioctl_truncate, &(length = 0)); },
      [&] { return ifs_fioctl(fd, flashfs_fioctl_verify, nullptr); },
      [&] { return ifs_fioctl(fd, flashfs_fioctl_name, &name_record); },
      [&] { return ifs_fioctl(fd, flashfs_fioctl_path_and_size, &info_record); },
  };
  for (size_t i = 0; i < std::size(operations); i++) {
    SCOPED_TRACE("operation " + std::to_string(i));
    expect_that_failures_leave_nothing_out(
        [&] {
          make();
          put("a", pattern(5000));
          fd = open("a", open_rw);
          directory = open("/");
        },
        operations[i]);
  }
}

TEST_F(operations_without_memory, a_dump_prints_what_the_buffer_says) {
  make();
  put("a", "text");
  const std::function<void()> dumps[] = {[&] { flashfs_dump_file_list(fs(), 2); },
                                         [&] { flashfs_dump_sctr(fs(), 0, 0); },
                                         [&] { flashfs_dump_slot(fs(), 0, 0, 0); }};
  for (const auto& one : dumps) {
    const std::string text = output_of([&] {
      fail_allocation(1, true);
      one();
      fail_allocation(0);
    });
    EXPECT_EQ(text.rfind("flashfs[0]: unable to allocate sector buffer\n", 0), 0U) << text;
    EXPECT_EQ(text.find("Contents"), std::string::npos);
    EXPECT_EQ(text.find("Fileid"), std::string::npos);
  }
}
