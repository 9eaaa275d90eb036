#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <numeric>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "cli/CommandLine.h"
#include "cli/Output.h"
#include "cli/Settings.h"
#include "cli/TemporaryFolder.h"
#include "cli/Text.h"
#include "commands/Commands.h"
#include "commands/ImportCommand.h"
#include "commands/InfoCommand.h"
#include "csv/CsvTable.h"
#include "kyr/recording/RecordingReader.h"
#include "print/RecordingSummary.h"

namespace kyr::tool {

namespace fs = std::filesystem;

namespace {

struct DemoOptions {
  std::string folder;
  std::string data;
  bool replaces = false;
  std::vector<std::string> settings;
};

// The data lie beside an installed tool, or else in the source tree.
std::string bundledData() {
  const fs::path tool = fs::read_symlink("/proc/self/exe").parent_path();
  const fs::path file = fs::path("building-hvac") / "results_initialize_advance.csv";
  for (const fs::path& folder : {tool / KYR_INSTALLED_EXAMPLES, fs::path(KYR_SOURCE_EXAMPLES)}) {
    if (fs::exists(folder / file)) return (folder / file).lexically_normal().string();
  }
  throw std::runtime_error("the data of the demo are not installed; give a CSV file with --data");
}

template <typename T>
bool areSame(const std::vector<T>& a, const std::vector<T>& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0;
}

struct Samples {
  std::vector<double> time;
  std::vector<char> bytes;
};

// Keeps the samples of all columns.
class SampleList : public SampleSink {
 public:
  void append(const CsvColumn& column, const ColumnSamples& samples) override {
    Samples& kept = samples_[column.id];
    std::size_t size = samples.count * parquet::elementWidth(column.type);
    if (samples.lengths != nullptr) {
      size = std::accumulate(samples.lengths->begin(), samples.lengths->end(), std::size_t{0});
    }
    kept.time.insert(kept.time.end(), samples.times, samples.times + samples.count);
    kept.bytes.insert(kept.bytes.end(), samples.bytes, samples.bytes + size);
  }

  void drop(const CsvColumn& column) override { samples_.erase(column.id); }

  const Samples& of(const CsvColumn& column) { return samples_[column.id]; }

 private:
  std::map<int, Samples> samples_;
};

// Returns the number of samples that were compared.
std::uint64_t compareWithCsv(const std::string& file, const std::string& folder) {
  CsvTable table(file, {});
  SampleList samples;
  table.read(samples, {});
  const recording::RecordingReader reader(Path::fromNarrow(folder));
  std::uint64_t compared = 0;
  for (const CsvColumn& column : table.columns()) {
    const Samples& expected = samples.of(column);
    const recording::SampleRows read = reader.read(column.id);
    if (!areSame(read.bytes, expected.bytes) ||
        (!expected.bytes.empty() && !areSame(read.times, expected.time))) {
      throw std::runtime_error(
          fmt::format("signal {} differs from {}", inQuotes(column.name), file));
    }
    compared += expected.time.size();
  }
  return compared;
}

void printSummary(Output& out, const std::string& file, const recording::RecordingInfo& info,
                  std::uint64_t samples) {
  const RecordingSummary summary(info);
  out.print("\n{}, {}: equal to the CSV, bit for bit\n", counted(info.signals.size(), "signal"),
            counted(samples, "sample"));
  out.print("CSV file:         {:>15}\n", byteCount(fs::file_size(file)));
  out.print("stored:           {:>15} in {}\n", byteCount(summary.storedBytes()),
            counted(summary.fileCount(), "file"));
  out.print("saved by sharing: {:>15}\n", byteCount(summary.savedBytes()));
}

int runDemo(const DemoOptions& options) {
  constexpr std::size_t kShownSignals = 8;
  std::optional<TemporaryFolder> temporary;
  ImportOptions import;
  import.file = options.data.empty() ? bundledData() : options.data;
  import.folder = options.folder;
  if (import.folder.empty()) import.folder = temporary.emplace().path().join("demo").toNarrow();
  import.replaces = options.replaces;
  import.settings = options.settings;
  Output out;
  out.print("kyr import {} {}\n", import.file, import.folder);
  out.flush();
  importCsv(import);
  const recording::RecordingInfo info =
      recording::describeRecording(Path::fromNarrow(import.folder));
  out.print("\nkyr info {}\n", import.folder);
  printInfo(out, info, kShownSignals);
  out.flush();
  printSummary(out, import.file, info, compareWithCsv(import.file, import.folder));
  out.flush();
  return 0;
}

}  // namespace

void addDemoCommand(CLI::App& app, Action& action) {
  CLI::App* command =
      app.add_subcommand("demo", "Store a bundled recording and compare it with its source");
  const auto options = std::make_shared<DemoOptions>();
  command
      ->add_option("FOLDER", options->folder,
                   "Folder to keep the recording in; a temporary folder unless given")
      ->type_name("");
  command->add_option("--data", options->data, "CSV file to store in place of the bundled one")
      ->type_name("FILE");
  addSetOption(*command, options->settings);
  command->add_flag("--force", options->replaces, "Replace the recording in FOLDER");
  command->footer(R"help(
Examples:
  kyr demo
  kyr demo run --data run.csv --set Compression=zstd)help");
  setAction(*command, action, options, runDemo);
}

}  // namespace kyr::tool
