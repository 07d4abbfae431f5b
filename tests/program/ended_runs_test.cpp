// Runs that are ended in the middle of a repair, as people end them: by a pipe that nobody reads,
// Ctrl-C, a closed terminal, a kill. The repair is finished first.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/program/started_program.h"
#include "tests/support/run_program.h"

namespace {

using program_test::comes_true;
using program_test::ending;
using program_test::pseudo_terminal;
using program_test::started_program;
using test_support::read_whole_file;
using test_support::write_whole_file;

// A blank flash: its check erases and marks every block, and says so in more text than an output
// buffer or a pipe's first read holds. Each cycle is slow enough to come in between.
constexpr char slow_chassis[] = "clock 1800000000\nready 4 low 1500\n";
constexpr size_t flash_size = 32U << 20;

class ended_runs : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(chassis_.path().empty());
    write_whole_file(chassis_.file("chassis.txt"), slow_chassis);
    make_blank();
    // What the check leaves when nothing comes in between.
    const ending whole = started_program(chassis_.path(), {"4", "dir"}, send_output_nowhere).wait();
    ASSERT_EQ(whole.status, 0);
    repaired_ = flash();
    make_blank();
  }
  void make_blank() {
    write_whole_file(chassis_.file("ppc4.flash"), std::string(flash_size, '\xFF'));
  }
  std::string flash() const {
    return read_whole_file(chassis_.file("ppc4.flash"));
  }
  // The first block has its header, the last one has not.
  bool repair_is_in_progress() const {
    const int fd = open(chassis_.file("ppc4.flash").c_str(), O_RDONLY | O_CLOEXEC);
    const bool begun = has_header(fd, 0);
    const bool ended = has_header(fd, 214);
    close(fd);
    return begun && !ended;
  }
  // Starts a run on a blank flash and waits until its repair is in progress; again when the repair
  // has ended before anybody looked, as it can on a busy machine. Null when that is always so.
  std::unique_ptr<started_program> start_repair(const std::vector<std::string>& arguments,
                                                const std::function<void()>& prepare) {
    for (int attempt = 0; attempt < 20; ++attempt) {
      make_blank();
      auto program = std::make_unique<started_program>(chassis_.path(), arguments, prepare);
      while (!repair_is_in_progress() && !program->has_ended()) {
        usleep(1000);
      }
      if (repair_is_in_progress()) {
        return program;
      }
    }
    return nullptr;
  }
  static bool has_header(int fd, off_t block) {
    char number = '\xFF';
    return pread(fd, &number, 1, block * 0x20000 + 10) == 1 && number != '\xFF';
  }
  static void send_output_nowhere() {
    const int fd = open("/dev/null", O_RDWR);
    for (int standard = 0; standard < 3; ++standard) {
      dup2(fd, standard);
    }
  }
  void expect_repaired() const {
    EXPECT_TRUE(flash() == repaired_);
  }

  test_support::temporary_folder chassis_;
  std::string repaired_;
};

// Reads one line of what a program prints into a pipe, and closes the pipe.
ending end_after_one_line(const std::string& chassis, const std::vector<std::string>& arguments) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    return {};
  }
  started_program program(chassis, arguments, [&] { dup2(ends[1], STDOUT_FILENO); });
  close(ends[1]);
  for (char byte = 0; byte != '\n' && read(ends[0], &byte, 1) == 1;) {
  }
  close(ends[0]);
  return program.wait();
}

// Whether a process sleeps in a system call.
bool is_asleep(pid_t process) {
  const std::string status = read_whole_file("/proc/" + std::to_string(process) + "/stat");
  const size_t name_end = status.rfind(')');
  return name_end != std::string::npos && status.compare(name_end, 3, ") S") == 0;
}

}  // namespace

TEST_F(ended_runs, a_pipe_that_is_read_no_more_lets_the_repair_finish) {
  EXPECT_EQ(end_after_one_line(chassis_.path(), {"4", "dir"}).signal, SIGPIPE);
  expect_repaired();
}

TEST_F(ended_runs, a_dump_into_a_pipe_that_is_read_no_more_ends) {
  EXPECT_EQ(end_after_one_line(chassis_.path(), {"4", "aread", "20", "33554400"}).signal, SIGPIPE);
}

TEST_F(ended_runs, output_that_waits_for_its_reader_goes_on_waiting_after_a_signal) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  started_program program(chassis_.path(), {"4", "aread", "20", "33554400"},
                          [&] { dup2(ends[1], STDOUT_FILENO); });
  const int pipe_size = fcntl(ends[1], F_GETPIPE_SZ);
  close(ends[1]);
  // A full pipe is not enough: the program may still be filling its own buffer, and then it ends at
  // the next line, as it should.
  int waiting_bytes = 0;
  ASSERT_TRUE(comes_true([&] {
    return ioctl(ends[0], FIONREAD, &waiting_bytes) == 0 && waiting_bytes == pipe_size &&
           is_asleep(program.process());
  }));
  kill(program.process(), SIGTERM);
  EXPECT_FALSE(program.wait(1).ended);
  char part[4096];
  while (read(ends[0], part, sizeof(part)) > 0) {
  }
  close(ends[0]);
  EXPECT_EQ(program.wait().signal, SIGTERM);
}

TEST_F(ended_runs, a_kill_lets_the_repair_finish) {
  const auto program = start_repair({"4", "dir"}, send_output_nowhere);
  ASSERT_NE(program, nullptr);
  kill(program->process(), SIGTERM);
  EXPECT_EQ(program->wait().signal, SIGTERM);
  expect_repaired();
}

// Two keys that come before the first signal has been taken are one signal: so they are typed until
// the second one was seen. When the repair has ended before that, another run is tried.
TEST_F(ended_runs, ctrl_c_lets_the_repair_finish_and_the_second_one_tells_of_it) {
  const std::string told = "zantrolume: interrupted, ends after the check of the file system\r\n";
  std::string printed;
  ending result;
  for (int attempt = 0; attempt < 20 && printed.find(told) == std::string::npos; ++attempt) {
    pseudo_terminal terminal;
    ASSERT_TRUE(terminal.good());
    const auto program =
        start_repair({"4", "rm", "bootflash:none"}, [&] { terminal.become_controlling(); });
    ASSERT_NE(program, nullptr);
    printed.clear();
    while (!program->has_ended()) {
      if (printed.find(told) == std::string::npos) {
        terminal.type('\x03');
      }
      usleep(2000);
      printed += terminal.printed();
    }
    printed += terminal.printed();
    result = program->wait();
  }
  EXPECT_EQ(result.signal, SIGINT);
  // The removal was not begun.
  EXPECT_EQ(printed.find("none"), std::string::npos) << printed;
  expect_repaired();
  EXPECT_NE(printed.find(told), std::string::npos) << printed;
  EXPECT_EQ(printed.find(told), printed.rfind(told)) << printed;
}

TEST_F(ended_runs, a_closed_terminal_lets_the_repair_finish) {
  pseudo_terminal terminal;
  ASSERT_TRUE(terminal.good());
  const auto program = start_repair({"4", "dir"}, [&] { terminal.become_controlling(); });
  ASSERT_NE(program, nullptr);
  terminal.hang_up();
  EXPECT_EQ(program->wait().signal, SIGHUP);
  expect_repaired();
}

TEST_F(ended_runs, closed_descriptors_are_not_printed_into) {
  for (int closed = 1; closed < 8; ++closed) {
    make_blank();
    started_program program(chassis_.path(), {"4", "dir"}, [&] {
      send_output_nowhere();
      for (int standard = 0; standard < 3; ++standard) {
        if ((closed & (1 << standard)) != 0) {
          close(standard);
        }
      }
    });
    EXPECT_EQ(program.wait().status, 0) << closed;
    expect_repaired();
    EXPECT_EQ(read_whole_file(chassis_.file("chassis.txt")), slow_chassis) << closed;
    EXPECT_EQ(read_whole_file(chassis_.file(".lock1")), "") << closed;
  }
}
