// Tests of flashfs-image on the flash of a complex, over a simulated chassis in the test's folder.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/image/image_command.h"

namespace test_support {

class chassis_command : public image_command {
 protected:
  static constexpr int power_cut = 3;  // status of a run whose power was cut

  // Complex 4 is erased, and the clock stands still.
  chassis_command();

  // Lines of chassis.txt.
  void set_chassis(const std::string& text) const;
  void set_flash(const std::string& bytes) const;
  void set_stored_flash(const std::string& name) const;
  std::string flash() const;
  // The number behind a word of the chassis's report.
  uint64_t reported(const std::string& word) const;
  // Copies that were saved.
  std::vector<std::string> backups() const;
  // Runs the program of the board.
  program_result zantrolume(const std::vector<std::string>& words) const;
  // Runs a shell's line in the folder, with $tool for the program.
  program_result shell(const std::string& line) const;
};

}  // namespace test_support
