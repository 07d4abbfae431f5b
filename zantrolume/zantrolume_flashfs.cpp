// The binding: describes the PowerPC flash behind the CPLD to the flash file system. The file
// system keeps pointers to what is described here, so it is made once and never freed.
#include "zantrolume/zantrolume_flashfs.h"

#include <cstdio>
#include <new>

#include "flashfs/flashfs.h"
#include "zantrolume/zantrolume_cpld.h"

namespace {

constexpr uint16_t block_count = 256;
constexpr int32_t usable_blocks = 216;  // the top 5 MiB are not the file system's
constexpr uint32_t block_size_bytes = uint32_t{1} << flash_sector_shift;

// The device's handle is the address of this word.
constexpr uint32_t device_handle = 0xFE000000;

flash_driver_info driver;
flash_block_info* block_table;

}  // namespace

int32_t zantrolume_block_usable(int32_t block) {
  return block >= 0 && block < usable_blocks ? 1 : 0;
}

uint32_t zantrolume_flashfs_initialize() {
  driver = {zantrolume_cpld_read,        zantrolume_cpld_write, zantrolume_cpld_erase,
            zantrolume_cpld_uninit,      zantrolume_cpld_lock,  zantrolume_cpld_unlock,
            zantrolume_cpld_lock_master, block_count,           nullptr};
  if (block_table == nullptr) {
    block_table = new (std::nothrow) flash_block_info[block_count];
  }
  if (block_table == nullptr) {
    return 2;
  }
  for (int32_t i = 0; i < block_count; ++i) {
    block_table[i].offset = static_cast<uint32_t>(i) * block_size_bytes;
    block_table[i].size = block_size_bytes;
    block_table[i].skip = static_cast<uint8_t>(1 - zantrolume_block_usable(i));
  }
  driver.blocks = block_table;

  const void* const handles[] = {&device_handle};
  const flash_driver_info* const records[] = {&driver};
  if (flashfs_initialize(handles, records, 1, "bootflash") < 0) {
    puts("ZANTROLUME: failed to register flash with fs");
    return 0;
  }
  return 1;
}
