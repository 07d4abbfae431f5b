// Attaching, checking, formatting.
#include "image/mounted.h"

#include "image/console.h"

namespace image {

namespace {

// Two may be mounted at once: each under a name of its own.
std::string next_prefix() {
  static uint32_t number = 0;
  return "image" + std::to_string(number++);
}

}  // namespace

mounted::mounted(std::span<uint8_t> bytes, const geometry& layout)
    : flash_(bytes, layout), system_(next_prefix()) {}

bool mounted::attach() {
  console_take();
  const bool attached = system_.attach({{flash_.driver(), flash_.handle()}}) >= 0;
  flash_.clear_counts();
  return attached;
}

bool mounted::check(uint32_t flags) {
  const bool passed = attach() && system_.check(flags) == 0;
  said_ = console_take();
  return passed;
}

bool mounted::format() {
  const bool passed = attach() && system_.files::format() == 0;
  said_ = console_take();
  return passed;
}

}  // namespace image
