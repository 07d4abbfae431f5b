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
#include "image/option_tree.h"

namespace CLI {
class App;
}

namespace image {

class report;

// Takes the options and words of one command. Names are "-r", "--force" or "-r,--recursive"; words
// are met in the order in which they are given here.
class arguments {
 public:
  // With `complex` the line names one with --ppc.
  arguments(CLI::App& app, bool complex) : app_(app), complex_(complex) {}

  // The image, as a word; with --ppc there is none, and the value stays empty.
  void image(std::string* value, const char* name = "IMAGE", const char* help = "The image");
  // The command works on nothing but a complex.
  void complex_alone();
  // It edits an image, or may: --output has a meaning.
  void edits() {
    edits_ = true;
  }

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

  // One or more, and behind them one of another meaning.
  void words_and_last(const char* name, std::vector<std::string>* values, const char* help,
                      const char* last_name, std::string* last, const char* last_help);

  bool takes_complex() const {
    return takes_complex_;
  }
  bool needs_complex() const {
    return needs_complex_;
  }
  bool is_edit() const {
    return edits_;
  }

 private:
  CLI::App& app_;
  const bool complex_;
  bool takes_complex_ = false;
  bool needs_complex_ = false;
  bool edits_ = false;
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

// All that a line may hold, in the order of the help, but for what the help does not show.
option_tree describe_command_line(std::span<const command> commands);

}  // namespace image
