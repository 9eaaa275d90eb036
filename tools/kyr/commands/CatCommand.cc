#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "cli/CommandLine.h"
#include "cli/Interrupt.h"
#include "cli/Output.h"
#include "cli/Process.h"
#include "cli/RowWindow.h"
#include "cli/SignalSelection.h"
#include "commands/Commands.h"
#include "edit/StartTimes.h"
#include "kyr/recording/RecordingReader.h"
#include "print/RecordingSummary.h"
#include "print/SampleTable.h"

namespace kyr::tool {

namespace {

using recording::RecordingReader;
using recording::RecordingState;

struct CatOptions {
  std::string folder;
  std::vector<std::string> signals;
  WindowOptions window;
  bool follows = false;
  Links links = Links::refused;
  std::string format = "csv";
  bool isAbsolute = false;
  std::optional<std::uint64_t> head;
  std::optional<std::uint64_t> tail;
};

// Prints rows as they are flushed, until the recording is finished.
void follow(Output& out, RecordingReader& reader, SampleTable& table, const CatOptions& options,
            const Window& window) {
  constexpr std::chrono::milliseconds kInterval(100);
  while (reader.state() != RecordingState::finished) {
    if (reader.state() == RecordingState::notFinished && !reader.refresh()) {
      throw std::runtime_error(options.folder + ": " + stateOf(reader.state(), options.folder));
    }
    std::this_thread::sleep_for(kInterval);
    stopIfInterrupted();
    reader.refresh();
    table.print(out, window);
  }
}

int runCat(const CatOptions& options) {
  Window window = windowOf(options.window);
  window.head = options.head;
  window.tail = options.tail;
  allowManyFiles();
  RecordingReader reader(Path::fromNarrow(options.folder), {true, 0, options.links});
  SampleTable table(reader, chosenSignals(reader, options.signals, options.folder));
  table.setFormat(rowFormatCalled(options.format));
  if (options.isAbsolute) {
    const auto start = startOf(reader.attributes());
    if (!start) {
      throw std::runtime_error(options.folder +
                               " has no attribute \"start\", from which its times would count");
    }
    table.setStart(*start);
  }
  Output out;
  table.print(out, window);
  if (options.follows) {
    follow(out, reader, table, options, window);
  } else if (reader.state() == RecordingState::notFinished) {
    tell("warning: " + options.folder + " is " + stateOf(reader.state(), options.folder));
  }
  table.end(out);
  return 0;
}

}  // namespace

void addCatCommand(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("cat", "Print signals as CSV, JSON or a table");
  const auto options = std::make_shared<CatOptions>();
  addRecordingArgument(*command, options->folder);
  addSignalArguments(*command, options->signals);
  addLinksOption(*command, options->links);
  CLI::Option* follow =
      command->add_flag("-f,--follow", options->follows,
                        "Print rows as they are recorded, until the recording is finished");
  addWindowOptions(*command, options->window)->excludes(follow);
  CLI::Option* head = command->add_option("-n,--head", options->head, "Print the first N rows")
                          ->type_name("N")
                          ->check(isCount())
                          ->excludes(follow);
  command->add_option("--tail", options->tail, "Print the last N rows")
      ->type_name("N")
      ->check(isCount())
      ->excludes(head)
      ->excludes(follow);
  command
      ->add_option("--format", options->format,
                   "csv (unless given), json, ndjson for an object on each line, or table")
      ->type_name("csv|json|ndjson|table")
      ->check(oneOf({"csv", "json", "ndjson", "table"}));
  command->add_flag("--absolute", options->isAbsolute,
                    "Print moments, counted from the attribute \"start\", in place of times");
  command->footer(R"help(
Prints a header of names and units, then a row for each time. If signals have different times, their
rows are merged, and cells without a sample are empty. If a time is repeated, the n-th samples of
all signals stand in the same row. For signals without times, the column "row" takes the place of
the time and counts their samples.

Numbers have the shortest form that reads back exactly, so kyr import stores the same values again.
A matrix is one cell, "1 2;3 4", with blanks between elements and semicolons between rows. Blobs are
base64. Signals of the same name have their ids behind it. JSON has no cells without a sample, and
NaN and infinite numbers as texts.

While a recording is being written, its durable rows are printed. With --follow, signals that are
not recorded together stand in rows of their own.

Examples:
  kyr cat run
  kyr cat run speed torque --from 10 --to 20.5
  kyr cat run --rows 1000:2000
  kyr cat run --head 10 --format table
  kyr cat run 'g*' --tail 3 --format ndjson
  kyr cat run speed --follow)help");
  setAction(*command, action, options, runCat);
}

}  // namespace kyr::tool
