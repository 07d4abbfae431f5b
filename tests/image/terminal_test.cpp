// What is different on a terminal: colours, names, progress. The terminal is a pseudo-terminal that
// nobody sits at.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>

#include "tests/image/image_command.h"
#include "tests/support/image_builder.h"

namespace {

using test_support::program_result;
using test_support::write_whole_file;

class terminal : public test_support::image_command {
 protected:
  terminal() : master_(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC)) {
    if (master_ >= 0 && grantpt(master_) == 0 && unlockpt(master_) == 0) {
      name_ = ptsname(master_);
      slave_ = open(name_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);  // what was written stays
    }
    store("basic");
  }
  ~terminal() override {
    close(slave_);
    close(master_);
  }
  terminal(const terminal&) = delete;
  terminal& operator=(const terminal&) = delete;

  void SetUp() override {
    ASSERT_GE(slave_, 0) << "no pseudo-terminal";
  }

  // Runs a shell's line in the folder, with $tool for the program and $terminal for the device.
  program_result shell(const std::string& line) const {
    std::map<std::string, std::string> environment = environment_;
    environment["tool"] = emulator() + " " + program_;
    environment["terminal"] = name_;
    return test_support::run_program({.path = "/bin/sh",
                                      .arguments = {"-c", "cd '" + file("") + "'; " + line},
                                      .environment = environment,
                                      .is_of_the_host = true});
  }
  // What the terminal was sent since this was asked last.
  std::string sent() const {
    std::string text;
    char piece[4096];
    for (ssize_t got = read(master_, piece, sizeof(piece)); got > 0;
         got = read(master_, piece, sizeof(piece))) {
      text.append(piece, static_cast<size_t>(got));
    }
    return text;
  }
  // Whether the error of a missing image comes in colour.
  bool is_colored(const std::string& before, const std::string& options) const {
    EXPECT_EQ(shell(before + " $tool " + options + " ls gone.img 2>$terminal").status, 8);
    const std::string text = sent();
    EXPECT_NE(text.find("gone.img: cannot be opened"), std::string::npos) << text;
    return text.find("\033[1;3") != std::string::npos;
  }

 private:
  const int master_;
  int slave_ = -1;
  std::string name_;
};

size_t count_of(std::string_view part, std::string_view text) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string_view::npos; at = text.find(part, at + 1)) {
    count++;
  }
  return count;
}

// An import of one line, after the seconds another, and thirty more, a hundredth of a second apart.
std::string import_after(const std::string& seconds, const std::string& options) {
  return "line='0x00000020    01020304 05060708 090a0b0c 0d0e0f10 11121314 15161718 191a1b1c "
         "1d1e1f20'; rm -f new.img; { echo \"$line\"; sleep " +
         seconds + "; for i in $(seq 30); do echo \"$line\"; sleep 0.01; done; } | $tool " +
         options + " --geometry 8x128K import new.img -";
}

constexpr const char* long_enough = "1.1";
constexpr const char* drawn = "\r\033[Kreading ";

}  // namespace

TEST_F(terminal, has_colours_unless_somebody_does_not_want_them) {
  EXPECT_TRUE(is_colored("TERM=xterm", ""));
  EXPECT_FALSE(is_colored("TERM=xterm NO_COLOR=1", ""));
  EXPECT_FALSE(is_colored("TERM=dumb", ""));
  EXPECT_FALSE(is_colored("TERM=xterm", "--color never"));
  EXPECT_TRUE(is_colored("TERM=xterm NO_COLOR=1", "--color always"));
  EXPECT_EQ(shell("TERM=xterm $tool ls gone.img").err.find('\033'), std::string::npos);
}

TEST_F(terminal, gets_names_escaped_and_nobody_else) {
  const std::string name =
      "a\x80"
      "z";
  std::string bytes(8 * size_t{0x20000}, '\xFF');
  test_support::image_builder builder(reinterpret_cast<uint8_t*>(bytes.data()), 8, 0x20000);
  builder.headers(0);
  builder.slot(1, 0, 0, {.name = name});
  write_whole_file(file("odd.img"), bytes);
  EXPECT_EQ(shell("$tool ls odd.img >$terminal").status, 0);
  const std::string text = sent();
  EXPECT_NE(text.find("a\\x80z"), std::string::npos) << text;
  EXPECT_EQ(text.find('\x80'), std::string::npos) << text;
  EXPECT_NE(shell("$tool ls odd.img").out.find(name + "\n"), std::string::npos);
  EXPECT_EQ(shell("$tool ls -0 odd.img >$terminal").status, 0);
  EXPECT_NE(sent().find(name + std::string(1, '\0')), std::string::npos);
}

TEST_F(terminal, shows_progress_after_a_second_and_at_most_ten_times_in_each) {
  const auto begun = std::chrono::steady_clock::now();
  EXPECT_NE(shell(import_after(long_enough, "") + " 2>$terminal").status, 8);
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begun;
  const std::string text = sent();
  EXPECT_GE(count_of(drawn, text), 1U) << text;
  EXPECT_LE(static_cast<double>(count_of(drawn, text)), 10 * (taken.count() - 1) + 1) << text;
  EXPECT_NE(shell(import_after("0", "") + " 2>$terminal").status, 8);
  EXPECT_EQ(sent().find(drawn), std::string::npos) << "it was done at once";
}

TEST_F(terminal, alone_is_shown_progress_unless_it_is_asked_for) {
  EXPECT_EQ(shell(import_after(long_enough, "")).err.find(drawn), std::string::npos);
  EXPECT_GE(count_of(drawn, shell(import_after(long_enough, "--progress always")).err), 1U);
  shell(import_after(long_enough, "--progress never") + " 2>$terminal");
  EXPECT_EQ(sent().find(drawn), std::string::npos);
}
