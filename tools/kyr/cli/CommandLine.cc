#include "cli/CommandLine.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <set>
#include <system_error>

namespace kyr::tool {

namespace {

std::string namesOf(const std::set<CLI::Option*>& options) {
  std::set<std::string> names;
  for (const CLI::Option* option : options) names.insert(option->get_name());
  return fmt::format("{}", fmt::join(names, ", "));
}

}  // namespace

void addArgument(CLI::App& command, const std::string& name, std::string& value,
                 const std::string& meaning) {
  command.add_option(name, value, meaning)->required()->type_name("");
}

void addRecordingArgument(CLI::App& command, std::string& folder) {
  addArgument(command, "FOLDER", folder, "Folder of the recording");
}

void addLinksOption(CLI::App& command, Links& links) {
  command.add_flag_callback(
      "--follow-links", [&links] { links = Links::followed; },
      "Also read files to which symbolic links in FOLDER lead, wherever they are");
}

void addSignalArguments(CLI::App& command, std::vector<std::string>& signals) {
  command
      .add_option("SIGNAL", signals,
                  "Names, ids or patterns ('floor1_*') of signals; all of them unless given")
      ->type_name("");
}

CLI::Validator oneOf(const std::vector<std::string>& values) {
  const auto check = [values](const std::string& value) {
    if (std::find(values.begin(), values.end(), value) != values.end()) return std::string();
    return fmt::format("give {}, not {}", fmt::join(values, ", "), value);
  };
  return {check, ""};
}

namespace {

// A check of a number, which names what is expected in its place.
CLI::Validator isNumber(bool (*isGood)(double), const std::string& expected) {
  const auto check = [=](const std::string& text) {
    double number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isWhole = error == std::errc() && end == text.data() + text.size();
    return isWhole && isGood(number) ? std::string() : "give " + expected + ", not " + text;
  };
  return {check, ""};
}

}  // namespace

CLI::Validator isAboveZero() {
  return isNumber([](double number) { return number > 0; }, "a number above 0");
}

CLI::Validator isTolerance() {
  return isNumber([](double number) { return number >= 0 && std::isfinite(number); },
                  "a finite number from 0 on");
}

// CLI11 takes -1 for the largest number without a sign.
CLI::Validator isCount() {
  const auto check = [](const std::string& text) {
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isNumber = error == std::errc() && end == text.data() + text.size();
    return isNumber ? std::string() : "give a whole number from 0 on, not " + text;
  };
  return {check, ""};
}

std::vector<const CLI::App*> commandsOf(const CLI::App& app) {
  return app.get_subcommands([](const CLI::App* command) { return !command->get_name().empty(); });
}

std::vector<const CLI::Option*> optionsOf(const CLI::App& command) {
  return command.get_options([](const CLI::Option* option) { return option->nonpositional(); });
}

std::vector<const CLI::Option*> positionalsOf(const CLI::App& command) {
  return command.get_options([](const CLI::Option* option) { return option->get_positional(); });
}

bool takesValue(const CLI::Option& option) { return option.get_items_expected_max() > 0; }

std::string synopsisOf(const CLI::Option& option) {
  std::string text;
  for (const std::string& name : option.get_snames()) text += (text.empty() ? "-" : ", -") + name;
  for (const std::string& name : option.get_lnames()) text += (text.empty() ? "--" : ", --") + name;
  // A flag may have a value behind "=".
  return text + (takesValue(option) ? " " : "") + option.get_type_name();
}

std::string meaningOf(const CLI::Option& option) {
  std::string text = option.get_description();
  if (!option.get_needs().empty()) text += ". Needs " + namesOf(option.get_needs());
  if (!option.get_excludes().empty()) text += ". Not with " + namesOf(option.get_excludes());
  return text;
}

std::string usageOf(const CLI::App& command) {
  std::string usage = "kyr " + command.get_name() + " [OPTIONS]";
  for (const CLI::Option* argument : positionalsOf(command)) {
    std::string name = argument->get_name(true);
    if (argument->get_expected_max() > 1) name += "...";
    usage += argument->get_required() ? " " + name : " [" + name + "]";
  }
  return usage;
}

}  // namespace kyr::tool
