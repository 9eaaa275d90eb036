#include <arrow/util/compression.h>
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <utility>

#include "cli/CommandLine.h"
#include "cli/Errors.h"
#include "cli/Files.h"
#include "cli/Losses.h"
#include "cli/Output.h"
#include "cli/PendingOutput.h"
#include "cli/Process.h"
#include "cli/ProgressBar.h"
#include "cli/RowWindow.h"
#include "cli/Settings.h"
#include "cli/Span.h"
#include "cli/Text.h"
#include "commands/Commands.h"
#include "export/ExportOptions.h"
#include "export/ExportSignals.h"
#include "export/LongTable.h"
#include "export/TableWriter.h"
#include "export/WideTable.h"
#include "kyr/parquet/SerializationOptions.h"
#include "kyr/recording/RecordingReader.h"
#include "print/RecordingSummary.h"

namespace kyr::tool {

namespace fs = std::filesystem;

namespace {

// Options as the user gave them.
struct GivenOptions {
  std::string format;
  std::vector<std::string> settings;  // options of the library, "NAME=VALUE"
  std::string partition;
  std::optional<std::string> resample;
  std::string method = "previous";
  WindowOptions window;
  std::string output;
};

ExportFormat formatOf(const GivenOptions& given, const ExportOptions& options) {
  if (given.format == "parquet") return ExportFormat::parquet;
  if (given.format == "arrow") return ExportFormat::arrow;
  if (given.format == "csv") return ExportFormat::csv;
  if (options.writesToStandardOutput()) return ExportFormat::csv;
  if (!given.partition.empty()) return ExportFormat::parquet;
  const std::string suffix = lowerCase(fs::path(options.out).extension().string());
  if (suffix.size() <= 1 || suffix == ".parquet") return ExportFormat::parquet;
  if (suffix == ".arrow" || suffix == ".feather") return ExportFormat::arrow;
  if (suffix == ".csv") return ExportFormat::csv;
  throw UsageError(fmt::format("OUT {}: {} names no format; give --format parquet, arrow or csv",
                               options.out, suffix));
}

// Sets the options of the library. Returns the codec, if one is among them.
std::optional<::arrow::Compression::type> applyGiven(const std::vector<std::string>& settings,
                                                     ExportFormat format) {
  applySettings(settings);
  std::optional<::arrow::Compression::type> codec;
  for (const std::string& setting : settings) {
    const bool isCodec = setting.rfind("Compression=", 0) == 0;
    if (isCodec) codec = parquet::serialization_options::compressionMethod;
    if (setting.rfind("SharedTimeColumn=", 0) == 0) {
      throw UsageError(setting + ": a table always has its times beside the samples");
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

// With -o, what stands in the place of OUT is a signal.
void chooseOutput(const std::string& output, ExportOptions& options) {
  if (!output.empty()) {
    if (!options.out.empty()) options.signals.insert(options.signals.begin(), options.out);
    options.out = output;
  }
  if (options.out.empty()) throw UsageError("OUT is missing");
}

void understand(const GivenOptions& given, ExportOptions& options) {
  chooseOutput(given.output, options);
  options.format = formatOf(given, options);
  options.codec = applyGiven(given.settings, options.format);
  options.isPartitioned = !given.partition.empty();
  options.resample = resampleOf(given);
  options.window = windowOf(given.window);
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
        "Parquet cannot go to standard output; name a file, or use --format csv or arrow");
  }
}

// An export must not overwrite the files that it reads.
void checkApart(const ExportOptions& options) {
  const fs::path recording = fs::weakly_canonical(options.folder);
  const fs::path out = fs::weakly_canonical(fs::absolute(options.out));
  if (out == recording / "recording.json" || out == recording / "signals.parquet" ||
      out.parent_path() == recording / "storage") {
    throw std::runtime_error(options.out +
                             " belongs to the recording that is exported; choose another name");
  }
}

void exportRecording(const ExportOptions& options) {
  std::optional<PendingOutput> output;
  if (!options.writesToStandardOutput()) {
    checkApart(options);
    output.emplace(options.out,
                   options.isPartitioned ? PendingOutput::Kind::folder : PendingOutput::Kind::file,
                   options.replaces);
  }
  allowManyFiles();
  const recording::RecordingReader reader(Path::fromNarrow(options.folder),
                                          {true, 0, options.links});
  requireFinished(reader, options.folder);
  Losses losses(options.isStrict, "written");
  const auto signals = exportedSignals(reader, options, losses);
  const TableWriter::Target target{options.format, output ? output->path() : fs::path(),
                                   options.out, options.codec, options.isLong};
  ProgressBar bar;
  const auto progress = [&bar](double part) { bar.show("writing", part); };
  if (options.isLong) {
    LongTable table(reader, signals, options.window, progress);
    table.checkExact(losses);
    losses.settle();
    options.isPartitioned ? table.writePartitions(target.file, target) : table.writeTable(target);
  } else {
    WideTable table(reader, signals, options, losses);
    losses.settle();
    table.write(target, progress);
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
Unless you say otherwise the table is wide: it has the column "time" and a column for each signal.
All signals then need the same times. --long gives a table of the columns time, signal and value
instead, sorted by signal in the order of the recording, then by time. --partition gives the same as
a folder of files OUT/signal=NAME/part-0.parquet. Tables go through memory in pieces, however large
the recording is.

--resample gives all signals the same times. At each of these times a signal has its latest sample,
or with --method linear a number between two samples. It is null before the first sample, and with
linear after the last one as well. A sample counts for a time that it misses by at most 1e-9 of STEP
and two roundings.

--from, --to and --rows leave other rows out; in a long table, other rows of each signal. Values in
long tables are float64. A warning names what cannot be exported, and with --strict nothing is
written then. A table appears under its name only when it is whole, and never replaces another one
without --force. Units are in the metadata of the fields, and in the header of CSV.

Examples:
  kyr export run run.parquet
  kyr export run table.csv speed torque
  kyr export run part.parquet 'g*' --from 10 --to 20
  kyr export run run.parquet --resample 0.01 --method linear
  kyr export run run.parquet --long --compression zstd
  kyr export run dataset --long --partition signal
  kyr export run -o gears.csv 'g*'
  kyr export run - speed | head)help";

void addShapeOptions(CLI::App& command, ExportOptions& options, GivenOptions& given) {
  CLI::Option* isLong = command.add_flag("--long", options.isLong,
                                         "Write a row for each sample: time, signal, value");
  command
      .add_option("--partition", given.partition,
                  "Write the long table as a folder of files, one for each signal")
      ->type_name("signal")
      ->check(oneOf({"signal"}))
      ->needs(isLong);
  CLI::Option* resample =
      command
          .add_option(
              "--resample", given.resample,
              "Give all signals the same times: every STEP seconds, or with union all times "
              "of all signals")
          ->type_name("STEP|union")
          ->excludes(isLong);
  command
      .add_option("--method", given.method,
                  "How to resample: previous (unless given) holds the sample before, linear "
                  "interpolates")
      ->type_name("previous|linear")
      ->check(oneOf({"previous", "linear"}))
      ->needs(resample);
}

struct Options {
  ExportOptions understood;
  GivenOptions given;
};

void addExportOptions(CLI::App& command, Options& options) {
  addArgument(command, "RECORDING", options.understood.folder, "Folder of the recording");
  addLinksOption(command, options.understood.links);
  command
      .add_option("OUT", options.understood.out,
                  "New file, or - for standard output; must be given here or with -o")
      ->type_name("");
  addSignalArguments(command, options.understood.signals);
  command
      .add_option(
          "--format", options.given.format,
          "parquet, arrow or csv. Unless given, the ending of OUT decides (.parquet, .arrow, "
          ".feather, .csv). Without an ending it is parquet, for standard output csv")
      ->type_name("parquet|arrow|csv")
      ->check(oneOf({"parquet", "arrow", "csv"}));
  command.add_option("-o,--output", options.given.output, "The new file, in place of OUT")
      ->type_name("FILE");
  addShapeOptions(command, options.understood, options.given);
  addWindowOptions(command, options.given.window);
  addCompressionOption(command, options.given.settings);
  addSetOption(command, options.given.settings);
  command.add_flag("--strict", options.understood.isStrict,
                   "Write nothing if something cannot be exported");
  command.add_flag("-f,--force", options.understood.replaces,
                   "Replace the file OUT, or the partitions in OUT");
}

int runExport(const Options& options) {
  ExportOptions understood = options.understood;
  understand(options.given, understood);
  exportRecording(understood);
  return 0;
}

}  // namespace

void addExportCommand(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("export", "Write signals as one table");
  const auto options = std::make_shared<Options>();
  addExportOptions(*command, *options);
  command->footer(kFooter);
  setAction(*command, action, options, runExport);
}

}  // namespace kyr::tool
