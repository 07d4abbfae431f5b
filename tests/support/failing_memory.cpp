// The allocation functions that may fail, in the place of the library's.
#include "tests/support/failing_memory.h"

#include <new>

namespace test_support {

namespace {

uint64_t asked;
uint64_t failing;
bool later_fail_too;
size_t latest_size;

bool next_fails(size_t size) {
  latest_size = size;
  asked++;
  return failing != 0 && (asked == failing || (later_fail_too && asked > failing));
}

}  // namespace

void fail_allocation(uint64_t number, bool and_later) {
  asked = 0;
  failing = number;
  later_fail_too = and_later;
}

uint64_t allocations() {
  return asked;
}

size_t latest_allocation() {
  return latest_size;
}

}  // namespace test_support

void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return test_support::next_fails(size) ? nullptr : ::operator new(size);
}

void* operator new[](size_t size, const std::nothrow_t&) noexcept {
  return test_support::next_fails(size) ? nullptr : ::operator new[](size);
}
