// Runtime support: the services of the embedded system's kernel that the switch and the file system
// are written against, reduced to what one process with one thread needs.
#pragma once

#include <cstddef>
#include <cstdint>

using boolean = uint32_t;
using sys_timestamp = uint32_t;  // seconds since the epoch

struct chunk_pool {
  uint32_t element_size;  // bytes
};

// Makes a pool of elements of `element_size` bytes; the count is a hint that the heap does not
// need. Null when there is no memory.
[[nodiscard]] chunk_pool* chunk_create(uint32_t element_size, uint32_t count);
// Frees the pool's handle, not its elements. Returns 1.
int chunk_destroy(chunk_pool* pool);
// Returns one uninitialised element, or null when there is no memory.
[[nodiscard]] void* chunk_malloc(chunk_pool* pool);
void chunk_free(chunk_pool* pool, void* element);

struct watched_semaphore {
  uint32_t cell;
};
struct watched_boolean {
  uint32_t value;
};

// Both return a new cell, zeroed, or null when there is no memory.
[[nodiscard]] watched_semaphore* create_watched_semaphore(const char* name);
[[nodiscard]] watched_boolean* create_watched_boolean();
// Free the cell that the handle points to and set the handle to null.
void delete_watched_semaphore(watched_semaphore** handle);
void delete_watched_boolean(watched_boolean** handle);
void process_set_boolean(watched_boolean* cell, uint32_t value);
uint32_t process_get_boolean(const watched_boolean* cell);

// Returns 1: with one thread the semaphore is always obtained.
int process_lock_semaphore(watched_semaphore* semaphore);
void process_unlock_semaphore(watched_semaphore* semaphore);

// Scheduling points of the embedded system (two more, which tests replace, are in interrupt.h); one
// thread has nobody to give way to.
void process_watch_boolean(watched_boolean* cell);
void process_wait_for_event();
void process_sleep_periodic();
void process_sleep_for(uint32_t milliseconds);
// Returns 0: no time slice is ever exceeded.
int process_time_exceeded();

// Ends the process with status 1: the in-memory state is corrupt and going on could destroy data.
[[noreturn]] void crashpoint();

// The program's own copies of two C library functions, kept out of the global namespace so that
// the rest of the process keeps the library's.
namespace ifs_runtime {

// Fills `length` bytes with `value`; returns `destination`.
void* memset(void* destination, int value, size_t length);

// Splits a string into tokens, cutting it in place; null continues the string before. One save
// pointer serves the whole process. Returns the next token, or null when there is none.
char* strtok(char* string, const char* delimiters);

}  // namespace ifs_runtime
