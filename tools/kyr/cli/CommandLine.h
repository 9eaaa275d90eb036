#pragma once

#include <CLI/CLI.hpp>
#include <memory>
#include <string>
#include <vector>

#include "commands/Commands.h"
#include "kyr/platform/Links.h"

/// Making the command line, and reading it back for help, completion and manual page.
namespace kyr::tool {

/// Adds an argument without a dash, which must be given.
void addArgument(CLI::App& command, const std::string& name, std::string& value,
                 const std::string& meaning);

/// Adds the argument FOLDER for a recording that exists.
void addRecordingArgument(CLI::App& command, std::string& folder);

/// Adds the option --follow-links for commands that read a recording.
void addLinksOption(CLI::App& command, Links& links);

/// Adds the arguments SIGNAL, of which there may be none.
void addSignalArguments(CLI::App& command, std::vector<std::string>& signals);

/// Checks of values. The name of the value says what is expected, so that they have no description.
CLI::Validator oneOf(const std::vector<std::string>& values);
CLI::Validator isAboveZero();
CLI::Validator isTolerance();
CLI::Validator isCount();

/// Lets the command run `run` with its options.
template <typename Options>
void setAction(CLI::App& command, Action& action, const std::shared_ptr<Options>& options,
               int (*run)(const Options& options)) {
  command.callback([&action, options, run] { action = [options, run] { return run(*options); }; });
}

/// Commands in the order in which --help shows them.
std::vector<const CLI::App*> commandsOf(const CLI::App& app);

/// Options that begin with a dash.
std::vector<const CLI::Option*> optionsOf(const CLI::App& command);

/// Arguments without a dash, in order.
std::vector<const CLI::Option*> positionalsOf(const CLI::App& command);

/// False for flags.
bool takesValue(const CLI::Option& option);

/// "-h, --help", "--set NAME=VALUE".
std::string synopsisOf(const CLI::Option& option);

/// The description of an option, and the options that it needs or excludes.
std::string meaningOf(const CLI::Option& option);

/// "kyr import [OPTIONS] FILE FOLDER".
std::string usageOf(const CLI::App& command);

/// The layout of --help.
std::shared_ptr<CLI::FormatterBase> helpFormatter();

/// A script for bash that completes commands, options, and values where they are known beforehand.
std::string bashCompletion(const CLI::App& app);

/// The same for zsh and fish.
std::string zshCompletion(const CLI::App& app);
std::string fishCompletion(const CLI::App& app);

/// The values that an option may have, with blanks between them, as far as they are known
/// beforehand.
std::string valuesOf(const CLI::Option& option);

/// The manual page, section 1, in the language of man(7).
std::string manualPage(const CLI::App& app);

}  // namespace kyr::tool
