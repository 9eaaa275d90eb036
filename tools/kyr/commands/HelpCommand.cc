#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "cli/CommandLine.h"
#include "cli/Errors.h"
#include "cli/Output.h"
#include "cli/Usage.h"
#include "commands/Commands.h"

namespace kyr::tool {

namespace {

// App::help() would show the help of the command that was called, which is this one.
std::string helpOn(const CLI::App& app, const std::string& name) {
  if (name.empty()) {
    return app.get_formatter()->make_help(&app, app.get_name(), CLI::AppFormatMode::Normal);
  }
  for (const CLI::App* command : commandsOf(app)) {
    if (command->get_name() != name) continue;
    return app.get_formatter()->make_help(command, app.get_name() + " " + name,
                                          CLI::AppFormatMode::Normal);
  }
  throw UsageError(unknownCommand(app, name));
}

}  // namespace

void addHelpCommand(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("help", "Show the help of a command");
  const auto name = std::make_shared<std::string>();
  command->add_option("COMMAND", *name, "Name of the command; an overview unless given")
      ->type_name("");
  command->footer(R"help(
Examples:
  kyr help
  kyr help import)help");
  command->callback([&app, &action, name] {
    action = [&app, name] {
      Output out;
      out.print("{}", helpOn(app, *name));
      out.flush();
      return 0;
    };
  });
}

}  // namespace kyr::tool
