// A program that runs while the test goes on: with its standard output and error on descriptors of
// the test's choice, or on a terminal of its own.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace program_test {

// How a process ended.
struct ending {
  bool ended = false;  // false: it had to be killed, its time was over
  int signal = 0;      // that ended it; 0: it ended by itself
  int status = -1;     // its exit status then
};

class started_program {
 public:
  // Starts zantrolume-sim over a chassis folder. `prepare` runs in the new process before the
  // program takes its place; its standard descriptors are those of the test.
  started_program(const std::string& chassis, const std::vector<std::string>& arguments,
                  const std::function<void()>& prepare);
  // Kills it if nobody has waited for it.
  ~started_program();
  started_program(const started_program&) = delete;
  started_program& operator=(const started_program&) = delete;

  pid_t process() const {
    return process_;
  }
  // Whether it has ended by now.
  bool has_ended();
  // Waits for its end, if it has not been seen yet. Always the same answer once it has ended.
  ending wait(int timeout_seconds = 120);

 private:
  pid_t process_ = -1;
  ending ending_;
};

// A pseudo-terminal. The test holds its master side; a program gets the other one.
class pseudo_terminal {
 public:
  pseudo_terminal();
  ~pseudo_terminal();
  pseudo_terminal(const pseudo_terminal&) = delete;
  pseudo_terminal& operator=(const pseudo_terminal&) = delete;

  bool good() const {
    return master_ >= 0 && !name_.empty();
  }
  // For the new process: a session of its own, with the terminal as its standard descriptors.
  void become_controlling() const;
  void type(char key) const;
  // Ends the connection, as a closed window does.
  void hang_up();
  // What has been printed and not been read before.
  std::string printed();

 private:
  int master_ = -1;
  std::string name_;
};

// Waits until a condition holds; false when the time is over before.
bool comes_true(const std::function<bool()>& condition, int timeout_seconds = 60);

}  // namespace program_test
