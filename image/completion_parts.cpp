#include "image/completion_parts.h"

#include <algorithm>
#include <map>

#include "image/finding.h"

namespace image::completing {

namespace {

std::string all_codes() {
  std::vector<std::string> codes;
  for (const finding_code& one : finding_codes()) {
    codes.emplace_back(one.code);
  }
  return joined(codes, " ");
}

// What a name in the help stands for; `otherwise` for the others.
std::string choices_of(const std::string& name, const char* otherwise) {
  static const std::map<std::string, std::string> known = {{"A", image},
                                                           {"CODE", all_codes()},
                                                           {"DIR", folders},
                                                           {"FILE", files},
                                                           {"FROM", paths},
                                                           {"IMAGE", image},
                                                           {"MODE", nothing},
                                                           {"NEW", files},
                                                           {"P", paths},
                                                           {"PATH", paths},
                                                           {"SOURCE", files},
                                                           {"TO", paths},
                                                           {"WHEN", "auto always never"}};
  const auto found = known.find(name);
  return found == known.end() ? otherwise : found->second;
}

}  // namespace

std::string choices_of(const described_option& option) {
  const bool complex = std::ranges::find(option.names, "--ppc") != option.names.end();
  return complex ? "3 4 5 6 7 8" : choices_of(option.value, nothing);
}

std::vector<std::string> choices_of_words(const described_command& command) {
  std::vector<std::string> choices;
  std::string repeated;
  for (const described_word& word : command.words) {
    const std::string own = choices_of(word.name, files);
    // Behind a word that repeats stands one more of its kind, or what comes after it.
    choices.push_back(repeated.empty() || repeated == own ? own : paths_or_files);
    repeated = word.repeats ? own : repeated;
  }
  if (repeated.empty()) {
    choices.emplace_back(nothing);
  }
  return choices;
}

std::string names_of(const std::vector<described_option>& options) {
  std::vector<std::string> names;
  for (const described_option& option : options) {
    names.insert(names.end(), option.names.begin(), option.names.end());
  }
  return joined(names, " ");
}

std::string names_of(const std::vector<described_command>& commands) {
  std::vector<std::string> names;
  names.reserve(commands.size());
  for (const described_command& command : commands) {
    names.push_back(command.name);
  }
  return joined(names, " ");
}

std::string joined(const std::vector<std::string>& parts, std::string_view between) {
  std::string text;
  for (const std::string& part : parts) {
    text += (text.empty() ? "" : std::string(between)) + part;
  }
  return text;
}

std::string with_before(std::string_view from, std::string_view characters,
                        std::string_view before) {
  std::string text;
  for (const char one : from) {
    if (characters.find(one) != std::string_view::npos) {
      text += before;
    }
    text += one;
  }
  return text;
}

std::string in_quotes(std::string_view text) {
  std::string word = "'";
  for (const char one : text) {
    word += one == '\'' ? "'\\''" : std::string(1, one);
  }
  return word + "'";
}

std::string filled(std::string script,
                   std::initializer_list<std::pair<std::string_view, std::string>> texts) {
  for (const auto& [mark, text] : texts) {
    script.replace(script.find(mark), mark.size(), text);
  }
  return script;
}

std::string origin(const std::string& shell) {
  return "# Completes flashfs-image. Made by: flashfs-image --completions " + shell + "\n";
}

}  // namespace image::completing
