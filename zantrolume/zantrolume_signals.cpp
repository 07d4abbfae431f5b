// Notes signals and raises them again. What handlers share with the rest is two words that are
// written at once.
#include "zantrolume/zantrolume_signals.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int ending_signals[] = {SIGINT, SIGTERM, SIGHUP, SIGPIPE};
constexpr int signal_count = 4;

bool holding;
bool held[signal_count];  // false: it was ignored and stays so
struct sigaction actions_before[signal_count];
volatile sig_atomic_t noted_signal;  // the first one that came; 0: none
volatile sig_atomic_t interrupt_count;
const char* volatile current_step = "";

size_t append(char* line, size_t length, size_t room, const char* text) {
  const size_t added = strnlen(text, room - length);
  memcpy(line + length, text, added);
  return length + added;
}

// Called by the handler: nothing here but what a handler may call.
void tell_what_is_finished() {
  char line[128];
  size_t length = append(line, 0, sizeof(line), "zantrolume: interrupted, ends after ");
  length = append(line, length, sizeof(line) - 1, current_step);
  line[length++] = '\n';
  // Nobody to tell is no error.
  (void)!write(STDERR_FILENO, line, length);
}

void note_signal(int signal) {
  const int error = errno;
  if (noted_signal == 0) {
    noted_signal = signal;
  }
  if (signal == SIGINT && interrupt_count < 2) {
    interrupt_count = interrupt_count + 1;
    if (interrupt_count == 2) {
      tell_what_is_finished();
    }
  }
  errno = error;
}

// Ends the process as the signal would have, unless it is one that a signal cannot end.
void raise_noted() {
  const int signal = noted_signal;
  noted_signal = 0;
  struct sigaction action = {};
  action.sa_handler = SIG_DFL;
  sigaction(signal, &action, nullptr);
  raise(signal);
}

}  // namespace

void zantrolume_hold_signals() {
  static const int registered = std::atexit(zantrolume_release_signals);
  (void)registered;
  noted_signal = 0;
  interrupt_count = 0;
  struct sigaction action = {};
  action.sa_handler = note_signal;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  for (const int signal : ending_signals) {
    // One after the other: the handler never runs inside itself.
    sigaddset(&action.sa_mask, signal);
  }
  for (int i = 0; i < signal_count; ++i) {
    sigaction(ending_signals[i], nullptr, &actions_before[i]);
    held[i] = actions_before[i].sa_handler != SIG_IGN;
    if (held[i]) {
      sigaction(ending_signals[i], &action, nullptr);
    }
  }
  holding = true;
}

void zantrolume_next_step(const char* next) {
  current_step = next;
  if (noted_signal != 0) [[unlikely]] {
    raise_noted();
  }
}

void zantrolume_release_signals() {
  if (!holding) {
    return;
  }
  holding = false;
  current_step = "the output";
  // A pipe that nobody reads any more is noticed here at the latest.
  (void)fflush(stdout);
  for (int i = 0; i < signal_count; ++i) {
    if (held[i]) {
      sigaction(ending_signals[i], &actions_before[i], nullptr);
    }
  }
  if (noted_signal != 0) {
    raise_noted();
  }
}
