// What stands on a flash that a cut has left, read from its bytes alone: no check has been there.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "tests/support/ram_flash.h"

namespace reliability {

// Whether a data sector of a block in use has no checksum yet.
bool has_unfinished_sector(test_support::ram_flash& device);

// Whether a slot of a block in use has an owner and no checksum yet.
bool has_unfinished_slot(test_support::ram_flash& device);

// Whether a reclamation has been left where no check finds a spare: no erased block of the largest
// size, and the whole of the victim in a committed block, or what an interrupted erase has left of
// it. A block that was committed before its copy was whole is none.
bool has_only_committed_copy(test_support::ram_flash& device);

// Whether a file with this path and content stands whole: a good slot for each part of its path,
// and a good sector for each piece of its content, in blocks whose header is good and in use.
bool stands_whole(test_support::ram_flash& device, const std::string& path,
                  const std::string& content);

// A hash of all that can matter to a mount: everything but what obsolete sectors and deleted slots
// held, what blocks hold that a check erases unread, and how often blocks were erased.
uint64_t meaning_of(test_support::ram_flash& device);

// A hash of bytes.
uint64_t hash_of(const void* bytes, size_t length);

}  // namespace reliability
