#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "kyr/parquet/SafeStorage.h"
#include "kyr/parquet/SignalPool.h"
#include "kyr/parquet/StreamableSignal.h"
#include "support/Bench.h"
#include "support/Workloads.h"

/// Pools with SafeStorage, compared with default pools, and with many signals.
namespace kyr::bench {

namespace {

using parquet::StreamableSignal;

const std::vector<std::vector<unsigned long>> kNoDimensions;
const std::vector<int> kNoSizes;

constexpr std::size_t kBatchRows = 65'536;

double timeSequential(parquet::SignalPool& pool, const std::vector<double>& times,
                      const std::vector<double>& values, std::size_t chunkRows) {
  const auto signal = pool.getStreamableSignal(1);
  signal->setBufferSize(kBatchRows);
  const double time = secondsFromTrimmedHeap([&] {
    for (std::size_t at = 0; at < values.size(); at += chunkRows) {
      const std::size_t rows = std::min(chunkRows, values.size() - at);
      signal->appendTime(&times[at], rows);
      signal->appendData(&values[at], rows * sizeof(double), kNoDimensions, kNoSizes);
    }
    signal->finish();
  });
  std::vector<char> read;
  std::vector<std::vector<unsigned long>> dimensions;
  signal->getData(0, values.size(), read, dimensions);
  if (read.size() != values.size() * sizeof(double) ||
      std::memcmp(read.data(), values.data(), read.size()) != 0) {
    throw std::runtime_error("the samples that were read are not those that were written");
  }
  return time;
}

// Appends time and data of one signal in chunks of \p chunk rows.
void appendToPools(benchmark::State& state) {
  const auto chunkRows = static_cast<std::size_t>(state.range(0));
  const std::size_t rows = chunkRows == 1 ? sizes().appendRows / 5 : sizes().appendRows;
  const DictionaryOption dictionary(state.range(1) != 0);
  const auto times = clockTimes(rows);
  const auto values = noise(rows);
  Rounds rounds;
  for (auto _ : state) {
    rounds.takeTurns({{"safe",
                       [&] {
                         const Folder folder;
                         parquet::SignalPool pool(folder.path("pool"), parquet::SafeStorage());
                         return timeSequential(pool, times, values, chunkRows);
                       }},
                      {"default", [&] {
                         const Folder folder;
                         const RowGroupMode mode;
                         parquet::SignalPool pool(folder.path("pool"));
                         return timeSequential(pool, times, values, chunkRows);
                       }}});
    state.SetIterationTime(rounds.last("safe"));
  }
  reportThroughput(state, 2 * rows, 2 * rows * sizeof(double));
  state.counters["throughput_vs_default"] = rounds.ratio("default", "safe");
  state.counters["ns_per_append"] = rounds.median("safe") * 1e9 * static_cast<double>(chunkRows) /
                                    (2 * static_cast<double>(rows));
}
BENCHMARK(appendToPools)
    ->ArgNames({"chunk", "dictionary"})
    ->Args({1, 0})
    ->Args({1'000, 0})
    ->Args({1'000, 1})
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);

struct Cost {
  double seconds = 0;
  double files = 0;
  double residentBytes = 0;
};

// Signals that append in turns: each step is one chunk of every signal.
Cost appendInTurn(std::size_t signals, std::size_t rows, std::size_t chunkRows, bool sharesTime) {
  const Folder folder;
  parquet::SignalPool pool(folder.path("pool"), parquet::SafeStorage());
  const auto times = clockTimes(rows + 1);
  const auto values = noise(rows + signals);
  std::vector<double> ownTimes(chunkRows);
  std::vector<std::shared_ptr<StreamableSignal>> all;
  for (std::size_t i = 0; i < signals; ++i) {
    all.push_back(pool.getStreamableSignal(static_cast<int>(i)));
  }
  Cost cost;
  cost.seconds = seconds([&] {
    for (std::size_t at = 0; at < rows; at += chunkRows) {
      const std::size_t count = std::min(chunkRows, rows - at);
      for (std::size_t i = 0; i < signals; ++i) {
        if (sharesTime) {
          all[i]->appendTime(&times[at], count);
        } else {
          for (std::size_t k = 0; k < count; ++k) {
            ownTimes[k] = times[at + k] + 1e-6 * static_cast<double>(i);
          }
          all[i]->appendTime(ownTimes.data(), count);
        }
        // All signals read the same noise, each from a place of its own.
        all[i]->appendData(&values[at + i], count * sizeof(double), kNoDimensions, kNoSizes);
      }
    }
    for (const auto& signal : all) signal->finish();
  });
  for (const auto& entry : fs::directory_iterator(folder.file("pool"))) {
    static_cast<void>(entry);
    ++cost.files;
  }
  struct rusage usage {};
  getrusage(RUSAGE_SELF, &usage);
  cost.residentBytes = static_cast<double>(usage.ru_maxrss) * 1024;
  return cost;
}

// Runs in a process of its own, so that the peak memory is that of this workload.
template <typename Work>
Cost inChild(Work&& work) {
  int ends[2];
  if (pipe(ends) != 0) throw std::runtime_error("no pipe");
  const pid_t child = fork();
  if (child == 0) {
    const Cost cost = work();
    const bool sent = write(ends[1], &cost, sizeof(cost)) == sizeof(cost);
    _exit(sent ? 0 : 1);
  }
  close(ends[1]);
  Cost cost;
  const bool received = read(ends[0], &cost, sizeof(cost)) == sizeof(cost);
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  if (!received || status != 0) throw std::runtime_error("a measurement failed");
  return cost;
}

void appendInTurnToSafePool(benchmark::State& state) {
  const auto signals = static_cast<std::size_t>(state.range(0));
  const auto rows = static_cast<std::size_t>(state.range(1));
  const auto chunkRows = static_cast<std::size_t>(state.range(2));
  const DictionaryOption dictionary(false);
  Cost shared;
  Cost own;
  for (auto _ : state) {
    shared = inChild([&] { return appendInTurn(signals, rows, chunkRows, true); });
    own = inChild([&] { return appendInTurn(signals, rows, chunkRows, false); });
    state.SetIterationTime(shared.seconds);
  }
  if (shared.files != static_cast<double>(signals) + 1) {
    throw std::runtime_error("signals that share their times have other files than one more");
  }
  reportThroughput(state, 2 * signals * rows);
  state.counters["vs_own_times"] = shared.seconds / own.seconds;
  state.counters["memory_vs_own_times"] = shared.residentBytes / own.residentBytes;
  state.counters["resident_MiB"] = shared.residentBytes / (1024 * 1024);
}
BENCHMARK(appendInTurnToSafePool)
    ->ArgNames({"signals", "rows", "chunk"})
    ->Args({1'000, 10'000, 1})
    ->Args({1'000, 100'000, 100})
    ->Args({1'000, 1'000'000, 100})
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace

}  // namespace kyr::bench
