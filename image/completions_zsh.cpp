// The script for zsh. What is in an image it asks the program, as that for bash does.
#include "image/completion_parts.h"
#include "image/completion_shells.h"

namespace image {

namespace {

using namespace completing;

constexpr const char* script = R"(_flashfs-image() {
  local curcontext=$curcontext program=$words[1] complex=$words[(I)--ppc*] state line i
  local -a globals commands own kinds
  globals=(
@globals@  )
  commands=(
@commands@  )
  _arguments -C $globals '1: :->command' '*:: :->words' && return
  if [[ $state == command ]]; then
    _describe command commands
    return
  fi
  case $words[1] in
@cases@  esac
  (( complex )) && [[ $kinds[1] == image ]] && shift kinds
  for ((i = 1; i <= $#kinds; i++)); do
    own+=("${${i:#$#kinds}:-*}:word: _flashfs-image_word $kinds[i]")
  done
  _arguments $globals $own
}

# Completes to what the words say: a kind of thing, or themselves.
_flashfs-image_word() {
  case $* in
    nothing) return 1 ;;
    image | files) _files ;;
    folders) _files -/ ;;
    paths) _flashfs-image_paths ;;
    paths_or_files)
      _flashfs-image_paths
      _files
      ;;
    *) compadd -- "$@" ;;
  esac
}

# The paths of the image, which is the first word of the command.
_flashfs-image_paths() {
  local image=${(Q)line[1]} folder= entry name
  local -a fields names folders
  image=${image/#\~\//$HOME/}
  [[ $complex == 0 && -f $image ]] || return 1
  [[ $PREFIX != */* ]] || folder=${(Q)PREFIX%/*}/
  for entry in "${(0@)$(_call_program paths ${(q)program} --color never --lock-timeout 0 ls -la0 \
    ${(q)image} ${(q):-/$folder} </dev/null 2>/dev/null)}"; do
    fields=(${(s: :)entry})
    name="${fields[6,-1]}"
    [[ -z $name ]] || { [[ $entry == d* ]] && folders+=("$name") } || names+=("$name")
  done
  compset -P '*/'
  compadd -S / -q -a folders
  compadd -a names
}

if [[ $funcstack[1] == _flashfs-image ]]; then
  _flashfs-image "$@"
else
  compdef _flashfs-image flashfs-image
fi
)";

// The options as _arguments takes them, each on a line.
std::string options_text(const std::vector<described_option>& options, const std::string& indent) {
  std::string text;
  for (const described_option& option : options) {
    std::string what = "[" + with_before(option.help, "[]:\\", "\\") + "]";
    if (!option.value.empty()) {
      what += ":" + option.value + ": _flashfs-image_word " + choices_of(option);
    }
    const std::string others = "(" + joined(option.names, " ") + ")";
    for (const std::string& name : option.names) {
      const bool equals = !option.value.empty() && name.starts_with("--");
      text += indent + in_quotes(others + name + (equals ? "=" : "") + what) + "\n";
    }
  }
  return text;
}

}  // namespace

std::string zsh_completion(const option_tree& tree) {
  std::string commands;
  std::string cases;
  for (const described_command& command : tree.commands) {
    commands += "    " + in_quotes(command.name + ":" + command.summary) + "\n";
    std::string kinds;
    for (const std::string& kind : choices_of_words(command)) {
      kinds += " " + in_quotes(kind);
    }
    cases += "    " + command.name + ")\n      own=(\n" +
             options_text(command.options, "        ") + "      )\n      kinds=(" +
             kinds.substr(1) + ")\n      ;;\n";
  }
  return "#compdef flashfs-image\n" + origin("zsh") +
         filled(script, {{"@globals@", options_text(tree.globals, "    ")},
                         {"@commands@", commands},
                         {"@cases@", cases}});
}

}  // namespace image
