#include <CLI/CLI.hpp>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "cli/CommandLine.h"
#include "cli/Errors.h"
#include "cli/Interrupt.h"
#include "cli/Output.h"
#include "cli/Process.h"
#include "cli/Text.h"
#include "commands/Commands.h"
#include "kyr/recording/Deduplication.h"

namespace kyr::tool {

namespace {

struct DedupOptions {
  std::vector<std::string> folders;
};

int runDedup(const DedupOptions& options) {
  allowManyFiles();
  recording::Deduplicator deduplicator;
  std::uint64_t saved = 0;
  int result = 0;
  Output out;
  for (const std::string& folder : options.folders) {
    try {
      stopIfInterrupted();
      const auto report = deduplicator.deduplicate(Path::fromNarrow(folder));
      saved += report.savedBytes;
      if (report.leftAlone.empty()) {
        out.print("{}: shares {} of {}, {} saved\n", folder, grouped(report.sharedContents),
                  counted(report.contents, "content"), byteCount(report.savedBytes));
      } else {
        out.print("{}: left alone: {}\n", folder, report.leftAlone);
      }
    } catch (const std::exception&) {
      result = reportCurrentException();
    }
    out.flush();
  }
  out.print("{}: {} saved\n", counted(options.folders.size(), "recording"), byteCount(saved));
  out.flush();
  return result;
}

}  // namespace

void addDedupCommand(CLI::App& app, Action& action) {
  CLI::App* command =
      app.add_subcommand("dedup", "Let recordings share the files of what they have in common");
  const auto options = std::make_shared<DedupOptions>();
  command->add_option("FOLDER", options->folders, "Recordings; earlier ones keep their files")
      ->required()
      ->type_name("");
  command->footer(R"help(
Contents that are equal, whatever their signals are called, become one file with several names (hard
links). They are compared bit by bit first. Each recording is replaced in one step, or left alone,
and stays as it was for all who read it. It may be changed, saved again or deleted without regard to
the others. All must be on one file system, and finished.

Copies keep what is shared only if they are told to: rsync --hard-links, or one archive of tar with
all recordings.

Examples:
  kyr dedup run run42)help");
  setAction(*command, action, options, runDedup);
}

}  // namespace kyr::tool
