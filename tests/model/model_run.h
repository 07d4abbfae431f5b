// Plays steps on the real file system over flashes in memory and on the model, and compares them
// after every step.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "flashfs/flashfs.h"
#include "sim/chassis.h"
#include "sim/power.h"
#include "tests/model/fs_model.h"
#include "tests/model/model_operation.h"
#include "tests/support/change_record.h"
#include "tests/support/output_capture.h"
#include "tests/support/ram_flash.h"
#include "volume/volume.h"

namespace model_test {

// The erase blocks of one or two devices.
struct geometry {
  const char* name;
  std::vector<test_support::ram_block> device_0;
  std::vector<test_support::ram_block> device_1;
  // A block of no sectors can be brought into service in vain, which ends a collection early.
  bool has_empty_blocks = false;
  // Steps between two comparisons of everything on flash, and of the maps.
  int steps_per_comparison = 20;
  int steps_per_map_comparison = 1;
};

// What happened in the runs of a test.
struct run_counts {
  uint64_t steps = 0;
  uint64_t successes = 0;                     // calls that did not fail
  std::map<std::string, uint64_t> no_space;   // answers of ENOSPC, by operation
  std::map<std::string, uint64_t> went_down;  // for want of space, by operation
  uint64_t short_writes = 0;
  uint64_t fresh_mounts = 0;
  uint64_t erases = 0;
};

class model_run {
 public:
  // An erased device, mounted.
  model_run(const geometry& shape, run_counts* counts);
  ~model_run();
  model_run(const model_run&) = delete;
  model_run& operator=(const model_run&) = delete;

  // False when the file system differs from the model; `failure` says how.
  bool play(const step& one);
  // What every sequence must end with: nothing out, no deviation, and fresh mounts, quick and full,
  // that find the same and change nothing.
  bool finish();

  const std::string& failure() const {
    return failure_;
  }
  const fs_model& model() const {
    return *model_;
  }
  // What the steps since the last call (or the beginning) changed on flash, answered and printed,
  // and what stands in memory now, as a row of text.
  std::string take_changes();
  // The same for a look in between, memory left out.
  std::string changes_so_far() const {
    return record_.text();
  }

 private:
  bool fail(const std::string& what);
  bool dispatch(const step& one);
  bool play_on_descriptor(const step& one);
  bool play_on_path(const step& one);

  bool play_open(const step& one);
  bool play_read(const step& one);
  bool play_raw_read(const step& one);
  bool play_write(const step& one);
  bool play_getdents(const step& one);
  bool play_status(const step& one);
  bool play_statfs(const step& one);
  bool play_file_info(const step& one);
  bool play_check(uint32_t flags);
  bool play_format(const step& one);
  bool play_remount(uint32_t flags);
  bool play_raw_copy(uint32_t chunk);
  bool raw_copy(uint32_t chunk);

  seen_result seen(int32_t result, uint32_t handle = handle_count);
  bool expect(const seen_result& seen, const expected_result& expected);
  // Whether exactly these lines were printed, besides the markers of writes and erases.
  bool expect_output(const std::vector<std::string>& lines);
  bool expect_check_output(uint32_t flags, bool settles);

  std::string take_output();
  int32_t fd_of(uint32_t handle) const;
  bool mount(uint32_t flags);
  void drop_state();
  bool settle(bool quick);
  std::vector<std::vector<uint8_t>> snapshot();
  bool expect_unchanged(const std::vector<std::vector<uint8_t>>& before, const char* by);
  std::vector<uint8_t> image();

  // model_compare.cpp
  bool compare_maps();
  bool compare_space();
  bool compare_flash();
  bool compare_slot(const model_entry& entry);
  bool compare_sectors(const model_entry& entry);
  bool compare_through_switch();
  const flashfs_sector* on_flash(flashfs_sctr_ptr pointer);
  sector_list sectors_on_flash(uint16_t fileid);
  uint8_t state_on_flash(int16_t block_num);

  const geometry& shape_;
  run_counts* counts_;
  sim::chassis clock_;
  sim::power supply_;
  std::vector<std::unique_ptr<test_support::ram_flash>> devices_;
  test_support::change_record record_;
  test_support::output_capture output_;
  std::unique_ptr<fs_model> model_;
  volume::file_system files_;
  flashfs* fs_ = nullptr;
  uint32_t now_ = 1800000000;
  uint64_t played_ = 0;
  step_kind current_ = step_kind::compare;
  std::string failure_;
};

// Whether two status records agree in all that the model knows.
std::string difference(const ppc_stat& actual, const ppc_stat& expected);

}  // namespace model_test
