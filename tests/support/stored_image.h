// The flash images of tests/images, unpacked by the host's own programs.
#pragma once

#include <cstddef>
#include <string>

namespace test_support {

// Runs a host command, which must succeed, and returns what it printed: so many bytes, if that is
// known.
std::string shell_output(const std::string& command, size_t expected = 0);

// The 32 MiB of the image in tests/images/<name>.
std::string read_stored_image(const std::string& name);
// The same into a file.
void unpack_stored_image(const std::string& name, const std::string& path);

}  // namespace test_support
