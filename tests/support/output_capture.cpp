// Keeping output in memory.
#include "tests/support/output_capture.h"

#include <cstdlib>

namespace test_support {

kept_output::kept_output() : stream_(open_memstream(&text_, &size_)) {
  if (stream_ == nullptr) {
    std::perror("no memory for the output");
    std::abort();
  }
}

kept_output::~kept_output() {
  std::fclose(stream_);
  std::free(text_);
}

std::string kept_output::peek() {
  std::fflush(stream_);
  return {text_, size_};
}

std::string kept_output::take() {
  std::string text = peek();
  std::rewind(stream_);
  return text;
}

}  // namespace test_support
