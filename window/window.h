// The one seam between the program and its hardware: the device window; the clock beside it is
// window/clock.h. Two object libraries define these functions, one over the device node, one over
// the simulated chassis; the linker chooses. Nothing else in the program touches hardware.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

// Base of a mapped window, as window_map gave it.
using window_base = volatile void*;

// Opens a device node for reading and writing. Returns a descriptor, or -1 with errno.
[[nodiscard]] int window_open(const char* path);
// Takes the device for this process until it ends, so that no two runs drive its page register at
// the same time. Returns 0 when the process has it, or when the device supports no locks; 1 when
// another process has it and `wait` is false. With `wait` it waits for that to end.
[[nodiscard]] int window_lock(int fd, bool wait);
// Maps `length` bytes of the device at `offset`, readable and writable, shared. Returns the base,
// or the failure value of mmap (all bits set) with errno.
[[nodiscard]] window_base window_map(int fd, size_t length, uint32_t offset);
// Returns 0, or -1 with errno.
[[nodiscard]] int window_unmap(window_base base, size_t length);

// One access of the given width at a byte offset into the window. Values are integers of the host;
// the high byte of a 16-bit data register is the byte at the lower flash address.
uint32_t window_load32(window_base base, uint32_t offset);
void window_store32(window_base base, uint32_t offset, uint32_t value);
uint16_t window_load16(window_base base, uint32_t offset);
void window_store16(window_base base, uint32_t offset, uint16_t value);
