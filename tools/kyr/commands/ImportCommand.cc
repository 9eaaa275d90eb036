#include "commands/ImportCommand.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

#include "cli/CommandLine.h"
#include "cli/Errors.h"
#include "cli/Losses.h"
#include "cli/Output.h"
#include "cli/ProgressBar.h"
#include "cli/RecordingFolder.h"
#include "cli/Settings.h"
#include "cli/Text.h"
#include "commands/Commands.h"
#include "csv/ColumnStore.h"
#include "kyr/parquet/SignalPool.h"
#include "kyr/recording/Recording.h"
#include "kyr/recording/WorkingFolder.h"
#include "print/RecordingSummary.h"

namespace kyr::tool {

namespace {

void tellLosses(const CsvTable& table, const ImportOptions& options) {
  Losses losses(options.isStrict, "stored");
  for (const std::string& loss : table.losses()) losses.add(loss);
  losses.settle();
  constexpr std::array<std::string_view, 6> kSeconds{"",       "s",       "sec",
                                                     "second", "seconds", "Seconds"};
  if (std::find(kSeconds.begin(), kSeconds.end(), table.timeUnit()) == kSeconds.end()) {
    tell(
        fmt::format("warning: the times are in {} and are stored as they are, but recordings count "
                    "time in seconds",
                    inQuotes(table.timeUnit())));
  }
}

int runImport(const ImportOptions& options) {
  importCsv(options);
  const RecordingSummary summary(recording::describeRecording(Path::fromNarrow(options.folder)));
  Output out;
  out.print("{}: {}\n", options.folder, summary.text());
  out.flush();
  return 0;
}

}  // namespace

void importCsv(const ImportOptions& options) {
  applySettings(options.settings);
  requireSharedTimes();
  const Path folder = Path::fromNarrow(options.folder);
  checkNewRecording(options.folder, options.replaces);
  CsvTable table(options.file, options.csv);
  // Beside the recording, which can then share the files.
  const auto storage = recording::WorkingFolder::beside(folder);
  ColumnStore store(storage.path(), table.width(),
                    options.streams ? std::optional(options.stream) : std::nullopt,
                    options.packBelow);
  ProgressBar bar;
  table.read(store, [&bar](double part) { bar.show("reading", part); });
  bar.hide();
  tellLosses(table, options);
  if (table.columns().empty()) {
    throw std::runtime_error(options.file +
                             ": no column holds numbers, so there is nothing to store");
  }
  table.checkTypes();
  std::vector<recording::SignalDescription> descriptions;
  for (const CsvColumn& column : table.columns()) {
    bar.show("storing", static_cast<double>(descriptions.size()) /
                            static_cast<double>(table.columns().size()));
    store.finish(column);
    recording::SignalDescription description;
    description.signalId = column.id;
    description.name = column.name;
    description.unit = column.unit;
    descriptions.push_back(std::move(description));
  }
  bar.show("saving", 1);
  recording::SaveOptions saving;
  saving.packBelow = options.packBelow;
  saving.replaces = options.replaces;
  recording::saveRecording(store.pool(), descriptions, folder, saving);
}

namespace {

void addStreamOptions(CLI::App& command, ImportOptions& options) {
  CLI::Option* stream =
      command.add_flag("--stream", options.streams,
                       "Append the columns chunk by chunk, to files of many row groups");
  command
      .add_option("--chunk", options.stream.chunkRows,
                  fmt::format("Rows per append at most; {} unless given", options.stream.chunkRows))
      ->type_name("ROWS")
      ->check(isAboveZero())
      ->needs(stream);
  // Parquet splits a batch of more rows.
  constexpr std::size_t kMaxRowGroupRows = 1048576;
  command
      .add_option("--batch", options.stream.batchRows,
                  fmt::format("Rows per row group, at most {}; {} unless given", kMaxRowGroupRows,
                              options.stream.batchRows))
      ->type_name("ROWS")
      ->check(CLI::Range(std::size_t{1}, kMaxRowGroupRows).description(""))
      ->needs(stream);
}

void addImportOptions(CLI::App& command, ImportOptions& options) {
  addArgument(command, "FILE", options.file, "CSV file: a line of names, then a row for each time");
  addArgument(command, "FOLDER", options.folder, "Folder of the new recording");
  addCsvOptions(command, options.csv);
  addCompressionOption(command, options.settings);
  addStreamOptions(command, options);
  command
      .add_flag("--pack{1048576}", options.packBelow,
                "Put signals of fewer bytes, 1048576 unless given, into files that they share: "
                "quicker and smaller for many small signals")
      ->type_name("[=BYTES]");
  addSetOption(command, options.settings);
  command.add_flag("--strict", options.isStrict,
                   "Store nothing if something in the file cannot be stored as it is");
  command.add_flag("--force", options.replaces, "Replace the recording in FOLDER");
}

}  // namespace

void addImportCommand(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("import", "Store a CSV file as a recording");
  const auto options = std::make_shared<ImportOptions>();
  addImportOptions(*command, *options);
  command->footer(R"help(
Each column becomes a signal over the time column. A header such as "h [m]" or "h (m)" gives name
and unit. The cells decide on the type of a column: integer (int64, or uint64 where needed), double
or boolean. At an empty cell a signal has no sample; "nan" and "inf" are values. Times are in
seconds and must not decrease. Columns that hold no numbers are left out. A warning names each of
them, and the first number of a column that is rounded.

A file may be larger than memory. At most 128 MiB of samples wait to be written, or with --stream a
row group of every column. In addition a few blocks of 2 MiB of the file are in memory, or its
longest rows. The content of a pipe goes to a temporary file first.

Examples:
  kyr import run.csv run
  kyr import run.csv run --time "Time (s)" --type gear=int8
  kyr import run.csv run --compression zstd --force
  kyr import run.csv run --stream --batch 16384 --set Dictionary=false)help");
  setAction(*command, action, options, runImport);
}

}  // namespace kyr::tool
