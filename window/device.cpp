// The seam over the real device: the window is the mapped device node and each access is one
// volatile access of the stated width. It knows no registers.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstdint>

#include "window/window.h"

namespace {

volatile uint8_t* window_address(window_base base, uint32_t offset) {
  return static_cast<volatile uint8_t*>(base) + offset;
}

}  // namespace

int window_open(const char* path) {
  return open(path, O_RDWR);
}

int window_lock(int fd, bool wait) {
  const int operation = wait ? LOCK_EX : LOCK_EX | LOCK_NB;
  int result = 0;
  do {
    result = flock(fd, operation);
  } while (result != 0 && errno == EINTR);
  return result != 0 && errno == EWOULDBLOCK ? 1 : 0;
}

window_base window_map(int fd, size_t length, uint32_t offset) {
  return mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, offset);
}

int window_unmap(window_base base, size_t length) {
  return munmap(const_cast<void*>(base), length);
}

uint32_t window_load32(window_base base, uint32_t offset) {
  return *reinterpret_cast<volatile uint32_t*>(window_address(base, offset));
}

void window_store32(window_base base, uint32_t offset, uint32_t value) {
  *reinterpret_cast<volatile uint32_t*>(window_address(base, offset)) = value;
}

uint16_t window_load16(window_base base, uint32_t offset) {
  return *reinterpret_cast<volatile uint16_t*>(window_address(base, offset));
}

void window_store16(window_base base, uint32_t offset, uint16_t value) {
  *reinterpret_cast<volatile uint16_t*>(window_address(base, offset)) = value;
}
