#include <CLI/CLI.hpp>

#include "cli/Output.h"
#include "cli/Settings.h"
#include "cli/Text.h"
#include "commands/Commands.h"

namespace kyr::tool {

namespace {

int runOptions() {
  TextTable table({{"OPTION", TextTable::Align::left},
                   {"VALUE", TextTable::Align::left},
                   {"MEANING", TextTable::Align::left}});
  for (const Setting& setting : currentSettings()) {
    table.addRow({setting.name, setting.value, setting.meaning});
  }
  Output out;
  out.print("{}", table.text());
  out.flush();
  return 0;
}

}  // namespace

void addOptionsCommand(CLI::App& app, Action& action) {
  CLI::App* command =
      app.add_subcommand("options", "Show the options of the library and their meaning");
  command->footer(R"help(
Every run of the tool starts with these values. Commands that write Parquet files change them with
--set, for one run.

Examples:
  kyr options
  kyr import run.csv run --set Compression=zstd --set Dictionary=false)help");
  command->callback([&action] { action = runOptions; });
}

}  // namespace kyr::tool
