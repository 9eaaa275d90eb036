#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "kyr/parquet/SafeStorage.h"
#include "kyr/parquet/StreamableSignal.h"
#include "kyr/recording/LiveRecording.h"
#include "support/Bench.h"
#include "support/Workloads.h"

/// Many signals that grow together, of which each has a few new rows when they are flushed.
namespace kyr::bench {

namespace {

constexpr std::size_t kRowsPerFlush = 100;

class ManySignals {
 public:
  ManySignals(const Path& folder, std::size_t count, bool syncs) : live_(folder, options(syncs)) {
    for (std::size_t i = 0; i < count; ++i) {
      const recording::SignalDescription description{
          static_cast<int>(i), "signal " + std::to_string(i), "m/s", "", {}};
      signals_.push_back(live_.addSignal(description, Double, Scalar));
    }
  }

  // A sample of each signal per step, time and data.
  void append(const std::vector<double>& values) {
    const double* value = values.data();
    for (std::size_t row = 0; row < kRowsPerFlush; ++row) {
      const double time = 0.001 * static_cast<double>(rows_++);
      for (const auto& signal : signals_) {
        signal->appendTime(&time, 1);
        signal->appendData(value++, sizeof(double), noDimensions_, noSizes_);
      }
    }
  }

  void flush() { live_.flush(); }

 private:
  static recording::LiveOptions options(bool syncs) {
    recording::LiveOptions result;
    if (syncs) result.storage.sync = parquet::SafeStorage::Sync::flush;
    return result;
  }

  const std::vector<std::vector<unsigned long>> noDimensions_;
  const std::vector<int> noSizes_;
  recording::LiveRecording live_;
  std::vector<std::shared_ptr<parquet::StreamableSignal>> signals_;
  std::size_t rows_ = 0;
};

// Writes as many bytes as a flush has to bring to disk, with one write(2).
class OneFile {
 public:
  OneFile(const fs::path& file, bool syncs)
      : fd_(open(file.c_str(), O_WRONLY | O_CREAT, 0644)), syncs_(syncs) {}
  ~OneFile() { close(fd_); }
  OneFile(const OneFile&) = delete;
  OneFile& operator=(const OneFile&) = delete;

  void write(const std::vector<double>& values) const {
    const std::size_t size = values.size() * sizeof(double);
    if (::write(fd_, values.data(), size) != static_cast<ssize_t>(size) ||
        (syncs_ && fdatasync(fd_) != 0)) {
      throw std::runtime_error("cannot write");
    }
  }

 private:
  int fd_;
  bool syncs_;
};

// Processor time; elapsed time where the disk is waited for.
void flushLive(benchmark::State& state) {
  const Folder folder;
  const auto count = static_cast<std::size_t>(state.range(0));
  const bool syncs = state.range(1) != 0;
  ManySignals signals(folder.path("recording"), count, syncs);
  const OneFile file(folder.file("one"), syncs);
  const auto timed = [&](auto&& work) { return syncs ? wallSeconds(work) : seconds(work); };
  Rounds rounds;
  std::size_t seed = 0;
  for (auto _ : state) {
    const std::vector<double> values = noise(count * kRowsPerFlush, ++seed);
    rounds.add("append", seconds([&] { signals.append(values); }));
    rounds.takeTurns({{"write", [&] { return timed([&] { file.write(values); }); }},
                      {"flush", [&] { return timed([&] { signals.flush(); }); }}});
    state.SetIterationTime(rounds.last("flush"));
  }
  const double nanoseconds = 1e9 / static_cast<double>(count * kRowsPerFlush);
  state.counters["append_ns"] = nanoseconds * rounds.median("append");
  state.counters["flush_ns"] = nanoseconds * rounds.median("flush");
  state.counters["flush_vs_write"] = rounds.ratio("flush", "write");
}

const bool registered = [] {
  auto* benchmark = benchmark::RegisterBenchmark("live_flush", flushLive);
  benchmark->ArgNames({"signals", "sync"})->ArgsProduct({{1'000, 10'000}, {0, 1}});
  benchmark->Iterations(10)->UseManualTime()->Unit(benchmark::kMillisecond);
  return true;
}();

}  // namespace

}  // namespace kyr::bench
