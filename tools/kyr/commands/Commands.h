#pragma once

#include <functional>

namespace CLI {
class App;
}

namespace kyr::tool {

/// Does what the command line asks for and returns the exit code. It runs after the whole command
/// line was understood.
using Action = std::function<int()>;

/// \name Each adds a command, which sets \p action when the user calls it.
/// @{
void addImportCommand(CLI::App& app, Action& action);
void addRecordCommand(CLI::App& app, Action& action);
void addRecoverCommand(CLI::App& app, Action& action);
void addInfoCommand(CLI::App& app, Action& action);
void addCatCommand(CLI::App& app, Action& action);
void addStatsCommand(CLI::App& app, Action& action);
void addDiffCommand(CLI::App& app, Action& action);
void addSetCommand(CLI::App& app, Action& action);
void addCutCommand(CLI::App& app, Action& action);
void addMergeCommand(CLI::App& app, Action& action);
void addAppendCommand(CLI::App& app, Action& action);
void addRepackCommand(CLI::App& app, Action& action);
void addExportCommand(CLI::App& app, Action& action);
void addViewCommand(CLI::App& app, Action& action);
void addPlotCommand(CLI::App& app, Action& action);
void addDedupCommand(CLI::App& app, Action& action);
void addSqlCommand(CLI::App& app, Action& action);
void addVerifyCommand(CLI::App& app, Action& action);
void addGcCommand(CLI::App& app, Action& action);
void addOptionsCommand(CLI::App& app, Action& action);
void addDemoCommand(CLI::App& app, Action& action);
void addCompletionCommand(CLI::App& app, Action& action);
void addManualCommand(CLI::App& app, Action& action);
void addHelpCommand(CLI::App& app, Action& action);
/// @}

}  // namespace kyr::tool
