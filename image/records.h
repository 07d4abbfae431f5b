// The records of an image, read without mounting it and without changing anything: every block
// header, every sector and every slot, decoded and judged by itself, and what they tell together:
// which of them count, what owns what, which slot names what, and what is wrong.
#pragma once

#include <cstdint>
#include <span>

// IWYU pragma: begin_exports
#include "image/record_decode.h"
#include "image/record_findings.h"
#include "image/record_owners.h"
#include "image/record_types.h"
// IWYU pragma: end_exports

namespace image {

// Reads an image, which must outlive the result. One that is shorter than the geometry says has
// only what it holds whole.
records read_records(std::span<const uint8_t> image, const geometry& layout);

}  // namespace image
