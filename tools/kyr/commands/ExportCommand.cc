#include <arrow/table.h>
#include <arrow/util/compression.h>
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <utility>

#include "cli/Errors.h"
#include "cli/Interrupt.h"
#include "cli/Output.h"
#include "cli/PendingOutput.h"
#include "cli/ProgressBar.h"
#include "cli/Settings.h"
#include "cli/Span.h"
#include "cli/Text.h"
#include "commands/Commands.h"
#include "export/ExportOptions.h"
#include "export/ExportSignals.h"
#include "export/LongTable.h"
#include "export/Losses.h"
#include "export/ParquetFooter.h"
#include "export/RecordingFiles.h"
#include "export/TableWriter.h"
#include "export/WideTable.h"
#include "kyr/parquet/ParquetExportSerializerWorker.h"
#include "kyr/parquet/SerializationOptions.h"
#include "kyr/recording/RecordingInfo.h"

namespace kyr::tool {

namespace fs = std::filesystem;

namespace {

// Options as they are given.
struct GivenOptions {
  std::string format;
  std::vector<std::string> settings;  // options of the library, "NAME=VALUE"
  std::string partition;
  std::optional<std::string> resample;
  std::string method = "previous";
};

ExportFormat formatOf(const GivenOptions& given, const ExportOptions& options) {
  if (given.format == "parquet") return ExportFormat::parquet;
  if (given.format == "arrow") return ExportFormat::arrow;
  if (given.format == "csv") return ExportFormat::csv;
  if (options.writesToStandardOutput()) return ExportFormat::csv;
  if (!given.partition.empty()) return ExportFormat::parquet;
  std::string suffix = fs::path(options.out).extension().string();
  for (char& c : suffix) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  if (suffix.size() <= 1 || suffix == ".parquet") return ExportFormat::parquet;
  if (suffix == ".arrow" || suffix == ".feather") return ExportFormat::arrow;
  if (suffix == ".csv") return ExportFormat::csv;
  throw UsageError(fmt::format("OUT {}: {} tells no format: give --format parquet, arrow or csv",
                               options.out, suffix));
}

// Sets the options of the library; the codec, if there is one among them.
std::optional<::arrow::Compression::type> applyGiven(const std::vector<std::string>& settings,
                                                     ExportFormat format) {
  applySettings(settings);
  std::optional<::arrow::Compression::type> codec;
  for (const std::string& setting : settings) {
    const bool isCodec = setting.rfind("Compression=", 0) == 0;
    if (isCodec) codec = parquet::serialization_options::compressionMethod;
    if (setting.rfind("SharedTimeColumn=", 0) == 0) {
      throw UsageError(setting + ": a table has its times beside the samples in any case");
    }
    const bool isForArrow =
        codec == ::arrow::Compression::ZSTD || codec == ::arrow::Compression::UNCOMPRESSED;
    if (format == ExportFormat::csv) throw UsageError(setting + ": CSV files have no such option");
    if (format == ExportFormat::arrow && !(isCodec && isForArrow)) {
      throw UsageError(setting + ": Arrow files take Compression=zstd only");
    }
  }
  return codec;
}

std::optional<ResampleOptions> resampleOf(const GivenOptions& given) {
  if (!given.resample) return std::nullopt;
  ResampleOptions resample;
  resample.isLinear = given.method == "linear";
  if (given.resample == "union") return resample;
  const std::string& text = *given.resample;
  double step = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), step);
  const bool isNumber = error == std::errc() && end == text.data() + text.size();
  if (!isNumber || !std::isfinite(step) || step <= 0) {
    throw UsageError("--resample " + text + ": give a step in seconds, above 0, or union");
  }
  resample.step = step;
  return resample;
}

void understand(const GivenOptions& given, ExportOptions& options) {
  if (options.out.empty()) throw UsageError("OUT is empty");
  options.format = formatOf(given, options);
  options.codec = applyGiven(given.settings, options.format);
  options.isPartitioned = !given.partition.empty();
  options.resample = resampleOf(given);
  if (!options.isPartitioned && options.out.back() == '/') {
    throw UsageError("OUT " + options.out + ": give the name of a file");
  }
  if (options.isPartitioned && options.format != ExportFormat::parquet) {
    throw UsageError("--partition: partitions are Parquet files");
  }
  if (options.isPartitioned && options.writesToStandardOutput()) {
    throw UsageError("--partition: OUT is a folder, and cannot be standard output");
  }
  if (options.writesToStandardOutput() && options.format == ExportFormat::parquet) {
    throw UsageError(
        "Parquet cannot go to standard output: name a file, or take --format csv or "
        "arrow");
  }
}

// What is exported never takes the place of what it is made of.
void checkApart(const ExportOptions& options) {
  const fs::path recording = fs::weakly_canonical(options.folder);
  const fs::path out = fs::weakly_canonical(fs::absolute(options.out));
  if (out == recording / "recording.json" || out.parent_path() == recording / "storage") {
    throw std::runtime_error(options.out +
                             " belongs to the recording that is exported: choose another name");
  }
}

void writeWide(RecordingFiles& files, const std::vector<ExportSignal>& signals,
               const ExportOptions& options, Losses& losses, const TableWriter::Target& target,
               ProgressBar& bar) {
  parquet::ParquetExportSerializerWorker worker;
  const WideTable wide(worker, files, signals, options, losses,
                       [&bar](double part) { bar.show("reading", part); });
  bar.hide();
  losses.settle();
  bar.show("writing", 1);
  if (target.format != ExportFormat::parquet) {
    TableWriter writer(target, wide.table()->schema(), wide.csvHeader());
    writer.write(*wide.table());
    return writer.close();
  }
  {
    const Span span("write");
    worker.write(*wide.table(), Path::fromFilesystem(target.file).text());
  }
  stopIfInterrupted();
  if (const auto status = worker.writeStatus(); !status.ok()) {
    throwIfOutOfMemory(status);
    throw std::runtime_error(options.out + " cannot be written: " + reasonOf(status));
  }
  addArrowSchema(target.file, *wide.table()->schema());
}

std::uint64_t bytesBelow(const fs::path& path) {
  if (!fs::is_directory(path)) return fs::file_size(path);
  std::uint64_t bytes = 0;
  for (const auto& entry : fs::recursive_directory_iterator(path)) {
    if (entry.is_regular_file()) bytes += entry.file_size();
  }
  return bytes;
}

void exportRecording(const ExportOptions& options) {
  std::optional<PendingOutput> output;
  if (!options.writesToStandardOutput()) {
    checkApart(options);
    output.emplace(options.out,
                   options.isPartitioned ? PendingOutput::Kind::folder : PendingOutput::Kind::file,
                   options.replaces);
  }
  const auto info = recording::describeRecording(Path::fromNarrow(options.folder));
  RecordingFiles files(options.folder, info);
  Losses losses(options.isStrict);
  const auto signals = exportedSignals(info, files, options, losses);
  const TableWriter::Target target{options.format, output ? output->path() : fs::path(),
                                   options.out, options.codec};
  ProgressBar bar;
  if (options.isLong) {
    LongTable table(files, signals, [&bar](double part) { bar.show("writing", part); });
    table.checkExact(losses);
    losses.settle();
    options.isPartitioned ? table.writePartitions(target.file, target) : table.writeTable(target);
  } else {
    writeWide(files, signals, options, losses, target, bar);
  }
  bar.hide();
  if (!output) return;
  {
    const Span span("flush and rename");
    output->publish();
  }
  Output out;
  out.print("{}: {}, {}\n", options.out, counted(signals.size(), "signal"),
            byteCount(bytesBelow(options.out)));
  out.flush();
}

constexpr const char* kFooter = R"help(
Unless told otherwise the table is wide: "time" and a column for each signal, which all need the same
times. It is in memory as a whole. --long gives a table of the columns time, signal and value instead,
sorted by signal (in the recording's order), then time, and --partition the same as a folder of files
OUT/signal=NAME/part-0.parquet. These go through memory in pieces, however large the recording is.

--resample brings signals of different times together: at a time of the grid a signal has its latest
sample, or with --method linear a number in between. Before its first sample it is null, with linear
after its last one as well. A sample counts as at a time that it misses by no more than 1e-9 of STEP
and two roundings. A table that would take more than half of the free memory is refused.

Values in long tables are float64. What cannot be exported is named, and with --strict nothing is
written then. A table appears under its name when it is whole, and never in place of another without
--force. Units are in the fields' metadata, in CSV in the header.

Examples:
  kyr export run run.parquet
  kyr export run run.csv speed torque
  kyr export run run.parquet --resample 0.01 --method linear
  kyr export run run.parquet --long --compression zstd
  kyr export run dataset --long --partition signal
  kyr export run - speed | head)help";

void addShapeOptions(CLI::App* command, ExportOptions& options, GivenOptions& given) {
  CLI::Option* isLong =
      command->add_flag("--long", options.isLong, "A row for each sample: time, signal, value");
  command
      ->add_option("--partition", given.partition,
                   "Write the long table as a folder of files, one for each signal")
      ->type_name("signal")
      ->check(CLI::IsMember(std::vector<std::string>{"signal"}).description(""))
      ->needs(isLong);
  CLI::Option* resample =
      command
          ->add_option("--resample", given.resample,
                       "Bring all signals to the same times: every STEP seconds, or all times of "
                       "all of them")
          ->type_name("STEP|union")
          ->excludes(isLong);
  command
      ->add_option("--method", given.method,
                   "How to resample: hold the previous sample (unless given), or linear")
      ->type_name("previous|linear")
      ->check(CLI::IsMember(std::vector<std::string>{"previous", "linear"}).description(""))
      ->needs(resample);
}

}  // namespace

void addExportCommand(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("export", "Write signals as one table");
  const auto options = std::make_shared<ExportOptions>();
  const auto given = std::make_shared<GivenOptions>();
  command->add_option("RECORDING", options->folder, "Folder of the recording")
      ->required()
      ->type_name("");
  command->add_option("OUT", options->out, "New file, or - for standard output")
      ->required()
      ->type_name("");
  command
      ->add_option("SIGNAL", options->signals, "Names or ids of signals, all of them unless given")
      ->type_name("");
  command
      ->add_option("--format", given->format,
                   "parquet, arrow or csv; unless given, as OUT ends (.parquet, .arrow, .feather, "
                   ".csv), parquet without an ending, and csv for standard output")
      ->type_name("parquet|arrow|csv")
      ->check(CLI::IsMember(std::vector<std::string>{"parquet", "arrow", "csv"}).description(""));
  addShapeOptions(command, *options, *given);
  addCompressionOption(*command, given->settings);
  addSetOption(*command, given->settings);
  command->add_flag("--strict", options->isStrict, "Write nothing if something cannot be exported");
  command->add_flag("--force", options->replaces, "Replace the file OUT, or the partitions in OUT");
  command->footer(kFooter);
  command->callback([options, given, &action] {
    action = [options, given] {
      understand(*given, *options);
      exportRecording(*options);
      return 0;
    };
  });
}

}  // namespace kyr::tool
