#include "commands/ImportCommand.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "cli/Errors.h"
#include "cli/Output.h"
#include "cli/ProgressBar.h"
#include "cli/Settings.h"
#include "cli/TemporaryFolder.h"
#include "cli/Text.h"
#include "commands/Commands.h"
#include "csv/ColumnStore.h"
#include "kyr/parquet/SerializationOptions.h"
#include "kyr/parquet/SignalPool.h"
#include "kyr/recording/Recording.h"
#include "print/RecordingSummary.h"
#include "print/TypeNames.h"

namespace kyr::tool {

namespace fs = std::filesystem;

namespace {

// Told before the work and not after it.
void checkTarget(const std::string& folder, bool replaces) {
  if (folder.empty()) throw UsageError("FOLDER is empty");
  fs::path path = fs::absolute(folder).lexically_normal();
  if (!path.has_filename()) path = path.parent_path();
  if (!fs::exists(fs::symlink_status(path))) {
    if (fs::is_directory(path.parent_path())) return;
    throw std::runtime_error(
        fmt::format("{} cannot be made: {} is no folder", folder, path.parent_path().string()));
  }
  if (fs::is_directory(path) && fs::is_empty(path)) return;
  if (!fs::exists(path / "recording.json")) {
    throw std::runtime_error(
        fmt::format("{} exists and is no recording: choose another name", folder));
  }
  if (!replaces) {
    throw std::runtime_error(fmt::format(
        "{} is a recording already: choose another name, or replace it with --force", folder));
  }
}

void tellLosses(const CsvTable& table, const ImportOptions& options) {
  const auto& losses = table.losses();
  if (options.isStrict && !losses.empty()) {
    throw std::runtime_error(fmt::format(
        "{}{}: nothing was stored because of --strict", losses.front(),
        losses.size() > 1 ? fmt::format(" (and {} more)", losses.size() - 1) : std::string()));
  }
  for (const std::string& loss : losses) tell("warning: " + loss);
  constexpr std::array<std::string_view, 6> kSeconds{"",       "s",       "sec",
                                                     "second", "seconds", "Seconds"};
  if (std::find(kSeconds.begin(), kSeconds.end(), table.timeUnit()) == kSeconds.end()) {
    tell(
        fmt::format("warning: the times are in {}, and are stored as they are: recordings count "
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
  if (options.stream && !parquet::serialization_options::bSharedTimeColumn) {
    throw UsageError("--set SharedTimeColumn=false: streamed signals always share times");
  }
  const Path folder = Path::fromNarrow(options.folder);
  checkTarget(options.folder, options.replaces);
  CsvTable table(options.file, options.columns);
  const TemporaryFolder storage;
  ColumnStore store(storage.path(), table.width(), options.stream, options.packBelow);
  ProgressBar bar;
  table.read(store, [&bar](double part) { bar.show("reading", part); });
  bar.hide();
  tellLosses(table, options);
  if (table.columns().empty()) {
    throw std::runtime_error(options.file +
                             ": no column holds numbers, so there is nothing to store");
  }
  table.checkGivenTypes();
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
  recording::saveRecording(store.pool(), descriptions, folder, saving);
}

void addImportCommand(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("import", "Store a CSV file as a recording");
  const auto options = std::make_shared<ImportOptions>();
  command->add_option("FILE", options->file, "CSV file: a line of names, then a row per time")
      ->required()
      ->type_name("");
  command->add_option("FOLDER", options->folder, "Folder of the new recording")
      ->required()
      ->type_name("");
  command
      ->add_option("--time", options->columns.timeName,
                   "Column of the times, the first one unless given")
      ->type_name("NAME");
  command
      ->add_option("--type", options->columns.types,
                   "Store the signal NAME as " + columnTypeNames() + "; may be given repeatedly")
      ->type_name("NAME=TYPE")
      ->allow_extra_args(false);
  addCompressionOption(*command, options->settings);
  CLI::Option* separatesTime = command->add_flag_callback(
      "--no-shared-time", [options] { options->settings.emplace_back("SharedTimeColumn=false"); },
      "Store times beside each signal's samples, not in a file that signals share");
  const auto streams = std::make_shared<bool>(false);
  const auto streamOptions = std::make_shared<StreamOptions>();
  CLI::Option* stream = command->add_flag(
      "--stream", *streams, "Append the columns chunk by chunk, to files of many row groups");
  stream->excludes(separatesTime);
  command
      ->add_option(
          "--chunk", streamOptions->chunkRows,
          fmt::format("Rows per append at the most, {} unless given", streamOptions->chunkRows))
      ->type_name("ROWS")
      ->check(CLI::PositiveNumber)
      ->needs(stream);
  // More rows than that and Parquet splits the batch.
  constexpr std::size_t kMaxRowGroupRows = 1048576;
  command
      ->add_option("--batch", streamOptions->batchRows,
                   fmt::format("Rows per row group, {} unless given, {} at most",
                               streamOptions->batchRows, kMaxRowGroupRows))
      ->type_name("ROWS")
      ->check(CLI::Range(std::size_t{1}, kMaxRowGroupRows))
      ->needs(stream);
  command
      ->add_flag("--pack{1048576}", options->packBelow,
                 "Put signals of fewer bytes, 1048576 unless given, into files that they share: "
                 "quicker and smaller for many small ones")
      ->type_name("[=BYTES]")
      ->excludes(separatesTime);
  addSetOption(*command, options->settings);
  command->add_flag("--strict", options->isStrict,
                    "Store nothing if something of the file cannot be stored");
  command->add_flag("--force", options->replaces, "Replace the recording in FOLDER");
  command->footer(R"help(
Each column is a signal over the time column. A header such as "h [m]" or "h (m)" gives name and
unit. Types are integer (int64, or uint64 where needed), double and boolean, as the cells say. At an
empty cell a signal has no sample; "nan" and "inf" are values. Times are in seconds and do not
decrease. Columns that are no numbers are left out, and named.

A file may be larger than memory: at most 128 MiB of samples wait to be written, or a row group of
every column with --stream, besides a few blocks of 2 MiB of the file, or its longest rows. With
--no-shared-time, one column at a time is in memory as a whole. What comes from a pipe is put into a
temporary file first.

Examples:
  kyr import run.csv run
  kyr import run.csv run --time "Time (s)" --type gear=int8
  kyr import run.csv run --compression zstd --force
  kyr import run.csv run --stream --batch 16384 --set Dictionary=false)help");
  command->callback([options, streams, streamOptions, &action] {
    if (*streams) options->stream = *streamOptions;
    action = [options] { return runImport(*options); };
  });
}

}  // namespace kyr::tool
