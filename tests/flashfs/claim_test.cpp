// The file system's lock and its complaints, and the readers and the writer of a file.
#include "flashfs/claim.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

#include "tests/flashfs/unchecked_fixture.h"
#include "tests/support/output_capture.h"

using namespace test_support;

namespace {

using buffer_complaints = unchecked_fixture;

}  // namespace

// --- the lock ---

TEST_F(buffer_complaints, none_when_no_buffer_is_out) {
  EXPECT_EQ(output_of([&] {
              flashfs_lock(fs());
              flashfs_unlock(fs());
            }),
            "");
}

TEST_F(buffer_complaints, the_lock_and_the_unlock_tell_how_many_are_out) {
  fs()->sctr_bufs_allocated = 2;
  EXPECT_EQ(output_of([&] { flashfs_lock(fs()); }),
            "flashfs[0]: flashfs_lock, 2 sector buffers already allocated\n");
  EXPECT_EQ(output_of([&] { flashfs_unlock(fs()); }),
            "flashfs[0]: flashfs_unlock, 2 sector buffers still allocated\n");
  // The count is not mended.
  EXPECT_EQ(fs()->sctr_bufs_allocated, 2U);
  fs()->sctr_bufs_allocated = 0;
}

// --- admission ---

TEST(admission, many_readers_are_admitted) {
  flashfs_sctr_map file = {};
  EXPECT_EQ(flashfs_file_acquire(&file, acquire_read), 0);
  EXPECT_EQ(flashfs_file_acquire(&file, acquire_read), 0);
  EXPECT_EQ(file.readers, 2U);
  EXPECT_EQ(file.writer, 0U);
}

TEST(admission, a_writer_is_refused_while_a_reader_is_admitted) {
  flashfs_sctr_map file = {};
  (void)flashfs_file_acquire(&file, acquire_read);
  EXPECT_EQ(flashfs_file_acquire(&file, acquire_write), 1);
  EXPECT_EQ(file.writer, 0U);
  flashfs_file_release(&file);
  EXPECT_EQ(file.readers, 0U);
  EXPECT_EQ(flashfs_file_acquire(&file, acquire_write), 0);
  EXPECT_EQ(file.writer, 1U);
}

TEST(admission, nobody_is_admitted_beside_a_writer) {
  flashfs_sctr_map file = {};
  EXPECT_EQ(flashfs_file_acquire(&file, acquire_write), 0);
  EXPECT_EQ(flashfs_file_acquire(&file, acquire_write), 1);
  EXPECT_EQ(flashfs_file_acquire(&file, acquire_read), 1);
  EXPECT_EQ(file.readers, 0U);
}

TEST(admission, a_release_ends_the_writer_before_any_reader) {
  flashfs_sctr_map file = {};
  file.writer = 1;
  file.readers = 2;
  flashfs_file_release(&file);
  EXPECT_EQ(file.writer, 0U);
  EXPECT_EQ(file.readers, 2U);
  flashfs_file_release(&file);
  EXPECT_EQ(file.readers, 1U);
}

TEST(admission, another_mode_is_refused) {
  flashfs_sctr_map file = {};
  EXPECT_EQ(flashfs_file_acquire(&file, 2), 1);
  EXPECT_EQ(flashfs_file_acquire(&file, 0xFFFFFFFF), 1);
  EXPECT_EQ(file.readers, 0U);
  EXPECT_EQ(file.writer, 0U);
}

// --- claims of a scope ---

TEST(file_claim, ends_with_its_scope) {
  for (const uint32_t mode : {acquire_read, acquire_write}) {
    flashfs_sctr_map file = {};
    {
      file_claim claim;
      EXPECT_TRUE(claim.take(&file, mode));
      EXPECT_EQ(file.readers, mode == acquire_read ? 1U : 0U);
      EXPECT_EQ(file.writer, mode == acquire_write ? 1U : 0U);
    }
    EXPECT_EQ(file.readers + file.writer, 0U);
  }
}

TEST(file_claim, that_is_refused_takes_nothing_from_those_who_hold_the_file) {
  flashfs_sctr_map file = {};
  file_claim reader;
  ASSERT_TRUE(reader.take(&file, acquire_read));
  {
    file_claim writer;
    EXPECT_FALSE(writer.take(&file, acquire_write));
  }
  EXPECT_EQ(file.readers, 1U);
  EXPECT_EQ(file.writer, 0U);
}

TEST(file_claim, that_is_kept_outlives_its_scope) {
  flashfs_sctr_map file = {};
  {
    file_claim claim;
    ASSERT_TRUE(claim.take(&file, acquire_write));
    claim.keep();
  }
  EXPECT_EQ(file.writer, 1U);
}

TEST(file_claim, on_nothing_ends_in_peace) {
  file_claim never_taken;
  never_taken.keep();
}
