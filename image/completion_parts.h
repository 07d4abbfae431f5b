// What the completion scripts of all shells are made of: what each value and word of a command line
// completes to, as the name that it has in the help tells, and the pieces of text.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "image/option_tree.h"

namespace image::completing {

// What something completes to: one of these, or words with blanks between them.
constexpr const char* files = "files";  // of the host
constexpr const char* folders = "folders";
constexpr const char* image = "image";  // a file; what follows it may be in it
constexpr const char* paths = "paths";  // in the image
constexpr const char* paths_or_files = "paths_or_files";
constexpr const char* nothing = "nothing";

std::string choices_of(const described_option& option);
// Of the words of a command, one after the other; the last for all that follow, too.
std::vector<std::string> choices_of_words(const described_command& command);

// Their names, with blanks between them.
std::string names_of(const std::vector<described_option>& options);
std::string names_of(const std::vector<described_command>& commands);

std::string joined(const std::vector<std::string>& parts, std::string_view between);
// `from` with a text put before each of some characters.
std::string with_before(std::string_view from, std::string_view characters,
                        std::string_view before);
// A word of bash or zsh.
std::string in_quotes(std::string_view text);
// The script with a text in place of each mark, such as "@commands@".
std::string filled(std::string script,
                   std::initializer_list<std::pair<std::string_view, std::string>> texts);
// The comment that tells where the script comes from.
std::string origin(const std::string& shell);

}  // namespace image::completing
