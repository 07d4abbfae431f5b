// Runs that meet over one chassis folder: one waits for the other, whichever complexes they use,
// and what they leave is what some order of single runs leaves.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/program/started_program.h"
#include "tests/support/image_builder.h"
#include "tests/support/run_program.h"

namespace {

using program_test::comes_true;
using program_test::ending;
using program_test::started_program;
using test_support::program_result;
using test_support::read_whole_file;
using test_support::write_whole_file;

constexpr size_t flash_size = 32U << 20;
constexpr int usable_blocks = 216;
constexpr int file_count = 15;
const std::string waiting = "zantrolume: another run has /dev/vexmor1, waiting for its end\n";

std::string file_name(int number) {
  return "file" + std::to_string(number);
}

// The files that a listing names.
std::set<std::string> files_in(const std::string& listing) {
  std::istringstream words(listing);
  std::set<std::string> files;
  for (std::string word; words >> word;) {
    if (word.rfind("file", 0) == 0) {
      files.insert(word);
    }
  }
  return files;
}

class runs_at_once : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(chassis_.path().empty());
    write_whole_file(chassis_.file("chassis.txt"), "clock 1800000000\n");
  }
  // Files of one sector each, in the root.
  void make_files(int ppc) {
    std::string flash(flash_size, '\xFF');
    test_support::image_builder image(reinterpret_cast<uint8_t*>(flash.data()), usable_blocks,
                                      0x20000);
    image.headers(usable_blocks - 1);
    image.slot(0, 0, 0,
               {.seq_no = 0, .dir_fileid = 1, .entry_fileid = 1, .mode = 0x4700, .name = ""});
    for (uint16_t i = 0; i < file_count; ++i) {
      const auto id = static_cast<uint16_t>(i + 2);
      const auto number = static_cast<uint16_t>(i + 1);
      image.slot(0, 0, number, {.seq_no = number, .entry_fileid = id, .name = file_name(i)});
      image.file(0, 1 + i, id, "text of " + file_name(i));
    }
    write_whole_file(flash_file(ppc), flash);
  }
  std::string flash_file(int ppc) const {
    return chassis_.file("ppc" + std::to_string(ppc) + ".flash");
  }
  program_result run(const std::vector<std::string>& words) const {
    test_support::program_call call;
    call.path = ZANTROLUME_SIM_PROGRAM;
    call.arguments = words;
    call.environment = {{"ZANTROLUME_CHASSIS", chassis_.path()}};
    return test_support::run_program(call);
  }
  // Starts a run whose outputs go to files of that name.
  std::unique_ptr<started_program> start(const std::string& name,
                                         const std::vector<std::string>& words) {
    return std::make_unique<started_program>(chassis_.path(), words, [this, name] {
      for (const auto& [standard, suffix] :
           {std::pair{STDOUT_FILENO, ".out"}, std::pair{STDERR_FILENO, ".err"}}) {
        dup2(open(outputs_.file(name + suffix).c_str(), O_WRONLY | O_CREAT, 0600), standard);
      }
    });
  }
  std::string out(const std::string& name) const {
    return read_whole_file(outputs_.file(name + ".out"));
  }
  std::string err(const std::string& name) const {
    return read_whole_file(outputs_.file(name + ".err"));
  }
  // What a run holds, held by the test. The descriptor; closing it gives it back.
  int hold(const std::string& lock) const {
    const int fd = open(chassis_.file(lock).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    EXPECT_EQ(flock(fd, LOCK_EX | LOCK_NB), 0);
    return fd;
  }
  bool is_free(const std::string& lock) const {
    const int fd = open(chassis_.file(lock).c_str(), O_RDWR | O_CLOEXEC);
    const bool taken = flock(fd, LOCK_EX | LOCK_NB) == 0;
    close(fd);
    return taken;
  }

  test_support::temporary_folder chassis_;
  test_support::temporary_folder outputs_;
};

}  // namespace

TEST_F(runs_at_once, removals_and_listings_end_as_in_some_order_of_single_runs) {
  make_files(4);
  std::vector<std::unique_ptr<started_program>> runs;
  for (int i = 0; i < file_count; ++i) {
    runs.push_back(start(std::to_string(runs.size()), {"4", "rm", "bootflash:" + file_name(i)}));
    if (i % 3 == 0) {
      runs.push_back(start(std::to_string(runs.size()), {"4", "dir"}));
    }
  }
  ASSERT_EQ(runs.size(), 20U);
  // In some order each listing shows some number of files, each of them whole, and each removal
  // finds its file once.
  int removed = 0;
  int waited = 0;
  std::vector<std::set<std::string>> listings;
  for (size_t i = 0; i < runs.size(); ++i) {
    EXPECT_EQ(runs[i]->wait().status, 0);
    const std::string printed = out(std::to_string(i));
    EXPECT_EQ(printed.find("flashfs[0]: flashfs fsck took 0 seconds.\n"), 0U) << printed;
    EXPECT_EQ(printed.find("not deleted"), std::string::npos) << printed;
    const bool deleted = printed.find("\" deleted\n") != std::string::npos;
    EXPECT_NE(deleted, printed.find("bytes available") != std::string::npos) << printed;
    removed += deleted ? 1 : 0;
    if (!deleted) {
      listings.push_back(files_in(printed));
    }
    const std::string told = err(std::to_string(i));
    EXPECT_TRUE(told.empty() || told == waiting) << told;
    waited += told.empty() ? 0 : 1;
  }
  EXPECT_EQ(removed, file_count);
  // Each of two listings came before the other or after it.
  std::sort(listings.begin(), listings.end(),
            [](const auto& one, const auto& other) { return one.size() > other.size(); });
  for (size_t i = 1; i < listings.size(); ++i) {
    EXPECT_TRUE(std::includes(listings[i - 1].begin(), listings[i - 1].end(), listings[i].begin(),
                              listings[i].end()));
  }
  EXPECT_GT(waited, 0);
  const program_result after = run({"4", "dir"});
  EXPECT_TRUE(files_in(after.out).empty()) << after.out;
  // A check that finds nothing to mend changes nothing.
  const std::string flash = read_whole_file(flash_file(4));
  EXPECT_EQ(run({"4", "dir"}).out, after.out);
  EXPECT_TRUE(read_whole_file(flash_file(4)) == flash);
}

TEST_F(runs_at_once, three_complexes_of_one_device_are_listed_at_once) {
  std::vector<std::unique_ptr<started_program>> runs;
  for (const int ppc : {3, 4, 5}) {
    make_files(ppc);
  }
  const std::string expected = run({"3", "dir"}).out;
  ASSERT_NE(expected.find("file14"), std::string::npos) << expected;
  for (const std::string ppc : {"3", "4", "5"}) {
    runs.push_back(start(ppc, {ppc, "dir"}));
  }
  for (size_t i = 0; i < runs.size(); ++i) {
    EXPECT_EQ(runs[i]->wait().status, 0);
    EXPECT_EQ(out(std::to_string(3 + i)), expected);
  }
}

TEST_F(runs_at_once, a_run_says_that_it_waits_and_goes_on_when_the_other_has_ended) {
  make_files(3);
  const std::string flash = read_whole_file(flash_file(3));
  const int held = hold(".lock1");
  auto run = start("waiting", {"3", "rm", "bootflash:file0"});
  ASSERT_TRUE(comes_true([&] { return !err("waiting").empty(); }));
  EXPECT_EQ(err("waiting"), waiting);
  EXPECT_EQ(out("waiting"), "");
  EXPECT_TRUE(read_whole_file(flash_file(3)) == flash);
  EXPECT_FALSE(run->wait(0).ended);
  close(held);
  EXPECT_EQ(run->wait().status, 0);
  EXPECT_NE(out("waiting").find("deleted"), std::string::npos);
  EXPECT_EQ(err("waiting"), waiting);
}

TEST_F(runs_at_once, a_waiting_run_makes_no_image_and_a_signal_ends_it_at_once) {
  const int held = hold(".lock1");
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    auto run = start("signalled", {"3", "dir"});
    ASSERT_TRUE(comes_true([&] { return err("signalled") == waiting; }));
    kill(run->process(), signal);
    EXPECT_EQ(run->wait().signal, signal);
    EXPECT_EQ(truncate(outputs_.file("signalled.err").c_str(), 0), 0);
  }
  EXPECT_FALSE(std::filesystem::exists(flash_file(3)));
  close(held);
}

TEST_F(runs_at_once, the_two_devices_do_not_wait_for_each_other) {
  const int held = hold(".lock2");
  EXPECT_EQ(run({"5", "sread", "1", "32"}).err, "");
  close(held);
  const int other = hold(".lock1");
  EXPECT_EQ(run({"6", "sread", "1", "32"}).err, "");
  close(other);
}

TEST_F(runs_at_once, a_killed_run_frees_the_device) {
  write_whole_file(chassis_.file("chassis.txt"), "clock 1800000000\nready 4 low 1000\n");
  auto killed = start("killed", {"4", "dir"});
  ASSERT_TRUE(comes_true([&] { return std::filesystem::exists(flash_file(4)); }));
  kill(killed->process(), SIGSTOP);
  EXPECT_FALSE(is_free(".lock1"));
  auto next = start("next", {"3", "sread", "1", "32"});
  ASSERT_TRUE(comes_true([&] { return err("next") == waiting; }));
  kill(killed->process(), SIGKILL);
  EXPECT_EQ(killed->wait().signal, SIGKILL);
  EXPECT_EQ(next->wait().status, 0);
  EXPECT_TRUE(is_free(".lock1"));
}

TEST_F(runs_at_once, a_stuck_flash_ends_with_its_time_out_and_frees_the_device) {
  write_whole_file(chassis_.file("chassis.txt"), "ready 4 never\n");
  make_files(4);
  make_files(5);
  auto stuck = start("stuck", {"4", "rm", "bootflash:file0"});
  ASSERT_TRUE(comes_true([&] { return std::filesystem::exists(chassis_.file(".lock1")); }));
  auto next = start("next", {"5", "dir"});
  EXPECT_EQ(stuck->wait().status, 0);
  EXPECT_NE(out("stuck").find("Timeout waiting for flash ready: bit 0x4"), std::string::npos);
  EXPECT_EQ(next->wait().status, 0);
  EXPECT_NE(out("next").find("file14"), std::string::npos);
  EXPECT_TRUE(is_free(".lock1"));
}

TEST_F(runs_at_once, an_image_that_a_killed_run_left_unfinished_goes_with_the_next) {
  const std::string unfinished = flash_file(3) + ".new.77";
  const std::string other_device = flash_file(6) + ".new.77";
  const std::string own_file = chassis_.file("ppc3.flash.kept");
  for (const std::string& path : {unfinished, other_device, own_file}) {
    write_whole_file(path, "x");
  }
  EXPECT_EQ(run({"5", "sread", "1", "32"}).status, 0);
  EXPECT_FALSE(std::filesystem::exists(unfinished));
  EXPECT_TRUE(std::filesystem::exists(other_device));
  EXPECT_TRUE(std::filesystem::exists(own_file));
  EXPECT_EQ(run({"8", "sread", "1", "32"}).status, 0);
  EXPECT_FALSE(std::filesystem::exists(other_device));
}
