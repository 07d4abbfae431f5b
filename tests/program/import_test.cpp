// flashfs-image makes an image again of what this program prints of its flash. The lines of the
// dumps are printed by the program's own code, without starting it for each block.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include "tests/support/output_capture.h"
#include "tests/support/run_program.h"
#include "tests/support/stored_image.h"
#include "zantrolume/zantrolume_display.h"

namespace {

constexpr size_t block_size = size_t{1} << 17;
constexpr size_t block_count = 256;

// Of each block what holds anything, in whole lines, behind a prompt; block 0 by the number under
// which the program reads it.
std::string dumps_of(const std::string& bytes) {
  return test_support::output_of([&] {
    for (size_t block = 0; block < block_count; ++block) {
      const std::string_view held = std::string_view(bytes).substr(block * block_size, block_size);
      const size_t used = (held.find_last_not_of('\xff') + 32) / 32 * 32;  // npos + 32: less
      printf("supervisor# zantrolume 4 sread %zu %zu\r\n", block == 0 ? block_count : block, used);
      zantrolume_display_buffer(
          static_cast<uint32_t>((block == 0 ? block_count : block) * block_size), held.data(),
          static_cast<int32_t>(std::min(used, held.size())));
    }
  });
}

TEST(import, gives_every_stored_image_back) {
  const test_support::temporary_folder folder;
  for (const auto& entry : std::filesystem::directory_iterator(TESTS_FOLDER "/images")) {
    if (!entry.is_directory()) {
      continue;
    }
    const std::string name = entry.path().filename();
    const std::string bytes = test_support::read_stored_image(name);
    test_support::write_whole_file(folder.file(name + ".log"), dumps_of(bytes));
    const test_support::program_result result =
        test_support::run_program({.path = FLASHFS_IMAGE_PROGRAM,
                                   .arguments = {"-q", "import", name + ".img", name + ".log"},
                                   .environment = {},
                                   .folder = folder.path()});
    // What was not dumped is a hole, but was erased.
    EXPECT_EQ(result.status, 4) << name << "\n" << result.err;
    EXPECT_TRUE(test_support::read_whole_file(folder.file(name + ".img")) == bytes) << name;
  }
}

}  // namespace
