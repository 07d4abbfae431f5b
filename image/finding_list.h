// Findings as part of an answer: a list for people, in which blocks that have the same to tell, one
// behind the other, take one line.
#pragma once

#include <span>

#include "image/finding.h"
#include "image/report.h"

namespace image {

// Prints the list, or with --json puts the findings into the document. The status stays.
void tell_finding_list(std::span<const finding> findings, report& out);

}  // namespace image
