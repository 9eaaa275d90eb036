#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "cli/Errors.h"
#include "cli/Interrupt.h"
#include "cli/Output.h"
#include "cli/Settings.h"
#include "cli/Text.h"
#include "commands/Commands.h"
#include "csv/CsvStream.h"
#include "csv/RowRecorder.h"
#include "kyr/parquet/SerializationOptions.h"
#include "kyr/recording/LiveRecording.h"
#include "print/RecordingSummary.h"
#include "print/TypeNames.h"

namespace kyr::tool {

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;
using Sync = parquet::SafeStorage::Sync;

constexpr std::chrono::milliseconds kPatience(100);

struct RecordOptions {
  std::string source;
  std::string folder;
  CsvOptions columns;
  std::vector<std::string> settings;
  std::uint64_t flushRows = 0;  ///< 0 for as many as come
  double flushSeconds = 1;
  std::string sync = "never";
  bool follows = false;
  bool skipsBad = false;
  bool acknowledges = false;
};

// A line on standard error, if that is a terminal.
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
        fmt::format("\r\x1b[K{} rows, {} per second, {}", grouped(rows),
                    grouped(static_cast<std::uint64_t>(rate)), byteCount(storedBytes()));
    std::fputs(line.c_str(), stderr);
    std::fflush(stderr);
    last_ = now;
    rowsBefore_ = rows;
  }

 private:
  static constexpr double kSeconds = 0.5;

  std::uint64_t storedBytes() const {
    std::uint64_t bytes = 0;
    std::error_code ignored;
    for (fs::directory_iterator it(storage_, ignored), end; it != end; it.increment(ignored)) {
      const auto size = it->file_size(ignored);
      if (!ignored) bytes += size;
    }
    return bytes;
  }

  fs::path storage_;
  bool isTerminal_;
  Clock::time_point last_ = Clock::now();
  std::uint64_t rowsBefore_ = 0;
};

// Flushes a recording now and then.
class Flusher {
 public:
  Flusher(recording::LiveRecording& live, const RecordOptions& options)
      : live_(live), options_(options) {}

  void flushIfDue(std::uint64_t rows) {
    if (rows == flushed_) return;
    const std::chrono::duration<double> passed = Clock::now() - last_;
    const bool isFull = options_.flushRows > 0 && rows - flushed_ >= options_.flushRows;
    if (!isFull && passed.count() < options_.flushSeconds) return;
    live_.flush();
    flushed_ = rows;
    last_ = Clock::now();
    if (options_.acknowledges) acknowledge(rows);
  }

  // Whoever counts on it has gone; that ends the recording.
  bool isAbandoned() const { return isAbandoned_; }

  void acknowledge(std::uint64_t rows) {
    const std::string line = fmt::format("{}\n", rows);
    isAbandoned_ = std::fputs(line.c_str(), stdout) < 0 || std::fflush(stdout) != 0;
  }

 private:
  recording::LiveRecording& live_;
  const RecordOptions& options_;
  std::uint64_t flushed_ = 0;
  bool isAbandoned_ = false;
  Clock::time_point last_ = Clock::now();
};

void checkUsage(const RecordOptions& options) {
  if (options.folder.empty()) throw UsageError("FOLDER is empty");
  if (options.follows && options.source == "-") {
    throw UsageError("--follow: standard input is read until it ends anyway");
  }
  if (!parquet::serialization_options::bSharedTimeColumn) {
    throw UsageError("--set SharedTimeColumn=false: recorded signals always share times");
  }
}

// Told before the first line is waited for.
void checkFolder(const std::string& folder) {
  if (fs::exists(folder) && !(fs::is_directory(folder) && fs::is_empty(folder))) {
    throw std::runtime_error(folder + " exists and is not empty: choose another name");
  }
}

recording::LiveOptions liveOptions(const RecordOptions& options) {
  static const std::map<std::string, Sync> kSyncs{
      {"never", Sync::never}, {"flush", Sync::flush}, {"seconds", Sync::seconds}};
  recording::LiveOptions live;
  live.storage.sync = kSyncs.at(options.sync);
  return live;
}

// A row that the end of the text cut off is named, and no failure.
void addRow(RowRecorder& recorder, const CsvRecord& record, const CsvStream& stream) {
  if (!stream.isCutOff()) return recorder.add(record);
  try {
    recorder.add(record);
    tell("warning: the last line has no line end: its last cell may be cut off");
  } catch (const std::runtime_error& error) {
    tell(fmt::format("warning: the last line is left out, as it has no end: {}", error.what()));
  }
}

void recordRows(CsvStream& stream, RowRecorder& recorder, Flusher& flusher, StatusLine& status) {
  CsvRecord record;
  while (!isInterrupted() && !flusher.isAbandoned()) {
    const CsvStream::Next next = stream.next(record, kPatience);
    if (next == CsvStream::Next::end) return;
    if (next == CsvStream::Next::row) addRow(recorder, record, stream);
    flusher.flushIfDue(recorder.rows());
    status.show(recorder.rows());
  }
  // What is in the pipe was written before the signal.
  constexpr std::size_t kPipeBytes = std::size_t{1} << 20U;
  for (std::size_t bytes = 0; bytes < kPipeBytes; bytes += record.text.size()) {
    if (stream.next(record, std::chrono::milliseconds(0)) != CsvStream::Next::row) return;
    addRow(recorder, record, stream);
  }
}

int runRecord(const RecordOptions& options) {
  applySettings(options.settings);
  checkUsage(options);
  checkFolder(options.folder);
  CsvStream stream(options.source, options.follows);
  CsvHeader header = namedColumns(stream.name(), stream.header(), options.columns);
  const Path folder = Path::fromNarrow(options.folder);
  recording::LiveRecording live(folder, liveOptions(options));
  RowRecorder recorder(live, stream.name(), std::move(header), options.skipsBad);
  std::string failure;
  {
    Flusher flusher(live, options);
    StatusLine status(options.folder);
    try {
      recordRows(stream, recorder, flusher, status);
    } catch (const std::runtime_error& error) {
      failure = error.what();
    }
    recorder.begin();
    live.finish();
    if (options.acknowledges) flusher.acknowledge(recorder.rows());
  }
  if (const std::string skipped = recorder.skipped(); !skipped.empty()) tell("warning: " + skipped);
  if (!failure.empty()) {
    throw std::runtime_error(fmt::format("{}; the {} before are in {}", failure,
                                         counted(recorder.rows(), "row"), options.folder));
  }
  if (!options.acknowledges) {
    const RecordingSummary summary(recording::describeRecording(folder));
    const std::string line = fmt::format("{}: {} of {}\n", options.folder,
                                         counted(recorder.rows(), "row"), summary.text());
    // Not by Output, which would take a signal that ended the recording for one to itself.
    std::fputs(line.c_str(), stdout);
    std::fflush(stdout);
  }
  return 0;
}

void addRecordOptions(CLI::App& command, RecordOptions& options) {
  command.add_option("SOURCE", options.source, "CSV file, or - for standard input")
      ->required()
      ->type_name("");
  command.add_option("FOLDER", options.folder, "Folder of the new recording")
      ->required()
      ->type_name("");
  command
      .add_option("--time", options.columns.timeName,
                  "Column of the times, the first one unless given")
      ->type_name("NAME");
  command
      .add_option("--type", options.columns.types,
                  "Store the signal NAME as " + columnTypeNames() + "; may be given repeatedly")
      ->type_name("NAME=TYPE")
      ->allow_extra_args(false);
  command.add_option("--flush-rows", options.flushRows, "Make rows durable when there are so many")
      ->type_name("N")
      ->check(CLI::PositiveNumber);
  command
      .add_option("--flush-seconds", options.flushSeconds,
                  "Make rows durable after so many seconds, 1 unless given")
      ->type_name("S")
      ->check(CLI::PositiveNumber);
  command
      .add_option("--sync", options.sync,
                  "When rows survive a power cut, too: never (unless given), with each flush, or "
                  "seconds: also in between")
      ->type_name("WHEN")
      ->check(CLI::IsMember({"never", "flush", "seconds"}));
  command.add_flag("--follow", options.follows, "Go on reading as the file grows");
  command.add_flag("--skip-bad", options.skipsBad,
                   "Leave out what is no number, and count it, instead of stopping there");
  command.add_flag("--acknowledge", options.acknowledges,
                   "Print the number of rows that are durable after each flush, one to a line");
}

}  // namespace

void addRecordCommand(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("record", "Record CSV rows as they come");
  const auto options = std::make_shared<RecordOptions>();
  addRecordOptions(*command, *options);
  addCompressionOption(*command, options->settings);
  addSetOption(*command, options->settings);
  command->footer(R"help(
The first line names the columns, as for kyr import. Values are doubles, or booleans if the first row
says true or false, unless --type tells otherwise. At an empty cell a signal has no sample.

Rows are made durable every second: a crash costs none of those, and kyr recover saves them. The end
of the input, Ctrl-C and SIGTERM finish the recording. Meanwhile kyr info and kyr cat read along.

Examples:
  simulator | kyr record - run42
  kyr record log.csv run42 --follow --sync flush
  simulator | kyr record - run42 --type gear=int8 --flush-seconds 0.1 --compression zstd)help");
  command->callback([options, &action] { action = [options] { return runRecord(*options); }; });
}

}  // namespace kyr::tool
