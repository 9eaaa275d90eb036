#include <arrow/status.h>
#include <benchmark/benchmark.h>

#include <memory>
#include <stdexcept>

#include "kyr/parquet/ParquetSerializerWorker.h"
#include "kyr/parquet/ParquetSignal.h"
#include "kyr/parquet/SignalPool.h"
#include "support/ArrowFiles.h"
#include "support/Bench.h"
#include "support/Workloads.h"

namespace kyr::bench {

namespace {

// One scalar signal over a time vector of its own.
struct Samples {
  explicit Samples(std::size_t count)
      : time(clockTimes(count)), values(noise(count)), data(bytesOf(values)) {}

  std::size_t bytes() const { return time.size() * sizeof(double) + data.size(); }

  std::vector<double> time;
  std::vector<double> values;
  std::vector<char> data;
};

std::shared_ptr<parquet::ParquetSignal> scalarSignal(parquet::SignalPool& pool) {
  auto signal = pool.getSignal(1);
  signal->setDataType(Double);
  signal->setCategory(Scalar);
  return signal;
}

double timeSetData(const Folder& folder, const Samples& samples) {
  parquet::SignalPool pool(folder.path("pool"));
  const auto signal = scalarSignal(pool);
  const double time = seconds([&] { signal->setData(samples.time, samples.data, {}, {}); });
  if (!signal->writeStatus().ok()) throw std::runtime_error(signal->writeStatus().ToString());
  return time;
}

double timeArrowWrites(const Folder& folder, const Samples& samples) {
  const auto time = tableOver(samples.time.data(), samples.time.size());
  const auto data = tableOver(samples.values.data(), samples.values.size());
  fs::create_directory(folder.file("arrow"));
  const double result = seconds([&] {
    writeFile(*time, folder.file("arrow") / "0");
    writeFile(*data, folder.file("arrow") / "1");
  });
  fs::remove_all(folder.file("arrow"));
  return result;
}

// Hashes content that the worker knows already, so that nothing is written.
double timeHashes(parquet::ParquetSerializerWorker& worker, const Samples& samples) {
  bool known = false;
  return seconds([&] {
    worker.getStorageIdForContent<double>(samples.time, {}, known);
    worker.getStorageIdForContent<double>(samples.values, {}, known);
  });
}

// setData(), compared with Arrow writing the same two tables with the same properties.
void writeSignal(benchmark::State& state) {
  const Samples samples(static_cast<std::size_t>(state.range(0)));
  const DictionaryOption dictionary(state.range(1) != 0);
  const Folder folder;
  parquet::ParquetSerializerWorker hasher;
  Rounds rounds;
  for (auto _ : state) {
    rounds.takeTurns({{"setData", [&] { return timeSetData(folder, samples); }},
                      {"arrow", [&] { return timeArrowWrites(folder, samples); }},
                      {"hash", [&] { return timeHashes(hasher, samples); }}});
    state.SetIterationTime(rounds.last("setData"));
  }
  reportThroughput(state, samples.time.size(), samples.bytes());
  state.counters["vs_arrow"] = rounds.ratio("setData", "arrow");
  state.counters["arrow_share"] = rounds.ratio("arrow", "setData");
  state.counters["hash_share"] = rounds.ratio("hash", "setData");
}

double timeGetData(parquet::ParquetSignal& signal, const Samples& samples) {
  std::vector<double> time;
  std::vector<char> data;
  std::vector<std::vector<std::size_t>> dims;
  const double result = secondsFromTrimmedHeap([&] { signal.getData(time, data, dims); });
  if (data != samples.data) throw std::runtime_error("other values came back");
  return result;
}

double timeArrowReads(const Folder& folder) {
  std::vector<double> time;
  std::vector<double> data;
  return secondsFromTrimmedHeap([&] {
    readFile(folder.file("pool") / "0", time);
    readFile(folder.file("pool") / "1", data);
  });
}

// getData(), compared with Arrow reading the same two files into vectors.
void readSignal(benchmark::State& state) {
  const Samples samples(static_cast<std::size_t>(state.range(0)));
  const DictionaryOption dictionary(state.range(1) != 0);
  const Folder folder;
  parquet::SignalPool pool(folder.path("pool"));
  const auto signal = scalarSignal(pool);
  signal->setData(samples.time, samples.data, {}, {});
  Rounds rounds;
  for (auto _ : state) {
    rounds.takeTurns({{"getData", [&] { return timeGetData(*signal, samples); }},
                      {"arrow", [&] { return timeArrowReads(folder); }}});
    state.SetIterationTime(rounds.last("getData"));
  }
  reportThroughput(state, samples.time.size(), samples.bytes());
  state.counters["vs_arrow"] = rounds.ratio("getData", "arrow");
}

// The content hash alone, through the call that answers whether content is known.
void contentHash(benchmark::State& state) {
  const auto values = noise(static_cast<std::size_t>(state.range(0)));
  parquet::ParquetSerializerWorker worker;
  bool known = false;
  for (auto _ : state) {
    benchmark::DoNotOptimize(worker.getStorageIdForContent<double>(values, {}, known));
  }
  reportThroughput(state, values.size(), values.size() * sizeof(double));
}

void sizesAndDictionary(benchmark::internal::Benchmark* workload) {
  workload->ArgNames({"samples", "dictionary"});
  workload->UseManualTime()->Unit(benchmark::kMicrosecond);
}

void registerSizes(const char* name, void (*workload)(benchmark::State&)) {
  struct Size {
    std::int64_t samples;
    int rounds;
  };
  for (const auto& [samples, rounds] :
       {Size{1'000, 401}, {10'000, 201}, {100'000, 51}, {1'000'000, 15}, {10'000'000, 5}}) {
    for (const int dictionary : {0, 1}) {
      auto* benchmark = benchmark::RegisterBenchmark(name, workload);
      sizesAndDictionary(benchmark);
      benchmark->Args({samples, dictionary})->Iterations(rounds);
    }
  }
}

const bool registered = [] {
  registerSizes("write_signal", writeSignal);
  registerSizes("read_signal", readSignal);
  benchmark::RegisterBenchmark("content_hash", contentHash)
      ->ArgName("samples")
      ->RangeMultiplier(10)
      ->Range(1'000, 10'000'000)
      ->Unit(benchmark::kMicrosecond);
  return true;
}();

}  // namespace

}  // namespace kyr::bench
