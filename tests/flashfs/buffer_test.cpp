// Sector buffers: how they are borrowed, and what they know of what they hold.
#include "flashfs/buffer.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "flashfs/io.h"
#include "tests/flashfs/unchecked_fixture.h"
#include "tests/support/output_capture.h"

using namespace test_support;

namespace {

const std::string log_start = "flashfs[0]: ";

using sector_buffers = unchecked_fixture;

}  // namespace

TEST_F(sector_buffers, sector_buffers_are_counted_while_they_are_out) {
  flashfs_sector* first = sector_buffer_alloc(fs());
  flashfs_sector* second = sector_buffer_alloc(fs());
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(fs()->sctr_bufs_allocated, 2U);
  std::memset(second, 0, sizeof *second);  // all 2056 bytes are ours
  sector_buffer_free(fs(), first);
  EXPECT_EQ(fs()->sctr_bufs_allocated, 1U);
  sector_buffer_free(fs(), nullptr);
  EXPECT_EQ(fs()->sctr_bufs_allocated, 1U) << "null is ignored";
  sector_buffer_free(fs(), second);
  EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
}

TEST_F(sector_buffers, without_its_pool_no_sector_buffer_can_be_had) {
  chunk_pool* pool = fs()->sctr_buf_chunk;
  fs()->sctr_buf_chunk = nullptr;
  errno = 0;
  EXPECT_EQ(output_of([&] { EXPECT_EQ(sector_buffer_alloc(fs()), nullptr); }),
            log_start + "unable to allocate sector buffer -- chunk not initialized\n");
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(output_of([&] { sector_buffer_free(fs(), &sector_); }),
            log_start + "unable to free sector buffer -- chunk not initialized\n");
  EXPECT_EQ(output_of([&] { sector_buffer_free(fs(), nullptr); }),
            log_start + "unable to free sector buffer -- chunk not initialized\n");
  EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
  fs()->sctr_buf_chunk = pool;
}

TEST_F(sector_buffers, a_borrowed_buffer_is_given_back_when_its_scope_ends) {
  {
    sector_buffer buffer(fs());
    EXPECT_TRUE(static_cast<bool>(buffer));
    EXPECT_EQ(fs()->sctr_bufs_allocated, 1U);
  }
  EXPECT_EQ(fs()->sctr_bufs_allocated, 0U);
}
