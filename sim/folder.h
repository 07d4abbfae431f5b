// The chassis folder: a simulated chassis that lasts from one run of the program to the next. It
// holds a text file, chassis.txt, and one 32 MiB image per complex, ppc3.flash to ppc8.flash,
// mapped shared so that a killed process loses nothing that it had programmed. A missing image is
// made, erased, when its flash is first touched.
//
// A run takes the device by locking .lock1 (complexes 3 to 5) or .lock2 (6 to 8), before it makes
// or maps an image, and has it until its process ends. The files are made when missing and stay.
//
// Lines of chassis.txt ('#' begins a comment):
//   running <ppc>...              these complexes run; the others are held in reset
//   clock <seconds>               the clock stands still at this time (seconds since the epoch)
//   ready <ppc> never [<cycles>]  the ready bit never rises, or not again after so many cycles
//   ready <ppc> low <reads>       each cycle keeps it low for so many reads of the status
//   cut <ppc> <kind> <n> [<seed>] the n-th program or erase of a run cuts the power: kind before,
//                                 during, during-noise or after; the process ends with status 3
//   fail open|map <errno>         opening or mapping the device fails
//   report                        the run writes its counts to report.txt when it ends
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "sim/chassis.h"
#include "sim/power.h"

namespace sim {

constexpr int folder_error_status = 2;  // exit status for a folder that cannot be used
constexpr int power_cut_status = 3;     // exit status of a run whose power was cut

constexpr size_t longest_settings = 65536;  // bytes of chassis.txt

// What chassis.txt says.
struct folder_settings {
  struct complex_settings {
    bool running = false;
    bool ready_never = false;
    uint64_t cycles_until_never = 0;
    uint32_t ready_low = 0;
    uint64_t cut_mutation = 0;  // 0: none
    cut_kind kind = cut_kind::before;
    uint64_t seed = 1;
  };
  complex_settings complexes[ppc_count];
  bool clock_held = false;
  int64_t clock_seconds = 0;
  int open_error = 0;
  int map_error = 0;
  bool report = false;
};

// Parses the text of a chassis.txt; `name` is the file's name for errors. Returns an empty string,
// or the error.
[[nodiscard]] std::string parse_settings(const std::string& text, const std::string& name,
                                         folder_settings* settings);

// Checks the folder and reads its text file; changes nothing. Returns an empty string, or the
// error.
[[nodiscard]] std::string read_folder(const std::string& folder, folder_settings* settings);

// The folder's chassis; it must have been read before. A flash file that cannot be made or mapped
// later ends the process with status 2.
class folder_chassis {
 public:
  folder_chassis(const std::string& folder, const folder_settings& settings);
  ~folder_chassis();
  folder_chassis(const folder_chassis&) = delete;
  folder_chassis& operator=(const folder_chassis&) = delete;

  chassis& get() {
    return chassis_;
  }
  // Writes report.txt when the settings ask for it. Returns an empty string, or the error.
  [[nodiscard]] std::string report() const;

 private:
  uint8_t* map_flash(int ppc, size_t size);
  int lock_node(int node, bool wait);
  void remove_unfinished(int node) const;

  std::string folder_;
  bool report_;
  power supplies_[ppc_count];  // one for each complex: a cut concerns one of them
  int locks_[node_count];      // descriptors of the lock files; -1: not opened
  void* mappings_[ppc_count] = {};
  chassis chassis_;
};

// The chassis of the folder that the environment names (ZANTROLUME_CHASSIS, else ./chassis), made
// at the first call. Ends the process with status 2 after one line on standard error when the
// folder cannot be used.
chassis* environment_chassis();
// The installed chassis; without one that of the environment, which is installed then.
chassis& chassis_in_use();

}  // namespace sim
