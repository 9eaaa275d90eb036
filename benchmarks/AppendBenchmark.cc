#include <arrow/status.h>
#include <benchmark/benchmark.h>

#include <memory>
#include <optional>
#include <stdexcept>

#include "kyr/parquet/RedundancyChecker.h"
#include "kyr/parquet/RedundancyEliminator.h"
#include "kyr/parquet/SignalPool.h"
#include "kyr/parquet/StreamableSignal.h"
#include "support/Bench.h"
#include "support/Workloads.h"

/// Samples that arrive one by one, as a simulation makes them.
namespace kyr::bench {

namespace {

namespace checker = parquet::RedundancyChecker;
namespace eliminator = parquet::RedundancyEliminator;
using CheckerContext = checker::Context<unsigned long>;

struct Stream {
  std::vector<double> time;
  std::vector<double> data;
};

// Numbers all chunks in the order in which they are appended.
double timeChecker(const Stream& stream, std::vector<unsigned long>& numbers) {
  CheckerContext context;
  const std::size_t rows = stream.time.size();
  return secondsFromTrimmedHeap([&] {
    for (std::size_t i = 0; i < rows; ++i) {
      numbers[2 * i] = checker::processTimeAndCheck(&context, &stream.time[i], 1);
      numbers[2 * i + 1] =
          checker::processDataAndCheck(&context, &stream.data[i], sizeof(double), Double);
    }
  });
}

// Runs the eliminator with callbacks that only make the nodes of one-row chunks.
double timeEliminator(const std::vector<unsigned long>& numbers) {
  using Node = std::optional<std::unique_ptr<eliminator::FileNode>>;
  const auto registry = std::make_shared<eliminator::Registry>();
  const auto time = eliminator::CreateContext(registry);
  const auto data = eliminator::CreateContext(registry);
  unsigned long number = 0;
  int reused = 0;
  const eliminator::StartChain start = [&](const auto&, const auto&) -> Node {
    return eliminator::CreateNewFileNode(number, 1, 0, 1);
  };
  const eliminator::ExtendChain extend = [&](const eliminator::FileNode* current) -> Node {
    return eliminator::CreateNewFileNode(number, current->storageId, current->second + 1,
                                         current->second + 2);
  };
  const eliminator::ReuseChains reuse = [&](const auto&) { ++reused; };
  const double result = secondsFromTrimmedHeap([&] {
    for (std::size_t i = 0; i < numbers.size(); i += 2) {
      number = numbers[i];
      eliminator::EliminateRedundancy(time.get(), number, start, extend, reuse);
      number = numbers[i + 1];
      eliminator::EliminateRedundancy(data.get(), number, start, extend, reuse);
    }
  });
  if (reused > 0) throw std::runtime_error("the workload repeats itself");
  return result;
}

double timePushBack(const Stream& stream) {
  std::vector<double> time;
  std::vector<double> data;
  const double result = secondsFromTrimmedHeap([&] {
    for (std::size_t i = 0; i < stream.time.size(); ++i) {
      time.push_back(stream.time[i]);
      data.push_back(stream.data[i]);
    }
  });
  benchmark::DoNotOptimize(time.data());
  benchmark::DoNotOptimize(data.data());
  return result;
}

struct Streamed {
  double append = 0;
  double finish = 0;
  double bytesPerRow = 0;  // in memory before finish()
};

// Runs the signal itself. With 0 for \p batchRows the default stays, which these rows never fill.
Streamed timeSignal(const Stream& stream, unsigned long batchRows) {
  const Folder folder;
  const RowGroupMode mode;
  parquet::SignalPool pool(folder.path("pool"));
  const auto signal = pool.getStreamableSignal(1);
  if (batchRows > 0) signal->setBufferSize(batchRows);
  const std::vector<std::vector<unsigned long>> noDimensions;
  const std::vector<int> noSizes;
  const std::size_t rows = stream.time.size();
  const std::size_t before = allocatedBytes();
  Streamed result;
  result.append = secondsFromTrimmedHeap([&] {
    for (std::size_t i = 0; i < rows; ++i) {
      signal->appendTime(&stream.time[i], 1);
      signal->appendData(&stream.data[i], sizeof(double), noDimensions, noSizes);
    }
  });
  result.bytesPerRow =
      static_cast<double>(allocatedBytes() - before) / static_cast<double>(stream.time.size());
  result.finish = seconds([&] { signal->finish(); });
  if (!signal->writeStatus().ok()) throw std::runtime_error(signal->writeStatus().ToString());
  return result;
}

// One-row appends of time and data, compared with the steps that no append can do without, each
// measured alone.
void appendOneRow(benchmark::State& state) {
  const std::size_t rows = sizes().appendRows;
  const auto batchRows = static_cast<unsigned long>(state.range(0));
  const Stream stream{clockTimes(rows), state.range(1) != 0 ? quantised(rows) : noise(rows)};
  std::vector<unsigned long> numbers(2 * rows);
  timeChecker(stream, numbers);  // the first round may begin with the eliminator, which needs them
  Rounds rounds;
  for (auto _ : state) {
    rounds.takeTurns({{"checker", [&] { return timeChecker(stream, numbers); }},
                      {"eliminator", [&] { return timeEliminator(numbers); }},
                      {"push_back", [&] { return timePushBack(stream); }},
                      {"append", [&] {
                         const Streamed streamed = timeSignal(stream, batchRows);
                         rounds.add("all", streamed.append + streamed.finish);
                         rounds.add("bytes", streamed.bytesPerRow);
                         return streamed.append;
                       }}});
    rounds.add("parts",
               rounds.last("checker") + rounds.last("eliminator") + rounds.last("push_back"));
    state.SetIterationTime(rounds.last("append"));
  }
  reportThroughput(state, rows, rows * 2 * sizeof(double));
  const auto nsPerAppend = [&](const char* name) {
    return rounds.median(name) / static_cast<double>(2 * rows) * 1e9;
  };
  state.counters["vs_parts"] = rounds.ratio("append", "parts");
  state.counters["vs_parts_finished"] = rounds.ratio("all", "parts");
  for (const char* name : {"append", "checker", "eliminator", "push_back"}) {
    state.counters[std::string("ns_") + name] = nsPerAppend(name);
  }
  state.counters["bytes_per_row"] = rounds.median("bytes");
}

BENCHMARK(appendOneRow)
    ->Name("append_one_row")
    ->ArgNames({"batch", "repeating"})
    ->ArgsProduct({{0, 4'096}, {0, 1}})
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

}  // namespace

}  // namespace kyr::bench
