#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "kyr/parquet/ParquetSignal.h"
#include "kyr/parquet/SafeStorage.h"
#include "kyr/parquet/SignalPool.h"
#include "kyr/recording/Recording.h"
#include "support/Bench.h"
#include "support/Workloads.h"

namespace kyr::bench {

namespace {

using Signals = std::vector<std::vector<char>>;

constexpr std::size_t kRows = 200;
constexpr std::size_t kPackBelow = std::size_t{1} << 20U;

// Many small signals over one time vector, from the values to a saved recording and back.
// Destroying the pool is not measured.
struct Workload {
  explicit Workload(std::size_t count) : time(clockTimes(kRows)), signals(count) {
    for (std::size_t i = 0; i < count; ++i) {
      signals[i] = bytesOf(noise(kRows, i));
      recording::SignalDescription description;
      description.signalId = static_cast<int>(i);
      description.name = "signal " + std::to_string(i);
      descriptions.push_back(std::move(description));
    }
  }

  std::size_t bytes() const { return (signals.size() + 1) * kRows * sizeof(double); }

  std::vector<double> time;
  Signals signals;
  std::vector<recording::SignalDescription> descriptions;
};

class Descriptor {
 public:
  Descriptor(const fs::path& path, int flags) : fd_(::open(path.c_str(), flags, 0666)) {
    if (fd_ < 0) throw std::runtime_error("cannot open " + path.string());
  }
  ~Descriptor() { ::close(fd_); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

// Writes the same bytes to one file, with one call per signal. Nothing can be faster.
double timeOneFileWrite(const fs::path& path, const Workload& load) {
  fs::remove(path);
  return secondsFromTrimmedHeap([&] {
    const Descriptor file(path, O_WRONLY | O_CREAT | O_TRUNC);
    const auto put = [&](const void* data, std::size_t size) {
      if (::write(file.get(), data, size) != static_cast<ssize_t>(size)) {
        throw std::runtime_error("cannot write");
      }
    };
    put(load.time.data(), load.time.size() * sizeof(double));
    for (const auto& values : load.signals) put(values.data(), values.size());
  });
}

double timeOneFileRead(const fs::path& path, const Workload& load) {
  Signals values(load.signals.size());
  std::vector<double> time(kRows);
  return secondsFromTrimmedHeap([&] {
    const Descriptor file(path, O_RDONLY);
    const auto get = [&](void* data, std::size_t size) {
      if (::read(file.get(), data, size) != static_cast<ssize_t>(size)) {
        throw std::runtime_error("cannot read");
      }
    };
    get(time.data(), kRows * sizeof(double));
    for (auto& signal : values) {
      signal.resize(kRows * sizeof(double));
      get(signal.data(), signal.size());
    }
  });
}

double timeSave(const Folder& folder, const std::string& name, const Workload& load,
                const recording::SaveOptions& options) {
  fs::remove_all(folder.file(name));
  parquet::SafeStorage storage;
  storage.holdBelow = options.packBelow;
  std::unique_ptr<parquet::SignalPool> pool;
  return secondsFromTrimmedHeap([&] {
    pool = std::make_unique<parquet::SignalPool>(folder.path(name + ".pool"), storage);
    for (std::size_t i = 0; i < load.signals.size(); ++i) {
      const auto signal = pool->getSignal(static_cast<int>(i));
      signal->setDataType(Double);
      signal->setCategory(Scalar);
      signal->setData(load.time, load.signals[i], {}, {});
    }
    recording::saveRecording(*pool, load.descriptions, folder.path(name), options);
  });
}

double timeOpen(const Folder& folder, const std::string& name, const Workload& load) {
  Signals values(load.signals.size());
  std::vector<std::vector<double>> times(load.signals.size());
  std::optional<recording::Recording> opened;
  const double result = secondsFromTrimmedHeap([&] {
    opened.emplace(recording::openRecording(folder.path(name)));
    std::vector<std::vector<std::size_t>> dims;
    std::vector<double> time;
    for (std::size_t i = 0; i < values.size(); ++i) {
      opened->pool().getSignal(static_cast<int>(i))->getData(time, values[i], dims);
    }
  });
  if (values != load.signals) throw std::runtime_error("other values came back");
  return result;
}

// Recordings with packs or with a file per signal, each in units of one file of the same bytes.
// They run apart, because file systems make files slowly where thousands were just deleted.
void packedRecording(benchmark::State& state) {
  const Workload load(static_cast<std::size_t>(state.range(0)));
  const Folder folder;
  recording::SaveOptions packed;
  packed.packBelow = kPackBelow;
  packed.sync = false;
  recording::SaveOptions files;
  files.sync = false;
  const bool hasFiles = state.range(1) != 0;
  const std::string name = hasFiles ? "files" : "packed";
  const recording::SaveOptions& options = hasFiles ? files : packed;
  Rounds write;
  Rounds read;
  for (auto _ : state) {
    write.takeTurns({{"floor", [&] { return timeOneFileWrite(folder.file("floor"), load); }},
                     {name, [&] { return timeSave(folder, name, load, options); }}});
    read.takeTurns({{"floor", [&] { return timeOneFileRead(folder.file("floor"), load); }},
                    {name, [&] { return timeOpen(folder, name, load); }}});
    state.SetIterationTime(write.last(name));
  }
  reportThroughput(state, load.signals.size(), load.bytes());
  state.counters["write_vs_floor"] = write.ratio(name, "floor");
  state.counters["read_vs_floor"] = read.ratio(name, "floor");
  state.counters["floor_write_ms"] = 1e3 * write.median("floor");
  state.counters["floor_read_ms"] = 1e3 * read.median("floor");
}

const bool registered = [] {
  for (const auto& [files, rounds] : {std::pair{0, 21}, {1, 3}}) {
    benchmark::RegisterBenchmark("packed_recording", packedRecording)
        ->ArgNames({"signals", "files"})
        ->Args({5000, files})
        ->Iterations(rounds)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
  }
  return true;
}();

}  // namespace

}  // namespace kyr::bench
