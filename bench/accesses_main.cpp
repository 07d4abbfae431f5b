// Counts what pieces of work read and program below a driver in memory, in bytes, and compares it
// with what is written down: `read` and `programmed` are what the driver is asked for and handed,
// `changes` what differs on flash afterwards. Beside what holds now stands what held when every
// record was read and programmed whole.
//
//   bench_accesses <file>                       compares; exit status 1 when a row differs
//   bench_accesses <file> --smallest            leaves out what takes long under an emulator
//   bench_accesses <file> [--smallest] --write  writes what holds now into the rows of the file
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <sstream>  // IWYU pragma: keep
#include <string>
#include <string_view>
#include <vector>

#include "bench/rig.h"
#include "flashfs/check_flags.h"
#include "sim/chassis.h"
#include "tests/support/image_builder.h"
#include "tests/support/ram_flash.h"
#include "volume/volume.h"

namespace {

constexpr uint32_t piece_bytes = 65536;  // of one write call
constexpr uint32_t file_bytes = 10000;
constexpr uint32_t small_file_bytes = 1000;
constexpr int some_files = 200;
constexpr int blocks_in_use = 215;
constexpr int sectors_of_block = 63;
constexpr int slots_of_sector = 32;
constexpr const char* unknown = "unknown";

void check(bool good, const std::string& what) {
  if (!good) {
    bench::fail(what);
  }
}

// The device of one complex in memory, and the file system on it.
class device {
 public:
  device() {
    chassis_.clock_hold(bench::clock_seconds);
    sim::install_chassis(&chassis_);
  }
  ~device() {
    files_.detach();
    sim::install_chassis(nullptr);
  }
  device(const device&) = delete;
  device& operator=(const device&) = delete;

  // Forgets what is in memory; the next mount reads it from flash.
  void unmount() {
    files_.detach();
    check(files_.attach({{flash_.driver(), flash_.handle()}}) >= 0, "cannot attach");
  }
  void mount() {
    check(files_.check(flashfs_check_quick) == 0, "cannot mount");
  }
  // In pieces of 64 KiB.
  void write(const std::string& path, uint32_t bytes, uint32_t open_flags) {
    const volume::file opened = files_.open(path, open_flags);
    check(static_cast<bool>(opened), "cannot open " + path);
    for (uint32_t done = 0; done < bytes; done += piece_bytes) {
      const uint32_t piece = std::min(bytes - done, piece_bytes);
      check(opened.write({text().data(), piece}) == 0, "cannot write " + path);
    }
  }
  test_support::ram_flash& flash() {
    return flash_;
  }
  const volume::files& files() const {
    return files_;
  }

 private:
  static const std::string& text() {
    static const std::string all = [] {
      std::string made(piece_bytes, '\0');
      for (size_t i = 0; i < made.size(); ++i) {
        made[i] = static_cast<char>('!' + i * 7 % 90);
      }
      return made;
    }();
    return all;
  }

  sim::chassis chassis_;
  test_support::ram_flash flash_{test_support::ram_blocks_of_ppc()};
  volume::file_system files_;
};

constexpr uint32_t create_flags = ifs_open_write | ifs_open_create;

// The flash is mounted before it is prepared.
enum class mounted {
  once,       // and no more
  again,      // and again before the work
  as_counted  // and again as a part of the work
};

struct workload {
  std::string name;
  bool is_long;
  mounted how;
  std::function<void(device&)> prepare;  // on an erased device
  std::function<void(device&)> run;
};

std::string name_of(int number) {
  return "file" + std::to_string(number);
}

void write_files(device& on, int count, uint32_t bytes, uint32_t open_flags) {
  for (int i = 0; i < count; i++) {
    on.write(name_of(i), bytes, open_flags);
  }
}

void write_some_files(device& on) {
  write_files(on, some_files, file_bytes, create_flags);
}

void nothing(device&) {}

void read_in_pieces(device& on, const std::string& path, uint32_t piece) {
  std::string buffer(piece, '\0');
  const volume::file opened = on.files().open(path, ifs_open_read);
  check(static_cast<bool>(opened), "cannot open " + path);
  int32_t got = 0;
  while ((got = opened.read(buffer.data(), piece)) > 0) {
  }
  check(got == 0, "cannot read " + path);
}

void list_with_status(device& on) {
  std::vector<volume::entry> found;
  check(on.files().list("", &found) == 0 && !found.empty(), "cannot list");
}

void add_mounts(std::vector<workload>* all) {
  constexpr int full = 422;
  constexpr uint32_t filling_file_bytes = 65536;
  all->push_back({"quick mount, 422 files of 64 KiB", true, mounted::as_counted,
                  [](device& on) { write_files(on, full, filling_file_bytes, create_flags); },
                  nothing});
  all->push_back({"quick mount, 200 files of 10,000 bytes", false, mounted::as_counted,
                  write_some_files, nothing});
}

// One after the other on the same flash, mounted once.
void make_large_file(device& on) {
  write_some_files(on);
  on.write("large", 1U << 20, create_flags);
}

void overwrite_one(device& on) {
  for (int i = 0; i < 1000; i++) {
    on.write(name_of(7), file_bytes, volume::open_anew);
  }
}

void remove_one(device& on) {
  check(on.files().remove(name_of(8)) == 0, "cannot remove");
}

void rename_one(device& on) {
  check(on.files().rename(name_of(9), "renamed") == 0, "cannot rename");
}

void prepare_for_removal(device& on) {
  make_large_file(on);
  overwrite_one(on);
}

void prepare_for_rename(device& on) {
  prepare_for_removal(on);
  remove_one(on);
}

void add_work_on_files(std::vector<workload>* all) {
  all->push_back({"list these 200 with their status", false, mounted::again, write_some_files,
                  list_with_status});
  all->push_back({"write these 200 files", false, mounted::once, nothing, write_some_files});
  all->push_back(
      {"overwrite one of them 1,000 times", false, mounted::once, make_large_file, overwrite_one});
  all->push_back({"remove one of them", false, mounted::once, prepare_for_removal, remove_one});
  all->push_back({"rename one of them", false, mounted::once, prepare_for_rename, rename_one});
  all->push_back({"read 1 MiB in pieces of 512", false, mounted::once, make_large_file,
                  [](device& on) { read_in_pieces(on, "large", 512); }});
}

// In one directory.
void add_small_files(std::vector<workload>* all, int count) {
  const std::string many = std::to_string(count) + " files of 1,000 bytes";
  const bool is_long = count > 1000;
  const auto create = [count](device& on) {
    write_files(on, count, small_file_bytes, create_flags);
  };
  all->push_back({"write " + many, is_long, mounted::once, nothing, create});
  all->push_back({"overwrite " + many, is_long, mounted::again, create, [count](device& on) {
                    write_files(on, count, small_file_bytes, ifs_open_write);
                  }});
  all->push_back({"read " + many, is_long, mounted::again, create, [count](device& on) {
                    for (int i = 0; i < count; i++) {
                      read_in_pieces(on, name_of(i), small_file_bytes);
                    }
                  }});
  all->push_back({"remove " + many, is_long, mounted::again, create, [count](device& on) {
                    for (int i = 0; i < count; i++) {
                      check(on.files().remove(name_of(i)) == 0, "cannot remove");
                    }
                  }});
}

// Directory sectors only, each slot a name in the root. There are more slots than numbers and file
// ids: seven share each of these, of which the check at the mount keeps one.
void write_slots(device& on, int sectors) {
  const int slots = sectors * slots_of_sector;
  const int entries = slots / 7;
  test_support::image_builder image(on.flash());
  image.headers(blocks_in_use);
  for (int i = 0; i < slots; i++) {
    test_support::image_slot slot;
    slot.seq_no = static_cast<uint16_t>(i % entries);
    slot.entry_fileid = static_cast<uint16_t>(1 + i % entries);
    slot.mode = i % entries == 0 ? 0x4600 : 0x8700;
    slot.name = i % entries == 0 ? "" : name_of(i);
    const int sector = i / slots_of_sector;
    image.slot(sector / sectors_of_block, sector % sectors_of_block, i % slots_of_sector, slot);
  }
}

void add_full_directories(std::vector<workload>* all) {
  constexpr int all_sectors = blocks_in_use * sectors_of_block;
  for (const int sectors : {all_sectors / 10, all_sectors}) {
    all->push_back({"dir of a flash with " + std::to_string(sectors * slots_of_sector) + " slots",
                    true, mounted::as_counted, [sectors](device& on) { write_slots(on, sectors); },
                    list_with_status});
  }
}

std::vector<workload> workloads() {
  std::vector<workload> all;
  add_mounts(&all);
  add_work_on_files(&all);
  for (const int count : {1000, 10000}) {
    add_small_files(&all, count);
  }
  add_full_directories(&all);
  return all;
}

std::string counts_of(const workload& work) {
  const bench::quiet silence;
  device on;
  on.unmount();
  on.mount();
  work.prepare(on);
  if (work.how != mounted::once) {
    on.unmount();
  }
  if (work.how == mounted::again) {
    on.mount();
  }
  on.flash().clear_counts();
  if (work.how == mounted::as_counted) {
    on.mount();
  }
  work.run(on);
  check(on.flash().deviations() == 0, "the flash was driven wrongly");
  const test_support::ram_flash_counts& counts = on.flash().counts();
  return "read " + std::to_string(counts.bytes_read) + ", programmed " +
         std::to_string(counts.bytes_programmed) + ", changes " +
         std::to_string(2 * counts.words_programmed);
}

// What is written down of one piece of work: "NAME; before: COUNTS; now: COUNTS".
struct row {
  std::string before = unknown;
  std::string now = unknown;
};

std::map<std::string, row> read_rows(const char* path) {
  constexpr std::string_view before_word = "; before: ";
  constexpr std::string_view now_word = "; now: ";
  std::map<std::string, row> rows;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    const size_t before = line.find(before_word);
    const size_t now = line.find(now_word);
    check(before < now && now != std::string::npos, "no row of counts: " + line);
    const size_t from = before + before_word.size();
    rows[line.substr(0, before)] = {line.substr(from, now - from),
                                    line.substr(now + now_word.size())};
  }
  return rows;
}

void write_rows(const char* path, const std::map<std::string, row>& rows) {
  std::ofstream file(path);
  for (const workload& work : workloads()) {
    const row& counts = rows.at(work.name);
    file << work.name << "; before: " << counts.before << "; now: " << counts.now << "\n";
  }
  check(file.good(), std::string("cannot write ") + path);
}

// True when none differs.
bool compare(const std::string& name, const row& expected, const std::string& found) {
  if (expected.now == found) {
    return true;
  }
  std::cout << "- " << name << ": " << expected.now << "\n+ " << name << ": " << found << "\n";
  return false;
}

}  // namespace

int main(int argc, char* argv[]) {
  bool smallest = false;
  bool write = false;
  for (int i = 2; i < argc; i++) {
    smallest = smallest || argv[i] == std::string("--smallest");
    write = write || argv[i] == std::string("--write");
  }
  if (argc < 2 || argc != 2 + (smallest ? 1 : 0) + (write ? 1 : 0)) {
    std::cerr << "usage: bench_accesses <file> [--smallest] [--write]\n";
    return 2;
  }
  std::map<std::string, row> rows = read_rows(argv[1]);
  bool good = true;
  for (const workload& work : workloads()) {
    row& counts = rows[work.name];
    if (smallest && work.is_long) {
      continue;
    }
    const std::string found = counts_of(work);
    if (write) {
      counts.now = found;
      counts.before = counts.before == unknown ? found : counts.before;
    } else {
      good = compare(work.name, counts, found) && good;
    }
  }
  if (write) {
    write_rows(argv[1], rows);
  }
  return good ? 0 : 1;
}
