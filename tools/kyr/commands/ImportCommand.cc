#include "commands/ImportCommand.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

#include "cli/CommandLine.h"
#include "cli/Errors.h"
#include "cli/GivenAttributes.h"
#include "cli/History.h"
#include "cli/LikeOption.h"
#include "cli/Losses.h"
#include "cli/Output.h"
#include "cli/ProgressBar.h"
#include "cli/RecordingFolder.h"
#include "cli/Settings.h"
#include "cli/Text.h"
#include "commands/Commands.h"
#include "csv/ColumnStore.h"
#include "csv/CsvMessages.h"
#include "kyr/parquet/SignalPool.h"
#include "kyr/recording/Recording.h"
#include "kyr/recording/WorkingFolder.h"
#include "print/RecordingSummary.h"

namespace kyr::tool {

namespace {

void tellAll(const CsvTable& table, const ImportOptions& options) {
  tellNotes(table.notes(), options.isQuiet);
  Losses losses(options.isStrict, "stored");
  for (const std::string& loss : table.losses()) losses.add(loss);
  losses.settle();
}

// A file for each of many small signals takes ten times as long as a few packs.
std::size_t packBelowFor(const ImportOptions& options, std::size_t columns) {
  constexpr std::size_t kFew = 300;
  constexpr std::size_t kSmall = 1048576;
  if (options.packBelow > 0 || options.hasNoPacks) return options.packBelow;
  return columns > kFew && !options.streams ? kSmall : 0;
}

int runImport(const ImportOptions& options) {
  LikeOption like(options.like, options.folder);
  importCsv(options);
  // The files of the import have gone, so that nobody else has those that are shared now.
  const std::string shared = like.share();
  if (options.isQuiet) return 0;
  const RecordingSummary summary(recording::describeRecording(Path::fromNarrow(options.folder)));
  Output out;
  out.print("{}: {}\n{}", options.folder, summary.text(), shared);
  out.flush();
  return 0;
}

}  // namespace

void importCsv(const ImportOptions& options) {
  applySettings(options.settings);
  requireSharedTimes();
  const Path folder = Path::fromNarrow(options.folder);
  checkSavedRecording(options.folder, options.replaces);
  CsvTable table(options.file, options.csv);
  // Beside the recording, which can then share the files.
  const auto storage = recording::WorkingFolder::beside(folder);
  const std::size_t packBelow = packBelowFor(options, table.width());
  ColumnStore store(storage.path(), table.width(),
                    options.streams ? std::optional(options.stream) : std::nullopt, packBelow);
  ProgressBar bar;
  table.read(store, [&bar](double part) { bar.show("reading", part); });
  bar.hide();
  tellAll(table, options);
  if (table.columns().empty()) {
    throw std::runtime_error(options.file + kNothingLeft);
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
  saving.packBelow = packBelow;
  saving.attributes = givenAttributes(options.attributes);
  addHistory(*saving.attributes, "kyr import", options.file, /*isComplete=*/true);
  if (table.timeForm().isAbsolute()) {
    (*saving.attributes)[kStartAttribute] = jsonText(table.timeForm().start());
  }
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
  addArgument(command, "FILE", options.file,
              "CSV file, or - for standard input: a line of names, then a row for each time");
  addArgument(command, "FOLDER", options.folder, "Folder of the new recording");
  addCsvOptions(command, options.csv);
  addCompressionOption(command, options.settings);
  addStreamOptions(command, options);
  command
      .add_flag("--pack{1048576}", options.packBelow,
                "Put signals of fewer bytes, 1048576 unless given, into files that they share: "
                "quicker and smaller for many small signals, and done unasked for more than 300")
      ->type_name("[=BYTES]");
  command.add_flag("--no-pack", options.hasNoPacks, "Give each signal a file of its own");
  addLikeOption(command, options.like);
  addAttributeOption(command, options.attributes);
  addSetOption(command, options.settings);
  command.add_flag("--strict", options.isStrict,
                   "Store nothing if something in the file cannot be stored as it is");
  command.add_flag("-q,--quiet", options.isQuiet, "Tell nothing but warnings and errors");
  command.add_flag("-f,--force", options.replaces, "Replace the recording in FOLDER");
}

}  // namespace

void addImportCommand(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("import", "Store a CSV file as a recording");
  const auto options = std::make_shared<ImportOptions>();
  addImportOptions(*command, *options);
  command->footer(R"help(
Each column becomes a signal over the time column. A header such as "h [m]" or "h (m)" gives name
and unit, and so does a row of units below the names. The cells decide on the type of a column:
integer (int64, or uint64 where needed), double, boolean, or text. A signal has no sample where its
cell is empty or, among numbers, says NA, N/A, null, NULL, None or "-"; "nan" and "inf" are values.

Delimiter, decimal mark, time column and the form of the times follow from the first lines, and a
line tells what is not usual. Times become seconds and must not decrease. Dates and times of day
count from the first whole second on, which is the attribute "start" of the recording. gzip and zstd
are unpacked. A warning names the first number of a column that is rounded.

A file may be larger than memory. At most 128 MiB of samples wait to be written, or with --stream a
row group of every column. In addition a few blocks of 2 MiB of the file are in memory, or its
longest rows. The content of a pipe goes to a temporary file first.

Examples:
  kyr import run.csv run
  kyr import run.csv run --time "Time (s)" --type gear=int8
  kyr import run.csv run --compression zstd --force --attribute "model=pump 7"
  kyr import - run --no-pack < run.csv
  kyr import run.csv run2 --like run42
  kyr import run.csv run --stream --batch 16384 --set Dictionary=false)help");
  setAction(*command, action, options, runImport);
}

}  // namespace kyr::tool
