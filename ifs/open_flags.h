// Flags of an open; the switch passes them through unchanged.
#pragma once

#include <cstdint>

constexpr uint32_t ifs_open_read = 0x001;
constexpr uint32_t ifs_open_write = 0x002;
constexpr uint32_t ifs_open_append = 0x008;     // every write goes to the end
constexpr uint32_t ifs_open_create = 0x100;     // if there is no such file
constexpr uint32_t ifs_open_truncate = 0x200;   // to nothing
constexpr uint32_t ifs_open_exclusive = 0x400;  // with create: an existing file is refused
