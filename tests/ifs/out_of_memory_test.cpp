// What the switch and the runtime support do when the heap gives nothing.
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>

#include "ifs/ifs.h"
#include "ifs/runtime.h"
#include "tests/ifs/recording_fs.h"
#include "tests/support/failing_memory.h"

namespace {

using recording_fs::create;
using test_support::allocations;
using test_support::fail_allocation;
using test_support::latest_allocation;

class out_of_memory : public recording_fs::switch_fixture {
 protected:
  ~out_of_memory() override {
    fail_allocation(0);
  }
};

TEST_F(out_of_memory, a_file_system_is_not_created) {
  fail_allocation(1);
  EXPECT_EQ(create("a"), -1);
  EXPECT_EQ(ifs_lookup_prefix("a:"), -1);
}

TEST_F(out_of_memory, a_file_system_without_a_prefix_is_not_created) {
  fail_allocation(2);
  EXPECT_EQ(create("a"), -1);
  EXPECT_EQ(allocations(), 2U);
  EXPECT_EQ(ifs_fsid_is_valid(0), 0);
  EXPECT_EQ(create("a"), 0);
}

TEST_F(out_of_memory, a_prefix_is_not_added) {
  const ppc_fsid_t fsid = create("a");
  fail_allocation(1);
  EXPECT_EQ(ifs_add_prefix(fsid, "b"), -1);
  EXPECT_EQ(ifs_lookup_prefix("b:"), -1);
  EXPECT_STREQ(ifs_fsid_get_prefix(fsid), "a");
}

TEST_F(out_of_memory, a_descriptor_is_enomem) {
  fail_allocation(1);
  EXPECT_EQ(ifs_fd_create(0, 0, nullptr), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(ifs_fd_is_valid(0), 0);
}

TEST_F(out_of_memory, an_open_without_a_descriptor_is_not_counted) {
  const ppc_fsid_t fsid = create("a");
  fail_allocation(1);
  EXPECT_EQ(ifs_open("a:f", 0, 0), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(recording_fs::open_count(fsid), 0);
}

TEST_F(out_of_memory, pools_elements_and_cells_are_null) {
  fail_allocation(1);
  EXPECT_EQ(chunk_create(12, 512), nullptr);
  chunk_pool* pool = chunk_create(12, 512);
  fail_allocation(1);
  EXPECT_EQ(chunk_malloc(pool), nullptr);
  chunk_destroy(pool);
  fail_allocation(1);
  EXPECT_EQ(create_watched_semaphore("name"), nullptr);
  fail_allocation(1);
  EXPECT_EQ(create_watched_boolean(), nullptr);
}

TEST_F(out_of_memory, a_pool_asks_for_its_element_size) {
  chunk_pool* pool = chunk_create(2056, 4);
  void* element = chunk_malloc(pool);
  EXPECT_EQ(latest_allocation(), 2056u);
  chunk_free(pool, element);
  chunk_destroy(pool);
}

}  // namespace
