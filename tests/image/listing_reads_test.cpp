// A listing looks at no more of an image than the board does at its flash.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "flashfs/check_flags.h"
#include "image/geometry.h"
#include "image/paths.h"
#include "tests/image/image_command.h"
#include "tests/support/ram_flash.h"
#include "tests/support/stored_image.h"
#include "volume/volume.h"

namespace {

constexpr size_t page = size_t{1} << 16;  // at least
constexpr size_t second_block = size_t{1} << 17;

class listing_reads : public test_support::image_command {};

TEST_F(listing_reads, are_those_of_the_mount_and_the_list) {
  const std::string image = store("many");
  test_support::ram_flash flash(test_support::ram_blocks_of_ppc());
  const std::string bytes = contents(image);
  flash.flash().restore({bytes.begin(), bytes.end()});
  volume::file_system board("board");
  ASSERT_GE(board.attach({{flash.driver(), flash.handle()}}), 0);
  flash.clear_counts();
  ASSERT_EQ(board.check(flashfs_check_quick), 0);
  ppc_stat status;
  std::vector<volume::entry> found;
  ASSERT_EQ(image::status_of(board, "", &status), 0);
  ASSERT_EQ(board.list("", &found), 0);
  ASSERT_GT(found.size(), 200U);
  const test_support::program_result listed = run({"-v", "ls", "-l", image});
  EXPECT_NE(listed.err.find("flashfs-image: " + std::to_string(flash.counts().bytes_read) +
                            " bytes of the image were read\n"),
            std::string::npos)
      << listed.err << flash.counts().bytes_read;
}

// Which block sizes it has is known from one header, not from a search. What may not be looked at
// is not there at all.
TEST_F(listing_reads, are_not_those_of_a_search_for_the_geometry) {
  const auto size = static_cast<size_t>(image::size_bytes(image::default_geometry()));
  void* const mapped =
      mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(mapped, MAP_FAILED);
  auto* const flash = static_cast<uint8_t*>(mapped);
  ASSERT_EQ(mprotect(flash + second_block, page, PROT_READ | PROT_WRITE), 0);
  const std::string stored = test_support::read_stored_image("basic");
  std::memcpy(flash + second_block, stored.data() + second_block, page);
  EXPECT_EQ(image::detect_geometry({flash, size}), image::default_geometry());
  munmap(mapped, size);
}

}  // namespace
