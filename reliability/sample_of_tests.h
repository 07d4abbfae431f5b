// The sample that the tests try: an emulated run is many times slower.
#pragma once

#include "reliability/expectation.h"

namespace reliability {

#ifdef ZANTROLUME_EMULATOR
constexpr sample sample_of_tests = sample::target;
#else
constexpr sample sample_of_tests = sample::suite;
#endif

}  // namespace reliability
