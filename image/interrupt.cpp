// The signals, and the file system's suspension points, which look at them.
#include "image/interrupt.h"

#include <unistd.h>

#include <csignal>
#include <initializer_list>

#include "ifs/interrupt.h"
#include "image/exit_status.h"

namespace image {

namespace {

volatile std::sig_atomic_t noted = 0;
const char* volatile unfinished_file = nullptr;

void note_signal(int) {
  if (noted != 0) {
    if (const char* path = unfinished_file; path != nullptr) {
      unlink(path);
    }
    _exit(static_cast<int>(exit_status::interrupted));
  }
  noted = 1;
}

}  // namespace

void catch_signals() {
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction before = {};
    if (sigaction(number, nullptr, &before) != 0 || before.sa_handler == SIG_IGN) {
      continue;
    }
    // Without SA_RESTART: a wait for input or for a lock ends, and its caller looks here.
    struct sigaction noting = {};
    noting.sa_handler = note_signal;
    sigaction(number, &noting, nullptr);
  }
}

bool interrupted() {
  return noted != 0;
}

void remove_when_ended(const char* path) {
  unfinished_file = path;
}

}  // namespace image

int intr_req() {
  return image::interrupted() ? 1 : 0;
}

void process_suspend() {}

void process_may_suspend() {}
