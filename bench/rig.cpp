// The chassis, the mount and the bus floor. What is measured is in cases.cpp.
#include "bench/rig.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "flashfs/filemap.h"
#include "flashfs/flashfs.h"
#include "window/window.h"
#include "zantrolume/zantrolume_commands.h"
#include "zantrolume/zantrolume_cpld.h"

namespace bench {

namespace {

constexpr uint32_t piece_bytes = 65536;  // of one write call
constexpr uint32_t filling_file_bytes = 65536;
constexpr uint32_t filling_files_per_directory = 16;
// A flash sector that the file system does not use: the floor's erases go there.
constexpr uint32_t floor_sector = 255U << flash_sector_shift;
constexpr size_t calls_expected = 1U << 16;

// Text without a NUL or Ctrl-Z, so that printing a file goes to its end.
const std::string& text() {
  static const std::string bytes = [] {
    std::string made(piece_bytes, '\n');
    for (size_t i = 0; i < made.size(); ++i) {
      made[i] = i % 64 == 63 ? '\n' : static_cast<char>('!' + i * 7 % 90);
    }
    return made;
  }();
  return bytes;
}

void select_page(uint32_t address) {
  window_store32(vexmor_mapped_ptr, cpld_flash_page, address >> flash_page_shift);
}

void read_status() {
  if ((window_load32(vexmor_mapped_ptr, cpld_flash_status) & flash_status_bit) == 0) {
    fail("the simulated flash is not ready");
  }
}

void store_data(uint32_t offset, uint16_t value) {
  window_store16(vexmor_mapped_ptr, cpld_flash_access_selection + offset, value);
  read_status();
}

constexpr uint32_t in_page = (1U << flash_page_shift) - 1;

// One call of the driver, as the floor repeats it.
struct driver_call {
  enum class kind { read, write, erase } what;
  uint32_t offset;
  uint32_t length;
};

// What the operation that is measured has asked of the driver.
std::vector<driver_call> calls;
flash_driver_info product_driver;

flash_return_code noted_read(const void* handle, uint32_t offset, uint32_t length, void* buffer) {
  calls.push_back({driver_call::kind::read, offset, length});
  return product_driver.read(handle, offset, length, buffer);
}

flash_return_code noted_write(const void* handle, uint32_t offset, uint32_t length,
                              const void* buffer) {
  calls.push_back({driver_call::kind::write, offset, length});
  return product_driver.write(handle, offset, length, buffer);
}

flash_return_code noted_erase(const void* handle, uint32_t offset) {
  calls.push_back({driver_call::kind::erase, offset, 0});
  return product_driver.erase(handle, offset);
}

// Lets the mounted file system's calls be noted on their way to the driver.
void note_calls(flashfs* fs) {
  calls.clear();
  calls.reserve(calls_expected);
  if (fs->fdi[0].read != noted_read) {
    product_driver = fs->fdi[0];
    fs->fdi[0].read = noted_read;
    fs->fdi[0].write = noted_write;
    fs->fdi[0].erase = noted_erase;
  }
}

uint32_t floor_read(const driver_call& call) {
  uint32_t sum = 0;
  for (uint32_t address = call.offset; address < call.offset + call.length; address += 2) {
    select_page(address);
    sum += window_load16(vexmor_mapped_ptr, cpld_flash_access_selection + (address & in_page));
  }
  return sum;
}

// Programs ones, which change nothing.
void floor_program(const driver_call& call) {
  for (uint32_t address = call.offset; address < call.offset + call.length; address += 2) {
    select_page(0);
    store_data(0xAAA, 0xAA);
    store_data(0x554, 0x55);
    store_data(0xAAA, 0xA0);
    select_page(address);
    read_status();
    store_data(address & in_page, 0xFFFF);
  }
}

void floor_erase() {
  select_page(0);
  store_data(0xAAA, 0xAA);
  store_data(0x554, 0x55);
  store_data(0xAAA, 0x80);
  store_data(0xAAA, 0xAA);
  store_data(0x554, 0x55);
  select_page(floor_sector);
  store_data(0, 0x30);
}

void floor_of_calls() {
  uint32_t sum = 0;
  for (const driver_call& call : calls) {
    switch (call.what) {
      case driver_call::kind::read:
        sum += floor_read(call);
        break;
      case driver_call::kind::write:
        floor_program(call);
        break;
      case driver_call::kind::erase:
        floor_erase();
        break;
    }
  }
  // Somebody seems to look at what was read, so that the loops are not left out.
  asm volatile("" : : "r"(sum));
}

bool same_accesses(const sim::access_counts& a, const sim::access_counts& b) {
  return a.words_read == b.words_read && a.programs == b.programs && a.erases == b.erases &&
         a.status_reads == b.status_reads && a.page_writes == b.page_writes &&
         a.command_cycles == b.command_cycles;
}

}  // namespace

void fail(const std::string& what) {
  fprintf(stderr, "bench: %s (errno %d)\n", what.c_str(), errno);
  exit(EXIT_FAILURE);
}

int run_command(int (*command)(int argc, char* argv[]), const std::vector<std::string>& arguments) {
  std::vector<char*> argv;
  for (const std::string& argument : arguments) {
    argv.push_back(const_cast<char*>(argument.c_str()));
  }
  argv.push_back(nullptr);
  return command(static_cast<int>(arguments.size()), argv.data());
}

std::FILE* null_output() {
  static std::FILE* const null = std::fopen("/dev/null", "w");
  if (null == nullptr) {
    fail("cannot silence standard output");
  }
  return null;
}

rig::rig() {
  chassis_.clock_hold(clock_seconds);
  sim::install_chassis(&chassis_);
  cpld_flash_access_selection = cpld_data_window;
  flash_status_bit = 2;
  vexmor_mapped_ptr = chassis_.window_of(ppc);
}

void rig::make_new() {
  unmount();
  flash().fill_erased();
  mount();
}

void rig::unmount() {
  if (registered_) {
    flashfs* fs = flashfs_get_fsp("bootflash:");
    flashfs_clear_maps(fs);
    fs->random = 0;  // as a new run has it
  }
}

void rig::mount(uint32_t flags) {
  if (!registered_ && start_flashfs() != 1) {
    fail("cannot start the file system");
  }
  registered_ = true;
  if (files_.check(flags) != 0) {
    fail("cannot mount");
  }
}

void rig::make_directory(const std::string& path) {
  if (files_.mkdir(path) != 0) {
    fail("cannot make the directory " + path);
  }
}

void rig::write_file(const std::string& path, uint32_t bytes, uint32_t open_flags) {
  const volume::file opened = files_.open(path, open_flags);
  if (!opened) {
    fail("cannot open " + path);
  }
  for (uint32_t done = 0; done < bytes;) {
    const uint32_t piece = std::min(bytes - done, piece_bytes);
    if (opened.write({text().data(), piece}) != 0) {
      fail("cannot write " + path);
    }
    done += piece;
  }
}

void rig::create_file(const std::string& path, uint32_t bytes) {
  write_file(path, bytes, ifs_open_write | ifs_open_create);
}

void rig::fill(uint32_t percent) {
  const uint32_t files = usable_sectors * percent / 100 / (filling_file_bytes / sector_bytes);
  std::string directory;
  for (uint32_t i = 0; i < files; ++i) {
    if (i % filling_files_per_directory == 0) {
      directory = "fill" + std::to_string(i / filling_files_per_directory);
      make_directory(directory);
    }
    create_file(directory + "/file" + std::to_string(i), filling_file_bytes);
  }
}

double rig::processor_seconds() {
  timespec now;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

void rig::begin_noting() {
  note_calls(flashfs_get_fsp("bootflash:"));
}

double rig::run_floor(const sim::access_counts& counts) {
  chassis_.clear_counts();
  const double start = processor_seconds();
  floor_of_calls();
  const double seconds = processor_seconds() - start;
  if (!same_accesses(counts, chassis_.counts())) {
    fail("the floor's accesses are not those of the operation");
  }
  return seconds;
}

}  // namespace bench
