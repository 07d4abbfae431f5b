// The flash images of tests/images, unpacked by the host's own programs.
#pragma once

#include <string>

namespace test_support {

// Runs a host command, which must succeed, and returns what it printed.
std::string shell_output(const std::string& command);

// The 32 MiB of the image in tests/images/<name>.
std::string read_stored_image(const std::string& name);

}  // namespace test_support
