#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

/// What is said about a command line that cannot be understood.
namespace kyr::tool {

/// The word that a user most likely meant by \p word, or an empty text if none is similar.
std::string nearestWord(const std::string& word, const std::vector<std::string>& words);

/// ": did you mean WORD?", or an empty text.
std::string suggestion(const std::string& word, const std::vector<std::string>& words);

/// "there is no command imprt: did you mean import?"
std::string unknownCommand(const CLI::App& app, const std::string& name);

/// One sentence on why \p app refused the command line, which names what it does not know.
std::string describeWrongUsage(const CLI::App& app, const CLI::ParseError& error);

}  // namespace kyr::tool
