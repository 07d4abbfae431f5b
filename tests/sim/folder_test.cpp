// The chassis folder: its text file, its flash files, its errors and what survives a run.
#include "sim/folder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <map>
#include <vector>

#include "sim/cpld.h"
#include "sim/flash.h"
#include "tests/support/run_program.h"
#include "window/clock.h"
#include "window/window.h"

namespace {

using test_support::read_whole_file;
using test_support::write_whole_file;

constexpr uid_t nobody = 65534;

std::string error_of(const std::string& text) {
  sim::folder_settings settings;
  return sim::parse_settings(text, "chassis.txt", &settings);
}

// Runs a function in a process of its own; gives its exit status.
template <typename callable>
int status_of_process(callable&& call) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    call();
    _exit(0);
  }
  int waited = 0;
  waitpid(child, &waited, 0);
  return WIFEXITED(waited) ? WEXITSTATUS(waited) : -1;
}

class sim_folder : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(folder_.path().empty());
  }
  std::string read() {
    return sim::read_folder(folder_.path(), &settings_);
  }
  size_t file_count() const {
    const std::filesystem::directory_iterator files(folder_.path());
    return static_cast<size_t>(std::distance(begin(files), end(files)));
  }

  // The exit status of a process that touches the flash of complex 4, and what it tells.
  int status_of_touch(
      std::string* told, void (*prepare)() = [] {}) {
    std::FILE* err = std::tmpfile();
    const int status = status_of_process([&] {
      dup2(fileno(err), STDERR_FILENO);
      prepare();
      sim::folder_chassis made(folder_.path(), settings_);
      made.get().flash(4).read16(0);
    });
    std::rewind(err);
    for (int byte; (byte = std::getc(err)) != EOF;) {
      *told += static_cast<char>(byte);
    }
    std::fclose(err);
    return status;
  }

  test_support::temporary_folder folder_;
  sim::folder_settings settings_;
};

void program(sim::chassis& chassis, int ppc, uint32_t address, uint16_t value) {
  chassis.flash(ppc).program16(address, value);
}

}  // namespace

TEST(sim_settings, every_word_is_understood) {
  sim::folder_settings settings;
  EXPECT_EQ(sim::parse_settings(
                "# a comment\n\nrunning 5 6  # both\nclock 1800000000\n"
                "ready 4 never\nready 6 never 12\nready 3 low 7\ncut 8 during-noise 17 99\n"
                "cut 4 before 1\nfail open 13\nfail map 12\nreport",
                "x", &settings),
            "");
  EXPECT_TRUE(settings.complexes[2].running);
  EXPECT_TRUE(settings.complexes[3].running);
  EXPECT_FALSE(settings.complexes[0].running);
  EXPECT_TRUE(settings.clock_held);
  EXPECT_EQ(settings.clock_seconds, 1800000000);
  EXPECT_TRUE(settings.complexes[1].ready_never);
  EXPECT_EQ(settings.complexes[1].cycles_until_never, 0U);
  EXPECT_TRUE(settings.complexes[3].ready_never);
  EXPECT_EQ(settings.complexes[3].cycles_until_never, 12U);
  EXPECT_EQ(settings.complexes[0].ready_low, 7U);
  EXPECT_EQ(settings.complexes[5].cut_mutation, 17U);
  EXPECT_EQ(settings.complexes[5].kind, sim::cut_kind::during_noise);
  EXPECT_EQ(settings.complexes[5].seed, 99U);
  EXPECT_EQ(settings.complexes[1].kind, sim::cut_kind::before);
  EXPECT_EQ(settings.open_error, 13);
  EXPECT_EQ(settings.map_error, 12);
  EXPECT_TRUE(settings.report);
}

TEST(sim_settings, errors_name_file_and_line_and_what_to_do) {
  EXPECT_EQ(error_of("clock 5\nruning 4\n"),
            "chassis.txt:2: unknown word 'runing'; use running, clock, ready, cut, fail or report");
  EXPECT_EQ(error_of("running 9"), "chassis.txt:1: '9' is not a PPC number (3 to 8)");
  EXPECT_EQ(error_of("running"), "chassis.txt:1: '' is not a PPC number (3 to 8)");
  EXPECT_EQ(error_of("clock -1"),
            "chassis.txt:1: '-1' is not a number of seconds (0 to 2147483647)");
  EXPECT_EQ(error_of("clock 1 2"), "chassis.txt:1: '2' is too much on this line; remove it");
  EXPECT_EQ(error_of("ready 4 soon"),
            "chassis.txt:1: unknown word 'soon'; use never [<cycles>] or low <reads>");
  EXPECT_NE(error_of("ready 4 never 0").find("chassis.txt:1: '0' is not a number of cycles (1 to"),
            std::string::npos);
  EXPECT_EQ(error_of("ready 4 low x"),
            "chassis.txt:1: 'x' is not a number of reads (0 to 4294967295)");
  EXPECT_EQ(error_of("cut 4 amid 3"),
            "chassis.txt:1: unknown word 'amid'; use before, during, during-noise or after");
  EXPECT_NE(error_of("cut 4 before 0").find("chassis.txt:1: '0' is not"), std::string::npos);
  EXPECT_NE(error_of("cut 4 before 99999999999999999999999").find("is not"), std::string::npos);
  EXPECT_EQ(error_of("fail close 4"),
            "chassis.txt:1: unknown word 'close'; use open <errno> or map <errno>");
}

TEST(sim_settings, numbers_of_any_length_are_held_against_their_range) {
  sim::folder_settings settings;
  EXPECT_EQ(sim::parse_settings("cut 4 before 1000000000000000000", "x", &settings), "");
  EXPECT_EQ(settings.complexes[1].cut_mutation, 1000000000000000000U);
  EXPECT_EQ(sim::parse_settings("cut 4 before 9223372036854775807", "x", &settings), "");
  EXPECT_EQ(settings.complexes[1].cut_mutation, 9223372036854775807U);
  EXPECT_EQ(sim::parse_settings("cut 4 before 000000000000000000000000000007", "x", &settings), "");
  EXPECT_EQ(settings.complexes[1].cut_mutation, 7U);
  EXPECT_EQ(error_of("cut 4 before 9223372036854775808"),
            "chassis.txt:1: '9223372036854775808' is not the number of a program or erase (1 to "
            "9223372036854775807)");
  EXPECT_NE(error_of("clock 2147483648"), "");
  EXPECT_EQ(error_of("clock 2147483647"), "");
}

TEST(sim_settings, words_are_escaped_in_errors) {
  EXPECT_EQ(
      error_of("\x1B[2J"),
      "chassis.txt:1: unknown word '\\x1b[2J'; use running, clock, ready, cut, fail or report");
  EXPECT_EQ(error_of("running \x7F\\\xFF~"),
            "chassis.txt:1: '\\x7f\\x5c\\xff~' is not a PPC number (3 to 8)");
  EXPECT_EQ(error_of(std::string("clock 1 a\0b", 11)),
            "chassis.txt:1: 'a\\x00b' is too much on this line; remove it");
  EXPECT_NE(error_of("ready 4 \x01").find("'\\x01'"), std::string::npos);
  EXPECT_NE(error_of("cut 4 \x01").find("'\\x01'"), std::string::npos);
  EXPECT_NE(error_of("fail \x01").find("'\\x01'"), std::string::npos);
}

TEST_F(sim_folder, an_empty_text_file_is_enough) {
  write_whole_file(folder_.file("chassis.txt"), "");
  EXPECT_EQ(read(), "");
  EXPECT_EQ(file_count(), 1U);
}

TEST_F(sim_folder, a_missing_folder_or_text_file_is_an_error_that_changes_nothing) {
  EXPECT_NE(read().find(folder_.file("chassis.txt") + ": cannot read"), std::string::npos);
  EXPECT_EQ(file_count(), 0U);
  const std::string missing = folder_.file("none");
  EXPECT_EQ(sim::read_folder(missing, &settings_).find(missing + ": there is no such"), 0U);
}

TEST_F(sim_folder, a_text_file_that_is_no_file_is_refused_at_once) {
  const std::string name = folder_.file("chassis.txt");
  ASSERT_EQ(mkfifo(name.c_str(), 0600), 0);
  EXPECT_EQ(read().find(name + ": cannot read the chassis's text file"), 0U);
  // A pipe into which somebody writes is none either.
  const int writer = open(name.c_str(), O_RDWR | O_CLOEXEC);
  EXPECT_EQ(read().find(name + ": cannot read the chassis's text file"), 0U);
  close(writer);
  std::filesystem::remove(name);
  std::filesystem::create_symlink("/dev/zero", name);
  EXPECT_EQ(read().find(name + ": cannot read the chassis's text file"), 0U);
  std::filesystem::remove(name);
  std::filesystem::create_directory(name);
  EXPECT_EQ(read().find(name + ": cannot read the chassis's text file"), 0U);
}

TEST_F(sim_folder, a_huge_text_file_is_refused_at_once) {
  const std::string name = folder_.file("chassis.txt");
  write_whole_file(name, std::string(sim::longest_settings, '\n'));
  EXPECT_EQ(read(), "");
  std::filesystem::resize_file(name, sim::longest_settings + 1);
  EXPECT_EQ(read(), name + ": has more than 65536 bytes; it is no text for a chassis");
  std::filesystem::resize_file(name, 3000000000);
  EXPECT_EQ(read(), name + ": has more than 65536 bytes; it is no text for a chassis");
}

TEST_F(sim_folder, a_flash_file_that_became_short_is_an_error_and_is_not_mapped) {
  write_whole_file(folder_.file("ppc4.flash"), "short");
  std::string told;
  EXPECT_EQ(status_of_touch(&told), 2);
  EXPECT_EQ(told, "zantrolume-sim: " + folder_.file("ppc4.flash") +
                      ": has changed its size; put a whole image there\n");
}

TEST_F(sim_folder, a_sparse_flash_file_is_filled_before_it_is_mapped) {
  const std::string path = folder_.file("ppc4.flash");
  write_whole_file(path, "");
  std::filesystem::resize_file(path, sim::chassis_flash_size);
  sim::folder_chassis made(folder_.path(), settings_);
  EXPECT_EQ(made.get().flash(4).read16(0), 0);
  struct stat status;
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_GE(status.st_blocks * off_t{512}, off_t{sim::chassis_flash_size});
  const std::string contents = read_whole_file(path);
  EXPECT_TRUE(contents == std::string(sim::chassis_flash_size, '\0'));
}

TEST_F(sim_folder, a_flash_that_cannot_be_made_is_an_error_and_leaves_nothing) {
  std::string told;
  EXPECT_EQ(status_of_touch(&told,
                            [] {
                              // As on a full disk: the first part is taken, the rest is not.
                              std::signal(SIGXFSZ, SIG_IGN);
                              const rlimit limit = {1 << 20, 1 << 20};
                              setrlimit(RLIMIT_FSIZE, &limit);
                            }),
            2);
  EXPECT_NE(told.find("cannot make the erased flash: File too large; make room or make the folder "
                      "writable\n"),
            std::string::npos)
      << told;
  EXPECT_EQ(file_count(), 0U);
}

TEST_F(sim_folder, a_flash_file_of_another_size_is_an_error) {
  write_whole_file(folder_.file("chassis.txt"), "");
  write_whole_file(folder_.file("ppc7.flash"), "short");
  EXPECT_EQ(read().find(folder_.file("ppc7.flash") + ": has 5 bytes instead of 33554432"), 0U);
  std::filesystem::resize_file(folder_.file("ppc7.flash"), sim::chassis_flash_size + 1);
  EXPECT_NE(read().find("33554433 bytes"), std::string::npos);
  std::filesystem::resize_file(folder_.file("ppc7.flash"), sim::chassis_flash_size);
  EXPECT_EQ(read(), "");
}

TEST_F(sim_folder, a_flash_that_is_no_file_is_an_error) {
  write_whole_file(folder_.file("chassis.txt"), "");
  std::filesystem::create_directory(folder_.file("ppc3.flash"));
  EXPECT_NE(read().find("ppc3.flash: is not a file"), std::string::npos);
}

TEST_F(sim_folder, a_folder_that_cannot_be_written_is_an_error) {
  write_whole_file(folder_.file("chassis.txt"), "");
  chmod(folder_.path().c_str(), 0555);
  const int status = status_of_process([&] {
    // Nothing is unwritable for root.
    if (geteuid() == 0 && setuid(nobody) != 0) {
      _exit(2);
    }
    _exit(read().find("cannot write to the chassis folder") != std::string::npos ? 0 : 1);
  });
  EXPECT_EQ(status, 0);
  chmod(folder_.path().c_str(), 0700);
}

TEST_F(sim_folder, a_missing_flash_is_made_erased_when_touched_and_keeps_what_is_programmed) {
  {
    sim::folder_chassis chassis(folder_.path(), settings_);
    EXPECT_EQ(file_count(), 0U);
    program(chassis.get(), 4, 0x100, 0x1234);
    EXPECT_EQ(file_count(), 1U);
  }
  const std::string contents = read_whole_file(folder_.file("ppc4.flash"));
  std::string expected(sim::chassis_flash_size, '\xFF');
  expected[0x100] = 0x12;
  expected[0x101] = 0x34;
  EXPECT_TRUE(contents == expected);
  sim::folder_chassis again(folder_.path(), settings_);
  EXPECT_EQ(again.get().flash(4).read16(0x100), 0x1234);
}

TEST_F(sim_folder, settings_reach_the_chassis) {
  ASSERT_EQ(sim::parse_settings("running 5\nclock 77\nready 4 low 1\nready 3 never\nfail open 13",
                                "x", &settings_),
            "");
  sim::folder_chassis made(folder_.path(), settings_);
  sim::chassis& chassis = made.get();
  EXPECT_EQ(chassis.node_of(5).load32(0), 0x8U);
  EXPECT_EQ(chassis.node_of(5).load32(0x34), 0x8U);
  EXPECT_EQ(chassis.node_of(5).load32(0x34), 0xCU);
  EXPECT_EQ(chassis.clock(), 77);
  EXPECT_EQ(chassis.open("/dev/vexmor1"), -1);
}

TEST_F(sim_folder, a_power_cut_ends_the_process_with_status_3_and_the_file_holds_the_state) {
  ASSERT_EQ(sim::parse_settings("cut 4 after 2\ncut 5 before 1", "x", &settings_), "");
  const int status = status_of_process([&] {
    sim::folder_chassis made(folder_.path(), settings_);
    program(made.get(), 4, 0, 0x1111);
    program(made.get(), 3, 0, 0x1111);
    program(made.get(), 4, 2, 0x2222);
    program(made.get(), 4, 4, 0x3333);
  });
  EXPECT_EQ(status, 3);
  const std::string contents = read_whole_file(folder_.file("ppc4.flash"));
  ASSERT_EQ(contents.size(), sim::chassis_flash_size);
  EXPECT_EQ(contents.substr(0, 6), "\x11\x11\x22\x22\xFF\xFF");
}

TEST_F(sim_folder, a_report_is_written_when_asked_for) {
  settings_.report = true;
  sim::folder_chassis made(folder_.path(), settings_);
  made.get().node_of(3).load32(0x20);
  EXPECT_EQ(made.report(), "");
  const std::string text = read_whole_file(folder_.file("report.txt"));
  EXPECT_EQ(text.find("deviations 1\n"), 0U);
  EXPECT_NE(text.find("wrong_direction 1\n"), std::string::npos);
  EXPECT_NE(text.find("words_read 0\n"), std::string::npos);
}

TEST_F(sim_folder, a_report_that_cannot_be_written_is_an_error_and_no_link_is_followed) {
  settings_.report = true;
  sim::folder_chassis made(folder_.path(), settings_);
  const std::string name = folder_.file("report.txt");
  const std::string target = folder_.file("target");
  write_whole_file(target, "kept");
  std::filesystem::create_symlink(target, name);
  EXPECT_EQ(made.report().find(name + ": cannot write the report: "), 0U);
  EXPECT_EQ(read_whole_file(target), "kept");
  std::filesystem::remove(name);
  ASSERT_EQ(mkfifo(name.c_str(), 0600), 0);
  EXPECT_EQ(made.report().find(name + ": cannot write the report: "), 0U);
  std::filesystem::remove(name);
  std::filesystem::create_directory(name);
  EXPECT_EQ(made.report().find(name + ": cannot write the report: "), 0U);
}

TEST_F(sim_folder, a_run_whose_report_cannot_be_written_ends_with_status_2) {
  write_whole_file(folder_.file("chassis.txt"), "report\n");
  std::filesystem::create_directory(folder_.file("report.txt"));
  test_support::program_call call;
  call.path = ZANTROLUME_SIM_PROGRAM;
  call.arguments = {"4", "sread", "1", "32"};
  call.environment = {{"ZANTROLUME_CHASSIS", folder_.path()}};
  const test_support::program_result result = test_support::run_program(call);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out.find("0x00020000    ffffffff"), 0U);
  EXPECT_EQ(result.err.find("zantrolume-sim: " + folder_.file("report.txt") +
                            ": cannot write the report: "),
            0U)
      << result.err;
}

TEST_F(sim_folder, a_run_whose_power_was_cut_writes_nothing_more) {
  write_whole_file(folder_.file("chassis.txt"), "report\nclock 1800000000\ncut 4 after 100\n");
  test_support::program_call call;
  call.path = ZANTROLUME_SIM_PROGRAM;
  call.arguments = {"4", "dir"};
  call.environment = {{"ZANTROLUME_CHASSIS", folder_.path()}};
  const test_support::program_result result = test_support::run_program(call);
  EXPECT_EQ(result.status, 3);
  // Neither what was still buffered nor the report.
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "");
  EXPECT_FALSE(std::filesystem::exists(folder_.file("report.txt")));
}

TEST_F(sim_folder, a_lock_is_one_for_each_device_and_goes_with_its_chassis) {
  {
    sim::folder_chassis first(folder_.path(), settings_);
    sim::folder_chassis second(folder_.path(), settings_);
    const int node = first.get().open("/dev/vexmor1");
    ASSERT_EQ(second.get().open("/dev/vexmor1"), node);
    const int other = second.get().open("/dev/vexmor2");
    EXPECT_EQ(first.get().lock(node, false), 0);
    EXPECT_EQ(first.get().lock(node, true), 0);
    EXPECT_EQ(second.get().lock(node, false), 1);
    EXPECT_EQ(second.get().lock(other, false), 0);
    EXPECT_TRUE(std::filesystem::exists(folder_.file(".lock1")));
    EXPECT_TRUE(std::filesystem::exists(folder_.file(".lock2")));
    EXPECT_EQ(file_count(), 2U);
  }
  sim::folder_chassis third(folder_.path(), settings_);
  EXPECT_EQ(third.get().lock(third.get().open("/dev/vexmor1"), false), 0);
}

TEST_F(sim_folder, a_lock_file_that_is_a_link_is_an_error) {
  std::filesystem::create_symlink(folder_.file("target"), folder_.file(".lock1"));
  const int status = status_of_process([&] {
    std::fclose(stderr);
    sim::folder_chassis made(folder_.path(), settings_);
    (void)made.get().lock(made.get().open("/dev/vexmor1"), false);
  });
  EXPECT_EQ(status, 2);
  EXPECT_FALSE(std::filesystem::exists(folder_.file("target")));
}

TEST_F(sim_folder, opening_a_device_without_a_chassis_loads_the_folder_of_the_environment) {
  write_whole_file(folder_.file("chassis.txt"), "clock 123\n");
  const int status = status_of_process([&] {
    sim::install_chassis(nullptr);
    setenv("ZANTROLUME_CHASSIS", folder_.path().c_str(), 1);
    _exit(window_open("/dev/vexmor2") > 0 && window_clock() == 123 ? 0 : 1);
  });
  EXPECT_EQ(status, 0);
}

TEST_F(sim_folder, a_folder_that_cannot_be_used_ends_the_process_with_status_2) {
  const int status = status_of_process([&] {
    sim::install_chassis(nullptr);
    setenv("ZANTROLUME_CHASSIS", folder_.file("none").c_str(), 1);
    std::fclose(stderr);
    (void)window_open("/dev/vexmor1");  // does not come back
  });
  EXPECT_EQ(status, 2);
}
