// The chassis folder: its text file, its flash files, its errors and what survives a run.
#include "sim/folder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

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

  test_support::temporary_folder folder_;
  sim::folder_settings settings_;
};

void program(sim::chassis& chassis, int ppc, uint32_t address, uint16_t value) {
  chassis.flash(ppc).program16(address, value);
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
