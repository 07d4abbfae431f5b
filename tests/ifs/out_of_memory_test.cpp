// What the switch and the runtime support do when the heap gives nothing. The test program's own
// operator new refuses the n-th request that allows for refusal.
#include <cstdlib>
#include <new>

#include "ifs/runtime.h"
#include "tests/ifs/recording_fs.h"

namespace {

constexpr int never = -1;
int requests_until_refusal = never;
size_t last_request = 0;

}  // namespace

void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept {
  last_request = size;
  if (requests_until_refusal != never && requests_until_refusal-- == 0) {
    requests_until_refusal = never;
    return nullptr;
  }
  return std::malloc(size != 0 ? size : 1);
}

void* operator new(size_t size) {
  void* memory = std::malloc(size != 0 ? size : 1);
  if (memory == nullptr) {
    std::abort();
  }
  return memory;
}

// Not inlined: the compiler would see free() meet what it takes for another operator new's memory.
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, size_t /*size*/) noexcept {
  std::free(memory);
}

namespace {

using recording_fs::create;

class out_of_memory : public recording_fs::switch_fixture {
 protected:
  ~out_of_memory() override {
    requests_until_refusal = never;
  }
};

TEST_F(out_of_memory, a_file_system_is_not_created) {
  requests_until_refusal = 0;
  EXPECT_EQ(create("a"), -1);
  EXPECT_EQ(ifs_lookup_prefix("a:"), -1);
}

TEST_F(out_of_memory, a_file_system_without_a_prefix_is_not_created) {
  requests_until_refusal = 1;
  EXPECT_EQ(create("a"), -1);
  EXPECT_EQ(requests_until_refusal, never);
  EXPECT_EQ(ifs_fsid_is_valid(0), 0);
  EXPECT_EQ(create("a"), 0);
}

TEST_F(out_of_memory, a_prefix_is_not_added) {
  const ppc_fsid_t fsid = create("a");
  requests_until_refusal = 0;
  EXPECT_EQ(ifs_add_prefix(fsid, "b"), -1);
  EXPECT_EQ(ifs_lookup_prefix("b:"), -1);
  EXPECT_STREQ(ifs_fsid_get_prefix(fsid), "a");
}

TEST_F(out_of_memory, a_descriptor_is_enomem) {
  requests_until_refusal = 0;
  EXPECT_EQ(ifs_fd_create(0, 0, nullptr), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(ifs_fd_is_valid(0), 0);
}

TEST_F(out_of_memory, an_open_without_a_descriptor_is_not_counted) {
  const ppc_fsid_t fsid = create("a");
  requests_until_refusal = 0;
  EXPECT_EQ(ifs_open("a:f", 0, 0), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(recording_fs::open_count(fsid), 0);
}

TEST_F(out_of_memory, pools_elements_and_cells_are_null) {
  requests_until_refusal = 0;
  EXPECT_EQ(chunk_create(12, 512), nullptr);
  chunk_pool* pool = chunk_create(12, 512);
  requests_until_refusal = 0;
  EXPECT_EQ(chunk_malloc(pool), nullptr);
  chunk_destroy(pool);
  requests_until_refusal = 0;
  EXPECT_EQ(create_watched_semaphore("name"), nullptr);
  requests_until_refusal = 0;
  EXPECT_EQ(create_watched_boolean(), nullptr);
}

TEST_F(out_of_memory, a_pool_asks_for_its_element_size) {
  chunk_pool* pool = chunk_create(2056, 4);
  void* element = chunk_malloc(pool);
  EXPECT_EQ(last_request, 2056u);
  chunk_free(pool, element);
  chunk_destroy(pool);
}

}  // namespace
