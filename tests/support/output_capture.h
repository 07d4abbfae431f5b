// Catches what the product prints on standard output. Only the stream is exchanged, so a child
// process and whatever writes to the descriptor go on as before; see golden.h and run_program.h for
// those.
#pragma once

#include <cstdio>
#include <string>

namespace test_support {

// Standard output goes to another stream while one of these lives. They may be nested.
class redirected_output {
 public:
  explicit redirected_output(std::FILE* to) : shown_(stdout) {
    stdout = to;
  }
  ~redirected_output() {
    stdout = shown_;
  }
  redirected_output(const redirected_output&) = delete;
  redirected_output& operator=(const redirected_output&) = delete;

 private:
  std::FILE* shown_;
};

// A stream that keeps what is printed to it in memory.
class kept_output {
 public:
  kept_output();
  ~kept_output();
  kept_output(const kept_output&) = delete;
  kept_output& operator=(const kept_output&) = delete;
  std::FILE* stream() const {
    return stream_;
  }
  // What was printed since the last take.
  std::string peek();
  std::string take();

 private:
  std::FILE* stream_;
  char* text_ = nullptr;
  size_t size_ = 0;
};

// Catches standard output while it lives.
class output_capture : public kept_output {
 private:
  redirected_output redirected_{stream()};
};

// What a call printed.
template <typename callable>
std::string output_of(callable&& call) {
  output_capture capture;
  call();
  return capture.take();
}

}  // namespace test_support
