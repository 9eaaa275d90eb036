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

struct VerifyOptions {
  std::string folder;
  Links links = Links::refused;
};

int runVerify(const VerifyOptions& options) {
  const Path path = Path::fromNarrow(options.folder);
  const std::vector<std::string> faults = recording::verifyRecording(path, options.links);
  Output out;
  for (const std::string& fault : faults) out.print("{}\n", singleLine(fault));
  if (faults.empty()) {
    const recording::RecordingInfo info = recording::describeRecording(path, options.links);
    out.print("{}: sound, {} in {}\n", options.folder, counted(info.signals.size(), "signal"),
              counted(RecordingSummary(info).fileCount(), "file"));
  }
  out.flush();
  return faults.empty() ? 0 : 1;
}

}  // namespace

void addVerifyCommand(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("verify", "Check every bit of a recording");
  const auto options = std::make_shared<VerifyOptions>();
  addRecordingArgument(*command, options->folder);
  addLinksOption(*command, options->links);
  command->footer(R"help(
Prints one line for each fault and exits with 1 if there is one.

Example:
  kyr verify run)help");
  setAction(*command, action, options, runVerify);
}

}  // namespace kyr::tool
