// The option tree, and what it makes of a command line. The library's exit statuses become ours.
#include "image/options.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstring>
#include <map>
#include <sstream>

#include "image/completions.h"
#include "image/host_file.h"
#include "image/text.h"
#include "zantrolume/zantrolume_device.h"

namespace image {

namespace {

constexpr const char* own_name = "flashfs-image";

// What the page of the program ends with.
constexpr const char* closing_lines =
    "flashfs-image COMMAND --help tells all of one command and shows an example.\n"
    "Paths in an image begin at its root: /config/startup.cfg. Where a file of the\n"
    "host is meant, '-' is standard input or output.";

// A help page has lines of a terminal's width; what things mean begins in one column of it.
constexpr size_t page_columns = 80;
constexpr size_t meaning_column = 27;
constexpr size_t summary_column = 13;

// The text in lines of at most so many columns.
std::string wrapped(const std::string& text, size_t columns) {
  std::string lines;
  size_t used = 0;
  std::istringstream words(text);
  for (std::string word; words >> word; used += word.size()) {
    const bool fits = used + 1 + word.size() <= columns;
    lines += used == 0 ? "" : fits ? " " : "\n";
    used = used == 0 || !fits ? 0 : used + 1;
    lines += word;
  }
  return lines;
}

// The library's pages in this program's words. The line of usage tells which words may be left out,
// so that only options have to say that they are required.
class page_formatter : public CLI::Formatter {
 public:
  page_formatter() {
    label("Positionals", "Arguments");
    label("SUBCOMMAND", "COMMAND");
    label("REQUIRED", "(required)");
    column_width(meaning_column);
  }

  std::string make_usage(const CLI::App* app, std::string name) const override {
    return "\n" + CLI::Formatter::make_usage(app, std::move(name));
  }
  // Without the space that the library leaves for a group that is hidden.
  std::string make_help(const CLI::App* app, std::string name,
                        CLI::AppFormatMode mode) const override {
    const std::string page = CLI::Formatter::make_help(app, std::move(name), mode);
    return CLI::detail::find_and_replace(page, "\n\n\n", "\n\n");
  }
  std::string make_subcommand(const CLI::App* command) const override {
    std::ostringstream line;
    CLI::detail::format_help(line, command->get_name(),
                             wrapped(command->get_description(), page_columns - summary_column),
                             summary_column);
    return line.str();
  }
  std::string make_option_name(const CLI::Option* option, bool positional) const override {
    const std::string names = CLI::Formatter::make_option_name(option, positional);
    return CLI::detail::find_and_replace(names, ",", ", ");
  }
  std::string make_option_opts(const CLI::Option* option) const override {
    if (!option->get_positional()) {
      return CLI::Formatter::make_option_opts(option);
    }
    return repeats(option) ? "..." : "";
  }
  std::string make_option_desc(const CLI::Option* option) const override {
    return wrapped(option->get_description(), page_columns - meaning_column);
  }

  static bool repeats(const CLI::Option* option) {
    return option->get_expected_max() >= CLI::detail::expected_max_vector_size;
  }
};

// Adds an option whose words stand for values.
void add_when(CLI::App* app, const char* name, when* value, const char* help) {
  const auto set = [value](const std::string& word) {
    static const std::map<std::string, when> words = {
        {"auto", when::automatic}, {"always", when::always}, {"never", when::never}};
    const auto found = words.find(word);
    if (found == words.end()) {
      throw CLI::ValidationError("WHEN is auto, always or never");
    }
    *value = found->second;
  };
  app->add_option_function<std::string>(name, set, help)->type_name("WHEN");
}

// Adds an option whose word is a number, in the forms of parse_size.
CLI::Option* add_number(CLI::App* app, const char* name, std::optional<uint32_t>* value,
                        const char* help) {
  const auto set = [name, value](const std::string& word) {
    const std::optional<uint64_t> number = parse_size(word);
    *value = static_cast<uint32_t>(number.value_or(0));
    if (!number || *number > UINT32_MAX) {
      throw CLI::ValidationError(name +
                                 (": \"" + word + "\" is no number; 4096, 0x1000 and 4K are"));
    }
  };
  return app->add_option_function<std::string>(name, set, help);
}

void add_globals(CLI::App* app, globals* options) {
  app->add_flag("--json", options->json, "One JSON document instead of text");
  app->add_flag("-q,--quiet", options->quiet, "Nothing but warnings and errors");
  app->add_flag("-v,--verbose", options->verbose, "What the file system says, too");
  add_when(app, "--color", &options->color, "Colours: auto, always or never");
  add_when(app, "--progress", &options->progress, "Progress: auto, always or never");
  app->add_flag("-n,--dry-run", options->dry_run, "Do all but write; the status is the real run's");
  app->add_option("-o,--output", options->output, "Write the edited image to a new file")
      ->type_name("NEW");
  app->add_option("--geometry", options->geometry,
                  "Erase blocks of the image, COUNTxSIZE[,COUNTxSIZE...]")
      ->type_name("GEOMETRY");
  app->add_flag("--full", options->full, "Mount with the full check to read");
  app->add_flag("--strict", options->strict, "Warnings are faults");
  app->add_option_function<double>(
         "--lock-timeout",
         [options](double seconds) {
           constexpr double seconds_max = 1e6;
           if (!(seconds >= 0 && seconds <= seconds_max)) {
             throw CLI::ValidationError("--lock-timeout is a number of seconds, 0 to 1000000");
           }
           options->lock_timeout_seconds = seconds;
         },
         "How long to wait for another run's lock (10)")
      ->type_name("SECONDS");
  app->add_option("--ppc", options->ppc, "The flash of this complex (3 to 8) instead of an image")
      ->type_name("N");
  app->add_flag("-y,--yes", options->yes, "Change the complex without asking");
  app->add_flag("--no-backup", options->no_backup, "Change it without saving a copy before");
}

// In one line, as the messages of the library are not always.
std::string first_line(const std::string& text) {
  return text.substr(0, text.find('\n'));
}

// Whether an option is on the line, with its value behind it or behind "=".
bool has_option(int argc, char* argv[], const char* name) {
  const size_t length = std::strlen(name);
  for (int i = 1; i < argc && std::strcmp(argv[i], "--") != 0; ++i) {
    if (std::strncmp(argv[i], name, length) == 0 &&
        (argv[i][length] == '\0' || argv[i][length] == '=')) {
      return true;
    }
  }
  return false;
}

// What is wrong about --ppc; empty: nothing.
std::string objection_to_complex(const globals& options, const arguments& taken,
                                 const char* command) {
  if (!options.ppc) {
    return taken.needs_complex() ? std::string(command) + " works on a complex: --ppc names it"
                                 : "";
  }
  if (!zantrolume_is_ppc(*options.ppc)) {
    char text[64];
    std::snprintf(text, sizeof(text), zantrolume_invalid_ppc_text, *options.ppc);
    return text;
  }
  return taken.takes_complex() ? "" : std::string(command) + " does not work on a complex";
}

// What is wrong about --output; empty: nothing.
std::string objection_to_new_image(const globals& options, const arguments& taken,
                                   const char* command) {
  if (!options.output.empty() && !taken.is_edit()) {
    return "--output is where an edited image goes, and " + std::string(command) + " edits none";
  }
  return objection_to_output(options.output, options.json);
}

// What is wrong with a command line. The library calls a command that it does not know missing.
std::string error_of(const CLI::App& app, const CLI::ParseError& ended) {
  const bool bad_value = ended.get_exit_code() == static_cast<int>(CLI::ExitCodes::ValidationError);
  if (app.get_subcommands().empty() && !bad_value) {
    const std::vector<std::string> words = app.remaining();
    return words.empty() ? "a command is missing" : "there is no command \"" + words.front() + "\"";
  }
  return first_line(ended.what());
}

std::string example_text(const command& one) {
  std::string text = "Example:\n";
  std::istringstream lines(one.example);
  for (std::string line; std::getline(lines, line);) {
    text += "  " + line + "\n";
  }
  return text + "\nOptions of all commands: flashfs-image --help";
}

std::vector<described_option> described_options(const CLI::App& app) {
  std::vector<described_option> options;
  for (const CLI::Option* one : app.get_options()) {
    if (one->get_positional() || one->get_group().empty()) {
      continue;
    }
    described_option described;
    for (const std::string& name : one->get_snames()) {
      described.names.push_back("-" + name);
    }
    for (const std::string& name : one->get_lnames()) {
      described.names.push_back("--" + name);
    }
    described.value = one->get_type_name();
    described.help = one->get_description();
    options.push_back(std::move(described));
  }
  return options;
}

option_tree described(const CLI::App& app) {
  option_tree tree = {.globals = described_options(app), .commands = {}};
  for (const CLI::App* one : app.get_subcommands([](const CLI::App*) { return true; })) {
    described_command command = {.name = one->get_name(),
                                 .summary = one->get_description(),
                                 .options = described_options(*one),
                                 .words = {}};
    for (const CLI::Option* option : one->get_options()) {
      if (option->get_positional()) {
        command.words.push_back(
            {.name = option->get_name(true), .repeats = page_formatter::repeats(option)});
      }
    }
    tree.commands.push_back(std::move(command));
  }
  return tree;
}

// Ends the run with a shell's script in place of an answer. Who packages the program asks for it,
// so the help does not show it.
void add_completions(CLI::App* app) {
  const auto print = [app](const std::string& shell) {
    std::string script = completion_script(described(*app), shell);
    if (script.empty()) {
      throw CLI::ValidationError("--completions is for bash, zsh or fish");
    }
    script.pop_back();  // the library ends the line
    throw CLI::CallForVersion(script, 0);
  };
  app->add_option_function<std::string>("--completions", print)->type_name("SHELL")->group("");
}

// The parser with all that it points to.
struct command_line {
  CLI::App app{"Looks into, makes and changes images of a flash file system.", own_name};
  parsed_line parsed;
  std::map<const command*, arguments> taken;

  // With `complex` the line names one with --ppc.
  command_line(std::span<const command> commands, bool complex) {
    app.require_subcommand(1);
    app.formatter(std::make_shared<page_formatter>());
    app.footer(closing_lines);
    app.set_help_flag("-h,--help", "Show this page");
    app.set_version_flag("--version", std::string(own_name) + " " + ZANTROLUME_VERSION,
                         "Show the version");
    add_globals(&app, &parsed.options);
    add_completions(&app);
    for (const command& one : commands) {
      CLI::App* added = app.add_subcommand(one.name, one.summary);
      added->group("Commands");
      added->fallthrough();
      added->footer(example_text(one));
      one.add_arguments(taken.try_emplace(&one, *added, complex).first->second);
      added->callback([this, &one] { parsed.chosen = &one; });
    }
  }
};

}  // namespace

void arguments::image(std::string* value, const char* name, const char* help) {
  takes_complex_ = true;
  if (!complex_) {
    word(name, value, help);
  }
}

void arguments::complex_alone() {
  takes_complex_ = true;
  needs_complex_ = true;
}

void arguments::flag(const char* names, bool* value, const char* help) {
  app_.add_flag(names, *value, help);
}

void arguments::option(const char* names, const char* value_name, std::string* value,
                       const char* help) {
  app_.add_option(names, *value, help)->type_name(value_name);
}

void arguments::option(const char* names, const char* value_name, std::optional<uint32_t>* value,
                       const char* help) {
  add_number(&app_, names, value, help)->type_name(value_name);
}

void arguments::required_option(const char* names, const char* value_name,
                                std::optional<uint32_t>* value, const char* help) {
  add_number(&app_, names, value, help)->required()->type_name(value_name);
}

void arguments::word(const char* name, std::string* value, const char* help) {
  app_.add_option(name, *value, help)->required()->type_name("");
}

void arguments::optional_word(const char* name, std::string* value, const char* help) {
  app_.add_option(name, *value, help)->type_name("");
}

void arguments::words(const char* name, std::vector<std::string>* values, const char* help) {
  app_.add_option(name, *values, help)->required()->type_name("");
}

void arguments::optional_words(const char* name, std::vector<std::string>* values,
                               const char* help) {
  app_.add_option(name, *values, help)->type_name("");
}

void arguments::words_and_last(const char* name, std::vector<std::string>* values, const char* help,
                               const char* last_name, std::string* last, const char* last_help) {
  // The library gives all words to the first that takes any number, which passes the last one on.
  const auto divide = [this, values, last_name](const std::vector<std::string>& given) {
    *values = given;
    if (given.size() > 1) {
      values->pop_back();
      app_.get_option(last_name)->add_result(given.back());
    }
  };
  app_.add_option_function<std::vector<std::string>>(name, divide, help)->required()->type_name("");
  word(last_name, last, last_help);
}

parsed_line parse_command_line(std::span<const command> commands, int argc, char* argv[]) {
  command_line line(commands, has_option(argc, argv, "--ppc"));
  CLI::App& app = line.app;
  parsed_line& parsed = line.parsed;
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& ended) {
    std::ostringstream out;
    std::ostringstream error;
    const bool good = app.exit(ended, out, error) == 0;
    parsed.chosen = nullptr;
    parsed.status = good ? exit_status::good : exit_status::usage;
    parsed.out = out.str();
    parsed.error = good ? "" : error_of(app, ended);
    if (const auto named = app.get_subcommands(); !named.empty()) {
      parsed.command_name = named.front()->get_name();
    }
    parsed.options.json = has_option(argc, argv, "--json");
  }
  if (parsed.chosen != nullptr) {
    const arguments& taken = line.taken.at(parsed.chosen);
    parsed.error = objection_to_complex(parsed.options, taken, parsed.chosen->name);
    if (parsed.error.empty()) {
      parsed.error = objection_to_new_image(parsed.options, taken, parsed.chosen->name);
    }
    if (!parsed.error.empty()) {
      parsed.command_name = parsed.chosen->name;
      parsed.chosen = nullptr;
      parsed.status = exit_status::usage;
    }
  }
  return parsed;
}

option_tree describe_command_line(std::span<const command> commands) {
  return described(command_line(commands, false).app);
}

}  // namespace image
