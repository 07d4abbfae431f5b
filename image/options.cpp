// The option tree, and what it makes of a command line. The library's exit statuses become ours.
#include "image/options.h"

#include <CLI/CLI.hpp>
#include <cstring>
#include <map>
#include <sstream>

namespace image {

namespace {

constexpr const char* own_name = "flashfs-image";

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
}

// In one line, as the messages of the library are not always.
std::string first_line(const std::string& text) {
  return text.substr(0, text.find('\n'));
}

bool asks_for_json(int argc, char* argv[]) {
  for (int i = 1; i < argc && std::strcmp(argv[i], "--") != 0; ++i) {
    if (std::strcmp(argv[i], "--json") == 0) {
      return true;
    }
  }
  return false;
}

// What is wrong with a command line. The library calls a command that it does not know missing.
std::string error_of(const CLI::App& app, const CLI::ParseError& ended) {
  if (app.get_subcommands().empty()) {
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

}  // namespace

void arguments::flag(const char* names, bool* value, const char* help) {
  app_.add_flag(names, *value, help);
}

void arguments::option(const char* names, const char* value_name, std::string* value,
                       const char* help) {
  app_.add_option(names, *value, help)->type_name(value_name);
}

void arguments::option(const char* names, const char* value_name, std::optional<uint32_t>* value,
                       const char* help) {
  app_.add_option(names, *value, help)->type_name(value_name);
}

void arguments::required_option(const char* names, const char* value_name,
                                std::optional<uint32_t>* value, const char* help) {
  app_.add_option(names, *value, help)->required()->type_name(value_name);
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

parsed_line parse_command_line(std::span<const command> commands, int argc, char* argv[]) {
  parsed_line parsed;
  CLI::App app("Looks into, makes and changes images of a flash file system.", own_name);
  app.require_subcommand(1);
  app.set_version_flag("--version", std::string(own_name) + " " + ZANTROLUME_VERSION);
  add_globals(&app, &parsed.options);
  for (const command& one : commands) {
    CLI::App* added = app.add_subcommand(one.name, one.summary);
    added->fallthrough();
    added->footer(example_text(one));
    arguments of_command(*added);
    one.add_arguments(of_command);
    added->callback([&parsed, &one] { parsed.chosen = &one; });
  }
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
    parsed.options.json = asks_for_json(argc, argv);
  }
  return parsed;
}

}  // namespace image
