// What becomes of an image when an edit, or the making of it, fails or is killed at any of its
// system calls, one after the other: it is the old one, or the new one, whole. Natively, where a
// process can be stopped at its calls.
#include <gtest/gtest.h>

#if defined(__linux__) && defined(__x86_64__)

#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <optional>

#include "tests/image/image_command.h"

namespace {

using test_support::write_whole_file;
using words = std::vector<std::string>;

enum class trouble { none, fails, killed };

struct traced_run {
  int status = -1;  // 128 + the signal that ended it
  int calls = 0;    // from the opening of the image on
};

// The calls of a program from the one on that opens a file.
class tracer {
 public:
  tracer(pid_t child, std::string from, trouble kind, int at)
      : child_(child), from_(std::move(from)), kind_(kind), at_(at) {}

  traced_run run() {
    int waited = 0;
    waitpid(child_, &waited, 0);  // stopped before it becomes the program
    ptrace(PTRACE_SETOPTIONS, child_, 0, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    int signal = 0;
    for (;;) {
      ptrace(PTRACE_SYSCALL, child_, 0, signal);
      if (waitpid(child_, &waited, 0) != child_) {
        return result_;
      }
      if (WIFEXITED(waited) || WIFSIGNALED(waited)) {
        result_.status = WIFEXITED(waited) ? WEXITSTATUS(waited) : 128 + WTERMSIG(waited);
        return result_;
      }
      constexpr int stop_at_call = SIGTRAP | 0x80;
      if (WSTOPSIG(waited) == stop_at_call) {
        signal = 0;
        at_call();
      } else {
        signal = WSTOPSIG(waited) == SIGTRAP ? 0 : WSTOPSIG(waited);
      }
    }
  }

 private:
  void at_call() {
    entering_ = !entering_;
    user_regs_struct registers = {};
    ptrace(PTRACE_GETREGS, child_, 0, &registers);
    if (!entering_) {
      if (failing_) {
        registers.rax = static_cast<unsigned long long>(-ENOSPC);
        ptrace(PTRACE_SETREGS, child_, 0, &registers);
        failing_ = false;
      }
      return;
    }
    counting_ = counting_ || opens_image(registers);
    if (!counting_ || ++result_.calls != at_ || registers.orig_rax == SYS_exit_group) {
      return;
    }
    if (kind_ == trouble::killed) {
      kill(child_, SIGKILL);
    } else if (kind_ == trouble::fails) {
      registers.orig_rax = static_cast<unsigned long long>(-1);  // no call at all
      ptrace(PTRACE_SETREGS, child_, 0, &registers);
      failing_ = true;
    }
  }

  bool opens_image(const user_regs_struct& registers) const {
    if (registers.orig_rax != SYS_openat && registers.orig_rax != SYS_open) {
      return false;
    }
    const unsigned long long name =
        registers.orig_rax == SYS_openat ? registers.rsi : registers.rdi;
    std::string read(from_.size() + 1, '\xFF');
    iovec here = {read.data(), read.size()};
    iovec there = {reinterpret_cast<void*>(name), read.size()};
    return process_vm_readv(child_, &here, 1, &there, 1, 0) > 0 && read.c_str() == from_;
  }

  const pid_t child_;
  const std::string from_;
  const trouble kind_;
  const int at_;
  bool entering_ = false;
  bool counting_ = false;
  bool failing_ = false;
  traced_run result_;
};

class system_calls : public test_support::image_command {
 protected:
  system_calls() {
    write_whole_file(file("boot.img"), std::string(4 * 32768, '\xFF'));
    output_of({"--geometry", "4x32768", "format", "--force", "boot.img"});
    write_whole_file(file("new.txt"), "new contents\n");
    old_ = contents("boot.img");
  }

  // Runs the command; its calls count from the opening of a file on.
  traced_run trace(const words& command, const std::string& from, trouble kind, int at) const {
    const pid_t child = fork();
    if (child == 0) {
      setenv("SOURCE_DATE_EPOCH", "1700000000", 1);
      setenv("ASAN_OPTIONS", "detect_leaks=0", 1);  // which would trace, too
      if (chdir(file("").c_str()) != 0 || freopen("/dev/null", "w", stderr) == nullptr ||
          ptrace(PTRACE_TRACEME, 0, 0, 0) != 0) {
        _exit(126);
      }
      raise(SIGSTOP);
      std::vector<char*> arguments = {const_cast<char*>("flashfs-image")};
      for (const std::string& word : command) {
        arguments.push_back(const_cast<char*>(word.c_str()));
      }
      arguments.push_back(nullptr);
      execv(FLASHFS_IMAGE_PROGRAM, arguments.data());
      _exit(127);
    }
    return tracer(child, from, kind, at).run();
  }

  // What is there for "boot.img": nothing, or its contents.
  std::optional<std::string> image() const {
    return access(file("boot.img").c_str(), F_OK) == 0 ? std::optional(contents("boot.img"))
                                                       : std::nullopt;
  }
  void put_back(const std::optional<std::string>& old) const {
    if (old) {
      write_whole_file(file("boot.img"), *old);
    } else {
      unlink(file("boot.img").c_str());
    }
    // What was begun may lie there; it is not in the way of the next run.
    for (const std::string& name : names()) {
      if (name.starts_with(".boot.img.")) {
        unlink(file(name).c_str());
      }
    }
  }
  void expect_old_or_new(const words& command, const std::string& from,
                         const std::optional<std::string>& old) const {
    put_back(old);
    const traced_run whole = trace(command, from, trouble::none, 0);
    if (whole.status == 126) {
      GTEST_SKIP() << "processes cannot be traced here";
    }
    ASSERT_EQ(whole.status, 0);
    ASSERT_GT(whole.calls, 10);
    const std::optional<std::string> changed = image();
    ASSERT_FALSE(changed == old);
    int kept_old = 0;
    int made_new = 0;
    for (const trouble kind : {trouble::fails, trouble::killed}) {
      for (int at = 1; at <= whole.calls; ++at) {
        put_back(old);
        const traced_run run = trace(command, from, kind, at);
        const std::optional<std::string> left = image();
        EXPECT_TRUE(left == old || left == changed) << "call " << at;
        // A run that says it was good has written.
        EXPECT_TRUE(run.status != 0 || left == changed) << "call " << at;
        (left == changed ? made_new : kept_old)++;
      }
    }
    EXPECT_GT(kept_old, 0);
    EXPECT_GT(made_new, 0);
  }

  std::string old_;
};

TEST_F(system_calls, an_image_is_old_or_new_whatever_call_fails_or_is_the_last) {
  expect_old_or_new({"put", "boot.img", "new.txt", "/new.txt"}, file("boot.img"), old_);
}

TEST_F(system_calls, an_image_is_made_whole_or_not_at_all) {
  std::filesystem::create_directory(file("source"));
  write_whole_file(file("source/small.txt"), "new contents\n");
  write_whole_file(file("source/large"), std::string(40000, 'x'));
  const words make = {"create", "boot.img", "--geometry", "6x16384", "--from", "source"};
  expect_old_or_new(make, "source", std::nullopt);
  words replace = make;
  replace.push_back("--force");
  expect_old_or_new(replace, "source", old_);
}

}  // namespace

#endif
