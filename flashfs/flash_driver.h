// How the file system reaches flash: a record per device with the driver's operations and the
// device's erase blocks.
#pragma once

#include <cstdint>

// Result of a driver call.
enum flash_return_code : int32_t {
  flash_ok = 0,
  flash_not_found = 1,
  flash_no_resources = 2,
  flash_operation_failed = 3,
  flash_illegal_operation = 4,
  flash_read_verify_failed = 5,
  flash_busy = 6,
  flash_poll_timeout = 7,
};

// One erase block of a device.
struct flash_block_info {
  uint32_t offset;  // bytes from the start of the device
  uint32_t size;    // bytes
  uint8_t skip;     // 1: the file system must not use the block
};

// One flash device. Offsets and lengths are bytes within the device; the handle is passed to the
// driver exactly as it was registered.
struct flash_driver_info {
  flash_return_code (*read)(const void* handle, uint32_t offset, uint32_t length, void* buffer);
  flash_return_code (*write)(const void* handle, uint32_t offset, uint32_t length,
                             const void* buffer);
  flash_return_code (*erase)(const void* handle, uint32_t offset);
  flash_return_code (*uninit)();
  flash_return_code (*lock)();
  flash_return_code (*unlock)();
  flash_return_code (*lock_master)();
  uint16_t block_count;
  flash_block_info* blocks;
};
