// What the two sources of the model share.
#pragma once

#include "tests/model/fs_model.h"

namespace model_test {

expected_result fails(int error);

// Whether an allocation can fail with so much space left, with and without use of the reserve: one
// sector is held back, and fewer than 33 slots (32 of them in one sector) are not worth compacting.
bool reserve_may_be_gone(int64_t free_slots, const seen_result& seen);
bool space_may_be_gone(int64_t free_slots, const seen_result& seen);

// Whether the call marked the file system down.
bool went_down(const seen_result& seen);

}  // namespace model_test
