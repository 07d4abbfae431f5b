// The slots of a directory, and the search for the one that names a file.
#include "flashfs/slots.h"

#include <gtest/gtest.h>

#include "flashfs/filemap.h"
#include "flashfs/io.h"
#include "tests/flashfs/unchecked_fixture.h"
#include "tests/support/image_builder.h"

using namespace test_support;

namespace {

class slot_search : public unchecked_fixture {
 protected:
  void SetUp() override {
    unchecked_fixture::SetUp();
    image_builder image(device());
    for (int k = 0; k < 20; k++) {
      image.slot(1, 4, k,
                 {.seq_no = static_cast<uint16_t>(k), .entry_fileid = entry_id(k), .name = "n"});
    }
    for (int k = 0; k < 5; k++) {
      image.slot(
          2, 8, k,
          {.seq_no = static_cast<uint16_t>(20 + k), .entry_fileid = entry_id(20 + k), .name = "n"});
    }
    for (const flashfs_sctr_ptr pointer : {flashfs_sctr_ptr{1, 4}, flashfs_sctr_ptr{2, 8}}) {
      ASSERT_EQ(read_sector(fs(), pointer, &sector_, whole_sector), 0);
      ASSERT_EQ(filemap_add_sector_all(fs(), pointer, &sector_), 0);
    }
    device().clear_counts();
  }
  static uint16_t entry_id(int number) {
    return static_cast<uint16_t>(100 + number);
  }
  flashfs_sctr_map* entry(uint16_t fileid, uint16_t parent = 1) {
    return filemap_insert(fs(), fileid, parent, 0x8000);
  }
};

}  // namespace

// --- finding slots ---

TEST_F(slot_search, finds_the_parents_list_entry_that_names_the_file) {
  const flashfs_sctr_list_ordered* found = filemap_find_slot(fs(), entry(entry_id(23)));
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->slot_no, 3);
  EXPECT_EQ(found->sctr_ptr, (flashfs_sctr_ptr{2, 8}));
  EXPECT_EQ(found->seq_no, 23);
}

TEST_F(slot_search, reads_a_sector_that_slots_share_once) {
  ASSERT_NE(filemap_find_slot(fs(), entry(entry_id(19))), nullptr);
  EXPECT_EQ(device().counts().reads, 1U);
  EXPECT_EQ(device().counts().bytes_read, 2056U);
  ASSERT_NE(filemap_find_slot(fs(), entry(entry_id(24))), nullptr);
  EXPECT_EQ(device().counts().reads, 1U + 2);
}

TEST_F(slot_search, gives_null_for_a_file_that_its_parent_does_not_name) {
  EXPECT_EQ(filemap_find_slot(fs(), entry(999)), nullptr);
}

TEST_F(slot_search, gives_null_without_a_read_when_the_parent_is_missing) {
  EXPECT_EQ(filemap_find_slot(fs(), entry(entry_id(3), 50)), nullptr);
  EXPECT_EQ(filemap_find_slot(fs(), entry(entry_id(4), 0)), nullptr);
  EXPECT_EQ(device().counts().reads, 0U);
  EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
}

TEST_F(slot_search, gives_null_and_its_buffer_back_when_the_flash_fails) {
  device().fail(flash_call::read, 2, flash_busy);
  output_of([&] { EXPECT_EQ(filemap_find_slot(fs(), entry(entry_id(23))), nullptr); });
  EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
  EXPECT_EQ(device().counts().reads, 2U);
}

TEST_F(slot_search, tells_a_failure_from_a_slot_that_is_not_there) {
  sector_buffer buffer(fs());
  found_slot found = filemap_find_slot_in(fs(), entry(999), buffer);
  EXPECT_EQ(found.entry, nullptr);
  EXPECT_FALSE(found.failed);
  sector_buffers_forget();
  device().fail(flash_call::read, 1, flash_busy);
  output_of([&] { found = filemap_find_slot_in(fs(), entry(entry_id(1)), buffer); });
  EXPECT_EQ(found.entry, nullptr);
  EXPECT_TRUE(found.failed);
}

TEST_F(slot_search, passes_over_data_sectors_in_a_directorys_list) {
  // Damaged flash: sectors owned by a directory's id.
  for (const uint16_t seq_no : u16s{0, 30}) {
    sector_.fileid = 30;
    sector_.seq_no = seq_no;
    ASSERT_EQ(filemap_add_sector(fs(), {0, seq_no}, &sector_, slot_of_sector), 0);
  }
  filemap_lookup(fs(), 30)->mode = 0x4600;
  filemap_lookup(fs(), 30)->sctr_list->slot_no = slot_of_reserved_sector;
  EXPECT_EQ(filemap_find_slot(fs(), entry(0xFFFE, 30)), nullptr);
  EXPECT_EQ(device().counts().reads, 0U);
}

TEST_F(slot_search, without_a_sector_buffer_gives_null) {
  chunk_pool* pool = fs()->sctr_buf_chunk;
  fs()->sctr_buf_chunk = nullptr;
  output_of([&] { EXPECT_EQ(filemap_find_slot(fs(), entry(entry_id(3))), nullptr); });
  fs()->sctr_buf_chunk = pool;
}
