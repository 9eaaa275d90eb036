#include <arrow/status.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <memory>
#include <optional>
#include <stdexcept>

#include "kyr/parquet/ParquetSerializerWorker.h"
#include "kyr/parquet/ParquetSignal.h"
#include "kyr/parquet/SignalPool.h"
#include "kyr/parquet/StreamableWriter.h"
#include "kyr/recording/Recording.h"
#include "support/ArrowFiles.h"
#include "support/Bench.h"
#include "support/Workloads.h"

/// Directories and recordings of many files.
namespace kyr::bench {

namespace {

constexpr std::size_t kFiles = 10'000;
constexpr int kSignals = 1'000;
constexpr std::size_t kSamples = 10'000;

// Does what every program must do: lists the directory and, to recognise Parquet files, reads four
// bytes of each.
double timeListing(const fs::path& directory, bool readMagic) {
  std::size_t found = 0;
  const double time = seconds([&] {
    for (const auto& entry : fs::directory_iterator(directory)) {
      if (readMagic) {
        std::array<char, 4> magic{};
        const int file = ::open(entry.path().c_str(), O_RDONLY | O_CLOEXEC);
        if (::read(file, magic.data(), magic.size()) == 4) ++found;
        ::close(file);
      } else {
        ++found;
      }
    }
  });
  if (found != kFiles) throw std::runtime_error("files went missing");
  return time;
}

// Makes a directory of small Parquet files, which are hard links to one file.
void fillWithLinks(const Folder& folder, const std::string& name) {
  const std::vector<double> values = noise(200);
  writeFile(*tableOver(values.data(), values.size()), folder.file("original"));
  fs::create_directory(folder.file(name));
  for (std::size_t i = 0; i < kFiles; ++i) {
    fs::create_hard_link(folder.file("original"), folder.file(name) / std::to_string(i));
  }
}

// The time until a writer (row-group mode) or a worker (whole-file mode) knows its files.
template <typename Owner>
void openDirectory(benchmark::State& state) {
  constexpr bool kReadsFiles = std::is_same_v<Owner, parquet::StreamableWriter>;
  Rounds rounds;
  for (auto _ : state) {
    const Folder folder;
    fillWithLinks(folder, "files");
    std::unique_ptr<Owner> owner;
    const auto open = [&] { owner = std::make_unique<Owner>(folder.path("files")); };
    rounds.takeTurns({{"open", [&] { return seconds(open); }},
                      {"floor", [&] { return timeListing(folder.file("files"), kReadsFiles); }}});
    state.SetIterationTime(rounds.last("open"));
    if (owner->isParquetDirectoryEmpty()) throw std::runtime_error("no files were found");
    rounds.add("close", seconds([&] { owner.reset(); }));
  }
  reportThroughput(state, kFiles);
  state.counters["vs_listing"] = rounds.ratio("open", "floor");
  state.counters["us_per_file"] = rounds.median("open") / kFiles * 1e6;
  state.counters["us_per_file_deleted"] = rounds.median("close") / kFiles * 1e6;
}

BENCHMARK(openDirectory<parquet::StreamableWriter>)
    ->Name("open_directory/row_groups")
    ->UseManualTime()
    ->Iterations(7)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(openDirectory<parquet::ParquetSerializerWorker>)
    ->Name("open_directory/whole_files")
    ->UseManualTime()
    ->Iterations(7)
    ->Unit(benchmark::kMillisecond);

// A pool of signals over one time vector.
class ManySignals {
 public:
  explicit ManySignals(const Path& directory) : pool_(directory) {
    const std::vector<double> time = clockTimes(kSamples);
    for (int id = 0; id < kSignals; ++id) {
      const auto signal = pool_.getSignal(id);
      signal->setDataType(Double);
      signal->setCategory(Scalar);
      const auto data = bytesOf(noise(kSamples, static_cast<std::uint64_t>(id)));
      time_ += seconds([&] { signal->setData(time, data, {}, {}); });
      if (!signal->writeStatus().ok()) throw std::runtime_error(signal->writeStatus().ToString());
      descriptions_.push_back({id, "signal " + std::to_string(id), "m/s", "", {}});
    }
  }

  void save(const Path& folder) { recording::saveRecording(pool_, descriptions_, folder); }
  double writeTime() const { return time_; }

 private:
  parquet::SignalPool pool_;
  std::vector<recording::SignalDescription> descriptions_;
  double time_ = 0;
};

// Copies the files and, if \p flush says so, syncs them as a recording does.
void copyFiles(const fs::path& from, const fs::path& to, bool flush) {
  fs::create_directory(to);
  for (const auto& entry : fs::directory_iterator(from)) {
    fs::copy_file(entry.path(), to / entry.path().filename());
  }
  if (!flush) return;
  for (const auto& entry : fs::directory_iterator(to)) {
    const int file = ::open(entry.path().c_str(), O_RDONLY | O_CLOEXEC);
    if (::fsync(file) != 0) throw std::runtime_error("cannot flush " + entry.path().string());
    ::close(file);
  }
}

// Saves, describes and opens 1,000 signals of 10,000 samples.
void recording(benchmark::State& state) {
  const DictionaryOption dictionary(false);
  const Folder folder;
  ManySignals signals(folder.path("pool"));
  const std::size_t files = static_cast<std::size_t>(
      std::distance(fs::directory_iterator(folder.file("pool")), fs::directory_iterator()));
  const auto clear = [&](const char* name) { fs::remove_all(folder.file(name)); };
  Rounds rounds;
  for (auto _ : state) {
    clear("copy");
    clear("saved");
    const auto copy = [&](bool flush) {
      copyFiles(folder.file("pool"), folder.file("copy"), flush);
    };
    std::optional<recording::Recording> opened;
    rounds.takeTurns(
        {{"save", [&] { return wallSeconds([&] { signals.save(folder.path("saved")); }); }},
         {"flushed_copy", [&] { return wallSeconds([&] { copy(/*flush=*/true); }); }}});
    clear("copy");
    const auto open = [&] { opened.emplace(recording::openRecording(folder.path("saved"))); };
    rounds.takeTurns({{"open", [&] { return seconds(open); }},
                      {"copy", [&] { return seconds([&] { copy(/*flush=*/false); }); }}});
    rounds.add("describe", seconds([&] { recording::describeRecording(folder.path("saved")); }));
    state.SetIterationTime(rounds.last("save") + rounds.last("open"));
  }
  reportThroughput(state, kSignals * kSamples, kSignals * kSamples * sizeof(double));
  state.counters["files"] = static_cast<double>(files);
  state.counters["write_ms"] = signals.writeTime() * 1e3;
  for (const char* step : {"save", "open", "describe"}) {
    state.counters[std::string(step) + "_ms"] = rounds.median(step) * 1e3;
  }
  state.counters["save_vs_flushed_copy"] = rounds.ratio("save", "flushed_copy");
  state.counters["open_vs_copy"] = rounds.ratio("open", "copy");
}

BENCHMARK(recording)
    ->Name("recording")
    ->UseManualTime()
    ->Iterations(7)
    ->Unit(benchmark::kMillisecond);

}  // namespace

}  // namespace kyr::bench
