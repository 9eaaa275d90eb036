#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "cli/CommandLine.h"
#include "cli/Output.h"
#include "cli/Text.h"
#include "commands/Commands.h"
#include "kyr/recording/Recovery.h"

namespace kyr::tool {

namespace {

constexpr int kLossesExitCode = 3;

int runRecover(const std::string& folder) {
  const auto result = recording::recoverRecording(Path::fromNarrow(folder));
  Output out;
  if (result.wasComplete) {
    out.print("{}: the recording is complete\n", folder);
    out.flush();
    return 0;
  }
  std::uint64_t rows = 0;
  for (const recording::RecoveredSignal& signal : result.signals) {
    rows += signal.rowsKept;
    if (signal.rowsLost == 0) continue;
    out.print("signal {} {}: {} lost{}, {} kept\n", signal.signalId, inQuotes(signal.name),
              counted(signal.rowsLost, "row"),
              signal.secondsLost ? fmt::format(" ({} s)", *signal.secondsLost) : std::string(),
              signal.rowsKept);
  }
  for (const recording::RecoveredFile& file : result.filesCut) {
    out.print("storage/{}.parquet: {} after the last row that is kept were cut off\n",
              file.storageId, byteCount(file.bytesCut));
  }
  for (const std::string& note : result.notes) out.print("{}\n", singleLine(note));
  out.print("{}: recovered, {} with {}{}\n", folder, counted(result.signals.size(), "signal"),
            counted(rows, "sample"), result.hasLosses() ? "" : "; nothing is lost");
  out.flush();
  return result.hasLosses() ? kLossesExitCode : 0;
}

}  // namespace

void addRecoverCommand(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("recover", "Repair a recording that was not finished");
  const auto folder = std::make_shared<std::string>();
  addRecordingArgument(*command, *folder);
  command->footer(R"help(
Keeps the rows that were durable, or as many of them as are left, and says what is lost. A recording
whose recording.json is damaged or missing gets a new one.

Exit codes: 0 nothing is lost, 3 something is lost, 1 there is no recording that could be recovered.

Example:
  kyr recover run42)help");
  setAction(*command, action, folder, runRecover);
}

}  // namespace kyr::tool
