// Processes, pseudo-terminals and waiting.
#include "tests/program/started_program.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <compare>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>

namespace program_test {

namespace {

constexpr int not_started = 127;
constexpr useconds_t poll_microseconds = 1000;

}  // namespace

started_program::started_program(const std::string& chassis,
                                 const std::vector<std::string>& arguments,
                                 const std::function<void()>& prepare) {
  std::vector<std::string> command;
#ifdef ZANTROLUME_EMULATOR
  command.push_back(ZANTROLUME_EMULATOR);
#endif
  command.push_back(ZANTROLUME_SIM_PROGRAM);
  command.insert(command.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& word : command) {
    argv.push_back(word.data());
  }
  argv.push_back(nullptr);
  std::fflush(nullptr);
  process_ = fork();
  if (process_ == 0) {
    setenv("ZANTROLUME_CHASSIS", chassis.c_str(), 1);
    prepare();
    execvp(argv[0], argv.data());
    _exit(not_started);
  }
}

started_program::~started_program() {
  if (process_ > 0 && !ending_.ended) {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
  }
}

bool started_program::has_ended() {
  int waited = 0;
  if (!ending_.ended && process_ > 0 && waitpid(process_, &waited, WNOHANG) == process_) {
    ending_.ended = true;
    ending_.signal = WIFSIGNALED(waited) ? WTERMSIG(waited) : 0;
    ending_.status = WIFEXITED(waited) ? WEXITSTATUS(waited) : -1;
  }
  return ending_.ended;
}

ending started_program::wait(int timeout_seconds) {
  comes_true([this] { return has_ended(); }, timeout_seconds);
  return ending_;
}

pseudo_terminal::pseudo_terminal() {
  master_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0) {
    return;
  }
  const char* name = ptsname(master_);
  name_ = name == nullptr ? "" : name;
}

pseudo_terminal::~pseudo_terminal() {
  hang_up();
}

void pseudo_terminal::become_controlling() const {
  setsid();
  const int fd = open(name_.c_str(), O_RDWR);
  if (fd < 0 || ioctl(fd, TIOCSCTTY, 0) != 0) {
    _exit(not_started);
  }
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    dup2(fd, standard);
  }
  close(fd);
}

void pseudo_terminal::type(char key) const {
  (void)!write(master_, &key, 1);
}

void pseudo_terminal::hang_up() {
  if (master_ >= 0) {
    close(master_);
    master_ = -1;
  }
}

std::string pseudo_terminal::printed() {
  std::string text;
  fcntl(master_, F_SETFL, O_NONBLOCK);
  char part[4096];
  for (ssize_t got; (got = read(master_, part, sizeof(part))) > 0;) {
    text.append(part, static_cast<size_t>(got));
  }
  return text;
}

bool comes_true(const std::function<bool()>& condition, int timeout_seconds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    usleep(poll_microseconds);
  }
  return true;
}

}  // namespace program_test
