// Findings about one record, with the place where it stands.
#pragma once

#include <string>
#include <string_view>

#include "image/finding.h"
#include "image/record_types.h"

namespace image {

// As make_finding, about a block's header, or a sector.
finding make_finding_at(const block_record& block, std::string_view code, std::string text);
finding make_finding_at(const sector_record& sector, std::string_view code, std::string text);
// About a slot; with the path that it gives, if it is good.
finding make_finding_at(const records& all, const slot_record& slot, std::string_view code,
                        std::string text);

}  // namespace image
