#include "cli/Usage.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <string_view>

#include "cli/CommandLine.h"

namespace kyr::tool {

namespace {

// Number of letters that have to be inserted, removed, replaced, or swapped with the next one.
std::size_t editDistance(const std::string& a, const std::string& b) {
  std::vector<std::vector<std::size_t>> cost(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
  std::iota(cost[0].begin(), cost[0].end(), std::size_t{0});
  for (std::size_t i = 1; i <= a.size(); ++i) {
    cost[i][0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t replaced = cost[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      cost[i][j] = std::min({cost[i - 1][j] + 1, cost[i][j - 1] + 1, replaced});
      const bool isSwapped = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
      if (isSwapped) cost[i][j] = std::min(cost[i][j], cost[i - 2][j - 2] + 1);
    }
  }
  return cost[a.size()][b.size()];
}

std::vector<std::string> longNames(const CLI::App& command) {
  std::vector<std::string> names;
  for (const CLI::Option* option : optionsOf(command)) {
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  }
  return names;
}

bool isOption(const std::string& word) { return word.size() > 1 && word[0] == '-'; }

std::string unknownOption(const CLI::App& app, const CLI::App& command, const std::string& word) {
  const std::string name = word.substr(0, word.find('='));
  std::vector<std::string> names = longNames(command);
  const std::vector<std::string> common = longNames(app);
  names.insert(names.end(), common.begin(), common.end());
  return fmt::format("there is no option {}{}", name, suggestion(name, names));
}

// What CLI11 says, in our words where its own are hard to read.
std::string inPlainWords(const CLI::ParseError& error) {
  std::string text = error.what();
  const std::string kind = error.get_name();
  const std::string subject = text.substr(0, text.find_first_of(": "));
  const std::string object = text.substr(text.find_last_of(' ') + 1);
  if (kind == "RequiredError") return subject + " is missing";
  if (kind == "RequiresError") return fmt::format("{} needs {}", subject, object);
  if (kind == "ExcludesError") return fmt::format("give {} or {}, not both", subject, object);
  if (kind == "ArgumentMismatch") {
    const bool isMissing = text.find("missing") != std::string::npos;
    return fmt::format("{}: give {}", subject, isMissing ? "a value" : "it once");
  }
  constexpr std::string_view kConversion = "Could not convert: ";
  if (kind == "ConversionError" && text.rfind(kConversion, 0) == 0) {
    return text.substr(kConversion.size()) + ": give a number";
  }
  return text;
}

}  // namespace

std::string nearestWord(const std::string& word, const std::vector<std::string>& words) {
  std::string nearest;
  std::size_t least = word.size() / 3 + 2;
  for (const std::string& candidate : words) {
    const bool isStart = word.size() > 1 && candidate.compare(0, word.size(), word) == 0;
    const std::size_t distance = isStart ? 1 : editDistance(word, candidate);
    if (distance >= least) continue;
    least = distance;
    nearest = candidate;
  }
  return nearest;
}

std::string suggestion(const std::string& word, const std::vector<std::string>& words) {
  const std::string nearest = nearestWord(word, words);
  return nearest.empty() ? nearest : fmt::format(": did you mean {}?", nearest);
}

std::string unknownCommand(const CLI::App& app, const std::string& name) {
  std::vector<std::string> names;
  for (const CLI::App* command : commandsOf(app)) names.push_back(command->get_name());
  return fmt::format("there is no command {}{}", name, suggestion(name, names));
}

std::string describeWrongUsage(const CLI::App& app, const CLI::ParseError& error) {
  const std::vector<CLI::App*> called = app.get_subcommands();
  const CLI::App& command = called.empty() ? app : *called.front();
  const std::vector<std::string> unknown = app.remaining(/*recurse=*/true);
  const auto option = std::find_if(unknown.begin(), unknown.end(), isOption);
  std::string text = inPlainWords(error);
  if (option != unknown.end()) {
    text = unknownOption(app, command, *option);
  } else if (called.empty()) {
    text = unknown.empty() ? "give a command" : unknownCommand(app, unknown.front());
  } else if (!unknown.empty()) {
    text = fmt::format("{} is one argument too many", unknown.front());
  }
  return fmt::format("{} (kyr {}--help tells more)", text,
                     called.empty() ? std::string() : command.get_name() + " ");
}

}  // namespace kyr::tool
