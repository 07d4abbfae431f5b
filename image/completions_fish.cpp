// The script for fish. What is in an image it asks the program, as that for bash does.
#include "image/completion_parts.h"
#include "image/completion_shells.h"

namespace image {

namespace {

using namespace completing;

constexpr const char* script =
    R"(# The command and its words before the cursor, without options and their values.
function __flashfs_image_words
    set -l value 0
    for word in (commandline -opc)[2..-1]
        if test $value = 1
            set value 0
        else if contains -- $word @valued@
            set value 1
        else if not string match -q -r -- '^-.' $word
            echo $word
        end
    end
end
function __flashfs_image_is
    set -l words (__flashfs_image_words)
    test "$words[1]" = "$argv[1]"
end
# What the word at the cursor completes to.
function __flashfs_image_kind
    set -l words (__flashfs_image_words)
    set -l kinds nothing
    switch "$words[1]"
@words@    end
    if string match -q -- '--ppc*' (commandline -opc); and test "$kinds[1]" = image
        set -e kinds[1]
        set kinds (string replace -r '^paths$' nothing -- $kinds)
        set kinds (string replace -r '^paths_or_files$' files -- $kinds)
    end
    set -l at (count $words)
    test $at -gt 0; or return
    test $at -le (count $kinds); or set at -1
    echo $kinds[$at]
end
function __flashfs_image_kind_is
    contains -- (__flashfs_image_kind) $argv
end
# The paths of the image.
function __flashfs_image_paths
    set -l image (string replace -r '^~/' $HOME/ -- (__flashfs_image_words)[2])
    set -l folder (string trim -l -c '"\'' -- (commandline -ct) | string match -r '^.*/')
    test -f "$image"; or return
    set -l program (commandline -opc)[1]
    for entry in ($program --color never --lock-timeout 0 ls -la0 $image "/$folder" \
            </dev/null 2>/dev/null | string split0)
        set -l part (string match -r '^(.)\S+ +\S+ +\d+ +\S+ +\S+ (.*)$' -- $entry)
        test "$part[2]" = d; and echo "$folder$part[3]/"; or echo "$folder$part[3]"
    end
end
complete -c flashfs-image -n '__flashfs_image_is ""' -f
complete -c flashfs-image -n '__flashfs_image_kind_is paths nothing' -f
complete -c flashfs-image -n '__flashfs_image_kind_is paths paths_or_files' -a '(__flashfs_image_paths)'
)";

std::string fish_quoted(std::string_view text) {
  return "'" + with_before(text, "\\'", "\\") + "'";
}

std::string value_text(const std::string& choices) {
  if (choices == files) {
    return " -r -F";
  }
  if (choices == folders) {
    return " -x -a '(__fish_complete_directories)'";
  }
  if (choices == paths) {
    return " -x -a '(__flashfs_image_paths)'";
  }
  return choices == nothing ? " -x" : " -x -a " + fish_quoted(choices);
}

std::string options_text(const std::vector<described_option>& options,
                         const std::string& condition) {
  std::string text;
  for (const described_option& option : options) {
    text += "complete -c flashfs-image" + condition;
    for (const std::string& name : option.names) {
      text += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
    }
    if (!option.value.empty()) {
      text += value_text(choices_of(option));
    }
    text += " -d " + fish_quoted(option.help) + "\n";
  }
  return text;
}

std::vector<described_option> with_values(std::vector<described_option> options) {
  std::erase_if(options, [](const described_option& one) { return one.value.empty(); });
  return options;
}

bool is_kind(const std::string& choices) {
  return choices == image || choices == files || choices == paths || choices == paths_or_files ||
         choices == nothing;
}

}  // namespace

std::string fish_completion(const option_tree& tree) {
  std::string valued = names_of(with_values(tree.globals));
  std::string words;
  std::string lines;
  for (const described_command& command : tree.commands) {
    if (const std::string own = names_of(with_values(command.options)); !own.empty()) {
      valued += " " + own;
    }
    std::string kinds;
    for (const std::string& kind : choices_of_words(command)) {
      const bool fixed = !is_kind(kind);
      kinds += fixed ? " nothing" : " " + kind;
      if (fixed) {
        lines += "complete -c flashfs-image -n '__flashfs_image_is " + command.name + "' -a " +
                 fish_quoted(kind) + "\n";
      }
    }
    words += "        case " + command.name + "\n            set kinds" + kinds + "\n";
    lines += "complete -c flashfs-image -n '__flashfs_image_is \"\"' -a " + command.name + " -d " +
             fish_quoted(command.summary) + "\n" +
             options_text(command.options, " -n '__flashfs_image_is " + command.name + "'");
  }
  return origin("fish") + filled(script, {{"@valued@", valued}, {"@words@", words}}) +
         options_text(tree.globals, "") + lines;
}

}  // namespace image
