// Stand-ins for the embedded system's kernel: pools and cells come from the heap, locks are always
// obtained, waits return at once.
#include "ifs/runtime.h"

#include <cstdlib>
#include <new>

namespace {

// Where strtok goes on; null: nowhere.
char* strtok_rest = nullptr;

bool is_delimiter(char character, const char* delimiters) {
  for (; *delimiters != '\0'; ++delimiters) {
    if (*delimiters == character) {
      return true;
    }
  }
  return false;
}

}  // namespace

chunk_pool* chunk_create(uint32_t element_size, uint32_t /*count*/) {
  return new (std::nothrow) chunk_pool{element_size};
}

int chunk_destroy(chunk_pool* pool) {
  delete pool;
  return 1;
}

void* chunk_malloc(chunk_pool* pool) {
  return ::operator new(pool->element_size, std::nothrow);
}

void chunk_free(chunk_pool* /*pool*/, void* element) {
  ::operator delete(element);
}

watched_semaphore* create_watched_semaphore(const char* /*name*/) {
  return new (std::nothrow) watched_semaphore{};
}

watched_boolean* create_watched_boolean() {
  return new (std::nothrow) watched_boolean{};
}

void delete_watched_semaphore(watched_semaphore** handle) {
  delete *handle;
  *handle = nullptr;
}

void delete_watched_boolean(watched_boolean** handle) {
  delete *handle;
  *handle = nullptr;
}

void process_set_boolean(watched_boolean* cell, uint32_t value) {
  cell->value = value;
}

uint32_t process_get_boolean(const watched_boolean* cell) {
  return cell->value;
}

int process_lock_semaphore(watched_semaphore* /*semaphore*/) {
  return 1;
}

void process_unlock_semaphore(watched_semaphore* /*semaphore*/) {}

void process_watch_boolean(watched_boolean* /*cell*/) {}

void process_wait_for_event() {}

void process_sleep_periodic() {}

void process_sleep_for(uint32_t /*milliseconds*/) {}

int process_time_exceeded() {
  return 0;
}

// The ordinary exit, so that the messages that tell why are flushed.
void crashpoint() {
  std::exit(EXIT_FAILURE);
}

namespace ifs_runtime {

void* memset(void* destination, int value, size_t length) {
  auto* bytes = static_cast<unsigned char*>(destination);
  for (size_t i = 0; i < length; ++i) {
    bytes[i] = static_cast<unsigned char>(value);
  }
  return destination;
}

char* strtok(char* string, const char* delimiters) {
  char* next = string != nullptr ? string : strtok_rest;
  strtok_rest = nullptr;
  if (next == nullptr) {
    return nullptr;
  }
  while (*next != '\0' && is_delimiter(*next, delimiters)) {
    ++next;
  }
  if (*next == '\0') {
    return nullptr;
  }
  char* token = next;
  while (*next != '\0' && !is_delimiter(*next, delimiters)) {
    ++next;
  }
  if (*next != '\0') {
    *next = '\0';
    strtok_rest = next + 1;
  }
  return token;
}

}  // namespace ifs_runtime
