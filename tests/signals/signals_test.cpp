// Signals at every driver call of a repair, of a removal and of the reclamation that a removal
// brings: the operation is finished, and then the run ends as the signal would have ended it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "ifs/ifs.h"
#include "sim/chassis.h"
#include "sim/cpld.h"
#include "sim/flash.h"
#include "sim/power.h"
#include "tests/signals/small_binding.h"
#include "zantrolume/zantrolume_cpld.h"
#include "zantrolume/zantrolume_main.h"
#include "zantrolume/zantrolume_startup.h"

namespace {

using namespace signals_test;

constexpr int ppc = 4;
constexpr int ending_signals[] = {SIGINT, SIGTERM, SIGHUP, SIGPIPE};
constexpr int not_ended_by_signal = 0;

// Of the driver calls, so many are gone on by. Every one is tried natively of a removal, of a
// reclamation and of one repair; under emulation a sample.
#ifdef ZANTROLUME_EMULATOR
constexpr uint64_t every_call = 13;
constexpr uint64_t sampled_calls = 31;
#else
constexpr uint64_t every_call = 1;
constexpr uint64_t sampled_calls = 7;
#endif

using contents = std::vector<uint8_t>;

// What processes share: the flash and what they counted.
struct shared_memory {
  uint8_t flash[sim::chassis_flash_size];
  uint64_t calls;
  uint64_t erases;
  uint64_t mutations;
};

struct ended {
  int signal = 0;   // that ended the process; 0: it ended by itself
  int status = -1;  // its exit status then
  std::string out;
  std::string err;
};

std::string text_of(std::FILE* file) {
  std::string text;
  std::rewind(file);
  for (int byte; (byte = std::getc(file)) != EOF;) {
    text += static_cast<char>(byte);
  }
  return text;
}

class signals : public testing::Test {
 protected:
  void SetUp() override {
    void* memory = mmap(nullptr, sizeof(shared_memory), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    shared_ = static_cast<shared_memory*>(memory);
    out_ = std::tmpfile();
    err_ = std::tmpfile();
    ASSERT_NE(out_, nullptr);
    ASSERT_NE(err_, nullptr);
    std::memset(shared_->flash, 0xFF, flash_bytes_used);
  }
  void TearDown() override {
    munmap(shared_, sizeof(shared_memory));
    std::fclose(out_);
    std::fclose(err_);
  }

  contents flash() const {
    return {shared_->flash, shared_->flash + flash_bytes_used};
  }
  void set_flash(const contents& wanted) {
    std::memcpy(shared_->flash, wanted.data(), wanted.size());
  }

  // Runs a body over the chassis in a process of its own, whose exit status is the body's result.
  ended run(const std::function<int(sim::chassis& chassis)>& body) {
    for (std::FILE* file : {out_, err_}) {
      std::rewind(file);
      EXPECT_EQ(ftruncate(fileno(file), 0), 0);
    }
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
      run_here(body);
    }
    int waited = 0;
    EXPECT_EQ(waitpid(child, &waited, 0), child);
    ended result;
    result.signal = WIFSIGNALED(waited) ? WTERMSIG(waited) : not_ended_by_signal;
    result.status = WIFEXITED(waited) ? WEXITSTATUS(waited) : -1;
    result.out = text_of(out_);
    result.err = text_of(err_);
    return result;
  }
  // Runs the program.
  ended run_program(std::vector<std::string> words, const planned_signals& planned = {}) {
    return run([&](sim::chassis&) {
      plan = planned;
      return program(words);
    });
  }
  static int program(std::vector<std::string> words) {
    words.insert(words.begin(), {"zantrolume", std::to_string(ppc)});
    std::vector<char*> argv;
    for (std::string& word : words) {
      argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    return zantrolume_run(static_cast<int>(words.size()), argv.data());
  }

  void make_files();
  void need_reclamation();
  void need_repair(uint64_t quarters);
  void expect_finished_at_calls(const std::vector<std::string>& words, uint64_t first_call,
                                uint64_t last_call, const contents& finished, uint64_t step);
  void expect_repair_is_finished(uint64_t step);

  shared_memory* shared_ = nullptr;
  std::string removed_ = "bootflash:z";  // the file that is to be removed

 private:
  [[noreturn]] void run_here(const std::function<int(sim::chassis& chassis)>& body) {
    dup2(fileno(out_), STDOUT_FILENO);
    dup2(fileno(err_), STDERR_FILENO);
    const rlimit no_core = {0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    sim::chassis chassis;
    chassis.flash(ppc).set_source([this](size_t) { return shared_->flash; });
    chassis.clock_hold(1800000000);
    sim::install_chassis(&chassis);
    // For bodies that call no more than a command of the program.
    vexmor_mapped_ptr = chassis.window_of(ppc);
    cpld_flash_access_selection = cpld_data_window + (1U << flash_page_shift);
    flash_status_bit = 4;
    driver_calls = 0;
    driver_erases = 0;
    const int status = body(chassis);
    shared_->calls = driver_calls;
    shared_->erases = driver_erases;
    shared_->mutations = chassis.supply().mutations();
    std::fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 99 : status);
  }

  std::FILE* out_ = nullptr;
  std::FILE* err_ = nullptr;
};

void write_file(const std::string& path, size_t size) {
  const int32_t fd =
      ifs_open(path.c_str(), ifs_open_write | ifs_open_create | ifs_open_truncate, 0);
  ASSERT_GE(fd, 0) << path;
  const std::string text(size, 'x');
  ASSERT_EQ(ifs_write_until(fd, text.data(), static_cast<uint32_t>(size)),
            static_cast<int32_t>(size));
  ASSERT_EQ(ifs_close(fd), 0);
}

// A directory, two files, and the one that is to be removed.
void signals::make_files() {
  const ended made = run([&](sim::chassis&) {
    EXPECT_EQ(start_flashfs(), 1);
    write_file("bootflash:a", 30000);
    EXPECT_EQ(ifs_mkdir("bootflash:d", 0), 0);
    write_file("bootflash:d/b", 5000);
    write_file(removed_, 20000);
    return 0;
  });
  ASSERT_EQ(made.status, 0) << made.out;
}

// Fills what is free but for the reserve.
void fill_up() {
  const int32_t fd = ifs_open("bootflash:fill", ifs_open_write | ifs_open_create, 0);
  ASSERT_GE(fd, 0);
  const std::string sector(2048, 'f');
  while (ifs_write(fd, sector.data(), 2048) == 2048) {
  }
  ASSERT_EQ(errno, ENOSPC);
  ASSERT_EQ(ifs_close(fd), 0);
}

// The flash stands as it is just before the removal of removed_ reclaims a block: it is full, some
// sectors are obsolete, and there is no slot left for the directory's date.
void signals::need_reclamation() {
  constexpr int name_count = 100;
  const auto name = [](int number) { return "bootflash:n" + std::to_string(number); };
  make_files();
  const ended made = run([&](sim::chassis&) {
    EXPECT_EQ(start_flashfs(), 1);
    for (int i = 0; i < name_count; ++i) {
      write_file(name(i), 0);
    }
    fill_up();
    EXPECT_EQ(ifs_remove(removed_.c_str()), 0);
    return 0;
  });
  ASSERT_EQ(made.status, 0) << made.out;
  for (int i = 0; i < name_count; ++i) {
    const contents before = flash();
    removed_ = name(i);
    ASSERT_EQ(run_program({"rm", removed_}).status, 0);
    if (shared_->erases != 0) {
      set_flash(before);
      return;
    }
  }
  FAIL() << "no removal reclaims a block";
}

// The flash stands as a power cut in a removal that reclaims a block left it, after so many
// quarters of it.
void signals::need_repair(uint64_t quarters) {
  need_reclamation();
  const contents before = flash();
  const auto removal = [this](uint64_t cut_at) {
    return [this, cut_at](sim::chassis& chassis) {
      EXPECT_EQ(start_flashfs(), 1);
      chassis.supply().restore();
      chassis.supply().cut_at(cut_at, sim::cut_kind::during);
      chassis.supply().on_cut = [] { _exit(0); };
      EXPECT_EQ(ifs_remove(removed_.c_str()), 0);
      return 0;
    };
  };
  ASSERT_EQ(run(removal(0)).status, 0);
  const uint64_t mutations = shared_->mutations;
  ASSERT_GT(mutations, 100U);
  set_flash(before);
  ASSERT_EQ(run(removal(mutations * quarters / 4)).status, 0);
}

// Runs the program from the same flash with a signal at each of the calls.
void signals::expect_finished_at_calls(const std::vector<std::string>& words, uint64_t first_call,
                                       uint64_t last_call, const contents& finished,
                                       uint64_t step) {
  const contents before = flash();
  ASSERT_LE(first_call, last_call);
  for (uint64_t call = first_call; call <= last_call; call += step) {
    set_flash(before);
    const int signal = ending_signals[call % 4];
    const ended result = run_program(words, {.at_call = call, .signal = signal});
    ASSERT_EQ(result.signal, signal) << "call " << call;
    ASSERT_EQ(result.err, "") << "call " << call;
    ASSERT_TRUE(flash() == finished) << "call " << call;
  }
  set_flash(before);
}

void signals::expect_repair_is_finished(uint64_t step) {
  const contents before = flash();
  const ended repair = run([](sim::chassis&) { return start_flashfs() == 1 ? 0 : 1; });
  ASSERT_EQ(repair.status, 0) << repair.out;
  const contents repaired = flash();
  ASSERT_FALSE(repaired == before);
  const uint64_t calls = shared_->calls;
  set_flash(before);
  // The removal that was asked for is not begun.
  expect_finished_at_calls({"rm", "bootflash:a"}, 1, calls, repaired, step);
}

}  // namespace

// --- every driver call ---

TEST_F(signals, a_removal_is_finished_whenever_a_signal_comes) {
  make_files();
  const contents before = flash();
  ASSERT_EQ(run([](sim::chassis&) { return start_flashfs() == 1 ? 0 : 1; }).status, 0);
  const uint64_t check_calls = shared_->calls;
  const contents checked = flash();
  set_flash(before);
  ASSERT_EQ(run_program({"rm", removed_}).status, 0);
  const contents finished = flash();
  const uint64_t calls = shared_->calls;
  ASSERT_FALSE(checked == finished);
  set_flash(before);
  expect_finished_at_calls({"rm", removed_}, 1, check_calls, checked, every_call);
  expect_finished_at_calls({"rm", removed_}, check_calls + 1, calls, finished, every_call);
}

TEST_F(signals, a_reclamation_is_finished_whenever_a_signal_comes) {
  need_reclamation();
  const contents before = flash();
  ASSERT_EQ(run([](sim::chassis&) { return start_flashfs() == 1 ? 0 : 1; }).status, 0);
  const uint64_t check_calls = shared_->calls;
  ASSERT_EQ(shared_->erases, 0U);
  set_flash(before);
  ASSERT_EQ(run_program({"rm", removed_}).status, 0);
  ASSERT_GT(shared_->erases, 0U);
  const contents finished = flash();
  const uint64_t calls = shared_->calls;
  set_flash(before);
  expect_finished_at_calls({"rm", removed_}, check_calls + 1, calls, finished, every_call);
}

TEST_F(signals, a_repair_early_in_a_removal_is_finished_whenever_a_signal_comes) {
  need_repair(1);
  expect_repair_is_finished(sampled_calls);
}

TEST_F(signals, a_repair_of_a_half_copied_block_is_finished_whenever_a_signal_comes) {
  need_repair(2);
  expect_repair_is_finished(every_call);
}

TEST_F(signals, a_repair_late_in_a_reclamation_is_finished_whenever_a_signal_comes) {
  need_repair(3);
  expect_repair_is_finished(sampled_calls);
}

// --- the rules ---

TEST_F(signals, a_second_interruption_tells_once_what_is_finished) {
  make_files();
  EXPECT_EQ(run_program({"dir"}, {.at_call = 5, .signal = SIGINT}).err, "");
  const std::string told = "zantrolume: interrupted, ends after the check of the file system\n";
  for (const int times : {2, 3, 7}) {
    const ended result = run_program({"dir"}, {.at_call = 5, .signal = SIGINT, .times = times});
    EXPECT_EQ(result.signal, SIGINT);
    EXPECT_EQ(result.err, told);
  }
  for (const int signal : {SIGTERM, SIGHUP, SIGPIPE}) {
    const ended result = run_program({"dir"}, {.at_call = 5, .signal = signal, .times = 2});
    EXPECT_EQ(result.signal, signal);
    EXPECT_EQ(result.err, "");
  }
  const contents before = flash();
  ASSERT_EQ(run_program({"rm", "bootflash:a"}).status, 0);
  const uint64_t calls = shared_->calls;
  set_flash(before);
  EXPECT_EQ(
      run_program({"rm", "bootflash:a"}, {.at_call = calls, .signal = SIGINT, .times = 2}).err,
      "zantrolume: interrupted, ends after the removal\n");
}

TEST_F(signals, what_was_inherited_as_ignored_stays_so) {
  make_files();
  for (const int signal : ending_signals) {
    const ended result = run([signal](sim::chassis&) {
      std::signal(signal, SIG_IGN);
      plan = {.at_call = 5, .signal = signal, .times = 3};
      return program({"dir"});
    });
    EXPECT_EQ(result.signal, not_ended_by_signal);
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.out.find("bytes available"), std::string::npos);
    EXPECT_EQ(result.err, "");
  }
}

TEST_F(signals, a_quit_or_a_kill_ends_at_once) {
  make_files();
  const contents before = flash();
  for (const int signal : {SIGQUIT, SIGKILL}) {
    const ended result = run_program({"dir"}, {.at_call = 5, .signal = signal});
    EXPECT_EQ(result.signal, signal);
    EXPECT_EQ(result.out, "");
  }
  EXPECT_TRUE(flash() == before);
}

TEST_F(signals, before_and_after_the_run_they_are_as_they_were) {
  make_files();
  const ended result = run([](sim::chassis&) {
    EXPECT_EQ(program({"dir"}), 0);
    struct sigaction action;
    for (const int signal : ending_signals) {
      sigaction(signal, nullptr, &action);
      EXPECT_EQ(action.sa_handler, SIG_DFL);
    }
    return 0;
  });
  EXPECT_EQ(result.status, 0) << result.out;
}

TEST_F(signals, an_erase_finishes_its_sector) {
  for (const int signal : ending_signals) {
    std::memset(shared_->flash, 0, flash_bytes_used);
    // The flash is touched for the first time in the middle of the erase.
    const ended result = run([&](sim::chassis& chassis) {
      chassis.flash(ppc).set_source([&](size_t) {
        raise(signal);
        return shared_->flash;
      });
      return program({"erase", "2"});
    });
    EXPECT_EQ(result.signal, signal);
    contents expected(flash_bytes_used, 0);
    std::fill_n(expected.begin() + 2 * block_size_bytes, block_size_bytes, 0xFF);
    EXPECT_TRUE(flash() == expected);
  }
}

TEST_F(signals, a_dump_ends_between_two_lines) {
  const ended result = run([&](sim::chassis& chassis) {
    setvbuf(stdout, nullptr, _IONBF, 0);
    chassis.flash(ppc).set_source([&](size_t) {
      raise(SIGTERM);
      return shared_->flash;
    });
    return program({"aread", "20", "33554400"});
  });
  EXPECT_EQ(result.signal, SIGTERM);
  EXPECT_EQ(result.out, "");
}

TEST_F(signals, a_run_that_fails_half_way_ends_with_the_signal_too) {
  const auto failing_start = [](const planned_signals& planned) {
    return [planned](sim::chassis&) {
      registration_fails = true;
      plan = planned;
      return program({"dir"});
    };
  };
  const ended failed = run(failing_start({.times = 0}));
  EXPECT_EQ(failed.status, 1);
  EXPECT_EQ(failed.out, "");
  EXPECT_EQ(run(failing_start({.signal = SIGTERM})).signal, SIGTERM);
}

TEST_F(signals, without_the_null_device_nothing_is_begun) {
  const ended result = run([](sim::chassis& chassis) {
    close(STDOUT_FILENO);
    const rlimit no_files = {0, 0};
    setrlimit(RLIMIT_NOFILE, &no_files);
    const int status = program({"sizes"});
    return chassis.opens() == 0 ? status : 50;
  });
  EXPECT_EQ(result.status, 1);
}

// --- closed descriptors ---

TEST_F(signals, closed_outputs_become_the_null_device_and_a_closed_input_stays_closed) {
  struct stat null_device;
  ASSERT_EQ(stat("/dev/null", &null_device), 0);
  for (int closed = 0; closed < 8; ++closed) {
    const ended result = run([&](sim::chassis&) {
      const int first_free = dup(STDERR_FILENO);
      close(first_free);
      for (int fd = 0; fd < 3; ++fd) {
        if ((closed & (1 << fd)) != 0) {
          close(fd);
        }
      }
      (void)program({"sizes"});
      struct stat status;
      for (int fd = 0; fd < 3; ++fd) {
        const bool was_closed = (closed & (1 << fd)) != 0;
        const bool is_open = fstat(fd, &status) == 0;
        const bool expected =
            fd == 0 ? is_open != was_closed
                    : is_open && (!was_closed || status.st_rdev == null_device.st_rdev);
        if (!expected) {
          return 10 + fd;
        }
      }
      // Nothing else was left open.
      return open("/", O_RDONLY) == ((closed & 1) != 0 ? 0 : first_free) ? 0 : 20;
    });
    EXPECT_EQ(result.status, 0) << closed;
  }
}
