// Counts the calls of the driver and plays the planned signals.
#include "tests/signals/small_binding.h"

#include <csignal>

#include "flashfs/flashfs.h"
#include "zantrolume/zantrolume_cpld.h"
#include "zantrolume/zantrolume_flashfs.h"

namespace signals_test {

planned_signals plan;
uint64_t driver_calls;
uint64_t driver_erases;
bool registration_fails;

namespace {

flash_block_info blocks[block_count];
flash_driver_info driver;

void raise_planned() {
  for (int i = 0; i < plan.times; ++i) {
    raise(plan.signal);
  }
}

void count_call() {
  if (++driver_calls == plan.at_call) {
    raise_planned();
  }
}

flash_return_code read(const void* handle, uint32_t offset, uint32_t length, void* buffer) {
  count_call();
  return zantrolume_cpld_read(handle, offset, length, buffer);
}

flash_return_code write(const void* handle, uint32_t offset, uint32_t length, const void* buffer) {
  count_call();
  return zantrolume_cpld_write(handle, offset, length, buffer);
}

flash_return_code erase(const void* handle, uint32_t offset) {
  count_call();
  ++driver_erases;
  return zantrolume_cpld_erase(handle, offset);
}

}  // namespace

}  // namespace signals_test

uint32_t zantrolume_flashfs_initialize() {
  using namespace signals_test;
  if (registration_fails) {
    raise_planned();
    return 0;
  }
  driver = {read,
            write,
            erase,
            zantrolume_cpld_uninit,
            zantrolume_cpld_lock,
            zantrolume_cpld_unlock,
            zantrolume_cpld_lock_master,
            block_count,
            nullptr};
  for (uint32_t i = 0; i < block_count; ++i) {
    blocks[i] = {.offset = i * block_size_bytes, .size = block_size_bytes, .skip = 0};
  }
  driver.blocks = blocks;
  const void* const handles[] = {&driver};
  const flash_driver_info* const records[] = {&driver};
  return flashfs_initialize(handles, records, 1, "bootflash") < 0 ? 0 : 1;
}

int32_t zantrolume_block_usable(int32_t block) {
  return block >= 0 && block < signals_test::block_count ? 1 : 0;
}
