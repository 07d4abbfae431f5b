// Which blocks a rescue keeps, and which it may erase: those of which every good record stands in
// another block, too.
#pragma once

#include <vector>

#include "image/rescue_evidence.h"
#include "image/rescue_plan.h"

namespace image::rescuing {

// Sets the fate of every block. A block in use with a good header is kept, whatever it holds, and
// so is every other that has the only copy of a good record.
void judge_blocks(evidence* found, std::vector<rescue_decision>* decisions);

}  // namespace image::rescuing
