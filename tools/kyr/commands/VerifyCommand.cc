#include <CLI/CLI.hpp>
#include <memory>
#include <string>
#include <vector>

#include "cli/CommandLine.h"
#include "cli/Output.h"
#include "cli/Text.h"
#include "commands/Commands.h"
#include "kyr/recording/RecordingInfo.h"
#include "print/RecordingSummary.h"

namespace kyr::tool {

namespace {

int runVerify(const std::string& folder) {
  const Path path = Path::fromNarrow(folder);
  const std::vector<std::string> faults = recording::verifyRecording(path);
  Output out;
  for (const std::string& fault : faults) out.print("{}\n", singleLine(fault));
  if (faults.empty()) {
    const recording::RecordingInfo info = recording::describeRecording(path);
    out.print("{}: sound, {} in {}\n", folder, counted(info.signals.size(), "signal"),
              counted(RecordingSummary(info).fileCount(), "file"));
  }
  out.flush();
  return faults.empty() ? 0 : 1;
}

}  // namespace

void addVerifyCommand(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("verify", "Check every bit of a recording");
  const auto folder = std::make_shared<std::string>();
  addRecordingArgument(*command, *folder);
  command->footer(R"help(
Prints one line for each fault and exits with 1 if there is one.

Example:
  kyr verify run)help");
  setAction(*command, action, folder, runVerify);
}

}  // namespace kyr::tool
