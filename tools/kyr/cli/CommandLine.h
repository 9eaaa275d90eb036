#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

/// What completion and manual page say of the command line: read from the command line itself.
namespace kyr::tool {

/// Subcommands in the order in which --help shows them.
std::vector<const CLI::App*> commandsOf(const CLI::App& app);

/// Options that begin with a dash.
std::vector<const CLI::Option*> optionsOf(const CLI::App& command);

/// Arguments without a dash, in order.
std::vector<const CLI::Option*> positionalsOf(const CLI::App& command);

/// False for flags.
bool takesValue(const CLI::Option& option);

/// What --help calls the option's value.
std::string valueNameOf(const CLI::Option& option);

/// "-h, --help", "--set NAME=VALUE".
std::string synopsisOf(const CLI::Option& option);

/// A script for bash that completes commands, options and values that can be told beforehand.
std::string bashCompletion(const CLI::App& app);

/// The manual page, section 1, in the language of man(7).
std::string manualPage(const CLI::App& app);

}  // namespace kyr::tool
