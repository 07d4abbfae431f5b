// The command line of flashfs-image: what a command says of itself, and the parsing. The library
// that does it is seen by options.cpp alone.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "image/exit_status.h"
#include "image/globals.h"

namespace CLI {
class App;
}

namespace image {

class report;

// Takes the options and words of one command. Names are "-r", "--force" or "-r,--recursive"; words
// are met in the order in which they are given here.
class arguments {
 public:
  explicit arguments(CLI::App& app) : app_(app) {}

  void flag(const char* names, bool* value, const char* help);
  // `value_name` stands for the value in the help.
  void option(const char* names, const char* value_name, std::string* value, const char* help);
  void option(const char* names, const char* value_name, std::optional<uint32_t>* value,
              const char* help);
  void required_option(const char* names, const char* value_name, std::optional<uint32_t>* value,
                       const char* help);
  void word(const char* name, std::string* value, const char* help);
  void optional_word(const char* name, std::string* value, const char* help);
  // One or more; a list that may be empty.
  void words(const char* name, std::vector<std::string>* values, const char* help);
  void optional_words(const char* name, std::vector<std::string>* values, const char* help);

 private:
  CLI::App& app_;
};

struct command {
  const char* name;
  const char* summary;
  const char* example;  // command lines, each on a line of its own
  std::function<void(arguments&)> add_arguments;
  std::function<void(const globals&, report&)> run;
};

struct parsed_line {
  const command* chosen = nullptr;  // null: the run ends here
  globals options;
  exit_status status = exit_status::good;  // where it ends
  std::string out;                         // the text of --help or --version
  std::string error;                       // what is wrong
  std::string command_name;                // where that is known
};

// The values go where the commands have pointed with their arguments.
parsed_line parse_command_line(std::span<const command> commands, int argc, char* argv[]);

}  // namespace image
