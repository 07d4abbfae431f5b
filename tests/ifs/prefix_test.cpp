// Prefixes: which file system a name belongs to, and what of the name it gets to see.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "ifs/ifs.h"
#include "tests/ifs/recording_fs.h"

namespace {

using recording_fs::create;

class prefix : public recording_fs::switch_fixture {};

// Two names that are the same in the 31 characters that are stored.
const std::string long_name = "0123456789012345678901234567890123456789";
const std::string twin_name = "0123456789012345678901234567890xxxxxxxxx";
const std::string stored_name = long_name.substr(0, 31);

TEST_F(prefix, the_name_up_to_the_colon_decides) {
  create("boot");
  const ppc_fsid_t longer = create("bootflash");
  const char* path = "bootflash:x";
  EXPECT_EQ(ifs_lookup_prefix(path), longer);
  EXPECT_EQ(ifs_lookup_prefix_and_strip(&path), longer);
  EXPECT_STREQ(path, "x");
}

TEST_F(prefix, a_shorter_prefix_in_a_later_slot_does_not_take_a_longer_ones_path) {
  const ppc_fsid_t longer = create("bootflash");
  create("boot");
  EXPECT_EQ(ifs_lookup_prefix("bootflash:x"), longer);
  EXPECT_EQ(ifs_lookup_prefix_internal("bootflash", nullptr, 0, 0), longer);
}

TEST_F(prefix, without_a_colon_behind_it_a_prefix_is_none) {
  create("boot");
  create("bootflash");
  const char* path = "bootx";
  EXPECT_EQ(ifs_lookup_prefix(path), -1);
  EXPECT_EQ(ifs_lookup_prefix_and_strip(&path), -1);
  EXPECT_STREQ(path, "bootx");
  EXPECT_EQ(ifs_lookup_prefix("boot"), -1);
  EXPECT_EQ(ifs_lookup_prefix("boo:"), -1);
  EXPECT_EQ(ifs_lookup_prefix("Boot:"), -1);
  EXPECT_EQ(ifs_lookup_prefix(""), -1);
  EXPECT_EQ(ifs_lookup_prefix(":"), -1);
}

TEST_F(prefix, a_null_name_belongs_to_nobody) {
  create("boot");
  const char* path = nullptr;
  EXPECT_EQ(ifs_lookup_prefix(nullptr), -1);
  EXPECT_EQ(ifs_lookup_prefix_and_strip(&path), -1);
  EXPECT_EQ(ifs_lookup_prefix_internal(nullptr, nullptr, 1, 0), -1);
}

TEST_F(prefix, the_colon_is_asked_for_only_when_wanted) {
  const ppc_fsid_t fsid = create("boot");
  EXPECT_EQ(ifs_lookup_prefix_internal("bootx", nullptr, 0, 0), fsid);
  EXPECT_EQ(ifs_lookup_prefix_internal("bootx", nullptr, 0, 1), -1);
  EXPECT_EQ(ifs_lookup_prefix_internal("boo", nullptr, 0, 0), -1);
}

TEST_F(prefix, an_exact_look_up_takes_the_whole_name) {
  create("boot");
  const ppc_fsid_t longer = create("bootflash");
  EXPECT_EQ(ifs_lookup_prefix_internal("bootflash", nullptr, 1, 0), longer);
  EXPECT_EQ(ifs_lookup_prefix_internal("bootf", nullptr, 1, 0), -1);
  EXPECT_EQ(ifs_lookup_prefix_internal("bootflash:", nullptr, 1, 0), -1);
  EXPECT_EQ(ifs_lookup_prefix_internal("Boot", nullptr, 1, 0), -1);
}

TEST_F(prefix, an_exact_look_up_passes_over_the_demand_for_a_colon) {
  const ppc_fsid_t fsid = create("boot");
  EXPECT_EQ(ifs_lookup_prefix_internal("boot", nullptr, 1, 1), fsid);
}

TEST_F(prefix, the_matching_record_is_handed_out) {
  const ppc_fsid_t fsid = create("a");
  ASSERT_EQ(ifs_add_prefix(fsid, "abc"), 0);
  const ifs_prefix* record = nullptr;
  EXPECT_EQ(ifs_lookup_prefix_internal("abc:", &record, 0, 1), fsid);
  EXPECT_STREQ(record->name, "abc");
  EXPECT_EQ(record->length, 3u);
  EXPECT_EQ(ifs_lookup_prefix_internal("a", &record, 1, 0), fsid);
  EXPECT_STREQ(record->name, "a");
}

TEST_F(prefix, without_a_match_the_record_is_left_alone) {
  const ppc_fsid_t fsid = create("a");
  const ifs_prefix* const before = ifs_fsid_get_entry(fsid)->prefixes;
  const ifs_prefix* record = before;
  EXPECT_EQ(ifs_lookup_prefix_internal("b:", &record, 0, 1), -1);
  EXPECT_EQ(record, before);
}

TEST_F(prefix, of_equal_prefixes_the_later_slot_wins) {
  const ppc_fsid_t first = create("first");
  const ppc_fsid_t second = create("second");
  ASSERT_EQ(ifs_add_prefix(second, long_name.c_str()), 0);
  ASSERT_EQ(ifs_add_prefix(first, twin_name.c_str()), 0);
  EXPECT_EQ(ifs_lookup_prefix((stored_name + ":x").c_str()), second);
  EXPECT_EQ(ifs_lookup_prefix_internal(stored_name.c_str(), nullptr, 1, 0), second);
}

TEST_F(prefix, of_equal_prefixes_of_one_file_system_the_later_record_wins) {
  const ppc_fsid_t fsid = create("first");
  ASSERT_EQ(ifs_add_prefix(fsid, long_name.c_str()), 0);
  const ifs_prefix* added_first = ifs_fsid_get_entry(fsid)->prefixes;
  ASSERT_EQ(ifs_add_prefix(fsid, twin_name.c_str()), 0);
  ASSERT_EQ(ifs_fsid_get_entry(fsid)->prefixes->next, added_first);
  const ifs_prefix* record = nullptr;
  EXPECT_EQ(ifs_lookup_prefix_internal((stored_name + ":").c_str(), &record, 0, 1), fsid);
  EXPECT_EQ(record, added_first);
  record = nullptr;
  EXPECT_EQ(ifs_lookup_prefix_internal(stored_name.c_str(), &record, 1, 0), fsid);
  EXPECT_EQ(record, added_first);
}

TEST_F(prefix, stripping_takes_the_prefix_and_one_colon) {
  create("bootflash");
  const char* directory = "bootflash:dir/f";
  const char* two_colons = "bootflash::f";
  const char* nothing = "bootflash:";
  EXPECT_EQ(ifs_lookup_prefix_and_strip(&directory), 0);
  EXPECT_EQ(ifs_lookup_prefix_and_strip(&two_colons), 0);
  EXPECT_EQ(ifs_lookup_prefix_and_strip(&nothing), 0);
  EXPECT_STREQ(directory, "dir/f");
  EXPECT_STREQ(two_colons, ":f");
  EXPECT_STREQ(nothing, "");
}

TEST_F(prefix, stays_on_the_path_of_a_file_system_that_keeps_it) {
  const ppc_fsid_t fsid = create("raw", recording_fs::full_operations, ifs_flag_keep_prefix);
  const char* path = "raw:f";
  EXPECT_EQ(ifs_lookup_prefix_and_strip(&path), fsid);
  EXPECT_STREQ(path, "raw:f");
}

TEST_F(prefix, one_flag_alone_keeps_it_on_the_path_and_no_other_does) {
  create("keeping", recording_fs::full_operations, 0x93);
  create("stripped", recording_fs::full_operations, 0xBFFFFFEF);
  const char* kept = "keeping:f";
  const char* stripped = "stripped:f";
  EXPECT_EQ(ifs_lookup_prefix_and_strip(&kept), 0);
  EXPECT_EQ(ifs_lookup_prefix_and_strip(&stripped), 1);
  EXPECT_STREQ(kept, "keeping:f");
  EXPECT_STREQ(stripped, "f");
}

TEST_F(prefix, further_prefixes_lead_to_the_same_file_system) {
  const ppc_fsid_t fsid = create("boot");
  EXPECT_EQ(ifs_add_prefix(fsid, "b"), 0);
  const char* path = "b:f";
  EXPECT_EQ(ifs_lookup_prefix_and_strip(&path), fsid);
  EXPECT_STREQ(path, "f");
  EXPECT_EQ(ifs_lookup_prefix("boot:f"), fsid);
}

TEST_F(prefix, one_that_is_taken_cannot_be_added) {
  const ppc_fsid_t first = create("a");
  const ppc_fsid_t second = create("b");
  EXPECT_EQ(ifs_add_prefix(first, "b"), -1);
  EXPECT_EQ(ifs_add_prefix(second, "b"), -1);
  EXPECT_EQ(errno, 0);
}

TEST_F(prefix, none_can_be_added_to_a_file_system_that_is_not_there) {
  create("a");
  EXPECT_EQ(ifs_add_prefix(1, "b"), -1);
  EXPECT_EQ(ifs_add_prefix(-1, "b"), -1);
  EXPECT_EQ(ifs_add_prefix(16, "b"), -1);
  EXPECT_EQ(ifs_lookup_prefix("b:"), -1);
}

TEST_F(prefix, a_null_one_cannot_be_added) {
  EXPECT_EQ(ifs_add_prefix(create("a"), nullptr), -1);
}

TEST_F(prefix, adding_40_characters_stores_the_first_31) {
  const ppc_fsid_t fsid = create("a");
  ASSERT_EQ(ifs_add_prefix(fsid, long_name.c_str()), 0);
  EXPECT_EQ(ifs_fsid_get_prefix(fsid), stored_name);
  EXPECT_EQ(ifs_fsid_get_entry(fsid)->prefixes->length, 31u);
  EXPECT_EQ(ifs_lookup_prefix((stored_name + ":").c_str()), fsid);
  EXPECT_EQ(ifs_lookup_prefix((long_name + ":").c_str()), -1);
}

TEST_F(prefix, a_long_one_is_compared_before_it_is_cut_and_so_can_be_added_twice) {
  const ppc_fsid_t fsid = create("a");
  EXPECT_EQ(ifs_add_prefix(fsid, long_name.c_str()), 0);
  EXPECT_EQ(ifs_add_prefix(fsid, long_name.c_str()), 0);
  EXPECT_EQ(ifs_add_prefix(fsid, stored_name.c_str()), -1);
}

TEST_F(prefix, the_one_added_last_is_the_file_systems_first) {
  const ppc_fsid_t fsid = create("a");
  EXPECT_STREQ(ifs_fsid_get_prefix(fsid), "a");
  ASSERT_EQ(ifs_add_prefix(fsid, "b"), 0);
  EXPECT_STREQ(ifs_fsid_get_prefix(fsid), "b");
}

}  // namespace
