// Memory that runs out as planned: a program that links this object (failing_memory, a library of
// its own) has another allocation that may fail, the only kind that the product makes.
#pragma once

#include <cstddef>
#include <cstdint>

namespace test_support {

// The n-th allocation from now on (1: the next) fails; `and_later`: all after it too. 0: none does.
void fail_allocation(uint64_t number, bool and_later = false);
// Allocations since then, those that failed included, and the bytes that the latest one wanted.
uint64_t allocations();
size_t latest_allocation();

}  // namespace test_support
