// Which operations are measured, on what contents. Every case is made from nothing in a fixed way,
// so that its accesses are the same in every run.
#include "bench/cases.h"

#include <algorithm>
#include <compare>
#include <initializer_list>

#include "flashfs/check_flags.h"
#include "ifs/ifs.h"
#include "sim/flash.h"
#include "volume/files.h"
#include "zantrolume/zantrolume_commands.h"

namespace bench {

namespace {

constexpr double ratio_of_streams = 1.5;  // mounts, reads and sequential writes
constexpr double ratio_of_others = 2.5;

constexpr uint32_t percents[] = {1, 10, 50, 95};
constexpr uint32_t small_file_bytes = 1000;
constexpr uint32_t small_file_counts[] = {100, 1000, 5000, 10000};
constexpr uint32_t small_files_per_directory = 50;
constexpr uint32_t directories_per_directory = 20;
constexpr uint32_t directory_sizes[] = {20, 200, 1000, 2000};
constexpr uint32_t listing_sizes[] = {2, 20, 100, 200};

constexpr const char* large_name = "large";

// A path as the commands want it.
std::string on_device(const std::string& path) {
  return "bootflash:" + path;
}

uint32_t bytes_of_percent(uint32_t percent) {
  return usable_sectors * percent / 100 * sector_bytes;
}

std::string small_directory(uint32_t index) {
  return "t" + std::to_string(index / directories_per_directory) + "/m" +
         std::to_string(index % directories_per_directory);
}

std::string small_name(uint32_t index) {
  return small_directory(index / small_files_per_directory) + "/f" + std::to_string(index);
}

void make_small_directories(rig& on, uint32_t files) {
  for (uint32_t i = 0; i * small_files_per_directory < files; ++i) {
    if (i % directories_per_directory == 0) {
      on.make_directory("t" + std::to_string(i / directories_per_directory));
    }
    on.make_directory(small_directory(i));
  }
}

void write_small_files(rig& on, uint32_t files, uint32_t flags) {
  for (uint32_t i = 0; i < files; ++i) {
    on.write_file(small_name(i), small_file_bytes, flags);
  }
}

constexpr uint32_t create_flags = ifs_open_write | ifs_open_create;

void make_small_files(rig& on, uint32_t files) {
  make_small_directories(on, files);
  write_small_files(on, files, create_flags);
}

std::vector<std::string> small_arguments(const char* word, uint32_t files) {
  std::vector<std::string> arguments = {word};
  for (uint32_t i = 0; i < files; ++i) {
    arguments.push_back(on_device(small_name(i)));
  }
  return arguments;
}

void add_mounts(std::vector<bench_case>* cases) {
  for (const uint32_t percent : percents) {
    const std::string size = std::to_string(percent) + " %";
    const auto prepare = [percent](rig& on) { on.fill(percent); };
    cases->push_back({"mount, quick check", size, double(bytes_of_percent(percent)),
                      ratio_of_streams, 5, false, true, prepare,
                      [](rig& on) { on.mount(flashfs_check_quick); }});
    cases->push_back({"mount, full check", size, double(bytes_of_percent(percent)),
                      ratio_of_streams, 5, false, true, prepare,
                      [](rig& on) { on.mount(flashfs_check_full); }});
  }
}

void add_large_file(std::vector<bench_case>* cases) {
  for (const uint32_t percent : percents) {
    const uint32_t bytes = bytes_of_percent(percent);
    const std::string size = std::to_string(percent) + " %";
    const auto nothing = [](rig&) {};
    const auto create = [bytes](rig& on) { on.create_file(large_name, bytes); };
    cases->push_back({"read a large file", size, double(bytes), ratio_of_streams, 5, false, false,
                      create, [](rig&) {
                        run_command(cat_cmd, {"cat", on_device(large_name)});
                      }});
    cases->push_back({"write a large file", size, double(bytes), ratio_of_streams, 3, true, false,
                      nothing, create});
    cases->push_back({"overwrite a large file", size, double(bytes), ratio_of_streams, 3, true,
                      false, create,
                      [bytes](rig& on) { on.write_file(large_name, bytes, ifs_open_write); }});
    cases->push_back({"remove a large file", size, double(bytes), ratio_of_others, 3, true, false,
                      create, [](rig&) {
                        run_command(delete_cmd, {"delete", on_device(large_name)});
                      }});
  }
}

void add_small_files(std::vector<bench_case>* cases) {
  for (const uint32_t files : small_file_counts) {
    const std::string size = std::to_string(files);
    const auto directories = [files](rig& on) { make_small_directories(on, files); };
    const auto create = [files](rig& on) { make_small_files(on, files); };
    cases->push_back({"mount of small files", size, double(files), ratio_of_streams, 5, false, true,
                      create, [](rig& on) { on.mount(flashfs_check_quick); }});
    cases->push_back(
        {"read small files", size, double(files), ratio_of_streams, 5, false, false, create,
         [arguments = small_arguments("cat", files)](rig&) { run_command(cat_cmd, arguments); }});
    cases->push_back({"write small files", size, double(files), ratio_of_streams, 2, true, false,
                      directories,
                      [files](rig& on) { write_small_files(on, files, create_flags); }});
    cases->push_back({"overwrite small files", size, double(files), ratio_of_streams, 2, true,
                      false, create,
                      [files](rig& on) { write_small_files(on, files, ifs_open_write); }});
    cases->push_back({"remove small files", size, double(files), ratio_of_others, 2, true, false,
                      create, [arguments = small_arguments("delete", files)](rig&) {
                        run_command(delete_cmd, arguments);
                      }});
  }
}

// SplitMix64.
uint64_t next_random(uint64_t* state) {
  *state += 0x9E3779B97F4A7C15;
  uint64_t mixed = *state;
  mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9;
  mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EB;
  return mixed ^ (mixed >> 31);
}

void overwrite_at_random(rig& on, uint32_t times, uint32_t file_bytes) {
  constexpr uint32_t piece = 512;
  std::string bytes(piece, '\0');
  bytes[0] = 1;
  const volume::file opened = on.files().open(large_name, ifs_open_write);
  uint64_t state = 1;
  for (uint32_t i = 0; i < times; ++i) {
    const auto offset = static_cast<int32_t>(next_random(&state) % (file_bytes - piece));
    if (opened.seek(offset) != offset || opened.write(bytes) != 0) {
      fail("cannot overwrite");
    }
  }
}

// The device is worn in first: otherwise the first overwrites find sectors that were never used.
void add_random_overwrites(std::vector<bench_case>* cases) {
  const uint32_t bytes = bytes_of_percent(90);
  const auto worn_in = [bytes](rig& on) {
    on.create_file(large_name, bytes);
    overwrite_at_random(on, 3000, bytes);
  };
  for (const uint32_t times : {100U, 1000U, 10000U}) {
    cases->push_back({"random overwrites, 90 % full", std::to_string(times), double(times),
                      ratio_of_others, 1, true, false, worn_in,
                      [bytes, times](rig& on) { overwrite_at_random(on, times, bytes); }});
  }
}

void add_status(std::vector<bench_case>* cases) {
  constexpr int calls = 100;
  for (const uint32_t percent : percents) {
    cases->push_back({"statfs (100 calls)", std::to_string(percent) + " %",
                      double(bytes_of_percent(percent)), ratio_of_others, 20, false, false,
                      [percent](rig& on) { on.fill(percent); },
                      [](rig& on) {
                        for (int i = 0; i < calls; ++i) {
                          ppc_statfs status;
                          if (on.files().statfs(&status) != 0) {
                            fail("cannot tell the space");
                          }
                        }
                      }});
  }
}

void make_one_directory(rig& on, uint32_t entries) {
  on.make_directory("one");
  for (uint32_t i = 0; i < entries; ++i) {
    on.create_file("one/f" + std::to_string(i), 0);
  }
}

void add_directory(std::vector<bench_case>* cases) {
  constexpr uint32_t opens = 100;
  for (const uint32_t entries : directory_sizes) {
    cases->push_back({"open in a directory (100 opens)", std::to_string(entries) + " entries",
                      double(entries), ratio_of_others, 5, false, false,
                      [entries](rig& on) { make_one_directory(on, entries); },
                      [entries](rig& on) {
                        for (uint32_t i = 0; i < opens; ++i) {
                          const std::string name = "one/f" + std::to_string(i * entries / opens);
                          if (!on.files().open(name, ifs_open_read)) {
                            fail("cannot open " + name);
                          }
                        }
                      }});
  }
  for (const uint32_t entries : listing_sizes) {
    cases->push_back({"dir", std::to_string(entries) + " entries", double(entries), ratio_of_others,
                      20, false, false,
                      [entries](rig& on) {
                        for (uint32_t i = 0; i < entries; ++i) {
                          on.create_file("f" + std::to_string(i), small_file_bytes);
                        }
                      },
                      [](rig&) {
                        run_command(dir_cmd, {"dir", "bootflash:"});
                      }});
  }
}

}  // namespace

std::vector<bench_case> all_cases() {
  std::vector<bench_case> cases;
  add_mounts(&cases);
  add_large_file(&cases);
  add_small_files(&cases);
  add_random_overwrites(&cases);
  add_status(&cases);
  add_directory(&cases);
  std::stable_sort(cases.begin(), cases.end(), [](const bench_case& a, const bench_case& b) {
    return a.operation < b.operation;
  });
  return cases;
}

prepared_case::prepared_case(rig& on, const bench_case& what) : rig_(on), case_(what) {
  const quiet silence;
  rig_.make_new();
  case_.prepare(rig_);
  rig_.unmount();
  rig_.mount();
  if (case_.changes_flash) {
    snapshot_ = rig_.flash().snapshot();
  }
}

measurement prepared_case::run_once() {
  const quiet silence;
  if (!fresh_ && case_.changes_flash) {
    rig_.unmount();
    rig_.flash().restore(snapshot_);
    rig_.mount();
  }
  fresh_ = false;
  if (case_.mounts) {
    rig_.unmount();
  }
  return rig_.measure([this] { case_.run(rig_); });
}

}  // namespace bench
