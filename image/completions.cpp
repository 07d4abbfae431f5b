// One writer for each shell. Values complete to what their name in the help stands for; words are
// files of the host, also where a path in the image is meant: what is in it no shell knows.
#include "image/completions.h"

#include <algorithm>
#include <map>

#include "image/finding.h"

namespace image {

namespace {

constexpr const char* files = "files";
constexpr const char* folders = "folders";
constexpr const char* nothing = "nothing";

std::string joined(const std::vector<std::string>& parts, std::string_view between) {
  std::string text;
  for (const std::string& part : parts) {
    text += (text.empty() ? "" : std::string(between)) + part;
  }
  return text;
}

// `from` with a text put before each of some characters.
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

// A word of bash or zsh.
std::string in_quotes(std::string_view text) {
  std::string word = "'";
  for (const char one : text) {
    word += one == '\'' ? "'\\''" : std::string(1, one);
  }
  return word + "'";
}

std::string fish_quoted(std::string_view text) {
  return "'" + with_before(text, "\\'", "\\") + "'";
}

std::string all_codes() {
  std::vector<std::string> codes;
  for (const finding_code& one : finding_codes()) {
    codes.emplace_back(one.code);
  }
  return joined(codes, " ");
}

// What a value or word completes to: files, folders, nothing, or these words.
std::string choices_of(const std::string& value) {
  static const std::map<std::string, std::string> known = {
      {"CODE", all_codes()}, {"DIR", folders},  {"FILE", files},
      {"NEW", files},        {"SOURCE", files}, {"WHEN", "auto always never"}};
  const auto found = known.find(value);
  return found == known.end() ? nothing : found->second;
}

std::string choices_of(const described_option& option) {
  const bool complex = std::ranges::find(option.names, "--ppc") != option.names.end();
  return complex ? "3 4 5 6 7 8" : choices_of(option.value);
}

std::string choices_of_words(const described_command& command) {
  const bool codes = !command.words.empty() && command.words.front().name == "CODE";
  return codes ? choices_of("CODE") : files;
}

bool are_words(const std::string& choices) {
  return choices != files && choices != folders && choices != nothing;
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

std::string first_line(const std::string& shell) {
  return "# Completes flashfs-image. Made by: flashfs-image --completions " + shell + "\n";
}

// --- bash ---

// The lines of a "case" on "COMMAND:OPTION" for the options that take a value.
std::string bash_values(const std::vector<described_option>& options, const std::string& command) {
  std::string text;
  for (const described_option& option : options) {
    if (option.value.empty()) {
      continue;
    }
    std::vector<std::string> patterns;
    for (const std::string& name : option.names) {
      patterns.push_back(command + ":" + name);
    }
    text +=
        "      " + joined(patterns, " | ") + ") value=" + in_quotes(choices_of(option)) + " ;;\n";
  }
  return text;
}

// Bash takes "--name=value" apart: the "=" is a word of its own.
std::string bash_script(const option_tree& tree) {
  std::string values = bash_values(tree.globals, "*");
  std::string options;
  std::string words;
  for (const described_command& command : tree.commands) {
    values += bash_values(command.options, command.name);
    options += "      " + command.name + ") names+=" + in_quotes(" " + names_of(command.options)) +
               " ;;\n";
    words += "      " + command.name + ") value=" + in_quotes(choices_of_words(command)) + " ;;\n";
  }
  const std::string commands = names_of(tree.commands);
  return first_line("bash") + R"(_flashfs_image() {
  local IFS=$' \t\n' current=${COMP_WORDS[COMP_CWORD]} command= value= word names i
  for ((i = 1; i < COMP_CWORD; i++)); do
    word=${COMP_WORDS[i]}
    if [[ $word == '=' ]]; then
      continue
    elif [[ -n $value ]]; then
      value=
      continue
    elif [[ -z $command && $word != -* ]]; then
      command=$word
      continue
    fi
    case $command:$word in
)" + values +
         R"(    esac
  done
  if [[ -z $value && $current == -* ]]; then
    names=)" +
         in_quotes(names_of(tree.globals)) + R"(
    case $command in
)" + options +
         R"(    esac
    value=$names
  elif [[ -z $value && -z $command ]]; then
    value=)" +
         in_quotes(commands) + R"(
  elif [[ -z $value ]]; then
    case $command in
)" + words +
         R"(    esac
  fi
  [[ $current != '=' ]] || current=
  case $value in
    files)
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      ;;
    folders)
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -d -- "$current")
      ;;
    nothing) COMPREPLY=() ;;
    *) mapfile -t COMPREPLY < <(compgen -W "$value" -- "$current") ;;
  esac
}
complete -F _flashfs_image flashfs-image
)";
}

// --- zsh ---

std::string zsh_action(const std::string& choices) {
  if (choices == files) {
    return "_files";
  }
  if (choices == folders) {
    return "_files -/";
  }
  return choices == nothing ? " " : "(" + choices + ")";
}

// The options as _arguments takes them, each on a line.
std::string zsh_options(const std::vector<described_option>& options, const std::string& indent) {
  std::string text;
  for (const described_option& option : options) {
    std::string what = "[" + with_before(option.help, "[]:\\", "\\") + "]";
    if (!option.value.empty()) {
      what += ":" + option.value + ":" + zsh_action(choices_of(option));
    }
    const std::string others = "(" + joined(option.names, " ") + ")";
    for (const std::string& name : option.names) {
      const bool equals = !option.value.empty() && name.starts_with("--");
      text += indent + in_quotes(others + name + (equals ? "=" : "") + what) + "\n";
    }
  }
  return text;
}

std::string zsh_script(const option_tree& tree) {
  std::string commands;
  std::string cases;
  for (const described_command& command : tree.commands) {
    commands += "    " + in_quotes(command.name + ":" + command.summary) + "\n";
    cases += "    " + command.name + ")\n      own=(\n" + zsh_options(command.options, "        ") +
             "        " + in_quotes("*:word:" + zsh_action(choices_of_words(command))) +
             "\n      )\n" + "      ;;\n";
  }
  return "#compdef flashfs-image\n" + first_line("zsh") + R"(_flashfs-image() {
  local curcontext=$curcontext state line
  local -a globals commands own
  globals=(
)" + zsh_options(tree.globals, "    ") +
         R"(  )
  commands=(
)" + commands +
         R"(  )
  _arguments -C $globals '1: :->command' '*:: :->words' && return
  if [[ $state == command ]]; then
    _describe command commands
    return
  fi
  case $words[1] in
)" + cases +
         R"(  esac
  _arguments $globals $own
}
if [[ $funcstack[1] == _flashfs-image ]]; then
  _flashfs-image "$@"
else
  compdef _flashfs-image flashfs-image
fi
)";
}

// --- fish ---

std::string fish_choices(const std::string& choices) {
  if (choices == files) {
    return " -r -F";
  }
  if (choices == folders) {
    return " -x -a '(__fish_complete_directories)'";
  }
  return choices == nothing ? " -x" : " -x -a " + fish_quoted(choices);
}

std::string fish_options(const std::vector<described_option>& options,
                         const std::string& condition) {
  std::string text;
  for (const described_option& option : options) {
    text += "complete -c flashfs-image" + condition;
    for (const std::string& name : option.names) {
      text += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
    }
    if (!option.value.empty()) {
      text += fish_choices(choices_of(option));
    }
    text += " -d " + fish_quoted(option.help) + "\n";
  }
  return text;
}

std::string fish_script(const option_tree& tree) {
  std::string text = first_line("fish") + R"(function __flashfs_image_command
    for word in (commandline -opc)
        if contains -- $word )" +
                     names_of(tree.commands) + R"(
            echo $word
            return 0
        end
    end
    return 1
end
function __flashfs_image_is
    test (__flashfs_image_command; or echo) = $argv[1]
end
complete -c flashfs-image -n 'not __flashfs_image_command >/dev/null' -f
)";
  text += fish_options(tree.globals, "");
  for (const described_command& command : tree.commands) {
    text += "complete -c flashfs-image -n 'not __flashfs_image_command >/dev/null' -a " +
            command.name + " -d " + fish_quoted(command.summary) + "\n";
  }
  for (const described_command& command : tree.commands) {
    const std::string condition = " -n '__flashfs_image_is " + command.name + "'";
    const std::string choices = choices_of_words(command);
    if (are_words(choices)) {
      text += "complete -c flashfs-image" + condition + " -f -a " + fish_quoted(choices) + "\n";
    }
    text += fish_options(command.options, condition);
  }
  return text;
}

}  // namespace

std::string completion_script(const option_tree& tree, std::string_view shell) {
  if (shell == "bash") {
    return bash_script(tree);
  }
  if (shell == "zsh") {
    return zsh_script(tree);
  }
  return shell == "fish" ? fish_script(tree) : "";
}

}  // namespace image
