// The chassis of a test, and the programs over it.
#include "tests/image/chassis_command.h"

#include <filesystem>
#include <map>
#include <sstream>

#include "tests/support/stored_image.h"

namespace test_support {

chassis_command::chassis_command() {
  program_ = FLASHFS_IMAGE_SIM_PROGRAM;
  std::filesystem::create_directory(file("chassis"));
  environment_["ZANTROLUME_CHASSIS"] = file("chassis");
  set_chassis("");
}

void chassis_command::set_chassis(const std::string& text) const {
  write_whole_file(file("chassis/chassis.txt"), "clock 1800000000\n" + text);
}

void chassis_command::set_stored_flash(const std::string& name) const {
  unpack_stored_image(name, file("chassis/ppc4.flash"));
}

void chassis_command::set_flash(const std::string& bytes) const {
  write_whole_file(file("chassis/ppc4.flash"), bytes);
}

std::string chassis_command::flash() const {
  return contents("chassis/ppc4.flash");
}

uint64_t chassis_command::reported(const std::string& word) const {
  std::istringstream words(contents("chassis/report.txt"));
  for (std::string next; words >> next;) {
    uint64_t value = 0;
    if (next == word && words >> value) {
      return value;
    }
  }
  ADD_FAILURE() << "no " << word << " in the report";
  return 0;
}

std::vector<std::string> chassis_command::backups() const {
  std::vector<std::string> found;
  for (const std::string& name : names()) {
    if (name.starts_with("ppc4-")) {
      found.push_back(name);
    }
  }
  return found;
}

program_result chassis_command::zantrolume(const std::vector<std::string>& words) const {
  return run_program(
      {.path = ZANTROLUME_SIM_PROGRAM, .arguments = words, .environment = environment_});
}

program_result chassis_command::shell(const std::string& line) const {
  std::map<std::string, std::string> environment = environment_;
  environment["tool"] = emulator() + " " + program_;
  return run_program({.path = "/bin/sh",
                      .arguments = {"-c", "cd '" + file("") + "'; " + line},
                      .environment = environment,
                      .is_of_the_host = true});
}

}  // namespace test_support
