#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "cli/CommandLine.h"
#include "cli/Errors.h"
#include "cli/Files.h"
#include "cli/GivenAttributes.h"
#include "cli/History.h"
#include "cli/Interrupt.h"
#include "cli/LikeOption.h"
#include "cli/Output.h"
#include "cli/RecordingFolder.h"
#include "cli/Settings.h"
#include "cli/Text.h"
#include "commands/Commands.h"
#include "csv/CsvMessages.h"
#include "csv/CsvStream.h"
#include "csv/RowRecorder.h"
#include "csv/SampledType.h"
#include "kyr/recording/LiveRecording.h"
#include "print/RecordingSummary.h"

namespace kyr::tool {

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;
using Sync = parquet::SafeStorage::Sync;

constexpr std::chrono::milliseconds kPatience(100);

struct RecordOptions {
  std::string source;
  std::string folder;
  CsvOptions csv;
  std::vector<std::string> settings;
  std::uint64_t flushRows = 0;  ///< 0 for as many as come
  double flushSeconds = 1;
  std::string sync = "never";
  bool follows = false;
  bool skipsBad = false;
  bool isStrict = false;
  bool isQuiet = false;
  std::string like;
  std::vector<std::string> attributes;
  bool acknowledges = false;
  bool replaces = false;
};

// A line on standard error that shows how the recording goes. Nothing is shown if standard error is
// no terminal.
class StatusLine {
 public:
  explicit StatusLine(const std::string& folder)
      : storage_(fs::path(folder) / "storage"), isTerminal_(isatty(STDERR_FILENO) != 0) {}
  ~StatusLine() {
    if (isTerminal_) std::fputs("\r\x1b[K", stderr);
  }
  StatusLine(const StatusLine&) = delete;
  StatusLine& operator=(const StatusLine&) = delete;

  void show(std::uint64_t rows) {
    const auto now = Clock::now();
    const std::chrono::duration<double> passed = now - last_;
    if (!isTerminal_ || passed.count() < kSeconds) return;
    const double rate = static_cast<double>(rows - rowsBefore_) / passed.count();
    const std::string line =
        fmt::format("\r\x1b[K{}, {} per second, {}", counted(rows, "row"),
                    grouped(static_cast<std::uint64_t>(rate)), byteCount(bytesBelow(storage_)));
    std::fputs(line.c_str(), stderr);
    std::fflush(stderr);
    last_ = now;
    rowsBefore_ = rows;
  }

 private:
  static constexpr double kSeconds = 0.5;

  fs::path storage_;
  bool isTerminal_;
  Clock::time_point last_ = Clock::now();
  std::uint64_t rowsBefore_ = 0;
};

// Flushes a recording as often as the user wants.
class Flusher {
 public:
  Flusher(RowRecorder& recorder, const RecordOptions& options)
      : recorder_(recorder), options_(options) {}

  void flushIfDue(std::uint64_t rows) {
    if (rows == flushed_) return;
    const std::chrono::duration<double> passed = Clock::now() - last_;
    const bool isFull = options_.flushRows > 0 && rows - flushed_ >= options_.flushRows;
    if (!isFull && passed.count() < options_.flushSeconds) return;
    recorder_.flush();
    flushed_ = rows;
    last_ = Clock::now();
    if (options_.acknowledges) acknowledge(rows);
  }

  // The program that reads the acknowledgements has gone. That ends the recording.
  bool isAbandoned() const { return isAbandoned_; }

  void acknowledge(std::uint64_t rows) {
    const std::string line = fmt::format("{}\n", rows);
    isAbandoned_ = std::fputs(line.c_str(), stdout) < 0 || std::fflush(stdout) != 0;
  }

 private:
  RowRecorder& recorder_;
  const RecordOptions& options_;
  std::uint64_t flushed_ = 0;
  bool isAbandoned_ = false;
  Clock::time_point last_ = Clock::now();
};

void checkUsage(const RecordOptions& options) {
  if (options.follows && options.source == "-") {
    throw UsageError("--follow: standard input is read until it ends anyway");
  }
  requireSharedTimes();
}

recording::LiveOptions liveOptions(const RecordOptions& options, const TimeForm& times) {
  static const std::map<std::string, Sync> kSyncs{
      {"never", Sync::never}, {"flush", Sync::flush}, {"seconds", Sync::seconds}};
  recording::LiveOptions live;
  live.storage.sync = kSyncs.at(options.sync);
  live.attributes = givenAttributes(options.attributes);
  addHistory(live.attributes, "kyr record", options.source, /*isComplete=*/false);
  if (times.isAbsolute()) live.attributes[kStartAttribute] = jsonText(times.start());
  return live;
}

RowRecorder::Strictness strictnessOf(const RecordOptions& options) {
  if (options.skipsBad) return RowRecorder::Strictness::lenient;
  return options.isStrict ? RowRecorder::Strictness::exact : RowRecorder::Strictness::stopping;
}

void warnOfUnendedLine(const std::string& source, std::int64_t line, const std::string& what) {
  tell(fmt::format("warning: {}: the last line has no line feed, {}", describeLine(source, line),
                   what));
}

// The last cell of such a row may be a part of a longer one.
void addLastRow(RowRecorder& recorder, const CsvRow& row, const std::string& source) {
  const std::uint64_t rows = recorder.rows();
  try {
    recorder.add(row);
    warnOfUnendedLine(
        source, row.line,
        recorder.rows() > rows ? "but is kept: its last cell may be cut off" : "and is left out");
  } catch (const std::runtime_error& error) {
    warnOfUnendedLine(source, row.line, fmt::format("and is left out: {}", error.what()));
  }
}

class Recording {
 public:
  Recording(CsvStream& stream, RowRecorder& recorder, ReplacedRecording* replaced)
      : stream_(stream), recorder_(recorder), replaced_(replaced) {}

  // Records until the input ends or the user stops it.
  void run(Flusher& flusher, StatusLine& status) {
    while (!isInterrupted() && !flusher.isAbandoned()) {
      const CsvStream::Next next = stream_.next(row_, kPatience);
      if (next == CsvStream::Next::end) return;
      if (next == CsvStream::Next::row && !add()) return;
      flusher.flushIfDue(recorder_.rows());
      status.show(recorder_.rows());
    }
    takeWrittenRows();
  }

 private:
  // What is in the pipe was written before the signal.
  void takeWrittenRows() {
    constexpr std::size_t kPipeBytes = std::size_t{1} << 20U;
    for (std::size_t bytes = 0; bytes < kPipeBytes; bytes += row_.text.size()) {
      if (stream_.next(row_, std::chrono::milliseconds(0)) != CsvStream::Next::row) break;
      if (!add()) return;
    }
    if (const auto line = stream_.unfinishedLine()) {
      tell("warning: " + describeLine(stream_.name(), *line) +
           ": only a part of the row has come, so it is left out");
    }
  }

  // Returns whether the text goes on. The older recording is of no use once there is a row.
  bool add() {
    bool goesOn = true;
    if (row_.isEnded) {
      goesOn = recorder_.add(row_);
    } else {
      addLastRow(recorder_, row_, stream_.name());
    }
    if (replaced_ != nullptr && recorder_.rows() > 0) std::exchange(replaced_, nullptr)->remove();
    return goesOn;
  }

  CsvStream& stream_;
  RowRecorder& recorder_;
  ReplacedRecording* replaced_;  // null if there is none any more
  CsvRow row_;
};

// Returns why recording ended early; empty if it did not.
std::string recordRows(CsvStream& stream, RowRecorder& recorder, recording::LiveRecording& live,
                       ReplacedRecording* replaced, const RecordOptions& options) {
  std::string failure;
  Flusher flusher(recorder, options);
  StatusLine status(options.folder);
  try {
    Recording(stream, recorder, replaced).run(flusher, status);
  } catch (const std::runtime_error& error) {
    failure = error.what();
  }
  recorder.store();
  live.finish();
  if (options.acknowledges) flusher.acknowledge(recorder.rows());
  return failure;
}

// The first rows decide on what the user did not give.
void chooseTypes(const std::string& source, const CsvLayout& layout, const CsvOptions& options,
                 CsvHeader& header) {
  bool hasSignals = false;
  for (CsvColumn& column : header.columns) {
    if (!column.isGiven) column.type = sampledType(layout, column.place);
    hasSignals = hasSignals || options.storesTexts() || column.isGiven || column.type != ByteString;
  }
  if (!hasSignals) throw std::runtime_error(source + kNothingLeft);
  const bool isAlone = header.columns.size() == 1;
  if (!isAlone && !header.columns.back().isGiven && isLastColumnNothing(layout)) {
    header.columns.pop_back();
  }
}

int runRecord(const RecordOptions& options) {
  applySettings(options.settings);
  checkUsage(options);
  checkNewRecording(options.folder, options.replaces);
  CsvStream stream(options.source, options.csv, options.follows);
  const CsvLayout layout = stream.layout();
  CsvHeader header = describeColumns(stream.name(), layout, options.csv);
  tellNotes(header.notes, options.isQuiet);
  chooseTypes(stream.name(), layout, options.csv, header);
  if (!layout.isHeaderEnded) {
    warnOfUnendedLine(stream.name(), stream.line(), "so a name may be cut off");
  }
  LikeOption like(options.like, options.folder);
  std::optional<ReplacedRecording> replaced;
  if (options.replaces) replaced.emplace(options.folder);
  recording::LiveRecording live(Path::fromNarrow(options.folder),
                                liveOptions(options, header.timeForm));
  RowRecorder recorder(live, stream.name(), stream.dialect(), std::move(header),
                       options.csv.storesTexts(), strictnessOf(options));
  const std::string failure =
      recordRows(stream, recorder, live, replaced ? &*replaced : nullptr, options);
  if (const std::string skipped = recorder.skipped(); !skipped.empty()) tell("warning: " + skipped);
  const std::string rows = counted(recorder.rows(), "row");
  if (!failure.empty()) {
    if (replaced && replaced->restore()) {
      throw std::runtime_error(
          fmt::format("{}; the recording in {} is left as it was, because "
                      "there is no row before",
                      failure, options.folder));
    }
    throw std::runtime_error(
        fmt::format("{}; the {} before are in {}, which --force replaces in the next try", failure,
                    rows, options.folder));
  }
  if (replaced) replaced->remove();
  const std::string shared = like.share();
  if (!options.acknowledges && !options.isQuiet) {
    const RecordingSummary summary(recording::describeRecording(Path::fromNarrow(options.folder)));
    const std::string line =
        fmt::format("{}: {} of {}\n{}", options.folder, rows, summary.text(), shared);
    // Output would take the signal that ended the recording as a wish to stop the output, too.
    std::fputs(line.c_str(), stdout);
    std::fflush(stdout);
  }
  return 0;
}

void addFlushOptions(CLI::App& command, RecordOptions& options) {
  command
      .add_option("--flush-rows", options.flushRows, "Make rows durable when there are N new ones")
      ->type_name("N")
      ->check(isAboveZero());
  command
      .add_option("--flush-seconds", options.flushSeconds,
                  "Make rows durable every S seconds; 1 unless given")
      ->type_name("S")
      ->check(isAboveZero());
  command
      .add_option("--sync", options.sync,
                  "When rows survive a power cut, too: never (unless given); flush: when they are "
                  "made durable; seconds: also in between")
      ->type_name("never|flush|seconds")
      ->check(oneOf({"never", "flush", "seconds"}));
  command.add_flag("--acknowledge", options.acknowledges,
                   "Print the number of durable rows after each flush, one number per line");
}

void addRecordOptions(CLI::App& command, RecordOptions& options) {
  addArgument(command, "SOURCE", options.source, "CSV file, or - for standard input");
  addArgument(command, "FOLDER", options.folder, "Folder of the new recording");
  addCsvOptions(command, options.csv);
  addFlushOptions(command, options);
  command.add_flag("--follow", options.follows, "Go on reading as the file grows");
  CLI::Option* skipsBad =
      command.add_flag("--skip-bad", options.skipsBad,
                       "Leave out rows and cells that cannot be stored, and count them, instead of "
                       "stopping there");
  command.add_flag("--strict", options.isStrict, "Stop at a number that would be rounded")
      ->excludes(skipsBad);
  addLikeOption(command, options.like);
  addAttributeOption(command, options.attributes);
  addCompressionOption(command, options.settings);
  addSetOption(command, options.settings);
  command.add_flag("-q,--quiet", options.isQuiet, "Tell nothing but warnings and errors");
  command.add_flag("-f,--force", options.replaces, "Replace the recording in FOLDER");
}

}  // namespace

void addRecordCommand(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("record", "Record CSV rows as they come");
  const auto options = std::make_shared<RecordOptions>();
  addRecordOptions(*command, *options);
  command->footer(R"help(
The first line names the columns, as for kyr import. The rows that have come when the recording
begins, 100 at most, decide on the types, unless --type gives them. A column is text if its first
value is one, boolean if it holds true and false, int64 or uint64 if it holds integers alone and one
of 2^53 or more, and otherwise double. What comes later and does not fit stops the recording with
its line. A warning names the first number of a column that is rounded, or that is stored as text.
At an empty cell a signal has no sample.

Rows become durable every second. If the process crashes, kyr recover saves the durable rows. The
end of the input, Ctrl-C and SIGTERM finish the recording. A last line without a line feed is kept,
with a warning, if the input ended there and the line has all its cells. While kyr records, kyr info
and kyr cat can read the recording.

Examples:
  simulator | kyr record - run42
  kyr record log.csv run42 --follow --sync flush
  simulator | kyr record - run42 --type gear=int8 --flush-seconds 0.1 --compression zstd)help");
  setAction(*command, action, options, runRecord);
}

}  // namespace kyr::tool
