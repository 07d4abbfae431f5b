// Golden files and isolated runs; see golden.h.
#include "tests/support/golden.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>  // IWYU pragma: keep
#include <string>
#include <vector>

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

std::string path_of(const std::string& name) {
  return std::string(TESTS_FOLDER) + "/golden/" + name;
}

bool are_rewritten() {
  const char* update = getenv("UPDATE_GOLDEN");
  return update != nullptr && strcmp(update, "1") == 0;
}

void rewrite(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
  ASSERT_TRUE(file.good()) << "cannot write " << path;
}

std::optional<std::string> stored(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return file.is_open() ? std::optional(text.str()) : std::nullopt;
}

// The rows that are not among `others`, each a line with a mark before it.
std::string rows_without(const std::vector<std::string>& rows,
                         const std::vector<std::string>& others, const char* mark) {
  const std::set<std::string> known(others.begin(), others.end());
  std::string text;
  for (const std::string& row : rows) {
    text += known.count(row) == 0 ? mark + row + "\n" : "";
  }
  return text;
}

}  // namespace

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    lines.push_back(line);
  }
  return lines;
}

void expect_golden(const std::string& name, const std::string& actual) {
  if (are_rewritten()) {
    rewrite(path_of(name), actual);
    return;
  }
  const std::optional<std::string> expected = stored(path_of(name));
  ASSERT_TRUE(expected) << "cannot read " << path_of(name);
  EXPECT_EQ(actual, *expected) << "golden file " << path_of(name);
}

void expect_golden_rows(const std::string& name, const std::vector<std::string>& rows,
                        golden_rows which) {
  ASSERT_FALSE(rows.empty()) << "nothing to compare with " << path_of(name);
  if (are_rewritten()) {
    ASSERT_EQ(which, golden_rows::all) << "this run does not have all rows of " << path_of(name);
    std::string text;
    for (const std::string& row : rows) {
      text += row + "\n";
    }
    rewrite(path_of(name), text);
    return;
  }
  const std::optional<std::string> expected = stored(path_of(name));
  ASSERT_TRUE(expected) << "cannot read " << path_of(name);
  const std::vector<std::string> expected_rows = lines_of(*expected);
  std::string differences = rows_without(rows, expected_rows, "+ ");
  if (which == golden_rows::all) {
    differences = rows_without(expected_rows, rows, "- ") + differences;
    EXPECT_TRUE(rows == expected_rows || !differences.empty()) << "rows in another order";
  }
  EXPECT_TRUE(differences.empty())
      << "rows of " << path_of(name) << " differ; UPDATE_GOLDEN=1 rewrites them\n"
      << differences;
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
