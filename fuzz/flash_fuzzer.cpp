// Fuzzes the file system with hostile flash: the input is a recipe for a small flash of good and
// damaged records, and for what is then done with it. Checksums are right where the recipe says so,
// so that the code behind them is reached.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "flashfs/check_flags.h"
#include "flashfs/control_codes.h"
#include "flashfs/file.h"
#include "flashfs/flashfs.h"
#include "fuzz/hostile_flash.h"
#include "fuzz/input_bytes.h"
#include "reliability/rig.h"
#include "sim/chassis.h"
#include "tests/support/image_builder.h"
#include "tests/support/ram_flash.h"
#include "volume/files.h"
#include "volume/volume.h"

namespace {

using reliability::rig;
using test_support::image_builder;

constexpr int64_t standing_clock = 1800000000;
constexpr int max_operations = 24;
// Transfers are cut to this: a hole of gigabytes is no more work for the code than one of sectors.
constexpr uint32_t max_position = 40000;

void require(bool holds, const char* what) {
  if (!holds) {
    fprintf(stderr, "broken: %s\n", what);
    abort();
  }
}

std::string interesting_path(input_bytes& input, const reliability::tree& known) {
  const uint32_t choice = input.below(4);
  if (choice <= 1 && !known.empty()) {
    auto found = known.begin();
    std::advance(found, input.byte() % known.size());
    return choice == 0 ? found->first : found->first + "/" + interesting_name(input);
  }
  return choice == 2 ? interesting_name(input) : input.text(200);
}

// Any answer will do: what counts is the state afterwards. The same holds for the paths below.
void use_descriptor(input_bytes& input, rig& flash, int32_t fd) {
  std::vector<uint8_t> buffer(input.word() % 6000);
  uint32_t argument = input.word() % max_position;
  flashfs_file_info info;
  flashfs_file_name name;
  ppc_stat status;
  (void)ifs_lseek(fd, input.word() % static_cast<int>(max_position),
                  static_cast<int>(input.below(3)));
  (void)ifs_write(fd, buffer.data(), static_cast<uint32_t>(buffer.size()));
  (void)ifs_lseek(fd, 0, ifs_seek_set);
  (void)ifs_read(fd, buffer.data(), static_cast<uint32_t>(buffer.size()));
  (void)ifs_getdents(fd, buffer.data(), static_cast<uint32_t>(buffer.size()));
  (void)ifs_fstat(fd, &status);
  (void)ifs_fioctl(fd, flashfs_fioctl_path_and_size, &info);
  (void)ifs_fioctl(fd, flashfs_fioctl_name, &name);
  (void)ifs_fioctl(fd, flashfs_fioctl_verify, nullptr);
  if (input.below(2) == 0) {
    (void)ifs_fioctl(fd, flashfs_fioctl_truncate, &argument);
  }
  ifs_close(fd);
  require(flash.fs()->sctr_bufs_allocated == 0, "a sector buffer is out");
}

void dump_everything(input_bytes& input, rig& flash) {
  flashfs_dump_file_map(flash.fs());
  flashfs_dump_file_list_lock(flash.fs(), interesting_word(input));
  const auto block = static_cast<int16_t>(interesting_word(input));
  flashfs_dump_sctr(flash.fs(), block, interesting_word(input));
  flashfs_dump_slot(flash.fs(), block, interesting_word(input), input.byte());
}

void operate(input_bytes& input, rig& flash, const reliability::tree& known) {
  const std::string path = flash.files().full_path(interesting_path(input, known));
  constexpr uint32_t both = ifs_open_read | ifs_open_write;
  constexpr uint32_t flags[] = {
      ifs_open_read,
      ifs_open_write,
      both,
      ifs_open_write | ifs_open_create,
      both | ifs_open_create | ifs_open_append,
      volume::open_anew,
      volume::open_anew | ifs_open_exclusive,
      volume::open_anew | ifs_open_append,
  };
  ppc_statfs space;
  ppc_stat status;
  uint32_t argument = 0;
  switch (input.below(12)) {
    case 0:
    case 1:
    case 2:
      if (const int32_t fd = ifs_open(path.c_str(), flags[input.below(8)], input.word()); fd >= 0) {
        use_descriptor(input, flash, fd);
      }
      break;
    case 3:
      (void)ifs_remove(path.c_str());
      break;
    case 4:
      (void)ifs_rename(path.c_str(),
                       flash.files().full_path(interesting_path(input, known)).c_str());
      break;
    case 5:
      (void)ifs_mkdir(path.c_str(), input.word());
      break;
    case 6:
      (void)ifs_rmdir(path.c_str());
      break;
    case 7:
      (void)ifs_chmod(path.c_str(), input.word());
      break;
    case 8:
      (void)ifs_stat(path.c_str(), &status);
      (void)ifs_statfs(path.c_str(), &space);
      (void)ifs_istat(path.c_str(), interesting_word(input), &status);
      (void)ifs_ioctl(path.c_str(), flashfs_ioctl_verify, nullptr);
      (void)ifs_ioctl(path.c_str(), flashfs_ioctl_highest_fileid, &argument);
      break;
    case 9:
      dump_everything(input, flash);
      break;
    case 10:
      if (const int32_t fd = flashfs_vctr_open_by_fileid(flash.fs()->fsid, 0,
                                                         interesting_word(input), ifs_open_read, 0);
          fd >= 0) {
        ifs_open_file_increment(flash.fs()->fsid);
        use_descriptor(input, flash, fd);
      }
      break;
    default:
      flash.check(input.below(4));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  sim::chassis chassis;
  chassis.clock_hold(standing_clock);
  sim::install_chassis(&chassis);
  {
    input_bytes input(data, size);
    rig flash(hostile_geometry(input));
    image_builder image(flash.device());
    hostile_records(input, image);
    int32_t mounted = flash.mount(input.below(4));
    const uint32_t operations = 1 + input.below(max_operations);
    for (uint32_t i = 0; i < operations && !input.empty(); i++) {
      const reliability::tree known = mounted == 0 ? flash.walk() : reliability::tree{};
      operate(input, flash, known);
      require(flash.fs()->sctr_bufs_allocated == 0, "a sector buffer is out");
      if (flash.fs()->ready == 0) {
        mounted = flash.mount(input.below(4));
      }
    }
    if (flash.mount(flashfs_check_full) == 0) {
      flash.walk();
    }
  }
  sim::install_chassis(nullptr);
  return 0;
}
