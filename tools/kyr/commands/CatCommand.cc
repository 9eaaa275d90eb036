#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "cli/CommandLine.h"
#include "cli/Errors.h"
#include "cli/Interrupt.h"
#include "cli/Output.h"
#include "cli/Process.h"
#include "cli/SignalSelection.h"
#include "commands/Commands.h"
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
  std::optional<double> from;
  std::optional<double> to;
  std::string rows;
  bool follows = false;
  Links links = Links::refused;
};

std::uint64_t parseRow(std::string_view text, std::uint64_t ifEmpty, const std::string& option) {
  if (text.empty()) return ifEmpty;
  std::uint64_t row = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), row);
  if (error == std::errc() && end == text.data() + text.size()) return row;
  throw UsageError(
      fmt::format("--rows {}: give A:B with whole numbers from 0, or A: or :B", option));
}

Window windowOf(const CatOptions& options) {
  Window window;
  window.from = options.from.value_or(window.from);
  window.to = options.to.value_or(window.to);
  if (!(window.from <= window.to)) {
    throw UsageError(
        fmt::format("--from {} --to {}: no time lies in between", window.from, window.to));
  }
  if (options.rows.empty()) return window;
  const std::string_view rows = options.rows;
  const std::size_t colon = rows.find(':');
  // A text without a colon is refused as a number.
  const std::string_view first = colon == std::string_view::npos ? "?" : rows.substr(0, colon);
  window.firstRow = parseRow(first, window.firstRow, options.rows);
  window.endRow = parseRow(rows.substr(colon + 1), window.endRow, options.rows);
  if (window.firstRow > window.endRow) {
    throw UsageError(fmt::format("--rows {}: the first row is after the last", options.rows));
  }
  return window;
}

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
  const Window window = windowOf(options);
  allowManyFiles();
  RecordingReader reader(Path::fromNarrow(options.folder), {true, 0, options.links});
  SampleTable table(reader, chosenSignals(reader.signals(), options.signals, options.folder));
  Output out;
  table.print(out, window);
  if (options.follows) {
    follow(out, reader, table, options, window);
  } else if (reader.state() == RecordingState::notFinished) {
    tell("warning: " + options.folder + " is " + stateOf(reader.state(), options.folder));
  }
  return 0;
}

}  // namespace

void addCatCommand(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("cat", "Print signals as CSV");
  const auto options = std::make_shared<CatOptions>();
  addRecordingArgument(*command, options->folder);
  addSignalArguments(*command, options->signals);
  addLinksOption(*command, options->links);
  auto* from =
      command->add_option("--from", options->from, "Leave out earlier times [s]")->type_name("T");
  auto* to = command->add_option("--to", options->to, "Leave out later times [s]")->type_name("T");
  command->add_option("--rows", options->rows, "Print the rows A to B - 1, counted from 0")
      ->type_name("A:B")
      ->excludes(from)
      ->excludes(to)
      ->excludes(
          command->add_flag("--follow", options->follows,
                            "Print rows as they are recorded, until the recording is finished"));
  command->footer(R"help(
Prints a header of names and units, then a row for each time. If signals have different times, their
rows are merged, and cells without a sample are empty. If a time is repeated, the n-th samples of
all signals stand in the same row. For signals without times, the column "row" takes the place of
the time and counts their samples.

Numbers have the shortest form that reads back exactly, so kyr import stores the same values again.
A matrix is one cell, "1 2;3 4", with blanks between elements and semicolons between rows. Blobs are
base64.

While a recording is being written, its durable rows are printed. With --follow, signals that are
not recorded together stand in rows of their own.

Examples:
  kyr cat run
  kyr cat run speed torque --from 10 --to 20.5
  kyr cat run --rows 1000:2000
  kyr cat run --rows :10
  kyr cat run speed --follow)help");
  setAction(*command, action, options, runCat);
}

}  // namespace kyr::tool
