// What a command line may hold, as plain data: read from the library that parses it, for what is
// made from it (completions) or held against it (the manual page).
#pragma once

#include <string>
#include <vector>

namespace image {

struct described_option {
  std::vector<std::string> names;  // with their dashes, the short ones first
  std::string value;               // what stands for its value in the help; empty: it takes none
  std::string help;
};

struct described_word {
  std::string name;      // "IMAGE", "PATH"
  bool repeats = false;  // more of its kind may follow
};

struct described_command {
  std::string name;
  std::string summary;
  std::vector<described_option> options;  // its own; it takes the global ones as well
  std::vector<described_word> words;
};

struct option_tree {
  std::vector<described_option> globals;
  std::vector<described_command> commands;
};

}  // namespace image
