// What is wrong with an image as far as its records tell, and what of it a check would mend.
#pragma once

#include <span>
#include <vector>

#include "image/record_types.h"

namespace image {

// The image as a whole, then blocks, sectors and slots by place, then ids.
std::vector<finding> judge_records(const records& all);

// Whether any finding is an error, or a warning.
bool has_errors(std::span<const finding> findings);
bool has_warnings(std::span<const finding> findings);

}  // namespace image
