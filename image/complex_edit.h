// The end of an edit on a complex: a copy of its flash is saved, the user is asked, and then the
// flash is made what the edit has come to, each change read back. Once begun it is not ended by a
// signal; after a power cut the saved copy can be written back.
#pragma once

#include <cstdint>
#include <span>

#include "image/change_list.h"
#include "image/complex_flash.h"
#include "image/globals.h"
#include "image/report.h"

namespace image {

// Whether the run may change a complex at all: there is --yes, or a terminal to ask at. Told if
// not, before anything is read.
[[nodiscard]] bool may_change_complex(const globals& options, report& out);

// Makes the flash hold `wanted`, by the changes of the list in their order, or, where there is
// none, block by block: first those in which only bits are cleared. (An edit of --dry-run does not
// come to this.) False when it does not hold that; told.
[[nodiscard]] bool change_complex(const globals& options, complex_flash& flash,
                                  std::span<const uint8_t> wanted, const change_list* in_order,
                                  report& out);

// The same for contents from elsewhere: a signal ends it between two blocks. With --dry-run it only
// tells.
[[nodiscard]] bool write_complex(const globals& options, complex_flash& flash,
                                 std::span<const uint8_t> wanted, report& out);

}  // namespace image
