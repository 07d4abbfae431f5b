// Golden files: whole outputs under tests/golden, compared byte for byte. With UPDATE_GOLDEN=1 in
// the environment they are rewritten, for review, instead of compared. And the means to get a whole
// output: a piece of program run in a process of its own.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace test_support {

// Compares `actual` with the file tests/golden/<name>.
void expect_golden(const std::string& name, const std::string& actual);

// Compares rows of text with the lines of the file tests/golden/<name> and prints those that
// differ. Of a run that has only some of the rows (`some`) each must be in the file, and the file
// is not rewritten.
enum class golden_rows { all, some };
void expect_golden_rows(const std::string& name, const std::vector<std::string>& rows,
                        golden_rows which = golden_rows::all);

// A text's lines, without their ends.
std::vector<std::string> lines_of(const std::string& text);

struct isolated_result {
  int status = -1;     // exit status; 128 + the signal that ended it
  std::string output;  // standard output and standard error in the order of their writing
};

// Runs `body` in a child process, so that what it leaves in the program's globals is gone
// afterwards. The child's status is 0 unless the body ends it, or a test assertion in it has failed
// (status 99, the failure in the output).
isolated_result run_isolated(const std::function<void()>& body);

// Ends a child process at once, its coverage saved when it is measured.
[[noreturn]] void end_child(int status);

}  // namespace test_support
