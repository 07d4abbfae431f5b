// Runs programs with their output in temporary files, so that no pipe can fill up.
#include "tests/support/run_program.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <compare>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <system_error>
#include <type_traits>

namespace test_support {

namespace {

constexpr int not_started = 127;
constexpr useconds_t poll_microseconds = 1000;

std::vector<std::string> command_of(const program_call& call) {
  std::vector<std::string> command;
#ifdef ZANTROLUME_EMULATOR
  if (!call.is_of_the_host) {
    command.push_back(ZANTROLUME_EMULATOR);
  }
#endif
  command.push_back(call.path);
  command.insert(command.end(), call.arguments.begin(), call.arguments.end());
  return command;
}

std::string contents_of(std::FILE* file) {
  std::string contents;
  char part[4096];
  std::rewind(file);
  for (size_t got; (got = std::fread(part, 1, sizeof part, file)) != 0;) {
    contents.append(part, got);
  }
  return contents;
}

[[noreturn]] void become_program(const program_call& call, char* const* arguments, int out,
                                 int err) {
  for (const auto& [name, value] : call.environment) {
    setenv(name.c_str(), value.c_str(), 1);
  }
  const int input = open("/dev/null", O_RDONLY);
  const bool ready = input >= 0 && dup2(input, STDIN_FILENO) >= 0 &&
                     dup2(out, STDOUT_FILENO) >= 0 && dup2(err, STDERR_FILENO) >= 0 &&
                     (call.folder.empty() || chdir(call.folder.c_str()) == 0);
  if (ready) {
    close(input);
    close(out);
    close(err);
    execvp(arguments[0], arguments);
  }
  _exit(not_started);
}

int status_of(int waited) {
  return WIFEXITED(waited) ? WEXITSTATUS(waited) : 128 + WTERMSIG(waited);
}

// Waits for the child, and ends it when its time is over.
void await(pid_t child, int timeout_seconds, program_result* result) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_seconds);
  int waited = 0;
  pid_t done;
  while ((done = waitpid(child, &waited, WNOHANG)) == 0 || (done < 0 && errno == EINTR)) {
    if (!result->timed_out && std::chrono::steady_clock::now() > end) {
      result->timed_out = true;
      kill(child, SIGKILL);
    }
    usleep(poll_microseconds);
  }
  if (done == child) {
    result->status = status_of(waited);
  }
}

}  // namespace

program_result run_program(const program_call& call) {
  program_result result;
  std::FILE* out = std::tmpfile();
  std::FILE* err = std::tmpfile();
  if (out != nullptr && err != nullptr) {
    std::vector<std::string> command = command_of(call);
    std::vector<char*> arguments;
    for (std::string& word : command) {
      arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    // What is still buffered would be written by both processes.
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
      become_program(call, arguments.data(), fileno(out), fileno(err));
    }
    if (child > 0) {
      await(child, call.timeout_seconds, &result);
      result.out = contents_of(out);
      result.err = contents_of(err);
    }
  }
  for (std::FILE* file : {out, err}) {
    if (file != nullptr) {
      std::fclose(file);
    }
  }
  return result;
}

temporary_folder::temporary_folder() {
  std::string pattern = (std::filesystem::temp_directory_path() / "zantrolume-XXXXXX").string();
  if (mkdtemp(pattern.data()) != nullptr) {
    path_ = pattern;
  }
}

temporary_folder::~temporary_folder() {
  std::error_code ignored;
  if (!path_.empty()) {
    std::filesystem::remove_all(path_, ignored);
  }
}

std::string read_whole_file(const std::string& path) {
  std::string contents;
  if (std::FILE* file = std::fopen(path.c_str(), "rb"); file != nullptr) {
    // In large pieces: whole flashes are read like this.
    std::vector<char> part(1 << 20);
    for (size_t got; (got = std::fread(part.data(), 1, part.size(), file)) != 0;) {
      contents.append(part.data(), got);
    }
    std::fclose(file);
  }
  return contents;
}

void write_whole_file(const std::string& path, const std::string& contents) {
  std::ofstream file(path, std::ios::binary);
  file.write(contents.data(), static_cast<std::streamsize>(contents.size()));
}

}  // namespace test_support
