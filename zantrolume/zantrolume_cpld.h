// The CPLD flash driver: the only code that knows the registers of the device window. It reads,
// programs and erases one complex's NOR flash with 16-bit accesses through a paged data window.
#pragma once

#include <cstddef>
#include <cstdint>

#include "flashfs/flash_driver.h"
#include "window/window.h"

// Register map of the window, byte offsets.
constexpr uint32_t cpld_run_state = 0x0000;     // 32 bits, read: bit (index + 1) while it runs
constexpr uint32_t cpld_flash_page = 0x0020;    // 32 bits, write
constexpr uint32_t cpld_flash_status = 0x0034;  // 32 bits, read: mask 2 << index when ready
constexpr uint32_t cpld_data_window = 0x4000;   // 16 bits, 4 KiB for each index
constexpr size_t cpld_window_size = 32768;      // bytes

constexpr uint32_t flash_sector_shift = 17;  // sectors of 128 KiB
constexpr uint32_t flash_page_shift = 12;    // pages of 4 KiB

// The selection, set by main before any access.
extern int verbose_mode;
extern uint32_t cpld_flash_access_selection;  // offset of the complex's data window
extern uint32_t flash_status_bit;             // mask of its ready bit
extern window_base vexmor_mapped_ptr;         // the mapped window

// Returns the descriptor, or -1 with errno.
int zantrolume_open_vexmor_device(const char* path);
// Returns 1. Nothing calls it.
int zantrolume_valid_ppc_number();
// 1 while the run-state bit with this number is 0. A null window ends the program with status 1.
int zantrolume_is_ppc_in_reset(window_base window, uint32_t bit);
uint32_t zantrolume_addr_to_sector(uint32_t address);
void zantrolume_addr_to_page_offset(uint32_t address, uint32_t* page, uint32_t* offset);

// Driver operations. Addresses and lengths in bytes; the handle is ignored. They return 0, 4
// (refused) or 7 (the flash did not become ready in time).
flash_return_code zantrolume_cpld_read(const void* handle, uint32_t address, uint32_t length,
                                       void* buffer);
flash_return_code zantrolume_cpld_write(const void* handle, uint32_t address, uint32_t length,
                                        const void* buffer);
flash_return_code zantrolume_cpld_erase(const void* handle, uint32_t address);
// Spins until a bit of the status register (its window offset) is set, one to two seconds at most.
flash_return_code zantrolume_wait_on_flash_ready(uint32_t status_register, uint32_t mask);
// Not supported by this flash: 4.
flash_return_code zantrolume_cpld_uninit();
flash_return_code zantrolume_cpld_lock();
flash_return_code zantrolume_cpld_unlock();
flash_return_code zantrolume_cpld_lock_master();
