// The signals, and the file system's suspension points, which look at them.
#include "image/interrupt.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <initializer_list>

#include "ifs/interrupt.h"
#include "image/exit_status.h"

namespace image {

namespace {

volatile std::sig_atomic_t noted = 0;
const char* volatile unfinished_file = nullptr;
const char* volatile step_held = nullptr;
struct sigaction pipe_action_before = {};
void (*end_at_cut_image)() = nullptr;

// Called by the handler: nothing here but what a handler may call.
void tell_what_is_finished() {
  const auto tell = [](const char* text) {
    // Nobody to tell is no error.
    (void)!write(STDERR_FILENO, text, strlen(text));
  };
  tell("flashfs-image: interrupted, ends after ");
  tell(step_held);
  tell("\n");
}

// It comes from the access to the mapped file, not from anywhere: what it interrupts is no library
// that the end needs.
void end_after_bus_error(int /*number*/) {
  if (const char* path = unfinished_file; path != nullptr) {
    unlink(path);
  }
  end_at_cut_image();
}

void note_signal(int number) {
  if (step_held != nullptr) {
    const int error = errno;
    if (noted != 0 && number != SIGPIPE) {
      tell_what_is_finished();
    }
    noted = 1;
    errno = error;
    return;
  }
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
  // A file that becomes too large is a failure like others.
  std::signal(SIGXFSZ, SIG_IGN);
}

void catch_cut_images(void (*end)()) {
  end_at_cut_image = end;
  struct sigaction ending = {};
  ending.sa_handler = end_after_bus_error;
  ending.sa_flags = static_cast<int>(SA_RESETHAND | SA_NODEFER);  // another one ends it as usual
  sigaction(SIGBUS, &ending, nullptr);
}

held_step::held_step(const char* step) {
  struct sigaction noting = {};
  noting.sa_handler = note_signal;
  sigaction(SIGPIPE, &noting, &pipe_action_before);
  step_held = step;
}

held_step::~held_step() {
  step_held = nullptr;
  sigaction(SIGPIPE, &pipe_action_before, nullptr);
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
