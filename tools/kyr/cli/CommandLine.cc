#include "cli/CommandLine.h"

namespace kyr::tool {

void addArgument(CLI::App& command, const std::string& name, std::string& value,
                 const std::string& meaning) {
  command.add_option(name, value, meaning)->required()->type_name("");
}

void addRecordingArgument(CLI::App& command, std::string& folder) {
  addArgument(command, "FOLDER", folder, "Folder of the recording");
}

void addSignalArguments(CLI::App& command, std::vector<std::string>& signals) {
  command.add_option("SIGNAL", signals, "Names or ids of signals; all of them unless given")
      ->type_name("");
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

std::string valueNameOf(const CLI::Option& option) {
  std::string name = option.get_type_name();
  // CLI11 adds the descriptions of its checks to the name. Reading them changes nothing, but the
  // function is not const.
  auto& checks = const_cast<CLI::Option&>(option);
  for (int i = 0;; ++i) {
    try {
      const std::string check = ":" + checks.get_validator(i)->get_description();
      const std::size_t at = name.rfind(check);
      if (at != std::string::npos) name.erase(at, check.size());
    } catch (const CLI::OptionNotFound&) {
      return name;
    }
  }
}

std::string synopsisOf(const CLI::Option& option) {
  std::string text;
  for (const std::string& name : option.get_snames()) text += (text.empty() ? "-" : ", -") + name;
  for (const std::string& name : option.get_lnames()) text += (text.empty() ? "--" : ", --") + name;
  if (takesValue(option)) text += " " + valueNameOf(option);
  return text;
}

}  // namespace kyr::tool
