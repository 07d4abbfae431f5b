// The script for bash. What is in an image it asks the program, quietly and without waiting for a
// lock; of a complex it asks nothing.
#include "image/completion_parts.h"
#include "image/completion_shells.h"

namespace image {

namespace {

using namespace completing;

// Bash takes "--name=value" apart: the "=" is a word of its own.
constexpr const char* script = R"(_flashfs_image() {
  local IFS=$' \t\n' current=${COMP_WORDS[COMP_CWORD]} command= value= word names i REPLY
  local words=() kinds=() complex=
  for ((i = 1; i < COMP_CWORD; i++)); do
    word=${COMP_WORDS[i]}
    if [[ $word == '=' ]]; then
      continue
    elif [[ -n $value ]]; then
      value=
      continue
    elif [[ $word != -?* ]]; then
      [[ -z $command ]] && command=$word || words+=("$word")
      continue
    fi
    [[ $word != --ppc* ]] || complex=1
    case $command:$word in
@values@    esac
  done
  if [[ -z $value && $current == -* ]]; then
    names=@globals@
    case $command in
@options@    esac
    value=$names
  elif [[ -z $value && -z $command ]]; then
    value=@commands@
  elif [[ -z $value ]]; then
    case $command in
@words@      *) kinds=(nothing) ;;
    esac
    [[ -z $complex || ${kinds[0]} != image ]] || kinds=("${kinds[@]:1}")
    i=${#words[@]}
    value=${kinds[i < ${#kinds[@]} ? i : ${#kinds[@]} - 1]}
  fi
  [[ $current != '=' ]] || current=
  COMPREPLY=()
  case $value in
    image | files | paths | paths_or_files | folders)
      compopt -o filenames 2>/dev/null
      case $value in
        folders) mapfile -t COMPREPLY < <(compgen -d -- "$current") ;;
        paths) ;;
        *) mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
      esac
      [[ -n $complex || $value != paths* ]] || _flashfs_image_paths
      ;;
    nothing) ;;
    *) mapfile -t COMPREPLY < <(compgen -W "$value" -- "$current") ;;
  esac
}

# Adds the paths of the image, the first of $words, that begin as $current does. For a value the
# image may stand behind it.
_flashfs_image_paths() {
  local image folder= kind mode size day time name
  for word in "${COMP_WORDS[@]:COMP_CWORD+1}"; do
    [[ $word == -?* ]] || words+=("$word")
  done
  _flashfs_image_plain "${words[0]-}"
  image=$REPLY
  [[ -f $image ]] || return 0
  _flashfs_image_plain "$current"
  [[ $REPLY != */* ]] || folder=${REPLY%/*}/
  while read -r -d '' kind mode size day time name; do
    [[ $kind != d* ]] || name+=/
    [[ -z $name || $folder$name != "$REPLY"* ]] || COMPREPLY+=("$folder$name")
  done < <("${COMP_WORDS[0]}" --color never --lock-timeout 0 ls -la0 "$image" "/$folder" \
    </dev/null 2>/dev/null)
  [[ ${#COMPREPLY[@]} -ne 1 || ${COMPREPLY[0]} != */ ]] || compopt -o nospace 2>/dev/null
}

# Sets REPLY to the word without its quotes.
_flashfs_image_plain() {
  REPLY=$1
  case $1 in
    [\'\"]*) REPLY=${1:1} REPLY=${REPLY%"${1:0:1}"} ;;
    *\\*) IFS= read REPLY <<<"$1" ;;
  esac
  [[ $1 != '~/'* ]] || REPLY=$HOME/${REPLY:2}
}
complete -F _flashfs_image flashfs-image
)";

// The lines of a "case" on "COMMAND:OPTION" for the options that take a value.
std::string values_of(const std::vector<described_option>& options, const std::string& command) {
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

}  // namespace

std::string bash_completion(const option_tree& tree) {
  std::string values = values_of(tree.globals, "*");
  std::string options;
  std::string words;
  for (const described_command& command : tree.commands) {
    values += values_of(command.options, command.name);
    options += "      " + command.name + ") names+=" + in_quotes(" " + names_of(command.options)) +
               " ;;\n";
    std::vector<std::string> kinds;
    for (const std::string& kind : choices_of_words(command)) {
      kinds.push_back(in_quotes(kind));
    }
    words += "      " + command.name + ") kinds=(" + joined(kinds, " ") + ") ;;\n";
  }
  return origin("bash") + filled(script, {{"@values@", values},
                                          {"@globals@", in_quotes(names_of(tree.globals))},
                                          {"@options@", options},
                                          {"@commands@", in_quotes(names_of(tree.commands))},
                                          {"@words@", words}});
}

}  // namespace image
