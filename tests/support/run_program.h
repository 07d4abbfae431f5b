// Runs a whole program and catches what it prints, for tests of the program as people run it. When
// ZANTROLUME_EMULATOR is defined (the name of a user-mode emulator), programs run under it.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace test_support {

struct program_result {
  int status = -1;  // exit status; 128 + the signal that ended it; -1 when it could not run
  bool timed_out = false;
  std::string out;
  std::string err;
};

struct program_call {
  std::string path;
  std::vector<std::string> arguments = {};              // without the program's name
  std::map<std::string, std::string> environment = {};  // added to the test's own
  std::string folder = {};                              // working folder; empty: the test's own
  int timeout_seconds = 120;
  bool is_of_the_host = false;  // a shell, say: never run by the emulator
};

program_result run_program(const program_call& call);

// A folder under the system's temporary folder that is removed, with what is in it, at the end.
class temporary_folder {
 public:
  temporary_folder();
  ~temporary_folder();
  temporary_folder(const temporary_folder&) = delete;
  temporary_folder& operator=(const temporary_folder&) = delete;
  const std::string& path() const {
    return path_;
  }
  std::string file(const std::string& name) const {
    return path_ + "/" + name;
  }

 private:
  std::string path_;
};

std::string read_whole_file(const std::string& path);
void write_whole_file(const std::string& path, const std::string& contents);

}  // namespace test_support
