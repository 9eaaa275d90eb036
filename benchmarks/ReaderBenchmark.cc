#include <benchmark/benchmark.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "kyr/parquet/ParquetSignal.h"
#include "kyr/parquet/SafeStorage.h"
#include "kyr/parquet/SignalPool.h"
#include "kyr/recording/Recording.h"
#include "kyr/recording/RecordingReader.h"
#include "support/Bench.h"
#include "support/Workloads.h"

namespace kyr::bench {

namespace {

// Saves signals of a few rows, each with a content of its own, over one time vector.
void save(const Path& folder, const Path& pool, int signals, bool isPacked) {
  parquet::SafeStorage storage;
  storage.holdBelow = std::size_t{1} << 20U;
  parquet::SignalPool live(pool, storage);
  std::vector<recording::SignalDescription> descriptions(static_cast<std::size_t>(signals));
  for (int i = 0; i < signals; ++i) {
    const std::vector<double> time{0, 1, 2, 3};
    const auto signal = live.getSignal(i);
    signal->setDataType(Double);
    signal->setCategory(Scalar);
    signal->setData(time, bytesOf(noise(time.size(), static_cast<std::size_t>(i))), {}, {});
    descriptions[static_cast<std::size_t>(i)].signalId = i;
    descriptions[static_cast<std::size_t>(i)].name = "floor1_room" + std::to_string(i);
    descriptions[static_cast<std::size_t>(i)].unit = "degC";
  }
  recording::SaveOptions options;
  options.packBelow = isPacked ? storage.holdBelow : 0;
  options.sync = false;
  recording::saveRecording(live, descriptions, folder, options);
}

// Opening a recording of many signals, in units of parsing its recording.json.
void openReader(benchmark::State& state) {
  const Folder folder;
  const Path path = folder.path("recording");
  const auto signals = static_cast<int>(state.range(0));
  save(path, folder.path("pool"), signals, state.range(1) != 0);
  const fs::path description = folder.file("recording") / "recording.json";
  Rounds open;
  for (auto _ : state) {
    open.takeTurns({{"parse",
                     [&] {
                       return secondsFromTrimmedHeap([&] {
                         std::ifstream file(description);
                         const auto json = nlohmann::json::parse(file);
                         if (json["signals"].empty()) throw std::runtime_error("no signals");
                       });
                     }},
                    {"open", [&] {
                       return secondsFromTrimmedHeap([&] {
                         const recording::RecordingReader reader(path);
                         benchmark::DoNotOptimize(reader.signals().data());
                       });
                     }}});
    state.SetIterationTime(open.last("open"));
  }
  state.counters["open_vs_parse"] = open.ratio("open", "parse");
}

const bool registered = [] {
  for (const int isPacked : {0, 1}) {
    benchmark::RegisterBenchmark("open_reader", openReader)
        ->ArgNames({"signals", "packed"})
        ->Args({10'000, isPacked})
        ->Iterations(15)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
  }
  return true;
}();

}  // namespace

}  // namespace kyr::bench
