// The rescue: what a power cut or a check has left is read record by record, before any check
// judges it, and mended with steps that flash can take: words programmed, whole blocks erased. It
// works on bytes alone; who reads them from an image or a complex, and who applies the steps, is
// not its business.
#pragma once

#include <cstdint>
#include <span>

#include "flashfs/flash_driver.h"
#include "image/rescue_plan.h"  // IWYU pragma: export

namespace image {

// "proved", "supported", "guessed".
const char* certainty_text(certainty value);

// Decides about a flash and mends a copy of it. `blocks` are all its erase blocks in the order of
// their offsets, as a flash driver has them; those that are skipped are left alone. Blocks that the
// bytes do not hold whole are taken as absent.
rescue_plan plan_rescue(std::span<const uint8_t> bytes, std::span<const flash_block_info> blocks,
                        const rescue_options& options = {});

}  // namespace image
