// Runs programs with their output in temporary files, so that no pipe can fill up.
#include "tests/support/run_program.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
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

// The test's own environment with the call's words in it.
std::vector<std::string> environment_of(const program_call& call) {
  std::vector<std::string> words;
  for (const auto& [name, value] : call.environment) {
    words.push_back(name + "=" + value);
  }
  for (char** word = environ; *word != nullptr; ++word) {
    const std::string own = *word;
    if (!call.environment.contains(own.substr(0, own.find('=')))) {
      words.push_back(own);
    }
  }
  return words;
}

std::vector<char*> pointers_to(std::vector<std::string>& words) {
  std::vector<char*> pointers;
  for (std::string& word : words) {
    pointers.push_back(word.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

// Begins the program; 0 when that cannot be. Not by fork: a test may hold whole flashes, and the
// tables of its memory would be copied for each program.
pid_t begin_program(const program_call& call, int out, int err) {
  std::vector<std::string> command = command_of(call);
  std::vector<std::string> environment = environment_of(call);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
  posix_spawn_file_actions_addclose(&actions, out);
  posix_spawn_file_actions_addclose(&actions, err);
  if (!call.folder.empty()) {
    posix_spawn_file_actions_addchdir_np(&actions, call.folder.c_str());
  }
  pid_t child = 0;
  const int failed = posix_spawnp(&child, command[0].c_str(), &actions, nullptr,
                                  pointers_to(command).data(), pointers_to(environment).data());
  posix_spawn_file_actions_destroy(&actions);
  return failed == 0 ? child : 0;
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
    const pid_t child = begin_program(call, fileno(out), fileno(err));
    result.status = not_started;
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
    // All of it at once, where its size can be told: whole flashes are read like this.
    std::error_code unknown;
    const uintmax_t size = std::filesystem::file_size(path, unknown);
    contents.resize(unknown ? 0 : static_cast<size_t>(size));
    contents.resize(std::fread(contents.data(), 1, contents.size(), file));
    char part[65536];
    for (size_t got; (got = std::fread(part, 1, sizeof part, file)) != 0;) {
      contents.append(part, got);
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
