// What the dumps, the binding and the copy do when the driver's read or an allocation fails. The
// real driver's reads cannot fail, so this program links one of its own in its place.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "flashfs/flash_driver.h"
#include "tests/support/failing_memory.h"
#include "tests/support/golden.h"
#include "tests/support/output_capture.h"
#include "window/window.h"
#include "zantrolume/zantrolume_commands.h"
#include "zantrolume/zantrolume_cpld.h"
#include "zantrolume/zantrolume_display.h"
#include "zantrolume/zantrolume_flashfs.h"

namespace {

uint32_t failing_address = 0xFFFFFFFF;
int reads;

}  // namespace

// --- the driver in the place of the real one: erased flash of which one address cannot be read ---

int verbose_mode;
uint32_t cpld_flash_access_selection;
uint32_t flash_status_bit;
window_base vexmor_mapped_ptr;

int zantrolume_open_vexmor_device(const char*) {
  return -1;
}

int zantrolume_is_ppc_in_reset(window_base, uint32_t) {
  return 1;
}

uint32_t zantrolume_addr_to_sector(uint32_t address) {
  return address >> flash_sector_shift;
}

flash_return_code zantrolume_cpld_read(const void*, uint32_t address, uint32_t length,
                                       void* buffer) {
  ++reads;
  if (address == failing_address) {
    return flash_poll_timeout;
  }
  memset(buffer, 0xFF, length);
  return flash_ok;
}

flash_return_code zantrolume_cpld_write(const void*, uint32_t, uint32_t, const void*) {
  return flash_ok;
}

flash_return_code zantrolume_cpld_erase(const void*, uint32_t) {
  return flash_ok;
}

flash_return_code zantrolume_cpld_uninit() {
  return flash_illegal_operation;
}

flash_return_code zantrolume_cpld_lock() {
  return flash_illegal_operation;
}

flash_return_code zantrolume_cpld_unlock() {
  return flash_illegal_operation;
}

flash_return_code zantrolume_cpld_lock_master() {
  return flash_illegal_operation;
}

using test_support::fail_allocation;
using test_support::output_of;
using test_support::run_isolated;

namespace {

std::string dump_line(const std::string& address) {
  return address + "    " +
         "ffffffff ffffffff ffffffff ffffffff ffffffff ffffffff ffffffff ffffffff     " +
         std::string(32, '.') + "\n";
}

}  // namespace

TEST(failing_read, a_flash_dump_says_where_and_goes_on) {
  failing_address = 0x20020;
  EXPECT_EQ(output_of([] { zantrolume_display_flash(0x20000, 96); }),
            dump_line("0x00020000") + "PPC Flash read failed at 0x20020, current_offset\n" +
                dump_line("0x00020040"));
  failing_address = 0xFFFFFFFF;
}

TEST(failing_read, a_sector_dump_stops) {
  failing_address = 0x20000;
  EXPECT_EQ(output_of([] { zantrolume_display_flash_sector(1, 64); }), "PPC Flash read failed\n");
  failing_address = 0xFFFFFFFF;
}

TEST(sector_dump, is_one_read) {
  reads = 0;
  output_of([] { zantrolume_display_flash_sector(1, 64); });
  EXPECT_EQ(reads, 1);
}

TEST(no_memory, both_dumps_say_so) {
  fail_allocation(1, true);
  const std::string flash_dump = output_of([] { zantrolume_display_flash(0x20000, 32); });
  const std::string sector_dump = output_of([] { zantrolume_display_flash_sector(1, 32); });
  fail_allocation(0);
  EXPECT_EQ(flash_dump, "Unable to allocate buffer!\n");
  EXPECT_EQ(sector_dump, "Unable to allocate buffer!\n");
}

TEST(no_memory, the_binding_fails_with_2_and_no_message) {
  const auto result = run_isolated([] {
    fail_allocation(1, true);
    EXPECT_EQ(zantrolume_flashfs_initialize(), 2U);
  });
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output, "");
}

TEST(no_memory, a_binding_that_fails_ends_the_program_with_status_1) {
  const auto result = run_isolated([] {
    fail_allocation(1, true);
    register_flashfs();
  });
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output, "");
}
