// What the two tables offer to the switch's own sources and to nobody else.
#pragma once

#include <cstdint>

struct ifs_descriptor;

// Empties the table of file systems.
void ifs_clear_filesystems();

// The entry in a slot of the table of descriptors, failed or not; null with errno EBADF when the
// slot is empty or there is no such slot.
[[nodiscard]] ifs_descriptor* ifs_fd_find_entry(int32_t fd);
