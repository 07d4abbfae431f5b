// Writing a raw image through the CPLD driver, whose count of words has 16 bits.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "ifs/ifs.h"
#include "sim/flash.h"
#include "tests/support/golden.h"
#include "tests/zantrolume/selected_complex.h"
#include "zantrolume/zantrolume_commands.h"

using test_support::run_isolated;
using zantrolume_test::selected_complex;

TEST(raw_image, a_whole_block_written_through_the_driver_programs_nothing) {
  const auto result = run_isolated([] {
    selected_complex c(4);
    ASSERT_EQ(start_flashfs(), 1);
    const int32_t fd = ifs_open("bootflash:...", ifs_open_write, 0);
    ASSERT_GE(fd, 0);
    const std::string block(131072, 'A');
    EXPECT_EQ(ifs_write(fd, block.data(), 131072), 131072);
    const uint8_t* flash = c.flash().bytes();
    for (int i = 0; i < 131072; i++) {
      ASSERT_EQ(flash[i], 0xFF) << i;
    }
  });
  EXPECT_EQ(result.status, 0) << result.output;
}
