// Golden files and isolated runs; see golden.h.
#include "tests/support/golden.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>  // IWYU pragma: keep

#ifdef ZANTROLUME_COVERAGE
extern "C" void __gcov_dump();
#endif

namespace test_support {

namespace {

constexpr int assertion_failed_status = 99;

[[noreturn]] void run_child(const std::function<void()>& body, int output_fd) {
  dup2(output_fd, STDOUT_FILENO);
  dup2(output_fd, STDERR_FILENO);
  body();
  fflush(stdout);
  end_child(testing::Test::HasFailure() ? assertion_failed_status : 0);
}

std::string contents_of(FILE* file) {
  std::string contents;
  rewind(file);
  char piece[4096];
  for (size_t got = 0; (got = fread(piece, 1, sizeof(piece), file)) > 0;) {
    contents.append(piece, got);
  }
  return contents;
}

}  // namespace

void expect_golden(const std::string& name, const std::string& actual) {
  const std::string path = std::string(TESTS_FOLDER) + "/golden/" + name;
  const char* update = getenv("UPDATE_GOLDEN");
  if (update != nullptr && strcmp(update, "1") == 0) {
    std::ofstream file(path, std::ios::binary);
    file << actual;
    ASSERT_TRUE(file.good()) << "cannot write " << path;
    return;
  }
  std::ifstream file(path, std::ios::binary);
  ASSERT_TRUE(file.is_open()) << "cannot read " << path;
  std::ostringstream expected;
  expected << file.rdbuf();
  EXPECT_EQ(actual, expected.str()) << "golden file " << path;
}

isolated_result run_isolated(const std::function<void()>& body) {
  isolated_result result;
  FILE* output = tmpfile();
  if (output == nullptr) {
    ADD_FAILURE() << "no temporary file";
    return result;
  }
  fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    run_child(body, fileno(output));
  }
  int wait_status = 0;
  if (child < 0 || waitpid(child, &wait_status, 0) != child) {
    ADD_FAILURE() << "no child process";
  } else {
    result.status = WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : 128 + WTERMSIG(wait_status);
    result.output = contents_of(output);
  }
  fclose(output);
  return result;
}

void end_child(int status) {
#ifdef ZANTROLUME_COVERAGE
  __gcov_dump();
#endif
  _exit(status);
}

}  // namespace test_support
