// The table of file systems: registration, accessors, the open count, and destruction that waits
// for the last user.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>

#include "ifs/ifs.h"
#include "tests/ifs/recording_fs.h"

namespace {

using recording_fs::calls;
using recording_fs::create;
using recording_fs::full_operations;
using recording_fs::open_count;
using recording_fs::operations_with_destroy;
using recording_fs::state;

constexpr ppc_fsid_t invalid_fsids[] = {1, 15, 16, 17, -1, 32767, -32768};

class filesystem_table : public recording_fs::switch_fixture {};

TEST_F(filesystem_table, creation_stores_what_it_is_given) {
  int context = 0;
  const int32_t fsid = ifs_create("bootflash", &full_operations, 131, 1, 1734, &context);
  ASSERT_EQ(fsid, 0);
  const ifs_filesystem* entry = ifs_fsid_get_entry(0);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(entry->operations, &full_operations);
  EXPECT_EQ(entry->type, 131);
  EXPECT_EQ(entry->flags, 1u);
  EXPECT_EQ(entry->feature, 1734);
  EXPECT_EQ(entry->context, &context);
  EXPECT_EQ(entry->open_count, 0);
  EXPECT_STREQ(entry->prefixes->name, "bootflash");
  EXPECT_EQ(entry->prefixes->length, 9u);
  EXPECT_EQ(entry->prefixes->next, nullptr);
}

TEST_F(filesystem_table, the_accessors_give_the_fields) {
  int context = 0;
  ASSERT_EQ(ifs_create("bootflash", &full_operations, 131, 0x20000001, 1734, &context), 0);
  EXPECT_EQ(ifs_fsid_is_valid(0), 1);
  EXPECT_EQ(ifs_fsid_get_fs_context(0), &context);
  EXPECT_EQ(ifs_fsid_get_type(0), 131);
  EXPECT_EQ(ifs_fsid_get_flags(0), 0x20000001u);
  EXPECT_EQ(ifs_fsid_get_feature(0), 1734);
  EXPECT_STREQ(ifs_fsid_get_prefix(0), "bootflash");
}

TEST_F(filesystem_table, the_fields_keep_all_their_bits) {
  ASSERT_EQ(ifs_create("a", &full_operations, 0xFFFE, 0x9FFFFFFD, 0xFFFC, nullptr), 0);
  EXPECT_EQ(ifs_fsid_get_type(0), 0xFFFE);
  EXPECT_EQ(ifs_fsid_get_flags(0), 0x9FFFFFFDu);
  EXPECT_EQ(ifs_fsid_get_feature(0), 0xFFFC);
}

TEST_F(filesystem_table, the_flags_word_can_be_replaced) {
  const ppc_fsid_t fsid = create("a", full_operations, 0x3);
  ifs_fsid_set_flags(fsid, 0xA0000020);
  EXPECT_EQ(ifs_fsid_get_flags(fsid), 0xA0000020u);
}

TEST_F(filesystem_table, an_invalid_fsid_gives_nothing_and_ebadf) {
  create("a");
  for (const ppc_fsid_t fsid : invalid_fsids) {
    errno = 0;
    EXPECT_EQ(ifs_fsid_is_valid(fsid), 0) << fsid;
    EXPECT_EQ(errno, EBADF) << fsid;
    EXPECT_EQ(ifs_fsid_get_entry(fsid), nullptr);
    EXPECT_EQ(ifs_fsid_get_fs_context(fsid), nullptr);
    EXPECT_EQ(ifs_fsid_get_type(fsid), 0);
    EXPECT_EQ(ifs_fsid_get_flags(fsid), 0u);
    EXPECT_EQ(ifs_fsid_get_feature(fsid), 0);
    EXPECT_EQ(ifs_fsid_get_prefix(fsid), nullptr);
    ifs_fsid_set_flags(fsid, ifs_flag_destroy);
    ifs_open_file_increment(fsid);
    ifs_open_file_decrement(fsid);
    EXPECT_EQ(ifs_destroy(fsid, 1), -1);
  }
  EXPECT_EQ(ifs_fsid_get_flags(0), 0u);
  EXPECT_EQ(open_count(0), 0);
}

TEST_F(filesystem_table, counting_users_of_an_invalid_fsid_reports_nothing) {
  for (const ppc_fsid_t fsid : invalid_fsids) {
    ifs_open_file_increment(fsid);
    ifs_open_file_decrement(fsid);
    EXPECT_EQ(errno, 0) << fsid;
  }
}

TEST_F(filesystem_table, a_taken_prefix_cannot_be_created_again) {
  EXPECT_EQ(create("a"), 0);
  EXPECT_EQ(create("a"), -1);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(create("b"), 1);
}

TEST_F(filesystem_table, a_prefix_added_later_is_taken_too) {
  ASSERT_EQ(ifs_add_prefix(create("a"), "b"), 0);
  EXPECT_EQ(create("b"), -1);
}

TEST_F(filesystem_table, a_null_prefix_is_refused) {
  EXPECT_EQ(create(nullptr), -1);
}

TEST_F(filesystem_table, holds_16) {
  for (int i = 0; i < 16; ++i) {
    EXPECT_EQ(create(std::to_string(i).c_str()), i);
  }
  EXPECT_EQ(create("16"), -1);
  EXPECT_EQ(ifs_lookup_prefix("15:"), 15);
  EXPECT_EQ(ifs_fsid_is_valid(15), 1);
}

TEST_F(filesystem_table, the_lowest_free_slot_is_taken) {
  create("a");
  create("b");
  create("c");
  EXPECT_EQ(ifs_destroy(1, 0), 0);
  EXPECT_EQ(create("d"), 1);
  EXPECT_EQ(create("e"), 3);
}

TEST_F(filesystem_table, a_prefix_has_at_most_31_characters) {
  const std::string longest(31, 'x');
  EXPECT_EQ(create(std::string(32, 'x').c_str()), -1);
  EXPECT_EQ(create(longest.c_str()), 0);
  EXPECT_EQ(ifs_fsid_get_prefix(0), longest);
  EXPECT_EQ(ifs_lookup_prefix((longest + ":f").c_str()), 0);
}

TEST_F(filesystem_table, the_open_count_goes_up_and_down_and_below_0) {
  const ppc_fsid_t fsid = create("a");
  ifs_open_file_increment(fsid);
  ifs_open_file_increment(fsid);
  EXPECT_EQ(open_count(fsid), 2);
  for (int i = 0; i < 3; ++i) {
    ifs_open_file_decrement(fsid);
  }
  EXPECT_EQ(open_count(fsid), -1);
  EXPECT_EQ(ifs_fsid_is_valid(fsid), 1);
}

TEST_F(filesystem_table, initialising_empties_both_tables) {
  create("a");
  ASSERT_EQ(ifs_add_prefix(0, "b"), 0);
  create("c");
  ASSERT_EQ(ifs_open("a:f", 0, 0), 0);
  ASSERT_EQ(ifs_open("c:f", 0, 0), 1);
  ifs_init();
  EXPECT_EQ(ifs_fsid_is_valid(0), 0);
  EXPECT_EQ(ifs_fsid_is_valid(1), 0);
  EXPECT_EQ(ifs_lookup_prefix("b:"), -1);
  EXPECT_EQ(ifs_fd_is_valid(0), 0);
  EXPECT_EQ(ifs_fd_is_valid(1), 0);
  EXPECT_EQ(create("a"), 0);
}

TEST_F(filesystem_table, initialising_empties_every_slot) {
  for (int i = 0; i < 16; ++i) {
    ASSERT_EQ(create(std::to_string(i).c_str()), i);
  }
  for (int32_t fd = 0; fd < 128; ++fd) {
    ASSERT_EQ(ifs_fd_create(0, 0, nullptr), fd);
  }
  ifs_init();
  for (ppc_fsid_t fsid = 0; fsid < 16; ++fsid) {
    EXPECT_EQ(ifs_fsid_is_valid(fsid), 0) << fsid;
  }
  for (int32_t fd = 0; fd < 128; ++fd) {
    EXPECT_EQ(ifs_fd_is_valid(fd), 0) << fd;
  }
}

TEST_F(filesystem_table, initialising_calls_no_slot) {
  create("a", operations_with_destroy);
  ifs_init();
  EXPECT_EQ(state.calls, calls{});
}

TEST_F(filesystem_table, an_unused_file_system_is_destroyed_at_once) {
  const ppc_fsid_t fsid = create("a");
  ASSERT_EQ(ifs_add_prefix(fsid, "b"), 0);
  EXPECT_EQ(ifs_destroy(fsid, 0), 0);
  EXPECT_EQ(ifs_fsid_is_valid(fsid), 0);
  EXPECT_EQ(ifs_lookup_prefix("a:"), -1);
  EXPECT_EQ(ifs_lookup_prefix("b:"), -1);
  EXPECT_EQ(create("a"), fsid);
}

TEST_F(filesystem_table, an_open_file_keeps_its_file_system_from_destruction) {
  const ppc_fsid_t fsid = create("a");
  const int32_t fd = ifs_open("a:f", 0, 0);
  EXPECT_EQ(ifs_destroy(fsid, 0), -1);
  EXPECT_EQ(open_count(fsid), 1);
  EXPECT_EQ(ifs_fsid_get_flags(fsid), 0u);
  EXPECT_EQ(ifs_lookup_prefix("a:"), fsid);
  EXPECT_EQ(ifs_close(fd), 0);
  EXPECT_EQ(ifs_destroy(fsid, 0), 0);
}

TEST_F(filesystem_table, a_negative_open_count_also_refuses_unforced_destruction) {
  const ppc_fsid_t fsid = create("a");
  ifs_open_file_decrement(fsid);
  EXPECT_EQ(ifs_destroy(fsid, 0), -1);
  EXPECT_EQ(ifs_destroy(fsid, 1), 0);
  EXPECT_EQ(ifs_fsid_is_valid(fsid), 0);
}

TEST_F(filesystem_table, forced_destruction_hides_it_at_once_and_removes_it_at_the_last_close) {
  const ppc_fsid_t fsid = create("a");
  ASSERT_EQ(ifs_add_prefix(fsid, "b"), 0);
  const int32_t first = ifs_open("a:f", 0, 0);
  const int32_t second = ifs_open("a:g", 0, 0);
  EXPECT_EQ(ifs_destroy(fsid, -5), 0);
  EXPECT_EQ(ifs_fsid_get_flags(fsid), ifs_flag_destroy);
  EXPECT_EQ(open_count(fsid), 2);
  EXPECT_EQ(ifs_lookup_prefix("a:"), -1);
  EXPECT_EQ(ifs_lookup_prefix("b:"), -1);
  EXPECT_EQ(ifs_lookup_prefix_internal("a", nullptr, 1, 0), -1);
  EXPECT_EQ(ifs_open("a:h", 0, 0), -1);
  EXPECT_EQ(errno, EACCES);
  EXPECT_EQ(ifs_close(first), 0);
  EXPECT_EQ(ifs_fsid_is_valid(fsid), 1);
  EXPECT_EQ(ifs_close(second), 0);
  EXPECT_EQ(ifs_fsid_is_valid(fsid), 0);
}

TEST_F(filesystem_table, a_pending_destruction_is_one_more_flag) {
  const ppc_fsid_t fsid = create("a", full_operations, 0xA0000083);
  const int32_t fd = ifs_open("a:f", 0, 0);
  ifs_destroy(fsid, 1);
  EXPECT_EQ(ifs_fsid_get_flags(fsid), 0xE0000083u);
  EXPECT_EQ(ifs_close(fd), 0);
  EXPECT_EQ(ifs_fsid_is_valid(fsid), 0);
}

TEST_F(filesystem_table, open_files_of_a_hidden_file_system_still_work) {
  const ppc_fsid_t fsid = create("a");
  const int32_t fd = ifs_open("a:f", 0, 0);
  ifs_destroy(fsid, 1);
  state.results = {7};
  EXPECT_EQ(ifs_read(fd, nullptr, 7), 7);
}

TEST_F(filesystem_table, the_prefix_of_a_hidden_file_system_is_free_again) {
  const ppc_fsid_t hidden = create("a");
  ASSERT_GE(ifs_open("a:f", 0, 0), 0);
  ifs_destroy(hidden, 1);
  EXPECT_EQ(create("a"), 1);
  EXPECT_EQ(ifs_lookup_prefix("a:"), 1);
}

TEST_F(filesystem_table, an_operation_in_progress_defers_the_destruction) {
  const ppc_fsid_t fsid = create("a");
  int32_t unforced = 0;
  int valid_during = 0;
  state.during = [&] {
    unforced = ifs_destroy(fsid, 0);
    ifs_destroy(fsid, 1);
    valid_during = ifs_fsid_is_valid(fsid);
  };
  EXPECT_EQ(ifs_remove("a:f"), 0);
  EXPECT_EQ(unforced, -1);
  EXPECT_EQ(valid_during, 1);
  EXPECT_EQ(ifs_fsid_is_valid(fsid), 0);
}

TEST_F(filesystem_table, a_failed_open_completes_a_destruction_from_within) {
  const ppc_fsid_t fsid = create("a");
  state.during = [&] { ifs_destroy(fsid, 1); };
  state.results = {-1};
  EXPECT_EQ(ifs_open("a:f", 0, 0), -1);
  EXPECT_EQ(ifs_fsid_is_valid(fsid), 0);
}

TEST_F(filesystem_table, the_destroy_slot_is_called_with_the_fsid_twice) {
  create("a");
  const ppc_fsid_t fsid = create("b", operations_with_destroy);
  EXPECT_EQ(ifs_destroy(fsid, 0), 0);
  EXPECT_EQ(state.calls, calls{"destroy 1 1"});
  EXPECT_EQ(ifs_fsid_is_valid(fsid), 0);
}

TEST_F(filesystem_table, the_destroy_slot_is_called_only_when_the_last_user_goes) {
  const ppc_fsid_t fsid = create("a", operations_with_destroy);
  const int32_t fd = ifs_open("a:f", 0, 0);
  ifs_destroy(fsid, 1);
  EXPECT_EQ(state.calls, calls{"open 0 f 0 0"});
  ifs_close(fd);
  EXPECT_EQ(state.calls, (calls{"open 0 f 0 0", "close 0", "destroy 0 0"}));
}

TEST_F(filesystem_table, a_destroy_slot_that_refuses_keeps_everything) {
  const ppc_fsid_t fsid = create("a", operations_with_destroy);
  state.results = {1};
  EXPECT_EQ(ifs_destroy(fsid, 0), 0);
  EXPECT_EQ(ifs_fsid_is_valid(fsid), 1);
  EXPECT_EQ(ifs_fsid_get_flags(fsid), ifs_flag_destroy);
  EXPECT_STREQ(ifs_fsid_get_prefix(fsid), "a");
  EXPECT_EQ(ifs_lookup_prefix("a:"), -1);
  EXPECT_EQ(ifs_destroy(fsid, 0), 0);
  EXPECT_EQ(ifs_fsid_is_valid(fsid), 0);
}

TEST_F(filesystem_table, a_destroy_slot_refuses_with_a_negative_result_too) {
  const ppc_fsid_t fsid = create("a", operations_with_destroy);
  state.results = {-1};
  EXPECT_EQ(ifs_destroy(fsid, 0), 0);
  EXPECT_EQ(ifs_fsid_is_valid(fsid), 1);
}

TEST_F(filesystem_table, the_errno_of_the_operation_outlives_the_destroy_slot) {
  const ppc_fsid_t fsid = create("a", operations_with_destroy);
  state.error = ENOTEMPTY;
  state.results = {-1, 0};
  bool first = true;
  state.during = [&] {
    if (first) {
      first = false;
      ifs_destroy(fsid, 1);
    } else {
      errno = EBUSY;
    }
  };
  EXPECT_EQ(ifs_rmdir("a:d"), -1);
  EXPECT_EQ(errno, ENOTEMPTY);
  EXPECT_EQ(ifs_fsid_is_valid(fsid), 0);
}

}  // namespace
